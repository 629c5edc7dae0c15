#pragma once

// The movie file object, one test class over two files: tst_moviefile.cpp creates recordings and sets
// their parameters; tst_moviefile_records.cpp fills the counts and the frame map, writes the atom list
// and reads and writes the settings record.

#include "movie/QuickTimeFile.h"

#include <QByteArray>
#include <QObject>

namespace MovieFileTest {

const qint64 s_mediaStart = Tern::ternFamily.movieDataStartOffset;

inline bool allZero(const QByteArray& bytes)
{
    return bytes.count('\0') == bytes.size();
}

} // namespace MovieFileTest

class TestMovieFile : public QObject
{
    Q_OBJECT

private slots:
    // ---- creation and the reserved region
    void layoutOfARecording();
    void initFileWritesTheTernRegion();
    void initFileWritesTheHeronRegion();
    void heronWithoutStorageCannotStart();
    void initFileOnAnExistingRecordingWritesNothing();
    void initFileSetsTheDefaults();

    // ---- parameters
    void frameRate23976UsesItsOwnTimeScale();
    void userDataAndTimecodeRoundTrip();
    void setTimecodeWritesTheFirstSampleOnce();
    void fileInfoFromTheUserData();
    void frameRateCodes_data();
    void frameRateCodes();
    void codecSettings();

    // ---- counts and the frame map
    void totalFramesFollowsTheModeFlags();
    void spaceLeftEndsTwentyEntriesBeforeCapacity();
    void addOperationsStoreTheirEntries();
    void addedBlockCountsAreNotMasked();
    void setFrameSizeMasksTheBlockCount();
    void failedWritesKeepSoundAndTimecodeEntriesButNotVideo();
    void soundAndVideoDurations();

    // ---- atom list
    void addAtomPlacesBehindTheRoot();
    void alignNextAtomPadsToTheNextBlock();
    void writeAtomListWritesTheTopLevelAtoms();
    void writeAtomListWritesATypedRootHeader();

    // ---- settings record
    void settingsRecordFieldsAtTheirOffsets();
    void settingsRecordReservedBytesAndReelNameBounds();
};
