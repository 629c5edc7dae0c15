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

// A track's sample table and its sample description atom, the first thing in it.
struct SampleTable
{
    QuickTimeAtom* stbl;
    QuickTimeSampleDescriptionAtom* stsd;
};

// What closes every media information atom, behind its media's own header: the data reference, then
// the sample table, opened by its (still empty) 'stsd'.
SampleTable addDataAndSampleTable(QuickTimeFile* file, QuickTimeAtom* minf)
{
    addDataReference(minf);
    QuickTimeAtom* stbl = minf->addAtom(new QuickTimeSampleTableAtom());
    auto* stsd = new QuickTimeSampleDescriptionAtom(file);
    stbl->addAtom(stsd);
    return SampleTable { stbl, stsd };
}

// Whether the index has sound tracks: sound chunks were recorded and the track count, read as a signed
// number, is above 0.
bool hasSoundTracks(const QuickTimeFile& file)
{
    return file.soundChunks != 0 && qint32(file.audioTracks) > 0;
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
    TrackDurations durations;
    durations.picture = file.sampleDuration * file.videoFrameCount; // 32-bit product, as the movie header's
    durations.sound = durations.picture;
    durations.movie = durations.picture;
    if (!file.interchange())
        return durations;
    durations.sound
        = hasSoundTracks(file) ? inMovieTime(soundSamples, file.audioSampleRate, file.timeScale) : 0;
    durations.movie = qMax(durations.picture, durations.sound);
    if (durations.movie == 0)
        durations.movie = file.sampleDuration;
    return durations;
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
    // The short chunks hold their own counts; every other chunk is full.
    const quint32 fullChunks = chunks - (lastChunkSamples != 0 ? 1 : 0) - (firstChunkSamples != 0 ? 1 : 0);
    return lastChunkSamples + firstChunkSamples + fullChunks * samplesPerChunk;
}

bool QuickTimeFile::indexFitsAtomSizes() const
{
    // Every table's bytes, counted in 64 bits, and a generous allowance per track for its headers,
    // descriptions and alignment: the whole 'moov' must stay within its 32-bit size.
    const quint64 kTrackAllowance = 4096;
    const quint64 frames = videoFrameCount;
    const quint64 chunks = soundChunks;
    const quint64 timecodes = timecodeSamples;
    const quint64 framesPerChunk = videoFramesPerChunk != 0 ? videoFramesPerChunk : 1;
    quint64 bytes = kTrackAllowance + 2 * quint64(totalFrames()); // movie header and maker atom
    bytes += kTrackAllowance + 12 * timecodes;
    if (frames != 0)
        bytes += kTrackAllowance + 4 * frames + 8 * ((frames + framesPerChunk - 1) / framesPerChunk);
    if (hasSoundTracks(*this)) {
        const quint64 sizes = audioBytesPerSample == 0 ? 4 * quint64(trackSoundSamples(*this)) : 0;
        bytes += quint64(audioTracks) * (kTrackAllowance + 8 * chunks + sizes);
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
    const QByteArray leadIn = appendClosingTimecodeSample();

    if (!indexFitsAtomSizes()) {
        restoreSizeBeforeClose();
        return false;
    }

    QuickTimeAtom* moov = buildIndex(device.pos() + leadIn.size());
    const qint64 moovStart = moov->position;
    if (!cardTakesIndex(moov) || !writeAtomList(leadIn)) {
        restoreSizeBeforeClose();
        return false;
    }
    if (!finishMovieData())
        return false;
    qDebug("Recorded FILE Last Position Start:%lld End:%lld Size:%lld", moovStart, m_indexEnd,
           m_indexEnd - moovStart);
    return true;
}

// The closing timecode sample (the family's, or the interchange form's) joins 'mdat' and the index
// names it; its bytes go out in the same first write as the index's start, so a finish killed early
// leaves nothing of itself or the start of an index a later run recognises.
QByteArray QuickTimeFile::appendClosingTimecodeSample()
{
    QByteArray leadIn;
    if (closeAppendsTimecodeSample()) {
        leadIn = closingTimecodeSample();
        listTimecodeSample();
        movieData->dataSize += quint64(leadIn.size());
    }
    return leadIn;
}

// The tree knows its size before a byte of it is written: when the card cannot take the index and the
// closing block, nothing is written and the file stays as the recorder left it.
bool QuickTimeFile::cardTakesIndex(const QuickTimeAtom* moov)
{
    const qint64 growth = moov->position + qint64(moov->size) + s_closingZeroBytes - device.size();
    const qint64 available = StableStorage::bytesAvailable(device);
    if (growth > 0 && available >= 0 && growth > available) {
        m_spaceShortfall = growth - available;
        return false;
    }
    return true;
}

QuickTimeAtom* QuickTimeFile::buildIndex(qint64 position)
{
    const quint32 soundSamples = trackSoundSamples(*this);
    const TrackDurations duration = trackDurations(*this, soundSamples);

    QuickTimeAtom* moov = addAtom(new QuickTimeMovieAtom());
    moov->position = position;
    addMovieHeader(moov, duration.movie);
    addTimecodeTrack(moov, duration.movie, position);
    quint32 nextTrackId = 2;
    if (videoFrameCount != 0)
        addVideoTrack(moov, nextTrackId++, duration.picture);
    if (hasSoundTracks(*this))
        nextTrackId = addSoundTracks(moov, nextTrackId, duration.sound, soundSamples);

    // A movie with neither picture nor sound: an empty caption lasting the movie, so that players that
    // refuse a movie with nothing to present open it. Its sample is the empty text (a length of 0) that the
    // zeros behind the frame number in the finish's own timecode sample hold.
    if (interchange() && videoFrameCount == 0 && nextTrackId == 2)
        addEmptyCaptionTrack(moov, nextTrackId, duration.movie, position - s_timecodeSampleBytes + 4);

    return moov;
}

void QuickTimeFile::addMovieHeader(QuickTimeAtom* moov, quint32 movieDuration)
{
    QuickTimeAtom* udta = moov->addAtom(new QuickTimeUserDataAtom());
    udta->addAtom(new QuickTimeHaldenAtom(this));
    auto* mvhd = new QuickTimeMovieHeaderAtom(this);
    mvhd->duration = movieDuration;
    moov->addAtom(mvhd);
}

// The interchange form lists only the timecode sample the finish appended right before the index, 4
// bytes of frame number; the recorder's form lists every one.
void QuickTimeFile::addTimecodeTrack(QuickTimeAtom* moov, quint32 duration, qint64 indexPosition)
{
    QuickTimeAtom* mdia = addTrackHead(this, moov, 1, duration, 0, 0, timeScale, duration, fourCC("tmcd"));
    QuickTimeAtom* minf = mdia->addAtom(new QuickTimeMediaInformationAtom());
    QuickTimeAtom* gmhd = minf->addAtom(new QuickTimeBaseInformationHeaderAtom());
    gmhd->addAtom(new QuickTimeBaseMediaInformationAtom());
    QuickTimeAtom* tmcd = gmhd->addAtom(new QuickTimeTimecodeHeaderAtom());
    tmcd->addAtom(new QuickTimeTimecodeInformationAtom());
    const auto [stbl, stsd] = addDataAndSampleTable(this, minf);

    auto* description = new QuickTimeTimecodeSampleDescription(this);
    stsd->addDescription(description);
    // The reel name rides behind the description as its extension, so the description counts it.
    QByteArray reel = reelName.toLatin1().left(kReelNameMax);
    auto* name = new QuickTimeSourceReferenceAtom(reel.data());
    stsd->addAtom(name);
    description->size += name->size;

    stbl->addAtom(new QuickTimeTimeToSampleAtom(this, 1, duration));
    stbl->addAtom(new QuickTimeSampleToChunkAtom(this, 1, 0, 0, 0));
    if (interchange()) {
        stbl->addAtom(new QuickTimeSampleSizeAtom(this, quicktime_frametype_timecode, 1,
                                                  kTimecodeFrameNumberBytes));
        const quint64 samplePosition = quint64(indexPosition - s_timecodeSampleBytes);
        stbl->addAtom(new QuickTimeSingleChunkOffset64Atom(this, samplePosition));
    } else {
        stbl->addAtom(new QuickTimeSampleSizeAtom(this, quicktime_frametype_timecode, timecodeSamples, 0));
        stbl->addAtom(
            new QuickTimeChunkOffset64Atom(this, quicktime_frametype_timecode, timecodeSamples, 0, 1, 0, 0));
    }
}

void QuickTimeFile::addVideoTrack(QuickTimeAtom* moov, quint32 trackId, quint32 duration)
{
    QuickTimeAtom* mdia =
        addTrackHead(this, moov, trackId, duration, width, height, timeScale, duration, fourCC("vide"));
    QuickTimeAtom* minf = mdia->addAtom(new QuickTimeMediaInformationAtom());
    minf->addAtom(new QuickTimeVideoInformationAtom());
    const auto [stbl, stsd] = addDataAndSampleTable(this, minf);
    if (videoCodecType == quicktime_codec_prores422 || videoCodecType == quicktime_codec_prores4444)
        stsd->addDescription(new QuickTimeProResVideoSampleDescription(this));
    else if (videoCodecType == quicktime_codec_dnxhd)
        stsd->addDescription(new QuickTimeAvidVideoSampleDescription(this));

    const quint32 frames = videoFrameCount;
    const quint32 framesPerChunk = videoFramesPerChunk;
    const quint32 chunks = (frames + framesPerChunk - 1) / framesPerChunk;
    stbl->addAtom(new QuickTimeTimeToSampleAtom(this, frames, sampleDuration));
    stbl->addAtom(new QuickTimeSampleToChunkAtom(this, framesPerChunk, chunks, frames % framesPerChunk, 0));
    alignNextAtom(stbl, kSampleSizeTableHead);
    stbl->addAtom(new QuickTimeSampleSizeAtom(this, quicktime_frametype_video, frames, 0));
    alignNextAtom(stbl, kChunkOffsetTableHead);
    stbl->addAtom(
        new QuickTimeChunkOffset64Atom(this, quicktime_frametype_video, frames, 0, framesPerChunk, 0, 0));
}

// The recorder lays each chunk out planar, track after track, so track i's part of a chunk starts i
// track-parts into it.
quint32 QuickTimeFile::addSoundTracks(QuickTimeAtom* moov, quint32 firstTrackId, quint32 duration,
                                      quint32 samples)
{
    // The tracks' chunk offset tables share one walk of the frame map. Their places are final once
    // built as long as every table between them is too: with a sample size the size tables are.
    const auto soundChunkTables
        = audioBytesPerSample != 0 ? std::make_shared<QuickTimeChunkOffsetGroup>() : nullptr;
    quint32 trackId = firstTrackId;
    for (quint32 channel = 0; channel < audioTracks; ++channel, ++trackId) {
        QuickTimeChunkOffset64Atom* co64 = addSoundTrack(moov, trackId, channel, duration, samples);
        if (soundChunkTables) {
            co64->group = soundChunkTables;
            soundChunkTables->tables << co64;
        }
    }
    return trackId;
}

QuickTimeChunkOffset64Atom* QuickTimeFile::addSoundTrack(QuickTimeAtom* moov, quint32 trackId,
                                                         quint32 channel, quint32 duration, quint32 samples)
{
    QuickTimeAtom* mdia =
        addTrackHead(this, moov, trackId, duration, 0, 0, audioSampleRate, samples, fourCC("soun"));
    QuickTimeAtom* minf = mdia->addAtom(new QuickTimeMediaInformationAtom());
    minf->addAtom(new QuickTimeSoundInformationAtom());
    const auto [stbl, stsd] = addDataAndSampleTable(this, minf);
    stsd->addDescription(soundDescription());

    const quint32 perChunk = audioSamplesPerChunk;
    const quint32 bytes = audioBytesPerSample;
    stbl->addAtom(new QuickTimeTimeToSampleAtom(this, samples, 1));
    stbl->addAtom(
        new QuickTimeSampleToChunkAtom(this, perChunk, soundChunks, lastChunkSamples, firstChunkSamples));
    alignNextAtom(stbl, kSampleSizeTableHead);
    stbl->addAtom(new QuickTimeSampleSizeAtom(this, quicktime_frametype_sound, samples, bytes));
    alignNextAtom(stbl, kChunkOffsetTableHead);
    // The channel's part of a full chunk and of the short last one. A short first chunk is handed over
    // but not used by the writer: the first chunk is addressed like a full one.
    const quint32 fullChunkBias = perChunk * channel * bytes;
    const quint32 lastChunkBias = lastChunkSamples != 0 ? lastChunkSamples * bytes * channel : 0;
    const quint32 firstChunkBias = firstChunkSamples * bytes * channel;
    auto* co64 = new QuickTimeChunkOffset64Atom(this, quicktime_frametype_sound, soundChunks, fullChunkBias,
                                                1, lastChunkBias, firstChunkBias);
    stbl->addAtom(co64);
    return co64;
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
    const auto [stbl, stsd] = addDataAndSampleTable(this, minf);
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
    if (!device.seek(family().movieDataHeaderPos)) {
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
