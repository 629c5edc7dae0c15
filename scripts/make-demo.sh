#!/usr/bin/env bash
# Writes a small demo card of interrupted recordings of both recorder families into FOLDER
# (recreated each time). Usage: scripts/make-demo.sh BUILD_DIR FOLDER
set -euo pipefail
build="$1"
card="$2"
sim="$build/Code/simulate/clipward-simulate"
rm -rf "$card"
mkdir -p "$card/DCIM/100CLIPS" "$card/DCIM/101CLIPS" "$card/AUDIO"
"$sim" --frames 75 --tracks 2 "$card/DCIM/100CLIPS/A001C001.zqv" >/dev/null
"$sim" --frames 50 --tracks 4 --bytes-per-sample 2 --torn 3000 "$card/DCIM/100CLIPS/A001C002.zqv" >/dev/null
"$sim" --frames 0 --tracks 2 --audio-seconds 4 "$card/DCIM/101CLIPS/A001C003.zqv" >/dev/null
"$sim" --heron --frames 60 --tracks 2 "$card/DCIM/101CLIPS/B001C001.zqv" >/dev/null
"$sim" --wav --tracks 2 --audio-seconds 2 "$card/AUDIO/B001T001.zqa" >/dev/null
# A clip an earlier run already gave up on.
printf 'given up' > "$card/DCIM/101CLIPS/A001C000.nrv"
