// The atom parser on arbitrary bytes, for both families: readFile walks the input as a movie file and
// pushes what it learns into the movie object, and initFileRead, the reader's entry point, walks it again
// and sets the movie up for reading; the frame queries then run on what was learned.

#include "FuzzSupport.h"
#include "movie/HeronQuickTimeFile.h"
#include "movie/QuickTimeFile.h"

#include <QBuffer>
#include <QByteArray>

#include <memory>

namespace {

// Heron keeps its frame map in caller storage, like the driver's work buffer.
unsigned short* heronFrameMap()
{
    static std::unique_ptr<unsigned short[]> storage(
        new unsigned short[Tern::QuickTimeFile::s_frameMapEntries]());
    return storage.get();
}

// What a reader asks after the walk; the answers are not checked, only that asking is safe.
void queryFrames(Tern::QuickTimeFile& movie)
{
    const quint32 total = movie.totalFrames();
    const quint32 asked = total < 4096 ? total + 1 : 4096;
    for (quint32 i = 0; i < asked; ++i) {
        Tern::quicktime_frametype_t type;
        unsigned int bytes;
        movie.frameSize(i, &type, &bytes);
    }
    quint64 sound = 0;
    quint64 video = 0;
    movie.calculateAVDuration(&sound, &video);
}

void checkNesting()
{
    if (Tern::QuickTimeAtom::nestingLevel != 0)
        FuzzSupport::fail("the nesting count did not return to 0");
}

// The bare walk, then the reader's entry point, which resets the reading state, walks again and sets the
// movie up from what it learned.
void parse(Tern::QuickTimeFile& movie, QIODevice& device)
{
    device.seek(0);
    movie.readFile();
    checkNesting();
    queryFrames(movie);
    movie.initFileRead(nullptr);
    checkNesting();
    queryFrames(movie);
    movie.closeFileRead();
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    FuzzSupport::quietLog();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    QByteArray bytes(reinterpret_cast<const char*>(data), int(size));
    const QByteArray original = bytes;
    // Read as a file (where a seek past the end is granted) and as a read-only buffer (where it is not).
    FuzzSupport::FileLikeBuffer file(&bytes);
    file.open(QIODevice::ReadOnly);
    QBuffer buffer(&bytes);
    buffer.open(QIODevice::ReadOnly);
    {
        // The bare walk of a movie from elsewhere: without a maker atom only the video frames count.
        Tern::QuickTimeFile movie(file);
        movie.importMode = true;
        parse(movie, file);
    }
    {
        // The bare walk as of the recorder's own movie: frame queries go by the maker atom's frame map.
        QuickTimeFile movie(buffer, heronFrameMap());
        parse(movie, buffer);
    }
    if (bytes != original)
        FuzzSupport::fail("reading changed the file");
    return 0;
}
