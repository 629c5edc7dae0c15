#include "finalize/FinishTakeBack.h"

#include "finalize/CardFile.h"
#include "finalize/Finalize.h"
#include "finalize/SettingsCheck.h"
#include "movie/SampleTableCheck.h"

#include <QFile>

namespace {

// Entries of the frame list in the maker atom of a movie this library finished, and whether its index is
// the one this library writes for that list; false for any other movie.
bool finishedByClipward(const QString& path, quint32* listedEntries)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return false;
    if (!checkSampleTables(file).isEmpty())
        return false;
    Tern::QuickTimeFile reader(file);
    if (!reader.initFileRead(nullptr) || !reader.writtenByRecorder)
        return false;
    *listedEntries = reader.totalFrames();
    return true;
}

} // namespace

FinishTakeBack::FinishTakeBack(Finalize& driver, CardFile& file, const QString& path)
{
    quint32 listedEntries = 0;
    const bool finished = finishedByClipward(path, &listedEntries);
    const Tern::MovieFamily* family = Tern::familyOfRecording(file);
    if (!family)
        return;
    m_movie.reset(family->newMovie(file, driver.workBuffer));
    Tern::QuickTimeFile& movie = *m_movie;

    // Nothing is prepared in a file before it is known to be one of the three: preparing a movie object
    // writes a reserved region into a file shorter than one.
    const bool inProgress = movie.verifyHeader();
    const bool candidate = finished || movie.reopenedMediaEnd() >= 0 || inProgress;
    if (!candidate)
        return;
    movie.initFile(nullptr); // the file is longer than the reserved region: nothing is written
    Tern::RecoverySettings* settings = movie.loadSavedSettings();
    if (!settings || !SettingsCheck::usable(*family, *settings))
        return;
    settings->copyInto(movie);
    m_configured = true;

    if (finished) {
        const quint32 saved = movie.savedFrameMapLength();
        if (listedEntries >= saved)
            m_mediaEnd = movie.finishedMediaEnd(listedEntries - saved);
        const qint64 finishedEnd = movie.finishedEnd();
        if (m_mediaEnd < 0 && finishedEnd >= 0 && finishedEnd < file.size() && movie.recordedEndPosition != 0)
            m_kind = Kind::FinishedOverRecorderBytes;
        else if (m_mediaEnd >= 0)
            m_kind = Kind::Finished;
    } else if ((m_mediaEnd = movie.reopenedMediaEnd()) >= 0) {
        m_kind = Kind::BetweenSteps;
    } else if (inProgress) {
        m_kind = Kind::InProgress;
    }
}

FinishTakeBack::~FinishTakeBack() = default;

bool FinishTakeBack::takeBack()
{
    switch (m_kind) {
    case Kind::Finished:
    case Kind::BetweenSteps:
        return m_movie->reopenMovieData(m_mediaEnd);
    case Kind::InProgress:
        return true;
    case Kind::Other:
    case Kind::FinishedOverRecorderBytes:
        break;
    }
    return false;
}
