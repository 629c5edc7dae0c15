#!/usr/bin/env bash
# Installs what the build and the tests need, builds, and runs every test twice: once as built for
# users, once under AddressSanitizer and UndefinedBehaviorSanitizer; then replays the fuzz targets'
# committed corpora and runs each target briefly. Exits non-zero on any failure or sanitizer report.
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/deps.sh

if [ "$(uname)" = "Darwin" ]; then
    export CMAKE_PREFIX_PATH="${CMAKE_PREFIX_PATH:-$(brew --prefix qt@5 2>/dev/null || true)}"
else
    install_missing_packages "${BUILD_PACKAGES[@]}" "${TEST_PACKAGES[@]}"
fi

run_suite() {
    local build="$1"
    shift
    cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@" >/dev/null
    cmake --build "$build" -j2
    (cd "$build" && ctest --output-on-failure -j2 --timeout 1200)
    # ctest names a skipped test but not why; each skipped case printed its reason.
    grep -h "^SKIP   :" "$build/Testing/Temporary/LastTest.log" | sort -u || true
}

echo "== Tests"
run_suite build/tests

echo "== Tests under AddressSanitizer and UndefinedBehaviorSanitizer"
export ASAN_OPTIONS="detect_leaks=1:abort_on_error=1:detect_stack_use_after_return=1"
export UBSAN_OPTIONS="halt_on_error=1:print_stacktrace=1"
export LSAN_OPTIONS="suppressions=$PWD/scripts/lsan.supp:print_suppressions=0"
run_suite build/sanitize -DCLIPWARD_SANITIZE=ON

echo "== Fuzz targets: the committed corpora replayed, then each target briefly"
unset ASAN_OPTIONS UBSAN_OPTIONS LSAN_OPTIONS
fuzz/run.sh ci
