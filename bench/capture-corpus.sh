#!/usr/bin/env bash
# Captures a corpus of raw audit text for the replay bench: a private auditd
# whose af_unix plugin writes the "string" format, a relay that keeps that
# stream byte for byte as it arrives (records of concurrent events stay
# interleaved) and hands it on to a corvid-edr started by the stand-in agent
# in dispatcher mode with the default configuration and manifests, so that
# the daemon's own FIM and IOC kernel rules decide what the kernel reports.
#
# Workload, repeated until the stream holds at least --events events: a
# rebuild of a few of this project's targets (compiler temporaries in
# /var/tmp), a package reinstall from the local apt cache, a walk of /usr
# copied into the FIM-watched directory and removed again, a few thousand
# short processes and loopback connections.
#
# Usage: bench/capture-corpus.sh [--build DIR] [--out FILE.xz] [--events N]
#                                [--sample FILE.xz --sample-events N]
# Default output: DIR/bench/corpus/capture.audit.xz. --sample also cuts a
# small corpus from the capture: a window of records out of each workload
# phase, as contiguous raw text.
#
# Runs as root, under flock /tmp/work/kernel.lock when that exists (the kernel
# audit state is shared). Needs no running audit daemon. Leaves the kernel as
# found: the daemon removes its rules when it stops, auditd is stopped and the
# enabled flag put back.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build="$root/build"
out=""
events=200000
sample=""
sample_events=4000
while [ $# -gt 0 ]; do
  case "$1" in
    --build) build=$2; shift 2 ;;
    --out) out=$2; shift 2 ;;
    --events) events=$2; shift 2 ;;
    --sample) sample=$2; shift 2 ;;
    --sample-events) sample_events=$2; shift 2 ;;
    *) echo "usage: $0 [--build DIR] [--out FILE.xz] [--events N] [--sample FILE.xz --sample-events N]" >&2; exit 2 ;;
  esac
done
build=$(cd "$build" && pwd)
out=${out:-$build/bench/corpus/capture.audit.xz}

if [ -z "${CORVID_CAPTURE_LOCKED:-}" ] && [ -e /tmp/work/kernel.lock ]; then
  CORVID_CAPTURE_LOCKED=1 exec flock /tmp/work/kernel.lock "$0" --build "$build" --out "$out" \
    --events "$events" ${sample:+--sample "$sample" --sample-events "$sample_events"}
fi
[ "$(id -u)" -eq 0 ] || { echo "capture: run as root" >&2; exit 1; }
for tool in /usr/sbin/auditd "$build/corvid-edr" "$build/corvid-outpost"; do
  [ -x "$tool" ] || { echo "capture: $tool is missing (build corvid-edr and corvid-outpost)" >&2; exit 1; }
done
# The daemon reads its file-type database at a fixed path, which only the
# demo, the tests and the package put there.
make -C "$root" --no-print-directory magic-db
if [ "$(auditctl -s | sed -n 's/^pid //p')" != 0 ]; then
  echo "capture: an audit daemon already runs; stop it first" >&2
  exit 1
fi

work=$(mktemp -d /tmp/corvid-capture-XXXXXX)
enabled_before=$(auditctl -s | sed -n 's/^enabled //p')
auditd_pid="" relay_pid="" agent_pid=""
# The default FIM manifest watches /var/tmp/corvid-demo: it must exist when
# the daemon starts for FIM to install its rules.
watched=/var/tmp/corvid-demo
walk=$watched/capture-walk
made_watched=""
cleanup() {
  status=$?
  # The agent stops its daemon, which removes its audit rules, before it ends.
  [ -n "$agent_pid" ] && { kill "$agent_pid" 2>/dev/null; wait "$agent_pid" 2>/dev/null; } || true
  [ -n "$relay_pid" ] && { kill "$relay_pid" 2>/dev/null; wait "$relay_pid" 2>/dev/null; } || true
  [ -n "$auditd_pid" ] && { kill "$auditd_pid" 2>/dev/null; wait "$auditd_pid" 2>/dev/null; } || true
  auditctl -e "$enabled_before" >/dev/null || true
  rm -rf "$walk"
  [ -n "$made_watched" ] && rmdir "$watched" 2>/dev/null || true
  if [ "$status" -eq 0 ]; then rm -rf "$work"; else echo "capture: failed; kept $work" >&2; fi
}
trap cleanup EXIT
mkdir -p "$work/auditd/plugins.d" "$work/outpost" "$work/run" "$work/log" "$(dirname "$out")"

# 1. A private auditd, configured as tests/support/PrivateAuditd does.
cat > "$work/auditd/auditd.conf" <<EOF
local_events = yes
write_logs = no
log_file = $work/auditd/audit.log
log_format = ENRICHED
flush = NONE
space_left = 2
space_left_action = IGNORE
admin_space_left = 1
admin_space_left_action = IGNORE
disk_full_action = IGNORE
disk_error_action = IGNORE
priority_boost = 0
q_depth = 99999
plugin_dir = $work/auditd/plugins.d
EOF
printf 'active = yes\ndirection = out\npath = builtin_af_unix\ntype = builtin\nargs = 0600 %s\nformat = string\n' \
  "$work/auditd/events.sock" > "$work/auditd/plugins.d/af_unix.conf"
chmod 0640 "$work/auditd/auditd.conf" "$work/auditd/plugins.d/af_unix.conf"
/usr/sbin/auditd -f -c "$work/auditd" -s nochange > "$work/auditd/auditd.out" 2>&1 &
auditd_pid=$!
for _ in $(seq 100); do [ -S "$work/auditd/events.sock" ] && break; sleep 0.1; done
[ -S "$work/auditd/events.sock" ] || { cat "$work/auditd/auditd.out" >&2; exit 1; }

# 2. The relay: auditd's plugin takes one client, so the relay is that client;
# it writes what it gets to the raw file and serves the same bytes to the
# daemon on a socket of its own. It ends (SIGTERM) once everything it has
# read was handed on, or after 30 s of a daemon that stopped reading.
python3 - "$work/auditd/events.sock" "$work/run/dispatcher.sock" "$work/capture.audit" <<'PY' &
import os, select, signal, socket, sys, time
source_path, serve_path, raw_path = sys.argv[1:4]
stop = False
def on_term(*_):
    global stop
    stop = True
signal.signal(signal.SIGTERM, on_term)
source = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
source.connect(source_path)
server = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
server.bind(serve_path)
server.listen(1)
raw = open(raw_path, "wb")
client, pending, stopped_at, source_open = None, bytearray(), None, True
while True:
    if stop and stopped_at is None:
        stopped_at = time.monotonic()
    if stopped_at is not None and (not pending or client is None or time.monotonic() - stopped_at > 30):
        break
    readers = ([source] if source_open else []) + ([server] if client is None else [])
    writers = [client] if client is not None and pending else []
    try:
        ready, writable, _ = select.select(readers, writers, [], 0.2)
    except InterruptedError:
        continue
    if source in ready:
        data = source.recv(1 << 20)
        if not data:
            source.close()
            source_open, stop = False, True
        raw.write(data)
        pending += data
    if server in ready:
        client, _ = server.accept()
    if writable:
        try:
            sent = client.send(pending[: 1 << 20])
            del pending[:sent]
        except (BrokenPipeError, ConnectionResetError):
            client, pending = None, bytearray()
raw.close()
PY
relay_pid=$!
for _ in $(seq 100); do [ -S "$work/run/dispatcher.sock" ] && break; sleep 0.1; done
[ -S "$work/run/dispatcher.sock" ] || { echo "capture: the relay did not start" >&2; exit 1; }
auditctl -e 1 >/dev/null

# 3. The daemon, default configuration and manifests, in dispatcher mode.
[ -d "$watched" ] || { mkdir -p "$watched"; made_watched=1; }
sed -e "s#^logging.channels.c1.path = .*#logging.channels.c1.path = $work/log/edr.log#" \
  "$root/config/logging.properties" > "$work/logging.properties"
python3 - "$root" "$work" <<'PY'
import json, sys
root, work = sys.argv[1:3]
cfg = json.load(open(root + "/config/corvid-edr.json"))
cfg["common_config"].update(log_config_file=work + "/logging.properties", agent_install_path=work + "/outpost")
cfg["edr_config"]["dispatcher_socket_path"] = work + "/run/dispatcher.sock"
cfg["fim_config"].update(event_file_path=work + "/spool/", manifest_path=root + "/config/fim_manifest.json")
cfg["ioc_config"].update(event_file_path=work + "/spool/",
                         manifests=[{"manifest_path": root + "/config/ioc_manifest.json", "manifest_type": "ioc"}])
json.dump(cfg, open(work + "/corvid-edr.json", "w"), indent=2)
PY
CORVID_EDR_AGENT_SOCKET="$work/run/agent_edr.sock" \
  "$build/corvid-outpost" --config "$work/corvid-edr.json" --start "$build/corvid-edr" \
  </dev/null > "$work/agent.out" 2>&1 &
agent_pid=$!
for _ in $(seq 300); do auditctl -l | grep -q 'key=IOC' && break; sleep 0.1; done
sleep 1
auditctl -l | grep -q 'key=IOC' || { echo "capture: the daemon installed no rules" >&2; cat "$work/agent.out" >&2; exit 1; }
echo "capture: kernel rules: $(auditctl -l | grep -c .) (auditd $auditd_pid, agent $agent_pid)"
sleep 2

# 4. The workload; each phase's first serial is noted for the sample.
event_count() { grep -ao 'msg=audit([0-9.]*:[0-9]*)' "$work/capture.audit" | sort -u | wc -l; }
last_serial() { tail -c 4096 "$work/capture.audit" | grep -ao 'msg=audit([0-9.]*:[0-9]*)' | tail -n 1 | sed 's/.*://; s/)//'; }
mark() { sleep 1; echo "$1 $(last_serial)" >> "$work/phases"; echo "capture: $1 ($(event_count) events so far)"; }
pick_package() {
  # A small installed package whose exact version lies in the apt cache.
  for f in $(ls -S -r /var/cache/apt/archives/*.deb 2>/dev/null | head -n 400); do
    p=$(dpkg-deb -f "$f" Package) v=$(dpkg-deb -f "$f" Version)
    [ "$(dpkg-query -W -f='${Version} ${db:Status-Status}' "$p" 2>/dev/null)" = "$v installed" ] && { echo "$p"; return; }
  done
}
package=$(pick_package || true)
round=0
: > "$work/phases"
while [ "$(event_count)" -lt "$events" ] && [ "$round" -lt 10 ]; do
  round=$((round + 1))
  mark "round-$round-build"
  # A few of the project's objects compiled again, with the build's own
  # commands, past ccache, into a scratch directory (the tree is not touched).
  mkdir -p /var/tmp/corvid-capture-tmp
  ninja -C "$build" -t commands corvid_common | grep -F '/common/src/Http' | sed -n '1,4p' |
    sed -E 's# -M(D|MD)##; s# -M[TF] [^ ]+##g; s# -o [^ ]+# -o /var/tmp/corvid-capture-tmp/object.o#' |
    while read -r command; do
      (cd "$build" && TMPDIR=/var/tmp/corvid-capture-tmp CCACHE_DISABLE=1 bash -c "$command")
    done
  rm -rf /var/tmp/corvid-capture-tmp
  mark "round-$round-package"
  if [ -n "$package" ]; then
    DEBIAN_FRONTEND=noninteractive apt-get install --reinstall -y --no-download "$package" >/dev/null 2>&1 ||
      echo "capture: reinstall of $package failed; going on" >&2
  fi
  mark "round-$round-usr-walk"
  mkdir -p "$walk"
  cp -r /usr/share/doc /usr/include "$walk/"
  find "$walk" -type f -name '*.h' -exec chmod 0640 {} +
  find "$walk" -type f | sed -n '1,3000p' | while read -r f; do mv "$f" "$f.moved"; done
  rm -rf "$walk"
  mark "round-$round-processes"
  for _ in $(seq 3000); do /bin/true; done
  mark "round-$round-loopback"
  python3 - <<'PY'
import socket
server = socket.socket()
server.bind(("127.0.0.1", 0))
server.listen(128)
port = server.getsockname()[1]
for _ in range(3000):
    c = socket.create_connection(("127.0.0.1", port))
    s, _ = server.accept()
    s.close()
    c.close()
PY
done
mark "end"

# 5. Stop the daemon first (its rules go with it), then the relay and auditd.
kill "$agent_pid"; wait "$agent_pid" 2>/dev/null || true; agent_pid=""
kill "$relay_pid"; wait "$relay_pid" 2>/dev/null || true; relay_pid=""
kill "$auditd_pid"; wait "$auditd_pid" 2>/dev/null || true; auditd_pid=""
auditctl -e "$enabled_before" >/dev/null
lost=$(auditctl -s | sed -n 's/^lost //p')
total=$(event_count)
xz -T2 -6 -c "$work/capture.audit" > "$out"
echo "capture: $total events, $(stat -c %s "$work/capture.audit") bytes raw -> $out ($(stat -c %s "$out") bytes); kernel lost counter now $lost"
cp "$work/phases" "${out%.xz}.phases"

# 6. The sample: from each phase of the first round, the records from its
# first serial on, for an equal share of the sample's events.
if [ -n "$sample" ]; then
  mkdir -p "$(dirname "$sample")"
  python3 - "$work/capture.audit" "$work/phases" "$sample_events" "${sample%.xz}" <<'PY'
import re, sys
raw_path, phases_path, want, out_path = sys.argv[1], sys.argv[2], int(sys.argv[3]), sys.argv[4]
phases = [line.split() for line in open(phases_path) if line.startswith("round-1-")]
share = want // max(1, len(phases))
stamp = re.compile(rb"msg=audit\([0-9.]+:([0-9]+)\)")
lines = open(raw_path, "rb").read().splitlines(keepends=True)
out = open(out_path, "wb")
for _, first in phases:
    first = int(first or 0)
    seen = set()
    for line in lines:
        m = stamp.search(line)
        if not m or int(m.group(1)) <= first:
            continue
        seen.add(m.group(1))
        if len(seen) > share:
            break
        out.write(line)
out.close()
PY
  xz -9 -f "${sample%.xz}"
  echo "capture: sample $sample ($(stat -c %s "$sample") bytes)"
fi
