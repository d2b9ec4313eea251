#!/usr/bin/env bash
# Runs the normal build's tests, then the sanitizer build's unit tests.
set -euo pipefail
build=${1:-build}
asan=${2:-build-asan}
jobs=$(nproc)

export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=0:strict_string_checks=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}

status=0
echo "== tests (${build})"
(cd "$build" && ctest --output-on-failure -j "$jobs") || status=1
echo "== unit tests under ASan+UBSan (${asan})"
(cd "$asan" && ctest --output-on-failure -L unit -j "$jobs") || status=1
exit $status
