#pragma once

#include <QString>

class QIODevice;

// Pushing what was written through to the disk, so a power cut cannot leave the 'mdat' header pointing at
// an index that never reached it, nor a finished name on a file whose header did not.
namespace StableStorage {

// Flushes the device and, when it is a file, asks the system to write its data to the disk.
// True for devices that are not files (nothing to sync) and when the sync succeeded.
bool sync(QIODevice& device);

// Makes a rename inside `folder` durable by syncing the folder itself (a no-op where unsupported).
bool syncFolder(const QString& folder);

} // namespace StableStorage
