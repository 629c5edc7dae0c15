#pragma once

#include <QString>

class QIODevice;

// Pushing what was written through to the disk, so a power cut cannot leave the 'mdat' header pointing at
// an index that never reached it, nor a finished name on a file whose header did not.
namespace StableStorage {

// Flushes the device and, when it is a file, asks the system to write its data to the disk.
// True for devices that are not files (nothing to sync) and when the sync succeeded; on failure the
// system's words for it go to `failure` when one is given.
bool sync(QIODevice& device, QString* failure = nullptr);

// Bytes the file system holding the file behind `device` still takes from this user; -1 for a device
// that is no file or a file system that does not say.
qint64 bytesAvailable(QIODevice& device);

// Makes a rename inside `folder` durable by syncing the folder itself (a no-op where unsupported).
bool syncFolder(const QString& folder);

// Asks the system to write what the open file `handle` holds to the disk, through interruptions (on
// macOS to the drive itself, past its cache). False with errno set when it could not.
bool syncHandle(int handle);

} // namespace StableStorage
