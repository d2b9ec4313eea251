#!/usr/bin/env bash
# Loss-and-crash soak of corvid-edr on the real kernel (root, minutes).
#
# The shipped daemon runs under the stand-in agent (corvid-outpost) with a
# FIM manifest on a scratch tree and an IOC manifest that watches process
# starts, uploading to the local HTTPS receiver (corvid-test-receiver). A
# workload creates, writes, renames and deletes files with unique names in
# the watched tree, and now and then runs a "marked" process (a copy of
# /usr/bin/true under a new name, whose start IOC reports). Meanwhile:
#  - the receiver process is stopped for --outage seconds (from a tenth of
#    the run) and started again on the same port and output directory;
#  - the daemon is killed with SIGKILL --kills times at random points and
#    started again through the agent (one kill falls right after the
#    receiver's return, while the daemon sends its backlog);
#  - after --duration seconds the workload stops and the spools drain.
#
# What is counted. A kill -9 takes with it whatever the daemon held only in
# memory: audit records the kernel delivered but it had not yet turned into
# documents, and documents and IOC events cached for the spool (flushed to a
# spool file within max_file_age_sec). The daemon owes what it wrote to a
# spool file: that must be uploaded, exactly once, across kills and the
# outage. So an operation is owed when
#  - its FIM document (create/modifyContent/rename/delete of its path), or
#    for a marked process the IOC event of its start, was in a spool file on
#    disk after one of the kills (the spools are read while the daemon is
#    dead), or
#  - it began more than a second after the last restart (no kill follows;
#    the run drains the spools before counting).
# Lost: an owed operation with no document (event) received; and any gap in
# the IOC batch sequence numbers. Duplicated: any document, marked start or
# IOC batch received more than once, owed or not, and any IOC sequence number
# given to two different batches; except a resend: a spool file is deleted
# only on the receiver's answer, so a kill between the receiver storing an
# upload and the daemon deleting the file makes the next daemon send it
# again. A copy is counted as a resend (on a line of its own) only when the
# receiver had stored it before a kill after which it was still in the
# spool. Operations missing that were not owed are reported as such (begun
# while the daemon was down or starting, or in memory at a kill and how long
# before it), not as loss. The run fails (non-zero status) on any loss or
# duplicate.
#
# Usage: bench/crash-soak.sh [--kills N] [--outage SEC] [--duration SEC]
#                            [--drain SEC] [--seed N] [--build DIR]
# The same from CORVID_SOAK_KILLS, CORVID_SOAK_OUTAGE_SEC,
# CORVID_SOAK_DURATION_SEC, CORVID_SOAK_DRAIN_SEC, CORVID_SOAK_SEED.
# The run holds /tmp/work/kernel.lock when that exists (shared kernel).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build="$root/build"
export CORVID_SOAK_KILLS=${CORVID_SOAK_KILLS:-20}
export CORVID_SOAK_OUTAGE_SEC=${CORVID_SOAK_OUTAGE_SEC:-300}
export CORVID_SOAK_DURATION_SEC=${CORVID_SOAK_DURATION_SEC:-600}
export CORVID_SOAK_DRAIN_SEC=${CORVID_SOAK_DRAIN_SEC:-180}
while [ $# -gt 0 ]; do
  case "$1" in
    --kills) CORVID_SOAK_KILLS=$2 ;;
    --outage) CORVID_SOAK_OUTAGE_SEC=$2 ;;
    --duration) CORVID_SOAK_DURATION_SEC=$2 ;;
    --drain) CORVID_SOAK_DRAIN_SEC=$2 ;;
    --seed) export CORVID_SOAK_SEED=$2 ;;
    --build) build=$(cd "$2" && pwd) ;;
    *) sed -n '2,/^set -euo/p' "$0" | sed '$d; s/^# \{0,1\}//' >&2; exit 2 ;;
  esac
  shift 2
done

if [ "$(id -u)" -ne 0 ]; then
  echo "crash-soak: run as root (the daemon manages kernel audit rules)" >&2
  exit 1
fi
test=$build/tests/CrashSoakProcessTest
for binary in "$test" "$build/corvid-edr" "$build/corvid-outpost" "$build/corvid-test-receiver"; do
  [ -x "$binary" ] || { echo "crash-soak: $binary is not built" >&2; exit 1; }
done
lock=()
[ -f /tmp/work/kernel.lock ] && lock=(flock /tmp/work/kernel.lock)
"${lock[@]}" "$test" --gtest_filter='CrashSoakProcessTest.*' --gtest_brief=1
