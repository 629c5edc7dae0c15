#pragma once

#include "movie/MovieFamily.h"
#include "movie/QuickTimeAtom.h"
#include "movie/RecoverySettings.h"

#include <QDataStream>
#include <QString>
#include <QtGlobal>

#include <limits>
#include <memory>

class QIODevice;

namespace Tern {

class QuickTimeChunkOffset64Atom;
class QuickTimeSampleDescription;

enum quicktime_frametype_t {
    quicktime_frametype_sound = 0,
    quicktime_frametype_video = 1,
    quicktime_frametype_timecode = 2,
    quicktime_frametype_unknown = 3,
};

enum quicktime_codec_type_t {
    quicktime_codec_dnxhd = 0,
    quicktime_codec_prores422 = 1,
    quicktime_codec_prores4444 = 2,
};

// Where a walk over the frame map stands: at entry `index`, with the video and sound entries and the
// 512-byte blocks of every entry before it counted.
struct QuickTimeMapPosition
{
    quint32 index = 0;
    quint32 videoBefore = 0;
    quint32 soundBefore = 0;
    quint64 blocksBefore = 0;
};

// What the reader learns about one track of an existing movie, and where reading it stands.
struct QuickTimeTrackInfo
{
    static constexpr int s_tableCacheEntries = 64;
    static constexpr int s_stscEntryValues = 3; // first chunk (from 1), samples per chunk, description

    quicktime_frametype_t type = quicktime_frametype_unknown;
    qint64 sampleDuration = -1;
    qint64 timeScale = -1;
    quint64 stscPos = 0, stszPos = 0, stcoPos = 0, co64Pos = 0;
    quint32 stscEntries = 0, stszEntries = 0, stcoEntries = 0, co64Entries = 0;
    quint32 stszSampleSize = 0;
    quint32 audioBytesPerSample = 0;
    bool audioBigEndian = false;
    quint32 audioChannels = 0;
    bool committed = false;

    // Windows of up to 64 consecutive table entries, held as stored in the file (big-endian) and
    // converted on use; each covers [start, start + count).
    quint32 stcoCache[s_tableCacheEntries] = {};
    quint32 stcoCacheStart = 0, stcoCacheCount = 0;
    quint64 co64Cache[s_tableCacheEntries] = {};
    quint32 co64CacheStart = 0, co64CacheCount = 0;
    quint32 stszCache[s_tableCacheEntries] = {};
    quint32 stszCacheStart = 0, stszCacheCount = 0;
    quint32 stscCache[s_tableCacheEntries][s_stscEntryValues] = {};
    quint32 stscCacheStart = 0, stscCacheCount = 0;

    // Reading position: the next sample, the chunk holding it (from 0) and the sample's place in it.
    quint64 currentSample = 0;
    quint32 currentChunk = 0;
    quint32 sampleInChunk = 0;
    quint64 chunkFirstSample = 0; // first sample of the current chunk
    quint32 stscEntry = 0; // the 'stsc' entry (from 0) last looked at; the 'stsc' cache follows it
    // The 'stsz' sizes summed from the start of chunk summedChunk up to its sample summedSample, so that
    // stepping through a chunk adds one size at a time.
    quint32 summedChunk = 0xFFFFFFFFu;
    quint64 summedSample = 0;
    quint64 summedBytes = 0;
    // Movies this library wrote: the track's plane in the recorder's planar sound chunks, and where the
    // current chunk was last found in the frame map.
    quint32 plane = 0;
    QuickTimeMapPosition mapPosition;
};

// How a finish writes the index. Recorder: as the recorder maker's own tools finish a recording.
// Interchange: in the form every common reader reads right, differing only in what the finish itself
// writes: 16-bit sound declared 'sowt', the start timecode as a frame number in a timecode sample of the
// finish's own (the recorder's samples stay in the media, unlisted by the index), and each track's edit
// and duration as long as its own media, the movie as long as its longest track.
enum class FinishStyle { Recorder, Interchange };

// One run of the fast sound map: the frame map cut into at most 273 equal runs of entries.
struct QuickTimeFastAudioRun
{
    quint32 firstEntry; // frame-map index of the run's first entry
    quint32 soundBlocks; // 512-byte blocks of the run's sound entries
    quint64 blocksBefore; // 512-byte blocks of every entry before the run
};
static_assert(sizeof(QuickTimeFastAudioRun) == 16, "a run of the fast sound map is 16 bytes");

// What play-mode navigation serves.
enum quicktime_playmode_t {
    quicktime_playmode_all = 0, // video frames and sound chunks, in file order
    quicktime_playmode_video = 1, // video frames only
    quicktime_playmode_sound = 2, // sound chunks only
};

// One piece of media for the player to read next.
struct QuickTimePlayRegion
{
    quicktime_frametype_t type = quicktime_frametype_unknown;
    quint64 position = 0; // file offset of the first byte
    quint64 bytes = 0;
    // Movies this library wrote: the frame-map entry. Other movies: the video frame, or the sound chunk
    // of soundTrack.
    quint32 index = 0;
    int soundTrack = -1;
};

// Summary of the recording built from the user data by InitQuickTimeFileInfo.
struct QuickTimeFileInfo
{
    quint16 width = 0;
    quint16 height = 0;
    bool progressive = true;
    quint32 frameRate = 0; // hundredths of a frame per second
    quint32 userValue5 = 0;
    quint32 sampleRate = 0;
    quint32 bytesPerSample = 0;
    quint32 channels = 0;
    quint32 userValue1 = 0;
    quint32 userValue2 = 0;
    quint32 dropFrame = 0;
    float framesPerSecond = 0;
    quint8 frameRateCode = 255;
    float durationSeconds = 0;
    quint32 userValue9 = 0;
};

// One movie file being recorded, finished or read. Owns its atom tree, its 'mdat' atom and (unless the
// family supplies caller storage) its frame map: one 16-bit entry per chunk of 'mdat', in file order,
// bits 15-14 the frame type, bits 13-0 the length in 512-byte blocks.
class QuickTimeFile
{
public:
    // The zero bytes a finish writes behind the index: the last bytes of a finished file.
    static constexpr int s_closingZeroBytes = 512;
    // The 64-bit size in the 'mdat' header of a recording still in progress: the header alone.
    static constexpr qint64 s_unclosedMovieDataSize = 16;
    // A timecode sample is one 512-byte block holding the timecode word; its entry is "timecode, 1 block".
    static constexpr int s_timecodeSampleBytes = 512;
    static constexpr quint16 s_timecodeSampleEntry = 0x8001;
    // The furthest recorded end an index can follow: what a finish appends there (a timecode sample, a
    // 'moov' of at most 4 GiB, the closing zeros) must still end at a signed 64-bit file offset.
    static constexpr qint64 s_furthestRecordedEnd = std::numeric_limits<qint64>::max() - s_timecodeSampleBytes
        - (qint64(1) << 32) - s_closingZeroBytes;
    static constexpr quint32 s_frameMapEntries = 2736000;
    static constexpr qint64 s_frameMapBytes = 2 * qint64(s_frameMapEntries);
    static constexpr int s_maxTracks = 64;
    // A frame-map entry: frame type in bits 15-14, length in 512-byte blocks in bits 13-0.
    static constexpr int s_frameTypeShift = 14;
    static constexpr quint16 s_blockCountMask = 0x3FFF;
    static constexpr int s_blockShift = 9;

    using RecoverySettings = Tern::RecoverySettings;

    // A movie of the Tern family on `device`.
    explicit QuickTimeFile(QIODevice& device);
    // A movie of `family` (what its description's newMovie makes), its frame map in storage of its own;
    // for a family that keeps it in the caller's storage, in `callerFrameMap` instead (2,736,000 entries,
    // not owned, never freed; null: none given, and initFile refuses).
    QuickTimeFile(QIODevice& device, const MovieFamily& family, quint16* callerFrameMap);
    virtual ~QuickTimeFile();

    const MovieFamily& family() const { return *m_family; }
    // The form closeFile gives the index; Recorder unless the user chose otherwise.
    FinishStyle finishStyle = FinishStyle::Recorder;
    bool interchange() const { return finishStyle == FinishStyle::Interchange; }

    // Construction and reset. Prepares newDevice (null: the file's own device) for a recording, writing
    // the reserved region and the 'mdat' header when it is shorter than the media start. False only for a
    // family that keeps its frame map in caller storage when none was given.
    bool initFile(QIODevice* newDevice);
    void removeAllAtoms();

    // The recorder's nine user-data values, by their place in userData (the order the maker atom and
    // setUserData keep them in).
    enum UserDataIndex {
        UserValue1 = 0,
        UserValue2 = 1,
        UserFrameRate = 2, // hundredths of a frame per second; the field rate when interlaced
        UserDropFrame = 3,
        UserCodecSetting = 4, // the setting getCodecSetting gives the video codec
        UserSoundTracks = 5, // one mono track per channel
        UserBitsPerSample = 6,
        UserSampleRate = 7,
        UserValue9 = 8, // an interlaced recording is described as two fields only while this is 0
        UserDataValues = 9,
    };

    // The parameters a movie starts from until the recorder or the movie read gives its own: 1920x1080
    // at 24 frames a second (2400 hundredths: frames of 100 units in a time scale of 2400), one track of
    // 32-bit little-endian sound at 48 kHz in chunks of 512 samples, and the DNxHD compression id 1238.
    static constexpr quint16 s_defaultWidth = 1920;
    static constexpr quint16 s_defaultHeight = 1080;
    static constexpr quint32 s_defaultVideoCodecId = 1238;
    static constexpr quint32 s_defaultFrameRate = 2400;
    static constexpr quint32 s_defaultSampleDuration = 100;
    static constexpr quint32 s_defaultTimeScale = s_defaultFrameRate;
    static constexpr quint32 s_defaultAudioSampleRate = 48000;
    static constexpr quint32 s_defaultAudioBytesPerSample = 4;
    static constexpr quint32 s_defaultAudioTracks = 1;
    static constexpr quint32 s_defaultAudioSamplesPerChunk = 512;
    static constexpr quint8 s_defaultAudioLittleEndian = 1;

    // Parameters.
    void setFrameRate(unsigned int rate);
    static quint32 calculateVideoInfoFromFrameRate(unsigned int rate, quint32* duration, quint32* scale);
    void setAudioSampleRate(unsigned int rate) { audioSampleRate = rate; }
    void setAudioBytesPerSample(unsigned int bytes) { audioBytesPerSample = bytes; }
    void setAudioSamplesPerFrame(int samples) { audioSamplesPerChunk = quint32(samples); }
    void setTimecode(quint32 value, bool dropFrameFlag, bool counterFlag, bool noWrite);
    void getTimecode(quint32* value, bool* dropFrameFlag, bool* counterFlag) const;
    void setUserData(quint32 v1, quint32 v2, quint32 v3, quint32 v4, quint32 v5, quint32 v6, quint32 v7,
        quint32 v8, quint32 v9);
    void getUserData(quint32* v1, quint32* v2, quint32* v3, quint32* v4, quint32* v5, quint32* v6,
        quint32* v7, quint32* v8, quint32* v9) const;
    void setFrameSize(unsigned int index, quicktime_frametype_t frameType, unsigned int bytes);
    void InitQuickTimeFileInfo();

    // Counts.
    quint32 videoFrames() const { return videoFrameCount; }
    quint32 audioFrames() const { return soundChunks; }
    quint32 totalFrames() const;
    quicktime_frametype_t getCurrentTrackType() const { return currentTrack.type; }

    // Reading: the parser learns the tracks of an existing movie through these. Each setter stores into
    // the current track record and then commits the record when it has become complete.
    bool readFile();
    bool closeFileRead();
    void initCurrentTrackInfo();
    void checkCurrentTrackInfo();
    void setCurrentTrackType(quicktime_frametype_t trackType);
    void setCurrentTimeScale(quint32 scale);
    void setCurrentSampleDuration(quint32 duration);
    void setCurrentAudioBytesPerSample(quint32 bytes);
    void setCurrentAudioIsBigEndian(bool bigEndian);
    void setCurrentAudioChannels(quint32 channels);
    void setSTSCPos(quint64 pos);
    void setSTSCEntries(quint32 entries);
    void setSTSZPos(quint64 pos);
    void setSTSZEntries(quint32 entries);
    void setSTSZSampleSize(quint32 sampleSize);
    void setSTCOPos(quint64 pos);
    void setSTCOEntries(quint32 entries);
    void setCO64Pos(quint64 pos);
    void setCO64Entries(quint32 entries);
    // The frame map a maker atom restores into: allocated here when the file owns it and has none yet.
    bool ensureFrameMap();

    // Reading an existing movie. initFileRead learns the tracks; movies this library wrote (their maker
    // atom carries the frame map) are then read by the map, all others ("imports") by their tables.
    bool initFileRead(QIODevice* readDevice);
    void dumpTrackInfo();
    // Make the track's cache cover its current index (chunk for the offset tables, sample for 'stsz',
    // stscEntry for 'stsc'); force reloads at the cache's start. True when the cache was reloaded.
    bool checkSTCOCache(QuickTimeTrackInfo* track, bool force);
    bool checkCO64Cache(QuickTimeTrackInfo* track, bool force);
    bool checkSTSZCache(QuickTimeTrackInfo* track, bool force);
    bool checkSTSCCache(QuickTimeTrackInfo* track, bool force);
    // Sound tracks are numbered from 0 among the sound tracks; an unknown number gives null / 0.
    QuickTimeTrackInfo* getAudioTrack(int soundTrack);
    unsigned samplesLeftInCurrentChunk(int soundTrack);
    // Reads up to count sample frames (bytes per sample x channels each) of the track from its reading
    // position into buffer and moves the position on; returns the frames read.
    unsigned readAudioSamples(int soundTrack, unsigned char* buffer, unsigned count);
    // Samples of a full chunk of the track: the largest count its 'stsc' gives (short first and last
    // chunks hold fewer). 0 without entries.
    quint32 findSamplesPerChunk(QuickTimeTrackInfo* track);
    // Samples the 'stsc' gives chunk `chunk` (from 0) of the track; moves the track's stscEntry.
    quint32 samplesInChunk(QuickTimeTrackInfo* track, quint32 chunk);
    // Chunks of the track: the sound chunks of the frame map for the sound of movies this library wrote,
    // the entries of 'co64' (or else 'stco') otherwise.
    quint32 chunkCount(const QuickTimeTrackInfo* track) const;
    void buildFastAudioMap();
    bool getFrameTime(int track, quint32 sample, quint32* seconds, quint32* remainder) const;

    // Seeking and locations (see Seeking.cpp for what each one moves and returns).
    bool seekToAudioChunk(QuickTimeTrackInfo* track, quint32 chunk);
    bool seekNextAudioChunk(QuickTimeTrackInfo* track);
    bool seekToChunkJustBeyond(QuickTimeTrackInfo* track, quint64 position);
    bool seekToSampleAbsolute(QuickTimeTrackInfo* track, quint64 sample);
    bool seekToVideoFrameAbsolute(quint32 frame);
    bool seekToVideoFrameRelative(qint64 frames);
    bool seekVideoToVideoFrameAbsolute(quint32 frame);
    bool seekAudioToVideoFrameAbsolute(quint32 frame);
    quint64 calculateCorrespondingSample(quint32 frame, const QuickTimeTrackInfo* soundTrack) const;
    bool calculateLocationSeek(QuickTimeTrackInfo* track, quint64* position);
    bool calculateLocationSeekVideo(quint32 frame, quint64* position, quint64* bytes);
    bool calculateTableLocation(QuickTimeTrackInfo* track, quint64* position);
    bool tableSampleSize(QuickTimeTrackInfo* track, quint64 sample, quint32* bytes);
    bool tableChunkOffset(QuickTimeTrackInfo* track, quint32 chunk, quint64* offset);
    bool gotoVideoFrame(quint32 frame);
    bool getMovieVideoData(char* buffer, int* size);
    bool getMovieSoundData(char* buffer, unsigned* size, unsigned* samples);
    bool getStartDataLocation(quicktime_playmode_t mode, QuickTimePlayRegion* region);
    bool getStartDataLocationImport(quicktime_playmode_t mode, QuickTimePlayRegion* region);
    bool getNextDataLocation(quicktime_playmode_t mode, QuickTimePlayRegion* region);
    bool getNextDataLocationImport(quicktime_playmode_t mode, QuickTimePlayRegion* region);

    // Media and frame map (recorder side).
    int addMovieVideoData(QByteArray& frame, QByteArray& extra);
    int addMovieSoundData(QByteArray& chunk);
    int addMovieTimecodeData(QByteArray& sample);
    int addMovieTimecodeData(unsigned int tc);
    int addBogusMovieVideoData(QByteArray& frame);
    bool frameSize(unsigned int index, quicktime_frametype_t* frameType, unsigned int* bytes) const;
    bool spaceLeft() const;
    quint64 calculateAVDuration(quint64* soundSamples, quint64* videoInSamples) const;
    static quint32 getCodecSetting(quicktime_codec_type_t codecType, unsigned int value);

    // Atom list and the index.
    QuickTimeAtom* addAtom(QuickTimeAtom* atom);
    void alignNextAtom(QuickTimeAtom* parent, qint64 extra);
    // Writes the atom list through the buffered device, after `leadIn` (bytes that precede the first atom).
    bool writeAtomList(const QByteArray& leadIn = QByteArray());
    // A timecode sample: the timecode word `tc`, big-endian, then zeros to its 512 bytes.
    static QByteArray timecodeSampleBytes(quint32 tc);
    // The frame number a reader counts from 00:00:00:00 to the packed timecode word `tc` at
    // `framesPerSecond` whole frames a second, skipping the numbers drop-frame counting leaves out.
    static quint32 timecodeFrameNumber(quint32 tc, quint32 framesPerSecond, bool dropFrame);
    // Whole frames a second of the movie's timecode (29.97 counts as 30); 0 without a frame duration.
    quint32 timecodeFramesPerSecond() const;
    // Whether closeFile appends a timecode sample to the media, and the 512 bytes it appends.
    bool closeAppendsTimecodeSample() const;
    QByteArray closingTimecodeSample() const;
    bool closeFile();

    // After a failed closeFile: the bytes the card lacked for the index (0 when room was not the reason;
    // nothing was written then), and the system's words for a sync the disk refused (empty when none was).
    qint64 spaceShortfall() const { return m_spaceShortfall; }
    QString syncFailure() const { return m_syncFailure; }

    // Recovery data.
    bool verifyHeader();
    // Whether the file is laid out as this library finishes a recording: a closed 'mdat' from the fixed
    // header position, the 'moov' right behind it, and the closing zero block ending the file. A finish
    // cut short after its header was patched leaves exactly that under the in-progress name.
    bool looksFinished();
    // Where the closing zero block behind the 'moov' ends, for a file laid out so up to there; -1 for any
    // other. A finish with a recorded end writes its index over whatever the recorder left past that
    // end, and what the index did not cover stays behind the zero block.
    qint64 finishedEnd();
    RecoverySettings* loadSavedSettings();

    // Taking a finish back (to finish the recording again in another form). savedFrameMapLength: the
    // entries of the frame map the recorder saved, up to its first 0. finishedMediaEnd: where the media
    // of a movie this library finished end, before the `appendedSamples` timecode sample (0 or 1) its
    // finish appended; -1 unless the file is laid out so. reopenMovieData: cuts the file back to
    // `mediaEnd`, then writes the in-progress 'mdat' header, each step synced before the next.
    // reopenedMediaEnd: for a file left between those steps (a closed header and no index behind it),
    // where its media end; -1 for any other file.
    quint32 savedFrameMapLength();
    // The frame map a recorder of `family` saved in the reserved region of `device`, counted up to its
    // first 0 entry: all entries, those of each type, and the media blocks they list.
    struct SavedFrameMapCounts
    {
        quint32 entries = 0;
        quint32 video = 0;
        quint32 sound = 0;
        quint32 timecode = 0;
        quint32 unknown = 0;
        quint32 readable = 0;         // entries of the map the file holds (all unless it is cut short)
        quint64 blocks = 0;           // all the entries' blocks
        quint64 lastBlocksBefore = 0; // the blocks before the last entry
        quint32 lastBlocks = 0;       // the last entry's
    };
    static SavedFrameMapCounts countSavedFrameMap(QIODevice& device, const MovieFamily& family);
    // Sound samples of each track: the short first and last chunks (0: full) and the full ones between
    // them, as the index counts them. 32-bit, as the tables that count them.
    static quint32 soundSamplesPerTrack(quint32 chunks, quint32 samplesPerChunk, quint32 firstChunkSamples,
                                        quint32 lastChunkSamples);
    qint64 finishedMediaEnd(quint32 appendedSamples);
    bool reopenMovieData(qint64 mediaEnd);
    qint64 reopenedMediaEnd();
    void saveRecoverySettings();
    void periodicFrameMapSave();
    bool recover();
    // False for settings an index cannot be built from without harm: chunking of 0 frames, more sound
    // tracks than a movie can hold, sound without a sample size (its per-sample size list would outrun
    // the frame map and leave the table short of its declared size), or an end inside the reserved
    // region or beyond any file offset. The region is the movie's family's; in the static form `family`'s.
    bool settingsAllowIndex() const;
    static bool settingsAllowIndex(quint32 framesPerChunk, quint32 soundTracks, quint32 bytesPerSample,
                                   quint64 endPosition, const MovieFamily& family);
    // False when the index of the counts at hand would not fit atoms with 32-bit sizes.
    bool indexFitsAtomSizes() const;
    static constexpr quint32 s_maxSoundTracks = s_maxTracks - 2; // beside the timecode and video tracks

    // Members, in the order of the recording's state.
    QIODevice& device;
    QDataStream stream;
    QuickTimeMovieDataAtom* movieData = nullptr;
    QuickTimeAtom root;
    quint32 videoFrameCount = 0;
    quint32 soundChunks = 0;
    quint32 lastChunkSamples = 0;
    quint32 firstChunkSamples = 0;
    quint64 recordedEndPosition = 0;
    quint32 timecodeSamples = 0;
    quint16* frameMap = nullptr;
    quint16 width = s_defaultWidth;
    quint16 height = s_defaultHeight;
    quint32 videoCodecId = s_defaultVideoCodecId;
    quint32 proResVariant = 0;
    quint32 interlaced = 0;
    quint32 frameRate = s_defaultFrameRate;
    quint32 sampleDuration = s_defaultSampleDuration;
    quint32 timeScale = s_defaultTimeScale;
    quint32 videoCodecType = 0;
    quint32 audioSampleRate = s_defaultAudioSampleRate;
    quint32 audioBytesPerSample = s_defaultAudioBytesPerSample;
    quint32 audioTracks = s_defaultAudioTracks;
    quint32 audioSamplesPerChunk = s_defaultAudioSamplesPerChunk;
    quint32 playFrame = 0;
    bool dropFrame = false;
    bool counter = false;
    quint8 audioLittleEndian = s_defaultAudioLittleEndian;
    quint32 timecode = 0;
    quint32 userData[UserDataValues] = {};
    quint32 videoFramesPerChunk = 0;
    QString reelName;
    QString userSettings; // text of the 'uset' atom
    quint32 savedFrameMapEntries = 0;
    QuickTimeFileInfo fileInfo;
    RecoverySettings settings;
    int trackCount = 0;
    QuickTimeTrackInfo currentTrack;
    QuickTimeTrackInfo tracks[s_maxTracks];
    QuickTimeTrackInfo videoTrack;
    bool writtenByRecorder = false;
    bool importMode = false;
    quint64 movieDataStart = 0; // first media byte of an 'mdat' read with the 64-bit size
    bool haldenMarker = false; // the maker atom's marker was not 0
    bool learningOwnTracks = false; // the tracks of a movie this library wrote are being read

    // Reading.
    static constexpr int s_fastAudioRuns = 273;
    static constexpr int s_fastAudioMapBytes = s_fastAudioRuns * int(sizeof(QuickTimeFastAudioRun));
    quint32 playStart = 0; // the first video entry of the frame map
    quint32 currentVideoFrame = 0; // the video frame the play position is at
    bool interleavedAudio = false; // an imported movie's sound track carries its channels interleaved
    std::unique_ptr<QuickTimeFastAudioRun[]> fastAudioMap; // s_fastAudioMapBytes, from initFileRead on
    int fastAudioRunCount = 0;
    quint32 frameMapLength = 0; // entries of the frame map up to its end (a 0 entry or the counts)
    quint32 frameMapSoundEntries = 0; // sound entries among them

private:
    // The parameters, counts and timecode both a recording and a reading start from (initFile and
    // initFileRead): the defaults above, no media, no timecode, playing from the start.
    void resetMovieState();

    // The 'moov' tree of the index for the current counts, to be written at `position` (its alignment
    // depends on it), added to the atom list.
    QuickTimeAtom* buildIndex(qint64 position);
    // Its parts, in the order buildIndex adds them. The maker atom (in 'udta') and the movie header:
    void addMovieHeader(QuickTimeAtom* moov, quint32 movieDuration);
    // Track 1, the timecode, which every index has; `indexPosition` is where the index is written.
    void addTimecodeTrack(QuickTimeAtom* moov, quint32 duration, qint64 indexPosition);
    void addVideoTrack(QuickTimeAtom* moov, quint32 trackId, quint32 duration);
    // One mono track per channel from `firstTrackId` on; returns the track id after the last.
    quint32 addSoundTracks(QuickTimeAtom* moov, quint32 firstTrackId, quint32 duration, quint32 samples);
    // Sound track `trackId`, channel `channel` of the chunks; returns its chunk offset table.
    QuickTimeChunkOffset64Atom* addSoundTrack(QuickTimeAtom* moov, quint32 trackId, quint32 channel,
                                              quint32 duration, quint32 samples);
    // The description of each sound track, in the finish style's form.
    QuickTimeSampleDescription* soundDescription();
    // The interchange form's empty caption track of a movie with neither picture nor sound.
    void addEmptyCaptionTrack(QuickTimeAtom* moov, quint32 trackId, quint32 duration, qint64 samplePosition);

    // Where an index that a finish killed mid-way left behind begins, between the end of the media the
    // frame map lists (`mapEnd`) and the end of the file: the first place holding the start of exactly the
    // index this movie would write there. -1 when there is none.
    qint64 interruptedIndexStart(qint64 mapEnd);
    // The size of the 'moov' a finish would write at `position`, as closeFile would build it then.
    quint32 indexSizeAt(qint64 position);

    // The steps of recover(), in its order. Reads the frame map the recorder saved in the reserved region
    // into frameMap (false when it cannot be read whole); counts its entries by type into the movie's
    // counts, up to its first 0 entry, and returns the 512-byte blocks of all those entries, whatever their
    // type; gives where the recovered media end (the recorded end, or else the file's end, cut back first
    // to the start of an index a finish left there half written), -1 when that cut fails.
    bool readSavedFrameMap();
    qint64 countFrameMapEntries();
    qint64 recoveredMediaEnd(qint64 mappedBlocks);

    // The 64-bit size in the 'mdat' header at the family's movieDataHeaderPos (16 while unclosed); -1 when
    // no such header is there.
    qint64 movieDataSizeAtHeader();

    // Closing: the timecode sample closeFile appends (its bytes, empty when it appends none), whether the
    // card takes the index, the zero block and the final 'mdat' header behind a written index; undoing a
    // failed close.
    QByteArray appendClosingTimecodeSample();
    bool cardTakesIndex(const QuickTimeAtom* moov);
    bool finishMovieData();
    void restoreSizeBeforeClose();
    qint64 m_sizeBeforeClose = 0;
    qint64 m_indexEnd = 0;
    qint64 m_spaceShortfall = 0;
    QString m_syncFailure;

    // The family's reserved region, from offset 0 and zero-filled up to the 'mdat' header.
    void writeReservedRegion(QIODevice* target);
    // Stores the entry of the chunk being added at the next index of the frame map.
    void storeFrameMapEntry(quint16 entry);
    // Counts a timecode sample appended to the media and lists it in the frame map.
    void listTimecodeSample();

    // Reading helpers: the steps of initFileRead, in its order, and the second walk over the tracks that
    // learnRecordedTracks makes.
    void resetForReading();
    void readAtomTree();
    void learnRecordedSound();
    void learnImportedSound();
    bool startRecordedPlay();
    bool startImportedPlay();
    bool learnRecordedTracks();
    void learnTrackAtoms(qint64 moovStart, quint64 moovSize, quint32 moovHeader);
    bool findMapEntry(QuickTimeMapPosition* position, quicktime_frametype_t type, quint32 ordinal) const;
    bool moveMapPosition(QuickTimeMapPosition* position, quint32 index) const;
    quint64 mapLocation(const QuickTimeMapPosition& position) const;
    bool locateRecordedChunk(QuickTimeTrackInfo* track);
    QuickTimeMapPosition m_playPosition; // follows playFrame

    const MovieFamily* m_family;
    bool m_ownsFrameMap;

    Q_DISABLE_COPY(QuickTimeFile)
};

} // namespace Tern
