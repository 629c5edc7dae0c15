#!/usr/bin/env bash
# Builds Clipward (Release) and starts it: the window when a display is there, otherwise the
# command-line front end finalizing a freshly simulated demo card.
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/deps.sh

if [ "$(uname)" = "Darwin" ]; then
    export CMAKE_PREFIX_PATH="${CMAKE_PREFIX_PATH:-$(brew --prefix qt@5 2>/dev/null || true)}"
else
    install_missing_packages "${BUILD_PACKAGES[@]}"
fi

cmake -S . -B build/release -DCMAKE_BUILD_TYPE=Release -DCLIPWARD_BUILD_TESTS=OFF >/dev/null
cmake --build build/release -j2

if [ -n "${DISPLAY:-}${WAYLAND_DISPLAY:-}" ] || [ "$(uname)" = "Darwin" ]; then
    if [ "$(uname)" = "Darwin" ]; then
        open build/release/Code/app/clipward.app
    else
        exec build/release/Code/app/clipward
    fi
else
    echo "No display: finalizing a demo card with clipward-cli instead of opening the window."
    scripts/make-demo.sh build/release build/demo-card
    status=0
    build/release/Code/cli/clipward-cli build/demo-card || status=$?
    # Status 1 only says that a file was unrecoverable: the demo card holds a given-up one on purpose.
    [ "$status" -le 1 ] || exit "$status"
fi
