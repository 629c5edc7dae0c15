#pragma once

// The atom classes, one test class over two files: tst_atoms.cpp builds trees of atoms and checks their
// sizes, ownership and serialisation; tst_atoms_headers.cpp checks the bytes of each header and
// information atom.

#include <QObject>

class TestAtoms : public QObject
{
    Q_OBJECT

private slots:
    // Tree, sizes and serialisation.
    void typeNames();
    void rootWritesOnlyItsChildren();
    void addAtomPlacesAndGrowsEveryAncestor();
    void addSizeReachesTheRoot();
    void removeAllChildrenDestroysButKeepsSize();
    void destructorDestroysChildren();
    void versionedFlagsDropTheMiddleByte();
    void versionedWriteOrder();
    void versionedHeaderThenPayloadOrder();
    void flagsDisplayShowsFirstByteTwice();
    void readConsumesHeaderCounts();
    void skipAlignNext_data();
    void skipAlignNext();
    void skipWritesZeroPadding();
    void movieDataEmpty();
    void movieDataAddData();
    void movieDataAddDataFailure();
    void wideAtom();
    void unrecognizedWriteAndRead();
    void unrecognizedReadShort();

    // Header and information atoms.
    void fileTypeLayoutAndFields();
    void movieHeaderLayout();
    void movieHeaderDurationWraps();
    void trackHeaderFromFile();
    void trackHeaderFromArguments();
    void mediaHeaderLayout();
    void handlerReference_data();
    void handlerReference();
    void videoInformation();
    void soundInformation();
    void baseMediaInformation();
    void timecodeInformation();
    void dataReference();
    void editList();
    void sourceReference();
    void sourceReferenceCutTo31();
    void trackReference();
    void haldenHundredFrames();
    void haldenWithoutFrames();
    void userSettingsKeepsItsSizeRule();
    void fieldAndResolutionAtoms();
};
