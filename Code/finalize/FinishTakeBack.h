#pragma once

#include <QString>

#include <memory>

class CardFile;
class Finalize;
namespace Tern {
class QuickTimeFile;
}

// Taking back a finish Clipward made, so that the movie is again the in-progress recording its recorder
// left: the index and the timecode sample the finish appended are cut off and the 'mdat' header is opened
// again, each step synced before the next. A kill between the steps leaves a file the next take-back
// recognises, so taking back is completed by doing it again.
//
// Three files are taken, and nothing is written to any other: a movie Clipward finished (in either form),
// a file a take-back left between its steps (a closed header, no index behind it, the file ending where
// the media do), and a recording in progress under its finished name (the take-back's last step done).
class FinishTakeBack
{
public:
    enum class Kind {
        Other,        // none of the three: left alone
        Finished,     // a movie Clipward finished
        BetweenSteps, // a take-back cut short after its first step
        InProgress,   // an in-progress recording already
        // A movie Clipward finished with a recorded end and bytes the recorder left past that end: the
        // index was written over the first of them, so the recorder's file cannot be had back.
        FinishedOverRecorderBytes,
    };

    // Reads what `file` (open for reading and writing, at `path`) holds, changing nothing. The movie
    // object is configured from the recorder's settings, as a finish configures it.
    FinishTakeBack(Finalize& driver, CardFile& file, const QString& path);
    ~FinishTakeBack();
    FinishTakeBack(const FinishTakeBack&) = delete;
    FinishTakeBack& operator=(const FinishTakeBack&) = delete;

    Kind kind() const { return m_kind; }
    // False for Kind::Other: no recording could be configured.
    bool hasMovie() const { return m_configured; }
    Tern::QuickTimeFile& movie() { return *m_movie; }

    // Cuts back and reopens the header, as the kind requires; true when the file is then an in-progress
    // recording. Only for Finished, BetweenSteps and InProgress.
    bool takeBack();

private:
    std::unique_ptr<Tern::QuickTimeFile> m_movie;
    Kind m_kind = Kind::Other;
    bool m_configured = false;
    qint64 m_mediaEnd = -1;
};
