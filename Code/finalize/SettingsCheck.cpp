#include "finalize/SettingsCheck.h"

QString SettingsCheck::refusal(const Tern::MovieFamily& family, const Tern::RecoverySettings& s)
{
    if (!family.refusesIncompleteSettings)
        return QString();
    // Tested in this order; the first zero stops the checks. Then what no index can be built from.
    if (s.videoFramesPerChunk == 0)
        return QStringLiteral("0 video frames a chunk");
    if (s.frameRate == 0)
        return QStringLiteral("a frame rate of 0");
    if (s.width == 0)
        return QStringLiteral("a width of 0");
    if (s.height == 0)
        return QStringLiteral("a height of 0");
    return Tern::indexRefusal(
        s.videoFramesPerChunk, s.audioTracks, s.audioBytesPerSample, s.recordedEndPosition, family);
}
