#!/usr/bin/env bash
# Shows the real Clipward window on a virtual X display finishing a demo card (recordings written by the
# recording simulator: two movies, a cut-off WAV and a take given up earlier), typed in and started from
# the keyboard, and saves a picture of the finished run to docs/window.png.
#
#   tools/screenshot.sh [output.png]
#
# Builds the `clipward` and `clipward-simulate` targets first when they are missing. The build directory is
# $CLIPWARD_BUILD_DIR (default: build/ in the source tree).
# Needs: xvfb-run (xvfb, xauth), xwininfo (x11-utils), xdotool and ImageMagick's `import`.
set -euo pipefail

root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
build="${CLIPWARD_BUILD_DIR:-$root/build}"
output="${1:-$root/docs/window.png}"
program="$build/Code/app/clipward"
simulate="$build/Code/simulate/clipward-simulate"

for tool in xvfb-run xwininfo xdotool import; do
    if ! command -v "$tool" >/dev/null; then
        echo "screenshot.sh: $tool is not installed" >&2
        exit 1
    fi
done

if [ ! -x "$program" ] || [ ! -x "$simulate" ]; then
    cmake -S "$root" -B "$build"
    cmake --build "$build" -j2 --target clipward clipward-simulate
fi
mkdir -p "$(dirname "$output")"
output="$(cd "$(dirname "$output")" && pwd)/$(basename "$output")"

# Everything below runs inside the virtual display.
capture() {
    local program="$1" output="$2" title="Clipward version"
    QT_QPA_PLATFORM=xcb "$program" &
    app_pid=$!
    trap 'kill "$app_pid" 2>/dev/null || true' EXIT

    # Wait until the window is mapped (up to 30 s), then give it a moment to paint.
    local tries=0
    until xwininfo -root -tree 2>/dev/null | grep -q "\"$title"; do
        tries=$((tries + 1))
        if [ "$tries" -gt 300 ] || ! kill -0 "$app_pid" 2>/dev/null; then
            echo "screenshot.sh: the window did not appear" >&2
            return 1
        fi
        sleep 0.1
    done
    sleep 1.5

    # A demo card, typed into the path field (which has the focus) and started with Enter.
    local card
    card="$(mktemp -d /tmp/clipward-demo.XXXXXX)/CARD"
    mkdir -p "$card/DCIM"
    "$simulate" --frames 90 --tracks 2 "$card/DCIM/A001C001.zqv" >/dev/null
    "$simulate" --heron --frames 60 --tracks 4 --bytes-per-sample 2 "$card/DCIM/B002C001.zqv" >/dev/null
    "$simulate" --wav --tracks 2 --audio-seconds 2 "$card/DCIM/C003.zqa" >/dev/null
    : >"$card/DCIM/A000C009.nrv"
    local id
    id="$(xdotool search --name "$title" | head -n 1)"
    xdotool windowfocus --sync "$id" type --delay 5 "$card"
    xdotool key --window "$id" Return
    sleep 2

    # There is no window manager, so the window has no frame: crop the root to its client area.
    local info x y w h
    info="$(xwininfo -name "$(xwininfo -root -tree | grep -o "\"$title[^\"]*\"" | head -n 1 | tr -d '"')")"
    x="$(awk '/Absolute upper-left X/ {print $NF}' <<<"$info")"
    y="$(awk '/Absolute upper-left Y/ {print $NF}' <<<"$info")"
    w="$(awk '/^ *Width:/ {print $NF}' <<<"$info")"
    h="$(awk '/^ *Height:/ {print $NF}' <<<"$info")"
    import -window root -crop "${w}x${h}+${x}+${y}" +repage "$output"
    echo "screenshot.sh: wrote $output (${w}x${h})"
    kill "$app_pid"
    wait "$app_pid" 2>/dev/null || true
    rm -rf "$(dirname "$card")"
}
# xvfb-run starts its command through sh, which drops exported bash functions: re-enter this script.
if [ "${CLIPWARD_SCREENSHOT_CAPTURE:-}" = 1 ]; then
    capture "$program" "$output"
    exit
fi
CLIPWARD_SCREENSHOT_CAPTURE=1 CLIPWARD_BUILD_DIR="$build" \
    xvfb-run --auto-servernum --server-args="-screen 0 800x700x24" "${BASH_SOURCE[0]}" "$output"
