#!/usr/bin/env bash
# Builds the fuzz targets with clang (libFuzzer, AddressSanitizer, UndefinedBehaviorSanitizer) into
# build/fuzz and runs them.
#
#   fuzz/run.sh SECONDS [target...]   each target (all seven when none is named) for SECONDS, one after the
#                                     other, starting from its committed corpus
#   fuzz/run.sh ci                    replays every committed corpus input, then runs each target ~15 s
#
# The committed corpora under fuzz/corpus/ are copied into build/fuzz/corpus/, where the inputs a run
# finds accumulate; the committed ones never grow. A crash, timeout, leak, out-of-memory or sanitizer
# report stops that target with its input saved under build/fuzz/findings/<target>/, and the script
# exits non-zero once all targets have run. NICE=n runs the targets at that niceness.
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/deps.sh

ALL_TARGETS=(fuzz_wav fuzz_parser fuzz_recovery fuzz_recovery_full_map fuzz_resume fuzz_timecode fuzz_verify)
CI_SECONDS=15

usage() {
    echo "usage: fuzz/run.sh SECONDS [target...] | fuzz/run.sh ci" >&2
    exit 2
}

[ $# -ge 1 ] || usage
mode=run
if [ "$1" = "ci" ]; then
    mode=ci
    seconds=$CI_SECONDS
    shift
    [ $# -eq 0 ] || usage
else
    [[ "$1" =~ ^[0-9]+$ ]] || usage
    seconds=$1
    shift
fi
targets=("$@")
[ ${#targets[@]} -gt 0 ] || targets=("${ALL_TARGETS[@]}")
for target in "${targets[@]}"; do
    [[ " ${ALL_TARGETS[*]} " == *" $target "* ]] || { echo "unknown target: $target" >&2; usage; }
done

if [ "$(uname)" != "Darwin" ]; then
    install_missing_packages "${BUILD_PACKAGES[@]}" clang libclang-rt-14-dev
fi

build=build/fuzz
CC=clang CXX=clang++ cmake -S fuzz -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" -j2 --target "${targets[@]}"

export ASAN_OPTIONS="${ASAN_OPTIONS:-detect_leaks=1:allocator_may_return_null=1}"
export UBSAN_OPTIONS="${UBSAN_OPTIONS:-print_stacktrace=1}"
nice_prefix=()
[ -z "${NICE:-}" ] || nice_prefix=(nice -n "$NICE")
fuzz_options=(-timeout=10 -rss_limit_mb=2048 -malloc_limit_mb=2048 -print_final_stats=1)

failed=()
for target in "${targets[@]}"; do
    binary="$build/$target"
    seeds=(fuzz/corpus/"$target"/*)
    findings="$build/findings/$target"
    mkdir -p "$findings"

    if [ "$mode" = ci ]; then
        echo "== $target: replaying ${#seeds[@]} committed inputs"
        if ! "${nice_prefix[@]}" "$binary" "${fuzz_options[@]}" -artifact_prefix="$findings/" "${seeds[@]}" \
                >"$build/$target.replay.log" 2>&1; then
            tail -n 40 "$build/$target.replay.log"
            failed+=("$target (replay)")
            continue
        fi
    fi

    corpus="$build/corpus/$target"
    mkdir -p "$corpus"
    cp -n "${seeds[@]}" "$corpus/"
    echo "== $target: fuzzing for ${seconds} s"
    log="$build/$target.log"
    if "${nice_prefix[@]}" "$binary" "${fuzz_options[@]}" -max_total_time="$seconds" \
            -artifact_prefix="$findings/" "$corpus" >"$log" 2>&1; then
        executions=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -n 1)
        echo "   $target: ${executions:-?} executions, no finding"
    else
        tail -n 60 "$log"
        echo "   $target: FINDING, input saved in $findings/" >&2
        failed+=("$target")
    fi
done

if [ ${#failed[@]} -gt 0 ]; then
    echo "Fuzzing found problems in: ${failed[*]}" >&2
    exit 1
fi
echo "Fuzzing clean: ${targets[*]}"
