#pragma once

#include "simulate/RecordingSimulator.h"

#include <QString>

// A card as it comes back from a shoot that went wrong in every way at once: interrupted movies of both
// recorder families (one too short to finish), cut-off and broken WAV audio, files given up before, a
// text file that is no recording, nested and empty folders. Written below `card`:
//   DCIM/100CLIPS/A001C001.zqv   Tern, 30 frames, 2 sound tracks
//   DCIM/100CLIPS/A001C002.zqv   Tern, 10 frames, no sound (too few chunks to finish)
//   DCIM/099CLIPS/B001C001.zqv   Heron, 9 frames, 2 sound tracks
//   DCIM/099CLIPS/B001C000.nrv   given up before
//   DCIM/099CLIPS/notes.txt      not a recording
//   AUDIO/B001T001.zqa           cut-off WAV, 2 channels
//   AUDIO/B001T002.zqa           a WAV whose form type is broken ("AVI ")
//   AUDIO/B001T000.nra           given up before
//   AUDIO/EMPTY/                 an empty folder
// Returns false when anything could not be written.
bool writeMixedCard(const QString& card);

// A small healthy movie of `family`: 1280x720 synthetic frames and `tracks` 24-bit sound tracks of the
// frames' length, in the chunking the family's recorder uses.
RecordingPlan moviePlan(RecordingPlan::Family family, int frames, int tracks);

// A movie of synthetic frames (3,000 bytes and 7 more each frame) and `tracks` 24-bit sound tracks of
// `soundSamples` samples, `samplesPerChunk` to a chunk.
RecordingPlan syntheticPlan(
    RecordingPlan::Family family, int frames, int tracks, quint32 samplesPerChunk, quint32 soundSamples);

// Marks the `nth` sound chunk in the frame map of the Tern recording at `path` as of unknown type (3), as
// a recorder writes chunks the finalizer does not count. False when there is no such chunk.
bool markSoundChunkUnknown(const QString& path, int nth);
