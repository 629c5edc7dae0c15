#pragma once

#include "movie/MovieFamily.h"
#include "movie/RecoverySettings.h"

#include <QString>

// Whether a family's procedure goes on to recover a recording from its settings record, judged as the
// procedure does: by the procedure itself, by the take-back of a finish and by --info.
namespace SettingsCheck {

// What in `s` makes the procedure of `family` give the recording up before recovering it, in the order
// it checks; empty when it goes on.
QString refusal(const Tern::MovieFamily& family, const Tern::RecoverySettings& s);

inline bool usable(const Tern::MovieFamily& family, const Tern::RecoverySettings& s)
{
    return refusal(family, s).isEmpty();
}

} // namespace SettingsCheck
