#pragma once

#include "movie/QuickTimeFile.h"

// The Tern procedure's use of a recording's settings record: whether the record can be finished from,
// and its copy into the movie object before recovery. Shared with the recovery fuzz target, which runs
// the procedure's steps on synthesized recordings.
namespace TernSettings {

bool usable(const Tern::RecoverySettings& s);
void configure(Tern::QuickTimeFile& movie, const Tern::RecoverySettings& s);

} // namespace TernSettings
