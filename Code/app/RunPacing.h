#pragma once

#include <QElapsedTimer>

// A run can log thousands of lines a second and finish as many files. Showing each at once would cost
// more than the run itself: the log box and the Files tab gather what comes and show it at most this
// often (milliseconds). Events are still processed after every line.
constexpr qint64 kRunShowingIntervalMs = 33;

// Whether what was gathered since `sinceShown` last restarted is to be shown now: at once when it never
// ran (the first line or file of a run), else once the interval has passed.
inline bool isDueForShowing(const QElapsedTimer& sinceShown)
{
    return !sinceShown.isValid() || sinceShown.hasExpired(kRunShowingIntervalMs);
}
