// The Broadcast WAV reader on arbitrary bytes: the two calls the Heron procedure makes on an in-progress
// audio file, ReadAudioFileInfo and, when it succeeded, the size repair of VerifyHeader, on an in-memory
// copy of the input.

#include "FuzzSupport.h"
#include "audio/AudioFile.h"

#include <QByteArray>

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    FuzzSupport::quietLog();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    QByteArray bytes(reinterpret_cast<const char*>(data), int(size));
    const QByteArray original = bytes;
    FuzzSupport::FileLikeBuffer buffer(&bytes);
    buffer.open(QIODevice::ReadWrite);

    unsigned int result;
    quint32 dataStart;
    {
        AudioFile audio(buffer);
        result = audio.ReadAudioFileInfo();
        dataStart = audio.dataStart();
        if (result == AudioFile::s_resultOk)
            result = audio.VerifyHeader();
    }
    buffer.close();

    if (result != AudioFile::s_resultOk && result != AudioFile::s_resultMissingChunks
        && result != AudioFile::s_resultDeviceError && result != AudioFile::s_resultUnsupported)
        FuzzSupport::fail("a result code outside 0, 8, 31 and 148");
    if (bytes.size() != original.size())
        FuzzSupport::fail("the size repair changed the file's length");
    // The repair writes only the two size fields: the RIFF size at 4 and the 'data' size before the data.
    for (int i = 0; i < bytes.size(); ++i) {
        const bool riffSize = i >= 4 && i < 8;
        const bool dataSize = qint64(i) >= qint64(dataStart) - 4 && qint64(i) < qint64(dataStart);
        if (bytes[i] != original[i] && !riffSize && !dataSize)
            FuzzSupport::fail("a byte other than the two size fields changed");
    }
    return 0;
}
