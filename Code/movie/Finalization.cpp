// Building the movie index ('moov') of a recording from its counts, rates and frame map, writing it
// after the media, and closing 'mdat'. The per-sample tables are not built here: their atoms compute the
// entries from the frame map while they are written.

#include "movie/HeaderAtoms.h"
#include "movie/QuickTimeFile.h"
#include "movie/SampleDescriptions.h"
#include "movie/SampleTables.h"
#include "movie/StableStorage.h"

#include <QDebug>
#include <QFileDevice>
#include <QIODevice>

#include <limits>

namespace Tern {

namespace {

const quint16 kTrackVolume = 0x0100;    // 8.8 fixed point, 1.0
const quint32 kMediaRateOne = 0x00010000; // 16.16 fixed point, 1.0
const int kReelNameMax = 31;
const quint32 kTimecodeFrameNumberBytes = 4; // what a reader takes of a timecode sample

// Alignment targets: the byte this far into the next atom lands on a 512-byte boundary, which puts the
// first entry of a size table (after a 20-byte head) or an offset table (16-byte head) on the boundary.
const qint64 kSampleSizeTableHead = 20;
const qint64 kChunkOffsetTableHead = 16;

// The parts every track shares: 'trak' with its header, the edit list where the family or the finish
// style writes one, 'mdia' with its header and media handler. `trackDuration` is in the movie's time
// scale, `mediaDuration` in the media's. Returns the 'mdia' atom.
QuickTimeAtom* addTrackHead(QuickTimeFile* file, QuickTimeAtom* moov, quint32 trackId, quint32 trackDuration,
                            quint32 width, quint32 height, quint32 mediaTimeScale, quint32 mediaDuration,
                            quint32 handlerSubtype)
{
    QuickTimeAtom* trak = moov->addAtom(new QuickTimeTrackAtom());
    trak->addAtom(new QuickTimeTrackHeaderAtom(file, trackId, trackDuration, width, height, kTrackVolume));
    if (file->family().writesEditList || file->interchange()) {
        QuickTimeAtom* edts = trak->addAtom(new QuickTimeEditAtom());
        edts->addAtom(new QuickTimeEditListAtom(file, trackDuration, 0, kMediaRateOne));
    }
    QuickTimeAtom* mdia = trak->addAtom(new QuickTimeMediaAtom());
    mdia->addAtom(new QuickTimeMediaHeaderAtom(file, mediaTimeScale, mediaDuration));
    mdia->addAtom(new QuickTimeHandlerReferenceAtom(fourCC("mhlr"), handlerSubtype));
    return mdia;
}

// The data handler and the self-reference every media information atom carries.
void addDataReference(QuickTimeAtom* minf)
{
    minf->addAtom(new QuickTimeHandlerReferenceAtom(fourCC("dhlr"), fourCC("alis")));
    QuickTimeAtom* dinf = minf->addAtom(new QuickTimeDataInformationAtom());
    dinf->addAtom(new QuickTimeDataReferenceAtom());
}

// Sound samples of each track of the file's counts.
quint32 trackSoundSamples(const QuickTimeFile& file)
{
    return QuickTimeFile::soundSamplesPerTrack(file.soundChunks, file.audioSamplesPerChunk,
                                               file.firstChunkSamples, file.lastChunkSamples);
}

// A duration in the movie's time scale, rounded up so no sample falls outside it, and held to 32 bits.
quint32 inMovieTime(quint64 units, quint32 unitsPerSecond, quint32 movieTimeScale)
{
    if (unitsPerSecond == 0)
        return 0;
    const quint64 scaled = (units * movieTimeScale + unitsPerSecond - 1) / unitsPerSecond;
    return quint32(qMin<quint64>(scaled, std::numeric_limits<quint32>::max()));
}

// How long each kind of track lasts in the movie's time scale. The recorder's form gives every track the
// picture's duration (0 without video); the interchange form gives each its own and the movie, and its
// timecode, the longest (one frame when nothing else lasts).
struct TrackDurations
{
    quint32 picture = 0;
    quint32 sound = 0;
    quint32 movie = 0;
};

TrackDurations trackDurations(const QuickTimeFile& file, quint32 soundSamples)
{
    TrackDurations d;
    d.picture = file.sampleDuration * file.videoFrameCount; // 32-bit product, as the movie header's
    d.sound = d.picture;
    d.movie = d.picture;
    if (!file.interchange())
        return d;
    const bool hasSound = file.soundChunks != 0 && qint32(file.audioTracks) > 0;
    d.sound = hasSound ? inMovieTime(soundSamples, file.audioSampleRate, file.timeScale) : 0;
    d.movie = qMax(d.picture, d.sound);
    if (d.movie == 0)
        d.movie = file.sampleDuration;
    return d;
}

} // namespace

QuickTimeSampleDescription* QuickTimeFile::soundDescription()
{
    // The sound is little-endian: the 'enda' extension says so, but readers that ignore it take 'twos'
    // and 'in32' for big-endian, so the interchange form names 16-bit sound 'sowt' and describes 32-bit
    // sound as 'lpcm' with its byte order in the flags.
    if (interchange() && audioBytesPerSample == 4)
        return new QuickTimeLinearPcmSampleDescription(this, audioBytesPerSample, audioSampleRate);
    auto* description = new QuickTimeSoundSampleDescription(this, 0, audioSampleRate);
    if (interchange() && audioBytesPerSample == 2)
        description->dataFormat = fourCC("sowt");
    return description;
}

quint32 QuickTimeFile::soundSamplesPerTrack(
    quint32 chunks, quint32 samplesPerChunk, quint32 firstChunkSamples, quint32 lastChunkSamples)
{
    const quint32 A = chunks;
    const quint32 L = lastChunkSamples;
    const quint32 F = firstChunkSamples;
    return L + F + (A - (L != 0 ? 1 : 0) - (F != 0 ? 1 : 0)) * samplesPerChunk;
}

bool QuickTimeFile::indexFitsAtomSizes() const
{
    // Every table's bytes, counted in 64 bits, and a generous allowance per track for its headers,
    // descriptions and alignment: the whole 'moov' must stay within its 32-bit size.
    const quint64 kTrackAllowance = 4096;
    const quint64 V = videoFrameCount;
    const quint64 A = soundChunks;
    const quint64 T = timecodeSamples;
    const quint64 G = videoFramesPerChunk != 0 ? videoFramesPerChunk : 1;
    quint64 bytes = kTrackAllowance + 2 * quint64(totalFrames()); // movie header and maker atom
    bytes += kTrackAllowance + 12 * T;
    if (V != 0)
        bytes += kTrackAllowance + 4 * V + 8 * ((V + G - 1) / G);
    if (A != 0 && qint32(audioTracks) > 0) {
        const quint64 sizes = audioBytesPerSample == 0 ? 4 * quint64(trackSoundSamples(*this)) : 0;
        bytes += quint64(audioTracks) * (kTrackAllowance + 8 * A + sizes);
    }
    return bytes <= quint64(std::numeric_limits<quint32>::max());
}

bool QuickTimeFile::closeFile()
{
    if (!movieData)
        return false;
    m_spaceShortfall = 0;
    m_syncFailure.clear();
    // What a failed attempt appended is cut off again, so a retry finds the file as this one did.
    m_sizeBeforeClose = device.size();
    // The closing timecode sample (the family's, or the interchange form's) joins 'mdat' and the index
    // names it; its bytes go out in the same first write as the index's start, so a finish killed early
    // leaves nothing of itself or the start of an index a later run recognises.
    QByteArray leadIn;
    if (closeAppendsTimecodeSample()) {
        leadIn = closingTimecodeSample();
        listTimecodeSample();
        movieData->dataSize += quint64(leadIn.size());
    }

    if (!indexFitsAtomSizes()) {
        restoreSizeBeforeClose();
        return false;
    }

    QuickTimeAtom* moov = buildIndex(device.pos() + leadIn.size());
    const qint64 moovStart = moov->position;
    // The tree knows its size before a byte of it is written: when the card cannot take the index and the
    // closing block, nothing is written and the file stays as the recorder left it.
    const qint64 growth = moovStart + qint64(moov->size) + s_closingZeroBytes - device.size();
    const qint64 available = StableStorage::bytesAvailable(device);
    if (growth > 0 && available >= 0 && growth > available) {
        m_spaceShortfall = growth - available;
        restoreSizeBeforeClose();
        return false;
    }
    if (!writeAtomList(leadIn)) {
        restoreSizeBeforeClose();
        return false;
    }
    if (!finishMovieData())
        return false;
    qDebug("Recorded FILE Last Position Start:%lld End:%lld Size:%lld", moovStart, m_indexEnd,
           m_indexEnd - moovStart);
    return true;
}

QuickTimeAtom* QuickTimeFile::buildIndex(qint64 position)
{
    const quint32 V = videoFrameCount;
    const quint32 A = soundChunks;
    const quint32 T = timecodeSamples;
    const quint32 S = timeScale;
    const quint32 D = sampleDuration;
    const quint32 P = audioSamplesPerChunk;
    const quint32 F = firstChunkSamples;
    const quint32 L = lastChunkSamples;
    const quint32 G = videoFramesPerChunk;
    const quint32 B = audioBytesPerSample;
    const quint32 Q = trackSoundSamples(*this);
    const TrackDurations duration = trackDurations(*this, Q);
    const quint32 M = duration.picture;

    QuickTimeAtom* moov = addAtom(new QuickTimeMovieAtom());
    moov->position = position;
    QuickTimeAtom* udta = moov->addAtom(new QuickTimeUserDataAtom());
    udta->addAtom(new QuickTimeHaldenAtom(this));
    auto* mvhd = new QuickTimeMovieHeaderAtom(this);
    mvhd->duration = duration.movie;
    moov->addAtom(mvhd);

    // Timecode track, always present. The interchange form lists only the timecode sample the finish
    // appended right before the index, 4 bytes of frame number; the recorder's form lists every one.
    {
        const quint32 timecodeDuration = duration.movie;
        QuickTimeAtom* mdia =
            addTrackHead(this, moov, 1, timecodeDuration, 0, 0, S, timecodeDuration, fourCC("tmcd"));
        QuickTimeAtom* minf = mdia->addAtom(new QuickTimeMediaInformationAtom());
        QuickTimeAtom* gmhd = minf->addAtom(new QuickTimeBaseInformationHeaderAtom());
        gmhd->addAtom(new QuickTimeBaseMediaInformationAtom());
        QuickTimeAtom* tmcd = gmhd->addAtom(new QuickTimeTimecodeHeaderAtom());
        tmcd->addAtom(new QuickTimeTimecodeInformationAtom());
        addDataReference(minf);

        QuickTimeAtom* stbl = minf->addAtom(new QuickTimeSampleTableAtom());
        auto* stsd = new QuickTimeSampleDescriptionAtom(this);
        stbl->addAtom(stsd);
        auto* description = new QuickTimeTimecodeSampleDescription(this);
        stsd->addDescription(description);
        // The reel name rides behind the description as its extension, so the description counts it.
        QByteArray reel = reelName.toLatin1().left(kReelNameMax);
        auto* name = new QuickTimeSourceReferenceAtom(reel.data());
        stsd->addAtom(name);
        description->size += name->size;

        stbl->addAtom(new QuickTimeTimeToSampleAtom(this, 1, timecodeDuration));
        stbl->addAtom(new QuickTimeSampleToChunkAtom(this, 1, 0, 0, 0));
        if (interchange()) {
            stbl->addAtom(new QuickTimeSampleSizeAtom(this, quicktime_frametype_timecode, 1,
                                                      kTimecodeFrameNumberBytes));
            const quint64 samplePosition = quint64(position - s_timecodeSampleBytes);
            stbl->addAtom(new QuickTimeSingleChunkOffset64Atom(this, samplePosition));
        } else {
            stbl->addAtom(new QuickTimeSampleSizeAtom(this, quicktime_frametype_timecode, T, 0));
            stbl->addAtom(new QuickTimeChunkOffset64Atom(this, quicktime_frametype_timecode, T, 0, 1, 0, 0));
        }
    }

    quint32 nextTrackId = 2;
    if (V != 0) {
        QuickTimeAtom* mdia = addTrackHead(this, moov, nextTrackId, M, width, height, S, M, fourCC("vide"));
        QuickTimeAtom* minf = mdia->addAtom(new QuickTimeMediaInformationAtom());
        minf->addAtom(new QuickTimeVideoInformationAtom());
        addDataReference(minf);

        QuickTimeAtom* stbl = minf->addAtom(new QuickTimeSampleTableAtom());
        auto* stsd = new QuickTimeSampleDescriptionAtom(this);
        stbl->addAtom(stsd);
        if (videoCodecType == quicktime_codec_prores422 || videoCodecType == quicktime_codec_prores4444)
            stsd->addDescription(new QuickTimeProResVideoSampleDescription(this));
        else if (videoCodecType == quicktime_codec_dnxhd)
            stsd->addDescription(new QuickTimeAvidVideoSampleDescription(this));

        const quint32 chunks = (V + G - 1) / G;
        stbl->addAtom(new QuickTimeTimeToSampleAtom(this, V, D));
        stbl->addAtom(new QuickTimeSampleToChunkAtom(this, G, chunks, V % G, 0));
        alignNextAtom(stbl, kSampleSizeTableHead);
        stbl->addAtom(new QuickTimeSampleSizeAtom(this, quicktime_frametype_video, V, 0));
        alignNextAtom(stbl, kChunkOffsetTableHead);
        stbl->addAtom(new QuickTimeChunkOffset64Atom(this, quicktime_frametype_video, V, 0, G, 0, 0));
        ++nextTrackId;
    }

    // One mono sound track per channel; the recorder lays each chunk out planar, track after track, so
    // track i's part of a chunk starts i track-parts into it.
    if (A != 0 && qint32(audioTracks) > 0) {
        // The tracks' chunk offset tables share one walk of the frame map. Their places are final once
        // built as long as every table between them is too: with a sample size the size tables are.
        const auto soundChunkTables = B != 0 ? std::make_shared<QuickTimeChunkOffsetGroup>() : nullptr;
        for (quint32 i = 0; i < audioTracks; ++i, ++nextTrackId) {
            QuickTimeAtom* mdia = addTrackHead(this, moov, nextTrackId, duration.sound, 0, 0, audioSampleRate,
                                               Q, fourCC("soun"));
            QuickTimeAtom* minf = mdia->addAtom(new QuickTimeMediaInformationAtom());
            minf->addAtom(new QuickTimeSoundInformationAtom());
            addDataReference(minf);

            QuickTimeAtom* stbl = minf->addAtom(new QuickTimeSampleTableAtom());
            auto* stsd = new QuickTimeSampleDescriptionAtom(this);
            stbl->addAtom(stsd);
            stsd->addDescription(soundDescription());

            stbl->addAtom(new QuickTimeTimeToSampleAtom(this, Q, 1));
            stbl->addAtom(new QuickTimeSampleToChunkAtom(this, P, A, L, F));
            alignNextAtom(stbl, kSampleSizeTableHead);
            stbl->addAtom(new QuickTimeSampleSizeAtom(this, quicktime_frametype_sound, Q, B));
            alignNextAtom(stbl, kChunkOffsetTableHead);
            // A short first chunk is handed over but not used by the writer: the first chunk is
            // addressed like a full one.
            auto* co64 = new QuickTimeChunkOffset64Atom(this, quicktime_frametype_sound, A, P * i * B, 1,
                                                        L != 0 ? L * B * i : 0, F * B * i);
            stbl->addAtom(co64);
            if (soundChunkTables) {
                co64->group = soundChunkTables;
                soundChunkTables->tables << co64;
            }
        }
    }

    // A movie with neither picture nor sound: an empty caption lasting the movie, so that players that
    // refuse a movie with nothing to present open it. Its sample is the empty text (a length of 0) that the
    // zeros behind the frame number in the finish's own timecode sample hold.
    if (interchange() && V == 0 && nextTrackId == 2)
        addEmptyCaptionTrack(moov, nextTrackId, duration.movie, position - s_timecodeSampleBytes + 4);

    return moov;
}

void QuickTimeFile::addEmptyCaptionTrack(QuickTimeAtom* moov, quint32 trackId, quint32 duration,
                                         qint64 samplePosition)
{
    const quint32 kEmptyTextBytes = 2; // the text's 16-bit length, 0
    QuickTimeAtom* mdia =
        addTrackHead(this, moov, trackId, duration, 0, 0, timeScale, duration, fourCC("sbtl"));
    QuickTimeAtom* minf = mdia->addAtom(new QuickTimeMediaInformationAtom());
    QuickTimeAtom* gmhd = minf->addAtom(new QuickTimeBaseInformationHeaderAtom());
    gmhd->addAtom(new QuickTimeBaseMediaInformationAtom());
    addDataReference(minf);
    QuickTimeAtom* stbl = minf->addAtom(new QuickTimeSampleTableAtom());
    auto* stsd = new QuickTimeSampleDescriptionAtom(this);
    stbl->addAtom(stsd);
    stsd->addDescription(new QuickTimeTextSampleDescription());
    stbl->addAtom(new QuickTimeTimeToSampleAtom(this, 1, duration));
    stbl->addAtom(new QuickTimeSampleToChunkAtom(this, 1, 0, 0, 0));
    stbl->addAtom(new QuickTimeSampleSizeAtom(this, quicktime_frametype_unknown, 1, kEmptyTextBytes));
    stbl->addAtom(new QuickTimeSingleChunkOffset64Atom(this, quint64(samplePosition)));
}

// Closes the file behind a written index: the 512 zero bytes, then the final 'mdat' header. Each step
// reaches the disk before the next, so until the header is patched the file still reads as unfinished and
// a later attempt writes the same index in the same place; the header is the last byte to change.
bool QuickTimeFile::finishMovieData()
{
    m_indexEnd = device.pos();
    const bool indexWritten = device.write(QByteArray(s_closingZeroBytes, '\0')) == s_closingZeroBytes
                           && StableStorage::sync(device, &m_syncFailure);
    if (!indexWritten) {
        restoreSizeBeforeClose();
        return false;
    }
    const qint64 closedEnd = device.pos();
    if (!device.seek(s_datPos)) {
        restoreSizeBeforeClose();
        return false;
    }
    // One write for the whole header, so it changes at once or not at all.
    QByteArray header;
    QDataStream headerStream(&header, QIODevice::WriteOnly);
    movieData->write(headerStream);
    if (device.write(header) != header.size()) {
        // The header still reads as unfinished: take the index away again so a retry starts afresh.
        restoreSizeBeforeClose();
        return false;
    }
    // A failed sync leaves the header's fate to the disk; the index it may point at stays in place.
    const bool patched = StableStorage::sync(device, &m_syncFailure);
    device.seek(closedEnd);
    return patched;
}

void QuickTimeFile::restoreSizeBeforeClose()
{
    if (auto* file = qobject_cast<QFileDevice*>(&device)) {
        if (file->size() > m_sizeBeforeClose)
            file->resize(m_sizeBeforeClose);
    }
}

} // namespace Tern
