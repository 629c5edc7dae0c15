// What a WAV holds, for clipward-cli --info: the RIFF header and the chunks as the audio reader walks them,
// the 'fmt ', 'bext' and iXML values through the audio metadata library (and the 'bext' fields it passes
// over), the declared sizes against the file's; and what the audio finish would do, found by running it
// on a copy-on-write view of the file.

#include "audio/AudioFile.h"
#include "finalize/CopyOnWriteFile.h"
#include "finalize/Finalize.h"
#include "finalize/RecordingInfoParts.h"

#include <QFile>
#include <QtEndian>

namespace {

const int kRiffHeader = 12;
const int kChunkHeader = 8;
const qint64 kRiffSizeAt = 4;
// More chunks than this before the sound is no recorder's WAV; the list stops there.
const int kMaxChunks = 256;

// The 'bext' fields behind the 256-byte description, as offsets into the chunk's payload.
const int kOriginatorAt = 256;
const int kOriginatorBytes = 32;
const int kOriginatorReferenceAt = 288;
const int kOriginatorReferenceBytes = 32;
const int kDateAt = 320;
const int kDateBytes = 10;
const int kTimeAt = 330;
const int kTimeBytes = 8;
const int kVersionAt = 346;
const int kBextFixedBytes = 348; // up to and with the version

const char* const kFormatNames[] = { "PCM", "MPEG Layer III", "MPEG Layer II", "unknown" };

quint32 le32At(const QByteArray& bytes, int at)
{
    return qFromLittleEndian<quint32>(reinterpret_cast<const uchar*>(bytes.constData()) + at);
}

quint16 le16At(const QByteArray& bytes, int at)
{
    return qFromLittleEndian<quint16>(reinterpret_cast<const uchar*>(bytes.constData()) + at);
}

// A fixed-size text field: up to its first zero byte.
QString textField(const QByteArray& bytes, int at, int length)
{
    const QByteArray field = bytes.mid(at, length);
    const int end = field.indexOf('\0');
    return QString::fromLatin1(end < 0 ? field : field.left(end));
}

QString chunkIdText(const QByteArray& id)
{
    QString text;
    for (const char c : id)
        text += c >= 0x20 && c < 0x7F ? QChar(c) : QChar('?');
    return text;
}

struct Chunk
{
    QByteArray id;
    qint64 at = 0; // of its header
    quint32 size = 0; // declared payload bytes
};

// The chunks as AudioFile walks them: from behind the RIFF header, each at its predecessor's declared end
// (no pad byte). A 'data' chunk whose size is still 0 runs to the end of the file and ends the list.
QVector<Chunk> chunkList(QFile& file)
{
    QVector<Chunk> chunks;
    const qint64 fileSize = file.size();
    qint64 at = kRiffHeader;
    while (chunks.size() < kMaxChunks && at + kChunkHeader <= fileSize && file.seek(at)) {
        const QByteArray header = file.read(kChunkHeader);
        if (header.size() != kChunkHeader)
            break;
        Chunk chunk;
        chunk.id = header.left(4);
        chunk.at = at;
        chunk.size = le32At(header, 4);
        chunks << chunk;
        if (chunk.id == "data" && chunk.size == 0)
            break;
        at += kChunkHeader + qint64(chunk.size);
    }
    return chunks;
}

const Chunk* findChunk(const QVector<Chunk>& chunks, const char* id)
{
    for (const Chunk& chunk : chunks) {
        if (chunk.id == id)
            return &chunk;
    }
    return nullptr;
}

QByteArray payload(QFile& file, const Chunk& chunk, int bytes)
{
    return file.seek(chunk.at + kChunkHeader) ? file.read(qMin<qint64>(bytes, chunk.size)) : QByteArray();
}

QJsonObject formatObject(QFile& file, const Chunk* chunk, const AudioFile::AudioFileInfo& info)
{
    QJsonObject o;
    const QByteArray fmt = chunk ? payload(file, *chunk, 16) : QByteArray();
    const bool whole = fmt.size() == 16;
    o.insert("format_tag", whole ? QJsonValue(int(le16At(fmt, 0))) : QJsonValue());
    o.insert("format", kFormatNames[qMin<int>(info.formatKind, AudioFile::FormatUnknown)]);
    o.insert("channels", whole ? QJsonValue(int(le16At(fmt, 2))) : QJsonValue());
    o.insert("sample_rate", whole ? QJsonValue(qint64(le32At(fmt, 4))) : QJsonValue());
    o.insert("byte_rate", whole ? QJsonValue(qint64(le32At(fmt, 8))) : QJsonValue());
    o.insert("block_align", whole ? QJsonValue(int(le16At(fmt, 12))) : QJsonValue());
    o.insert("bits_per_sample", whole ? QJsonValue(int(le16At(fmt, 14))) : QJsonValue());
    return o;
}

QJsonObject bextObject(
    QFile& file, const Chunk& chunk, const AudioFile& audio, const AudioFile::AudioFileInfo& info)
{
    const QByteArray fixed = payload(file, chunk, kBextFixedBytes);
    const bool whole = fixed.size() == kBextFixedBytes;
    QJsonObject o;
    o.insert("description", QString::fromLatin1(audio.description()));
    o.insert(
        "originator", whole ? QJsonValue(textField(fixed, kOriginatorAt, kOriginatorBytes)) : QJsonValue());
    o.insert("originator_reference",
        whole ? QJsonValue(textField(fixed, kOriginatorReferenceAt, kOriginatorReferenceBytes))
              : QJsonValue());
    o.insert("origination_date", whole ? QJsonValue(textField(fixed, kDateAt, kDateBytes)) : QJsonValue());
    o.insert("origination_time", whole ? QJsonValue(textField(fixed, kTimeAt, kTimeBytes)) : QJsonValue());
    o.insert("time_reference", qint64(audio.timeReference()));
    o.insert("version", whole ? QJsonValue(int(le16At(fixed, kVersionAt))) : QJsonValue());
    // What the audio library makes of the description's keys and the time reference.
    const bool knownRate = info.frameRate < 7;
    o.insert("speed", knownRate ? QJsonValue(AudioFile::bwf_speed_text[info.frameRate]) : QJsonValue());
    const QString timecode = RecordingFacts::soundTimecodeText(info);
    o.insert("start_timecode", timecode.isEmpty() ? QJsonValue() : QJsonValue(timecode));
    o.insert("user_bits", QString("%1").arg(info.userBits, 8, 16, QChar('0')));
    o.insert("media", int(info.media));
    return o;
}

QJsonObject iXmlObject(const AudioFile& audio)
{
    QJsonObject o;
    const int state = audio.GetiXMLStatus();
    o.insert("bytes", int(audio.iXmlLength()));
    o.insert("state", state == 1 ? "none" : state == 2 ? "no closing </BWFXML>" : "complete");
    o.insert("free_room", audio.GetiXMLSpace());
    // Every field the library knows but the last, "<NAME>", which names the tracks below.
    for (int field = 0; field < AudioFile::s_metadataFieldCount - 1; ++field) {
        unsigned short length = 0;
        const char* value = audio.GetiXMLField(uchar(field), length);
        const QString tag = QString::fromLatin1(AudioFile::ixml_tag[field]).mid(1).chopped(1).toLower();
        o.insert(tag, value ? QJsonValue(QString::fromLatin1(value, length)) : QJsonValue());
    }
    const int count = audio.GetNumiXMLTracks();
    o.insert("track_count", count);
    QJsonArray tracks;
    for (int track = 0; track < qMin(count, 255); ++track) {
        int channelIndex = 0;
        unsigned short length = 0;
        const char* name = audio.GetiXMLTrackInfo(uchar(track), channelIndex, length);
        if (!name)
            continue;
        tracks << QJsonObject { { "interleave_index", track + 1 }, { "channel_index", channelIndex },
            { "name", QString::fromLatin1(name, length) } };
    }
    o.insert("tracks", tracks);
    return o;
}

QJsonObject dataObject(const Chunk& chunk, qint64 fileSize, const AudioFile::AudioFileInfo& info)
{
    const qint64 start = chunk.at + kChunkHeader;
    const qint64 toEnd = qMax<qint64>(0, fileSize - start);
    const qint64 frameBytes = qint64(RecordingFacts::soundFrameBytes(info.channels, info.bitsPerSample));
    QJsonObject o;
    o.insert("at", start);
    o.insert("declared_size", qint64(chunk.size));
    o.insert("bytes_to_file_end", toEnd);
    o.insert("sample_frames_to_file_end", frameBytes != 0 ? QJsonValue(toEnd / frameBytes) : QJsonValue());
    QString state;
    if (chunk.size == 0)
        state = QStringLiteral("cut off: the size is still 0, the sound runs to the file's end");
    else if (qint64(chunk.size) == toEnd)
        state = QStringLiteral("ends at the file's end");
    else if (qint64(chunk.size) < toEnd)
        state = QString("ends %1 bytes before the file's end").arg(toEnd - qint64(chunk.size));
    else
        state = QString("runs %1 bytes past the file's end").arg(qint64(chunk.size) - toEnd);
    o.insert("state", state);
    return o;
}

// The audio reader's result codes in words.
QString audioFailure(unsigned int result)
{
    switch (result) {
    case AudioFile::s_resultMissingChunks:
        return QStringLiteral("the chunks end without both 'fmt ' and 'data'");
    case AudioFile::s_resultDeviceError:
        return QStringLiteral("a read came up short: the header or a chunk runs past the end of the file");
    case AudioFile::s_resultUnsupported:
        return QStringLiteral("no RIFF/WAVE header, or a 'fmt ' the finish does not take (MPEG)");
    default:
        return QString("the audio reader stopped (code %1)").arg(result);
    }
}

} // namespace

namespace RecordingInfoParts {

bool describeSound(QFile& file, QJsonObject* info, QString* reason)
{
    if (!file.seek(0)) {
        *reason = QStringLiteral("the file cannot be read");
        return false;
    }
    const QByteArray header = file.read(kRiffHeader);
    if (header.size() != kRiffHeader || !header.startsWith("RIFF")) {
        *reason = header.startsWith("RIFF") ? QStringLiteral("a RIFF header cut short")
                                            : QStringLiteral("no RIFF header");
        return false;
    }
    const qint64 fileSize = file.size();
    const QString form = chunkIdText(header.mid(8, 4));
    QJsonObject riff { { "form", form }, { "declared_size", qint64(le32At(header, 4)) },
        { "declared_end", qint64(le32At(header, 4)) + kChunkHeader } };
    info->insert("riff", riff);
    const QVector<Chunk> chunks = chunkList(file);
    QJsonArray list;
    for (const Chunk& chunk : chunks)
        list << QJsonObject { { "id", chunkIdText(chunk.id) }, { "at", chunk.at },
            { "size", qint64(chunk.size) } };
    info->insert("chunks", list);
    if (header.mid(8, 4) != "WAVE") {
        *reason = QString("a RIFF file of form '%1', not WAVE").arg(form);
        return false;
    }

    AudioFile audio(file);
    const unsigned int result = audio.ReadAudioFileInfo();
    AudioFile::AudioFileInfo values = {};
    audio.GetFileInfo(&values);
    info->insert("audio_reader", result == AudioFile::s_resultOk ? QJsonValue("read") : audioFailure(result));
    info->insert("fmt", formatObject(file, findChunk(chunks, "fmt "), values));
    const Chunk* bext = findChunk(chunks, "bext");
    info->insert("bext", bext ? QJsonValue(bextObject(file, *bext, audio, values)) : QJsonValue());
    info->insert("ixml", findChunk(chunks, "iXML") ? QJsonValue(iXmlObject(audio)) : QJsonValue());
    const Chunk* data = findChunk(chunks, "data");
    info->insert("data", data ? QJsonValue(dataObject(*data, fileSize, values)) : QJsonValue());
    return true;
}

QJsonObject predictSoundFinish(const QString& path, NameState name)
{
    PredictedFinish prediction(path, name);
    QJsonObject& finish = prediction.fields();
    CopyOnWriteFile& view = prediction.view();
    if (!prediction.opened())
        return finish;
    // The audio finish itself: read the header, then repair the sizes.
    AudioFile audio(view);
    const unsigned int result = Finalize::finishHeronSound(audio, Tern::FinishStyle::Recorder);
    finish.insert("family", QLatin1String(Tern::soundFileFamily().name));
    QString outcome = QStringLiteral("finalized");
    QString extension = QStringLiteral(".wav");
    QJsonValue reason;
    if (!view.readFailure().isEmpty()) {
        outcome = QStringLiteral("left for the card");
        extension.clear();
        reason = QString("the card could not be read (%1)").arg(view.readFailure());
    } else if (result != AudioFile::s_resultOk) {
        outcome = QStringLiteral("given up");
        extension = QStringLiteral(".nra");
        reason = audioFailure(result);
    }
    finish.insert("outcome", outcome);
    finish.insert("reason", reason);
    finish.insert("name_after",
        extension.isEmpty() ? QJsonValue() : nameAfterFinish(path, name, ".zqa", extension, false));
    finish.insert("blocked_by", writeBlock(path));
    if (result == AudioFile::s_resultOk) {
        // The sizes as the finish leaves them.
        uchar field[4];
        const bool riffRead = view.seek(kRiffSizeAt) && view.read(reinterpret_cast<char*>(field), 4) == 4;
        finish.insert("riff_size_after",
            riffRead ? QJsonValue(qint64(qFromLittleEndian<quint32>(field))) : QJsonValue());
        const bool dataRead = audio.dataStart() >= 4 && view.seek(qint64(audio.dataStart()) - 4)
            && view.read(reinterpret_cast<char*>(field), 4) == 4;
        finish.insert("data_size_after",
            dataRead ? QJsonValue(qint64(qFromLittleEndian<quint32>(field))) : QJsonValue());
        finish.insert("sizes_changed", view.changed());
    }
    return finish;
}

} // namespace RecordingInfoParts
