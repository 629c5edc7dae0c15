#pragma once

#include "movie/MovieFamily.h"
#include "movie/QuickTimeAtom.h"
#include "movie/RecoverySettings.h"

#include <QDataStream>
#include <QString>
#include <QtGlobal>

class QIODevice;

namespace Tern {

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

// What the reader learns about one track of an existing movie.
struct QuickTimeTrackInfo
{
    quicktime_frametype_t type = quicktime_frametype_unknown;
    qint64 sampleDuration = -1;
    qint64 timeScale = -1;
    quint64 stscPos = 0, stszPos = 0, stcoPos = 0, co64Pos = 0;
    quint32 stscEntries = 0, stszEntries = 0, stcoEntries = 0, co64Entries = 0;
    quint32 stszSampleSize = 0;
    quint32 currentSample = 0;
    quint32 currentChunk = 0;
    quint32 sampleInChunk = 0;
    quint32 audioBytesPerSample = 0;
    bool audioBigEndian = false;
    quint32 audioChannels = 0;
    bool committed = false;
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
    // Layout of an unfinished recording.
    static constexpr qint64 s_recoverySettingsPos = 36;
    static constexpr qint64 s_recoveryFrameMapPos = 156;
    static constexpr qint64 s_datPos = 5472240;
    static constexpr qint64 s_movieDataStartOffset = 5472256;
    static constexpr quint32 s_frameMapEntries = 2736000;
    static constexpr qint64 s_frameMapBytes = 2 * qint64(s_frameMapEntries);
    static constexpr int s_maxTracks = 64;
    // A frame-map entry: frame type in bits 15-14, length in 512-byte blocks in bits 13-0.
    static constexpr int s_frameTypeShift = 14;
    static constexpr quint16 s_blockCountMask = 0x3FFF;
    static constexpr int s_blockShift = 9;

    using RecoverySettings = Tern::RecoverySettings;

    explicit QuickTimeFile(QIODevice& device);
    virtual ~QuickTimeFile();

    const MovieFamily& family() const { return *m_family; }

    // Construction and reset. Prepares newDevice (null: the file's own device) for a recording, writing
    // the reserved region and the 'mdat' header when it is shorter than the media start. False only for a
    // family that keeps its frame map in caller storage when none was given.
    bool initFile(QIODevice* newDevice);
    void removeAllAtoms();

    // Parameters.
    void setFrameRate(unsigned int rate);
    quint32 calculateVideoInfoFromFrameRate(unsigned int rate, quint32* duration, quint32* scale) const;
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
    bool writeAtomList();
    bool closeFile();

    // Recovery data.
    bool verifyHeader();
    RecoverySettings* loadSavedSettings();
    void saveRecoverySettings();
    void periodicFrameMapSave();
    bool recover();
    // False for settings an index cannot be built from without harm: chunking of 0 frames, more sound
    // tracks than a movie can hold, sound without a sample size, or an end inside the reserved region.
    bool settingsAllowIndex() const;
    static bool settingsAllowIndex(quint32 framesPerChunk, quint32 soundTracks, quint32 bytesPerSample,
                                   quint64 endPosition);
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
    quint16 width = 1920;
    quint16 height = 1080;
    quint32 videoCodecId = 1238;
    quint32 proResVariant = 0;
    quint32 interlaced = 0;
    quint32 frameRate = 2400;
    quint32 sampleDuration = 100;
    quint32 timeScale = 2400;
    quint32 videoCodecType = 0;
    quint32 audioSampleRate = 48000;
    quint32 audioBytesPerSample = 4;
    quint32 audioTracks = 1;
    quint32 audioSamplesPerChunk = 512;
    quint32 playFrame = 0;
    bool dropFrame = false;
    bool counter = false;
    quint8 audioLittleEndian = 1;
    quint32 timecode = 0;
    quint32 userData[9] = {};
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

protected:
    // For a family that keeps its frame map in caller storage (not owned, never freed).
    QuickTimeFile(QIODevice& device, const MovieFamily& family, quint16* callerFrameMap);

private:
    // Closing: the zero block and the final 'mdat' header behind a written index; undoing a failed close.
    bool finishMovieData();
    void restoreSizeBeforeClose();
    qint64 m_sizeBeforeClose = 0;
    qint64 m_indexEnd = 0;

    // The family's reserved region, from offset 0 and zero-filled up to the 'mdat' header.
    void writeReservedRegion(QIODevice* target);
    // Stores the entry of the chunk being added at the next index of the frame map.
    void storeFrameMapEntry(quint16 entry);

    const MovieFamily* m_family;
    bool m_ownsFrameMap;

    Q_DISABLE_COPY(QuickTimeFile)
};

} // namespace Tern
