#!/usr/bin/env bash
# Runs a libFuzzer binary for a fixed time: the seed files (by default the
# *.log files of the seed directory) are copied into a fresh working corpus,
# so that the committed seeds are never rewritten. Crash inputs are left in
# the run directory.
# Usage: run-fuzzer.sh <fuzzer> <seed dir> <run dir> <seconds> [<seed glob>]
set -euo pipefail
fuzzer=$1
seeds=$2
run=$3
# make fuzz runs the same fuzzers longer.
seconds=${CORVID_FUZZ_SECONDS:-$4}
glob=${5:-*.log}

rm -rf "$run"
mkdir -p "$run/corpus"
cp "$seeds"/$glob "$run/corpus/"

# Our events are built inside libauparse's callback, so libauparse frames
# sit below every allocation of ours. Allocation stacks are kept two frames
# deep, so that the suppression of libauparse's own leaks (see
# lsan-suppressions.txt) matches only what libauparse allocates itself. Run a
# kept input again without this option for the full stacks.
export ASAN_OPTIONS="${ASAN_OPTIONS:+$ASAN_OPTIONS:}malloc_context_size=2"

status=0
"$fuzzer" "$run/corpus" \
    -max_total_time="$seconds" -rss_limit_mb=2048 -timeout=10 \
    -artifact_prefix="$run/" -print_final_stats=1 2>"$run/fuzz.log" || status=$?
grep -E '^(#[0-9]+ +DONE|stat::|Done )' "$run/fuzz.log" || true
echo "corpus files: $(ls "$run/corpus" | wc -l)"
if [ "$status" -ne 0 ]; then
    tail -n 80 "$run/fuzz.log"
    echo "fuzzer failed with status $status; inputs kept in $run" >&2
fi
exit "$status"
