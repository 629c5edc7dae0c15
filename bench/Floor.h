#pragma once

// The floor of finalizing one recording, as plain buffered I/O: read the 5,472,000-byte frame map at
// `mapPos` of `recording`, write `indexBytes` bytes to the fresh file `output` through a 128 KiB stdio
// buffer, with the same flushes and syncs as the finalizer, and rename it. Returns 0 on success.
int runFloor(const char* recording, long long mapPos, long long indexBytes, const char* output);
