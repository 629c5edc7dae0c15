// Building the movie index ('moov') of a recording from its counts, rates and frame map, writing it
// after the media, and closing 'mdat'. The per-sample tables are not built here: their atoms compute the
// entries from the frame map while they are written.

#include "movie/HeaderAtoms.h"
#include "movie/QuickTimeFile.h"
#include "movie/SampleDescriptions.h"
#include "movie/SampleTables.h"
#include "movie/StableStorage.h"

#include <QDebug>
#include <QIODevice>

namespace Tern {

namespace {

const quint16 kTrackVolume = 0x0100;    // 8.8 fixed point, 1.0
const quint32 kMediaRateOne = 0x00010000; // 16.16 fixed point, 1.0
const int kClosingZeroBytes = 512;
const int kReelNameMax = 31;

// Alignment targets: the byte this far into the next atom lands on a 512-byte boundary, which puts the
// first entry of a size table (after a 20-byte head) or an offset table (16-byte head) on the boundary.
const qint64 kSampleSizeTableHead = 20;
const qint64 kChunkOffsetTableHead = 16;

// The parts every track shares: 'trak' with its header, the edit list where the family writes one,
// 'mdia' with its header and media handler. Returns the 'mdia' atom.
QuickTimeAtom* addTrackHead(QuickTimeFile* file, QuickTimeAtom* moov, quint32 trackId, quint32 movieDuration,
                            quint32 width, quint32 height, quint32 mediaTimeScale, quint32 mediaDuration,
                            quint32 handlerSubtype)
{
    QuickTimeAtom* trak = moov->addAtom(new QuickTimeTrackAtom());
    trak->addAtom(new QuickTimeTrackHeaderAtom(file, trackId, movieDuration, width, height, kTrackVolume));
    if (file->family().writesEditList) {
        QuickTimeAtom* edts = trak->addAtom(new QuickTimeEditAtom());
        edts->addAtom(new QuickTimeEditListAtom(file, movieDuration, 0, kMediaRateOne));
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

} // namespace

bool QuickTimeFile::closeFile()
{
    if (!movieData)
        return false;
    if (family().closeAppendsTimecodeSample)
        addMovieTimecodeData(timecode);

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
    const quint32 M = D * V;
    const quint32 Q = L + F + (A - (L != 0 ? 1 : 0) - (F != 0 ? 1 : 0)) * P;

    QuickTimeAtom* moov = addAtom(new QuickTimeMovieAtom());
    moov->position = device.pos();
    QuickTimeAtom* udta = moov->addAtom(new QuickTimeUserDataAtom());
    udta->addAtom(new QuickTimeHaldenAtom(this));
    moov->addAtom(new QuickTimeMovieHeaderAtom(this));

    // Timecode track, always present.
    {
        QuickTimeAtom* mdia = addTrackHead(this, moov, 1, M, 0, 0, S, M, fourCC("tmcd"));
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

        stbl->addAtom(new QuickTimeTimeToSampleAtom(this, 1, M));
        stbl->addAtom(new QuickTimeSampleToChunkAtom(this, 1, 0, 0, 0));
        stbl->addAtom(new QuickTimeSampleSizeAtom(this, quicktime_frametype_timecode, T, 0));
        stbl->addAtom(new QuickTimeChunkOffset64Atom(this, quicktime_frametype_timecode, T, 0, 1, 0, 0));
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
        for (quint32 i = 0; i < audioTracks; ++i, ++nextTrackId) {
            QuickTimeAtom* mdia =
                addTrackHead(this, moov, nextTrackId, M, 0, 0, audioSampleRate, Q, fourCC("soun"));
            QuickTimeAtom* minf = mdia->addAtom(new QuickTimeMediaInformationAtom());
            minf->addAtom(new QuickTimeSoundInformationAtom());
            addDataReference(minf);

            QuickTimeAtom* stbl = minf->addAtom(new QuickTimeSampleTableAtom());
            auto* stsd = new QuickTimeSampleDescriptionAtom(this);
            stbl->addAtom(stsd);
            stsd->addDescription(new QuickTimeSoundSampleDescription(this, 0, audioSampleRate));

            stbl->addAtom(new QuickTimeTimeToSampleAtom(this, Q, 1));
            stbl->addAtom(new QuickTimeSampleToChunkAtom(this, P, A, L, F));
            alignNextAtom(stbl, kSampleSizeTableHead);
            stbl->addAtom(new QuickTimeSampleSizeAtom(this, quicktime_frametype_sound, Q, B));
            alignNextAtom(stbl, kChunkOffsetTableHead);
            // A short first chunk is handed over but not used by the writer: the first chunk is
            // addressed like a full one.
            stbl->addAtom(new QuickTimeChunkOffset64Atom(this, quicktime_frametype_sound, A, P * i * B, 1,
                                                         L != 0 ? L * B * i : 0, F * B * i));
        }
    }

    const qint64 moovStart = moov->position;
    // The index must be on the disk before the header points at it: until the header is patched the
    // file still reads as unfinished and a later attempt rewrites the index in the same place.
    const bool written = writeAtomList() && StableStorage::sync(device);
    if (written) {
        const qint64 end = device.pos();
        device.seek(s_datPos);
        writeMovieDataHeader();
        device.seek(end);
        device.write(QByteArray(kClosingZeroBytes, '\0'));
        StableStorage::sync(device);
        qDebug("Recorded FILE Last Position Start:%lld End:%lld Size:%lld", moovStart, end, end - moovStart);
    }
    return written;
}

} // namespace Tern
