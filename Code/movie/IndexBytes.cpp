// Reading a finished movie's index for the sample table check: its top-level atoms, atoms inside the
// bytes of its 'moov', and what a movie this library finished says about itself.

#include "movie/IndexBytes.h"

#include "movie/MovieFamily.h"
#include "movie/QuickTimeFile.h"
#include "movie/SampleTableCheck.h"

#include <QIODevice>

#include <algorithm>

namespace IndexBytes {

namespace {

// An index this large is no recorder's; reading it whole would be a damaged size's doing.
const quint64 kMaxIndexBytes = 512ull * 1024 * 1024;

} // namespace

QString readIndex(QIODevice& file, QByteArray* moov, QVector<FileSpan>* media)
{
    FileSpan moovSpan;
    if (!readTopLevelAtoms(file, &moovSpan, media))
        return QStringLiteral("the top-level atoms do not lead to a 'moov'");
    if (moovSpan.end - moovSpan.begin > kMaxIndexBytes || !file.seek(qint64(moovSpan.begin)))
        return QStringLiteral("the 'moov' cannot be read");
    *moov = file.read(qint64(moovSpan.end - moovSpan.begin));
    if (quint64(moov->size()) != moovSpan.end - moovSpan.begin)
        return QStringLiteral("the 'moov' cannot be read");
    return QString();
}

Atom child(const QByteArray& bytes, int from, int to, quint32 type, int nth)
{
    for (int at = from; at + 8 <= to;) {
        const quint32 size = be32(bytes, at);
        if (size < 8 || size > quint32(to - at))
            return Atom();
        if (be32(bytes, at + 4) == type && nth-- == 0)
            return Atom { type, at + 8, at + int(size) };
        at += int(size);
    }
    return Atom();
}

QVector<quint16> recorderFrameMap(QIODevice& file, const Tern::MovieFamily* family)
{
    QVector<quint16> map;
    if (!family || !family->checkReadsRegionMap)
        return map;
    if (!file.seek(family->recoveryFrameMapPos))
        return map;
    const QByteArray bytes = file.read(Tern::QuickTimeFile::s_frameMapBytes);
    const auto* entries = reinterpret_cast<const uchar*>(bytes.constData());
    for (int i = 0; i + 1 < bytes.size(); i += 2) {
        const quint16 entry = qFromLittleEndian<quint16>(entries + i);
        if (entry == 0)
            break;
        map << entry;
    }
    return map;
}

namespace {

// The counts and rates behind the maker atom's version and flags: the constant and the interlace flag,
// the entry count, then the counts of video frames, sound chunks and timecode samples.
void readMakerCounts(const QByteArray& moov, const Atom& hldn, OwnMovie* own)
{
    own->videoFrames = be32(moov, hldn.payload + 16);
    if (hldn.end - hldn.payload >= 44) {
        // The recorder's nine values follow the counts: the third is the frame rate in hundredths (the
        // field rate when interlaced), the fourth the drop-frame flag.
        const bool interlaced = be32(moov, hldn.payload + 8) != 0;
        const quint32 rate = be32(moov, hldn.payload + 36);
        Tern::QuickTimeFile::calculateVideoInfoFromFrameRate(
            interlaced ? rate >> 1 : rate, &own->frameDuration, &own->frameTimeScale);
        own->dropFrame = be32(moov, hldn.payload + 40) != 0;
    }
}

// The frame list whose entries end the maker atom; false when they do not fit it, or when the list is
// not the start of the recorder's map (`own` notes that).
bool readFrameList(const QByteArray& moov, const Atom& hldn, const QVector<quint16>& recorderMap,
                   QVector<quint16>* list, OwnMovie* own)
{
    const quint32 entries = be32(moov, hldn.payload + 12);
    if (quint64(entries) * 2 > quint64(hldn.end - hldn.payload - 28))
        return false;
    *list = QVector<quint16>(static_cast<int>(entries), 0);
    for (int i = 0, at = hldn.end - 2 * int(entries); i < int(entries); ++i, at += 2)
        (*list)[i] = be16(moov, at);
    // Chunks of unknown type are listed but not counted, so such a list ends before the movie's last
    // chunks. A Tern movie still holds the recorder's whole map in its reserved region: the list must be
    // its start, and the map goes on where the list stops.
    const bool endsEarly = std::any_of(list->begin(), list->end(), [](quint16 entry) {
        return (entry >> Tern::QuickTimeFile::s_frameTypeShift) == Tern::quicktime_frametype_unknown;
    });
    if (endsEarly && !recorderMap.isEmpty()) {
        if (recorderMap.mid(0, list->size()) != *list) {
            own->listDiffersFromMap = true;
            return false;
        }
        *list = recorderMap;
    }
    return true;
}

// Where the list puts each video frame, sound chunk and timecode sample: one after another from the
// start of the media (`mediaStart`), each as long as its entry's blocks.
void placeListedChunks(const QVector<quint16>& list, qint64 mediaStart, OwnMovie* own)
{
    quint64 position = quint64(mediaStart);
    for (const quint16 entry : list) {
        const quint32 bytes = quint32(entry & Tern::QuickTimeFile::s_blockCountMask)
            << Tern::QuickTimeFile::s_blockShift;
        switch (entry >> Tern::QuickTimeFile::s_frameTypeShift) {
        case Tern::quicktime_frametype_video:
            own->videoOffsets << position;
            own->videoBytes << bytes;
            break;
        case Tern::quicktime_frametype_sound:
            own->soundChunkOffsets << position;
            break;
        case Tern::quicktime_frametype_timecode:
            own->timecodeOffsets << position;
            own->timecodeBytes << bytes;
            break;
        default:
            break; // chunks of unknown type take their place and nothing else
        }
        position += bytes;
    }
}

} // namespace

OwnMovie ownMovie(const QByteArray& moov, const QVector<quint16>& recorderMap, qint64 mediaStart)
{
    OwnMovie own;
    const Atom mvhd = child(moov, 8, moov.size(), code("mvhd"));
    const Atom udta = child(moov, 8, moov.size(), code("udta"));
    const Atom hldn = udta.valid() ? child(moov, udta.payload, udta.end, code("hldn")) : Atom();
    if (!mvhd.valid() || mvhd.end - mvhd.payload < 16 || !hldn.valid() || hldn.end - hldn.payload < 28)
        return own;
    own.present = true;
    own.movieTimeScale = be32(moov, mvhd.payload + 12);
    own.movieDuration = be32(moov, mvhd.payload + 16);
    readMakerCounts(moov, hldn, &own);
    QVector<quint16> list;
    if (!readFrameList(moov, hldn, recorderMap, &list, &own))
        return own;
    placeListedChunks(list, mediaStart, &own);
    const quint32 timecodeSamples = be32(moov, hldn.payload + 24);
    own.listComplete = quint32(own.timecodeOffsets.size()) == timecodeSamples;
    return own;
}

} // namespace IndexBytes

bool readTopLevelAtoms(QIODevice& file, FileSpan* moov, QVector<FileSpan>* media)
{
    const quint64 size = quint64(file.size());
    quint64 pos = 0;
    while (pos + 8 <= size && file.seek(qint64(pos))) {
        uchar header[16];
        if (file.read(reinterpret_cast<char*>(header), 8) != 8)
            return false;
        quint64 atomSize = qFromBigEndian<quint32>(header);
        const quint32 type = qFromBigEndian<quint32>(header + 4);
        quint64 headerSize = 8;
        if (atomSize == 1) {
            if (file.read(reinterpret_cast<char*>(header + 8), 8) != 8)
                return false;
            atomSize = qFromBigEndian<quint64>(header + 8);
            headerSize = 16;
        } else if (atomSize == 0) {
            atomSize = size - pos;
        }
        if (atomSize < headerSize || atomSize > size - pos)
            return false;
        if (type == IndexBytes::code("mdat"))
            *media << FileSpan { pos + headerSize, pos + atomSize };
        else if (type == IndexBytes::code("moov") && !moov->valid())
            *moov = FileSpan { pos, pos + atomSize };
        pos += atomSize;
    }
    return moov->valid();
}
