#pragma once

#include <QString>

// What the card lets a run do, asked before anything is changed, and the words for what it does not: a
// take is only ever given up for what it holds itself, and a card that cannot be written leaves the take
// as it is, with the reason told. (A finish the card stops part-way is told by CardFile.)
namespace CardAccess {

enum class WriteBlock {
    None, // the file can be written and renamed
    DriveWriteProtected, // the file system is mounted read-only (a locked card, a read-only mount)
    FileNotWritable, // no permission to write the file itself
    FolderNotWritable, // no permission to rename files in its folder
};

// Whether a finalize could write `path` and rename it where it lies. Opens the file for writing to find
// out (changing nothing); something that is not a regular file is left to the caller.
WriteBlock writeBlockFor(const QString& path);

// Whether the file system holding `folder` is mounted read-only.
bool driveWriteProtected(const QString& folder);

// Whether files can be created and renamed in `folder`.
bool folderWritable(const QString& folder);

// Whether the entries of `folder` can be listed.
bool folderListable(const QString& folder);

// Whether the system's error `error` says the file system (or the user's share of it) is full.
bool isFullError(int error);

// The reason as the per-file lines give it ("the drive is write-protected", ...); empty for None.
QString reasonText(WriteBlock block);

} // namespace CardAccess
