#pragma once

#include "movie/QuickTimeFile.h"

// A movie file of the older recorder family. It is the shared movie library run with the Heron family
// description; what the class itself adds is the caller-owned frame-map storage, a timecode setter that
// never writes media, and the search for where a video frame's audio starts.
class QuickTimeFile : public Tern::QuickTimeFile
{
public:
    // `frameSizes` is the frame-map storage (2,736,000 entries); it is not owned and never freed.
    QuickTimeFile(QIODevice& device, unsigned short* frameSizes);

    void setTimecode(unsigned int timecode, bool dropFrame, bool counter);

    // Finds the frame-map entry holding the first audio byte of video frame `frame`; stores the entry
    // in playFrame and the bytes before the audio within it in audioStartOffset, and returns the entry.
    // The runs of the fast sound map (rebuilt from the current frame map) are skipped whole first.
    unsigned int prepareAudioStartLocation(unsigned int frame);

    quint32 audioStartOffset = 0;

private:
    quint64 audioBytesPerVideoFrame() const;
};
