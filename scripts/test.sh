#!/usr/bin/env bash
# Installs what the build and the tests need, builds, and runs every test. Exits non-zero on any failure.
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/deps.sh

if [ "$(uname)" = "Darwin" ]; then
    export CMAKE_PREFIX_PATH="${CMAKE_PREFIX_PATH:-$(brew --prefix qt@5 2>/dev/null || true)}"
else
    install_missing_packages "${BUILD_PACKAGES[@]}" "${TEST_PACKAGES[@]}"
fi

build=build/tests
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" -j2
cd "$build"
ctest --output-on-failure -j2 --timeout 1200
