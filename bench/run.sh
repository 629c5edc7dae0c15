#!/usr/bin/env bash
# Builds the benchmarks (Release, build/bench), makes their inputs with the recording simulator, runs
# every case side by side with its baseline and prints the medians and ratios. Linux only.
#
#     bench/run.sh [--reps N] [--keep]      (default 7 runs of everything after one warm-up)
#
# Needs ffmpeg and about 9 GB of free disk for a few minutes: the 4 GB recording, and case 8's btrfs image
# holding a copy of it, both removed afterwards. Case 8 also needs about 8.5 GB of free memory (a copy of
# the recording on /dev/shm while the recording stays in the page cache) and root, btrfs and a free loop
# device for its btrfs image; a half that cannot run says why in the report.
# Inputs live in build/bench/work (BENCH_WORK overrides); the near-capacity recordings there are sparse
# files of about 2 TB apparent size that take a few MB of disk.
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/deps.sh

if [ "$(uname)" != "Linux" ]; then
    echo "bench/run.sh measures its programs with wait4() and /proc/<pid>/io: run it on Linux." >&2
    exit 2
fi
install_missing_packages "${BUILD_PACKAGES[@]}" ffmpeg findutils btrfs-progs mount

build=build/bench
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release -DCLIPWARD_BUILD_TESTS=OFF -DCLIPWARD_BUILD_BENCH=ON \
    >/dev/null
cmake --build "$build" -j2 --target clipward-bench
exec "$build/bench/clipward-bench" run --work "${BENCH_WORK:-$PWD/$build/work}" "$@"
