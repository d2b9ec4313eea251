#!/usr/bin/env bash
# Runs the normal build's unit tests, then its process-level and kernel
# capture tests one at a time, then the sanitizer build's unit tests (with the
# fuzzer's short run).
set -euo pipefail
build=${1:-build}
asan=${2:-build-asan}
jobs=$(nproc)

export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=0:strict_string_checks=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}

status=0
echo "== unit tests (${build})"
(cd "$build" && ctest --output-on-failure -L unit -j "$jobs") || status=1
# These share the kernel's audit state and the fixed paths, so they run one
# at a time, each once: a failure is a fault.
echo "== process-level and kernel capture tests (${build})"
(cd "$build" && ctest --output-on-failure -L 'process|capture') || status=1
echo "== unit tests under ASan+UBSan (${asan})"
(cd "$asan" && ctest --output-on-failure -L unit -j "$jobs") || status=1
exit $status
