#!/usr/bin/env bash
# Checks the Debian package on this host the way an operator uses it:
#  1. `make package`, then `apt-get install` of the .deb;
#  2. the unit checked (systemd-analyze verify) and run as systemd would run
#     it: its ExecStartPre and ExecStart command lines, read from the
#     installed unit file (this host may have no systemd running);
#  3. a file touched under the sample FIM manifest's watched path arrives as a
#     FIM document at a local receiver (the installed configuration pointed
#     at it, with a request key and the receiver's answer key provisioned);
#  4. the service stopped (SIGTERM, as `systemctl stop` sends) and the
#     package purged;
#  5. again, with the daemon and its agent killed (SIGKILL) instead of
#     stopped: the purge still leaves no kernel audit rule;
# and after each purge: no audit rule, no process and no file of ours left.
#
# Usage: scripts/package-check.sh [BUILD_DIR]   (root; kernel audit needed)
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-build}
case "$build" in /*) ;; *) build="$root/$build" ;; esac

etc=/etc/corvid/outpost
config=$etc/corvid-edr.json
state=/var/lib/corvid/outpost
watched=$(python3 -c 'import json,sys; print(json.load(open(sys.argv[1]))["data"]["fim"]["rules"][0]["imagePath"])' \
  "$root/config/fim_manifest.json")

say() { echo "package-check: $*"; }
fail() {
  say "FAILED: $*"
  [ -f "$work/service.out" ] && { say "service output:"; sed 's/^/    /' "$work/service.out"; }
  [ -f /var/log/corvid/edr.log ] && { say "daemon log (tail):"; tail -n 40 /var/log/corvid/edr.log | sed 's/^/    /'; }
  say "work directory kept: $work"
  exit 1
}

if [ "$(id -u)" -ne 0 ]; then
  echo "package-check: run as root (installs a package, manages audit rules)" >&2
  exit 1
fi
if ! auditctl -s >/dev/null 2>&1; then
  echo "package-check: the kernel audit subsystem does not answer here (auditctl -s)" >&2
  exit 1
fi
if dpkg-query -W -f='${Status}' corvid-edr 2>/dev/null | grep -q "installed"; then
  echo "package-check: corvid-edr is installed already; this check installs and purges it" >&2
  exit 1
fi

work=$(mktemp -d /tmp/corvid-package-XXXXXX)
# The package owns what `make magic-db` or an earlier run may have put
# there; the host gets it back after each purge.
saved=()
for path in etc/corvid var/lib/corvid; do
  [ -e "/$path" ] && saved+=("$path")
done
[ ${#saved[@]} -eq 0 ] || tar -C / -cf "$work/before.tar" "${saved[@]}"
restore_host() {
  [ ! -f "$work/before.tar" ] || tar -C / -xf "$work/before.tar"
}
receiver_pid=""
agent_pid=""
cleanup() {
  status=$?
  [ -n "$agent_pid" ] && kill -TERM "$agent_pid" 2>/dev/null || true
  [ -n "$receiver_pid" ] && kill -TERM "$receiver_pid" 2>/dev/null || true
  wait 2>/dev/null || true
  if dpkg-query -W -f='${Status}' corvid-edr 2>/dev/null | grep -q "installed"; then
    apt-get purge -y -qq corvid-edr >/dev/null 2>&1 || true
  fi
  rm -rf "$watched"
  restore_host
  [ $status -eq 0 ] && rm -rf "$work"
  exit $status
}
trap cleanup EXIT

# Processes running an installed binary of ours (also once it was deleted).
ours() {
  for p in /proc/[0-9]*; do
    case "$(readlink "$p/exe" 2>/dev/null)" in
      /usr/bin/corvid-outpost* | /usr/sbin/corvid-edr*) echo "${p#/proc/}" ;;
    esac
  done
}
our_rules() { auditctl -l | grep -E 'key=(corvid_|FIM|IOC)|-k (corvid_|FIM|IOC)|msgtype=EOE -F pid!=1668248182' || true; }
eventually() { # seconds, command...
  local limit=$1 i=0
  shift
  until "$@"; do
    i=$((i + 1))
    [ $i -le $((limit * 5)) ] || return 1
    sleep 0.2
  done
}

say "== make package"
make -C "$root" --no-print-directory package BUILD="$build" | sed 's/^/    /'
deb=$(ls -t "$build"/corvid-edr_*.deb | head -n 1)
say "package: $deb"
dpkg-deb --info "$deb" | sed -n 's/^ \(Package\|Version\|Depends\|Recommends\):/    \1:/p'
dpkg-deb --contents "$deb" | awk '{print "    " $6}'

install_package() {
  say "== apt-get install $deb"
  apt-get install -y -qq "$deb" >"$work/apt.out" 2>&1 || { cat "$work/apt.out"; fail "install"; }
  say "conffiles:"
  dpkg-query -W -f='${Conffiles}\n' corvid-edr | sed '/^$/d; s/^ */    /'
  unit=$(ls /lib/systemd/system/corvid-outpost.service /usr/lib/systemd/system/corvid-outpost.service 2>/dev/null |
    head -n 1)
  [ -n "$unit" ] || fail "no unit file installed"
  for dir in /var/log/corvid "$state" "$state/keys"; do
    [ -d "$dir" ] || fail "postinst did not make $dir"
  done
}

# What the operator provisions: the request key, the back end's answer key
# and CA, and the back end's URLs.
configure() {
  mkdir -p "$work/received" "$work/certs"
  head -c 32 /dev/urandom | od -An -tx1 | tr -d ' \n' >"$state/keys/edr_hmac.key"
  chmod 600 "$state/keys/edr_hmac.key"
  "$build/corvid-test-receiver" --output "$work/received" --cert-dir "$work/certs" \
    --hmac-key-file "$state/keys/edr_hmac.key" >"$work/receiver.out" 2>&1 &
  receiver_pid=$!
  eventually 10 grep -q '^public_key:' "$work/receiver.out" || fail "the receiver did not start"
  url=$(sed -n 's/^url: //p' "$work/receiver.out")
  url=${url%/upload}
  cp "$(sed -n 's/^public_key: //p' "$work/receiver.out")" "$state/keys/edr_response.pub"
  python3 - "$config" "$url" "$(sed -n 's/^ca: //p' "$work/receiver.out")" <<'PY'
import json, sys
path, url, ca = sys.argv[1:4]
cfg = json.load(open(path))
cfg["common_config"].update(ca_cert_path=ca, service_url=url)
cfg["edr_config"]["status_upload_interval"] = 2
cfg["fim_config"].update(service_url=url + "/fim", upload_interval=2, max_file_age_sec=1)
cfg["ioc_config"].update(service_url=url + "/ioc")
json.dump(cfg, open(path, "w"), indent=4)
PY
  mkdir -p "$watched"
}

# As systemd would: the runtime directory, ExecStartPre, then ExecStart in
# the background.
start_service() {
  local pre start
  pre=$(sed -n 's/^ExecStartPre=//p' "$unit")
  start=$(sed -n 's/^ExecStart=//p' "$unit")
  say "== ExecStartPre=$pre"
  $pre >"$work/check.out" 2>&1 || { cat "$work/check.out"; fail "the check refused the installed configuration"; }
  sed 's/^/    /' "$work/check.out"
  say "== ExecStart=$start"
  $start </dev/null >"$work/service.out" 2>&1 &
  agent_pid=$!
  eventually 20 grep -q "daemon connected" "$work/service.out" || fail "the daemon did not connect"
  daemon_pid=$(sed -n 's/.*daemon connected, pid \([0-9]*\).*/\1/p' "$work/service.out" | tail -n 1)
  eventually 20 sh -c "auditctl -l | grep -q -- '$watched'" || fail "no audit rule for $watched"
  say "daemon $daemon_pid runs under agent $agent_pid; its rules:"
  our_rules | sed 's/^/    /'
  grep -m1 "corvid-edr .* starting" /var/log/corvid/edr.log | sed 's/^/    log: /' || fail "no version line"
}

document_arrives() {
  local name
  name="package-check-$$-$1.txt"
  echo "checked" >"$watched/$name"
  say "touched $watched/$name"
  eventually 30 sh -c "grep -lq '$name' '$work'/received/*.payload 2>/dev/null" ||
    fail "no FIM document for $name reached the receiver"
  say "the receiver got it:"
  grep "^request:" "$work/receiver.out" | sed 's/^/    /'
}

check_nothing_left() {
  local rules pids
  rules=$(our_rules)
  [ -z "$rules" ] || fail "audit rules left: $rules"
  pids=$(ours)
  [ -z "$pids" ] || fail "processes left: $pids"
  for path in /etc/corvid /var/lib/corvid /var/log/corvid /usr/sbin/corvid-edr /usr/bin/corvid-outpost; do
    [ ! -e "$path" ] || fail "$path left"
  done
  say "no audit rule, no process, no file of ours left"
  restore_host
}

stop_receiver() {
  kill -TERM "$receiver_pid" 2>/dev/null || true
  wait "$receiver_pid" 2>/dev/null || true
  receiver_pid=""
}

# 1. Start, document, stop, purge.
install_package
if command -v systemd-analyze >/dev/null; then
  say "== systemd-analyze verify $unit"
  systemd-analyze verify "$unit" >"$work/verify.out" 2>&1 || { cat "$work/verify.out"; fail "systemd-analyze verify"; }
  sed 's/^/    /' "$work/verify.out"
fi
configure
start_service
document_arrives stop
say "== stop (SIGTERM to the service's process)"
kill -TERM "$agent_pid"
status=0
wait "$agent_pid" || status=$?
agent_pid=""
say "the service ended with status $status"
[ $status -eq 0 ] || fail "the service did not stop cleanly"
sed 's/^/    /' "$work/service.out"
[ -z "$(our_rules)" ] || fail "the daemon left rules at stop: $(our_rules)"
stop_receiver
say "== apt-get purge corvid-edr"
apt-get purge -y -qq corvid-edr >"$work/apt.out" 2>&1 || { cat "$work/apt.out"; fail "purge"; }
check_nothing_left

# 2. Start, then kill everything of ours as a crash would, purge.
install_package
configure
start_service
say "== kill -KILL the daemon $daemon_pid and the agent $agent_pid"
kill -KILL "$daemon_pid" "$agent_pid"
wait "$agent_pid" 2>/dev/null || true
agent_pid=""
say "left in the kernel by the killed daemon: $(our_rules | wc -l) rules"
stop_receiver
say "== apt-get purge corvid-edr"
apt-get purge -y -qq corvid-edr >"$work/apt.out" 2>&1 || { cat "$work/apt.out"; fail "purge"; }
grep -E '^(Removing|Purging|corvid-outpost|dpkg)' "$work/apt.out" | sed 's/^/    /'
check_nothing_left
say "PASSED"
