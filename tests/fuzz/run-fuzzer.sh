#!/usr/bin/env bash
# Runs a libFuzzer binary from its seeds: the seed files (by default the
# *.log files of the seed directory) are copied into a fresh working corpus,
# so that the committed seeds are never rewritten. Crash inputs are left in
# the run directory.
# Usage: run-fuzzer.sh <fuzzer> <seed dir> <run dir> <seconds> [<seed glob>]
#
# As a unit test it runs for <seconds>. make fuzz sets CORVID_FUZZ_RUNS: the
# fuzzer then runs until that many executions, and fails when it has not
# reached them within CORVID_FUZZ_SECONDS. CORVID_FUZZ_SECONDS alone runs it
# for that time instead.
set -euo pipefail
fuzzer=$1
seeds=$2
run=$3
seconds=${CORVID_FUZZ_SECONDS:-$4}
glob=${5:-*.log}
runs=${CORVID_FUZZ_RUNS:-}

rm -rf "$run"
mkdir -p "$run/corpus"
cp "$seeds"/$glob "$run/corpus/"

# Our events are built inside libauparse's callback, so libauparse frames
# sit below every allocation of ours. Allocation stacks are kept two frames
# deep, so that the suppression of libauparse's own leaks (see
# lsan-suppressions.txt) matches only what libauparse allocates itself. Run a
# kept input again without this option for the full stacks.
export ASAN_OPTIONS="${ASAN_OPTIONS:+$ASAN_OPTIONS:}malloc_context_size=2"

budget=(-max_total_time="$seconds")
if [ -n "$runs" ]; then
    budget+=(-runs="$runs")
fi

status=0
start=$SECONDS
# libFuzzer bounds each input (-timeout) and the run; the watchdog catches
# a fuzzer that hangs outside an input (at start or exit).
timeout $((seconds + 60)) "$fuzzer" "$run/corpus" "${budget[@]}" -rss_limit_mb=2048 -timeout=10 \
    -artifact_prefix="$run/" -print_final_stats=1 2>"$run/fuzz.log" || status=$?
elapsed=$((SECONDS - start))
grep -E '^(#[0-9]+ +DONE|stat::|Done )' "$run/fuzz.log" || true
executed=$(sed -n 's/^stat::number_of_executed_units: *//p' "$run/fuzz.log")
executed=${executed:-0}
echo "fuzz: $(basename "$fuzzer") executions=$executed seconds=$elapsed" \
    "exec/s=$((executed / (elapsed > 0 ? elapsed : 1))) corpus=$(ls "$run/corpus" | wc -l)"
if [ "$status" -eq 0 ] && [ -n "$runs" ] && [ "$executed" -lt "$runs" ]; then
    echo "only $executed of $runs executions within $seconds seconds" >&2
    status=1
fi
if [ "$status" -ne 0 ]; then
    tail -n 80 "$run/fuzz.log"
    echo "fuzzer failed with status $status; inputs kept in $run" >&2
fi
exit "$status"
