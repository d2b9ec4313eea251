#!/usr/bin/env bash
# Runs the daemon's main job on built-in defaults and shows what it detected
# and uploaded:
#  - a local HTTPS upload receiver (certificate made now, HMAC checked,
#    uncompressed uploads refused, answers signed),
#  - the stand-in host agent, which starts corvid-edr and hands it the default
#    configuration pointed at this demo's directories,
#  - the default FIM manifest pointed at a scratch directory,
#  - the default IOC manifest, its directory rule pointed at the same place,
#  - a short workload on the real kernel audit stream: file work in that
#    directory, then a script run from /tmp that reads /etc/shadow with a
#    viewing tool and fetches from the receiver with a transfer tool,
#  - the receiver decoding every IOC batch it takes.
# The agent socket lives in the demo's directory (CORVID_EDR_AGENT_SOCKET), so
# that an installed agent's socket is never touched. On failure the work
# directory is kept and the daemon log's tail printed.
set -euo pipefail
build=${1:-build}
root=$(cd "$(dirname "$0")/.." && pwd)
build=$(cd "$root" && cd "$build" && pwd)

if [ "$(id -u)" -ne 0 ]; then
  echo "demo: run as root (the daemon manages kernel audit rules)" >&2
  exit 1
fi
if ! auditctl -s >/dev/null 2>&1; then
  echo "demo: the kernel audit subsystem does not answer here (auditctl -s); nothing to show" >&2
  exit 1
fi

work=$(mktemp -d /tmp/corvid-demo-XXXXXX)
receiver_pid=""
agent_pid=""
cleanup() {
  status=$?
  # The agent stops its daemon, which takes its audit rules along, before it ends.
  [ -n "$agent_pid" ] && { kill "$agent_pid" 2>/dev/null; wait "$agent_pid" 2>/dev/null; } || true
  [ -n "$receiver_pid" ] && kill "$receiver_pid" 2>/dev/null || true
  if [ "$status" -eq 0 ]; then
    rm -rf "$work"
    return
  fi
  echo
  echo "demo: failed (status $status); everything it made is kept in $work" >&2
  if [ -f "$work/log/edr.log" ]; then
    echo "== last lines of the daemon log ($work/log/edr.log)" >&2
    tail -n 40 "$work/log/edr.log" | sed 's/^/   /' >&2
  fi
}
trap cleanup EXIT
mkdir -p "$work/watched" "$work/outpost/keys" "$work/received" "$work/certs" "$work/run"
# The stand-in agent listens here and tells the daemon it starts to connect here.
export CORVID_EDR_AGENT_SOCKET="$work/run/agent_edr.sock"
head -c 32 /dev/urandom | od -An -tx1 | tr -d ' \n' > "$work/outpost/keys/edr_hmac.key"

# 1. The upload receiver.
"$build/corvid-test-receiver" --output "$work/received" --cert-dir "$work/certs" \
  --hmac-key-file "$work/outpost/keys/edr_hmac.key" --request-log "$work/requests.log" --print-ioc \
  > "$work/receiver.out" 2>&1 &
receiver_pid=$!
for _ in $(seq 50); do grep -q '^ca:' "$work/receiver.out" 2>/dev/null && break; sleep 0.1; done
url=$(sed -n 's/^url: //p' "$work/receiver.out")
ca=$(sed -n 's/^ca: //p' "$work/receiver.out")
base=$(sed -n 's/^ioc_service_url: //p' "$work/receiver.out")
[ -n "$url" ] || { echo "demo: the receiver did not start"; cat "$work/receiver.out"; exit 1; }
# The daemon checks the receiver's answers with its public key.
cp "$(sed -n 's/^public_key: //p' "$work/receiver.out")" "$work/outpost/keys/edr_response.pub"

# 2. Configuration, logging and manifest, from the defaults.
# Debug level: IOC logs each event it handles there.
sed -e "s#^logging.channels.c1.path = .*#logging.channels.c1.path = $work/log/edr.log#" \
    -e "s#^logging.loggers.l1.level = .*#logging.loggers.l1.level = debug#" \
    "$root/config/logging.properties" > "$work/logging.properties"
python3 - "$root" "$work" "$url" "$ca" <<'PY'
import json, sys
root, work, url, ca = sys.argv[1:5]
cfg = json.load(open(root + "/config/corvid-edr.json"))
common = cfg["common_config"]
common.update(log_config_file=work + "/logging.properties", agent_install_path=work + "/outpost",
              ca_cert_path=ca, service_url=url)
cfg["fim_config"].update(event_file_path=work + "/spool/", service_url=url + "/fim",
                         manifest_path=work + "/fim_manifest.json", upload_interval=3, max_file_age_sec=1)
cfg["edr_config"]["status_upload_interval"] = 3
cfg["ioc_config"].update(event_file_path=work + "/spool/", service_url=url + "/ioc",
                         upload_interval=3, max_file_age_sec=1,
                         manifests=[{"manifest_path": work + "/ioc_manifest.json", "manifest_type": "ioc"}])
json.dump(cfg, open(work + "/corvid-edr.json", "w"), indent=2)
manifest = json.load(open(root + "/config/fim_manifest.json"))
for rule in manifest["data"]["fim"]["rules"]:
    rule["imagePath"] = work + "/watched"
json.dump(manifest, open(work + "/fim_manifest.json", "w"), indent=2)
ioc = json.load(open(root + "/config/ioc_manifest.json"))
ioc["globalSettings"]["gateway_url"] = url + "/ioc"
for rule in ioc["rules"]:
    if rule["ruleType"] == "Directory":
        rule["path"] = work + "/watched"
json.dump(ioc, open(work + "/ioc_manifest.json", "w"), indent=2)
PY

echo "== corvid-edr demo"
echo "   receiver:      $url (CA $ca)"
echo "   watched:       $work/watched"
echo "   configuration: $work/corvid-edr.json"
echo "   agent socket:  $CORVID_EDR_AGENT_SOCKET"
echo

# 3. The agent starts the daemon and tells it to exit after the workload.
"$build/corvid-outpost" --config "$work/corvid-edr.json" --start "$build/corvid-edr" \
  --then fim_status --after 2 --then ioc_status --after 0.5 --then exit --after 15.5 </dev/null > "$work/agent.out" 2>&1 &
agent_pid=$!
sleep 3

# 4. The workload.
echo "== workload in $work/watched"
# In a subshell: the kernel audits only processes forked after audit was
# first enabled since boot, and on a fresh host the daemon has just done that;
# this shell's own redirections would go unseen.
(
  cd "$work/watched"
  echo "hello" > report.txt;                echo "   created report.txt"
  echo "more lines" >> report.txt;          echo "   appended to report.txt"
  mv report.txt report-final.txt;           echo "   renamed it to report-final.txt"
  chmod 600 report-final.txt;               echo "   chmod 600 report-final.txt"
  mkdir archive;                            echo "   created directory archive"
  cp report-final.txt archive/copy.txt;     echo "   copied it into archive/"
  rm report-final.txt;                      echo "   deleted report-final.txt"
)
# A staged script in /tmp (Execution) reads a credential file with a viewing
# tool (CredentialAccess) and pulls data with a transfer tool (Exfiltration).
stage="$work/stage.sh"
printf '%s\n' "head -n 1 /etc/shadow > /dev/null" "wget -q --no-check-certificate -O /dev/null $base/download/4096" > "$stage"
# File reads are audited for processes of a login session only (daemons are
# left out); give the script one when the demo runs outside any. The first
# run is reported because its executables are new to IOC; the second one
# because its processes reach the tag threshold (Execution + CredentialAccess,
# Execution + Exfiltration).
(
  if [ "$(cat /proc/self/loginuid)" = 4294967295 ]; then echo 0 > /proc/self/loginuid || true; fi
  bash "$stage"
  bash "$stage"
)
echo "   bash $stage, twice: head -n 1 /etc/shadow, wget $base/download/4096"

wait "$agent_pid" || true
agent_pid=""
echo
echo "== stand-in agent"
sed 's/^/   /' "$work/agent.out"
kill "$receiver_pid" 2>/dev/null || true
wait "$receiver_pid" 2>/dev/null || true
receiver_pid=""

echo
echo "== requests the receiver got"
sed 's/^/   /' "$work/requests.log" 2>/dev/null || echo "   none"

echo
echo "== what the receiver got"
python3 - "$work/received" "$work/watched" <<'PY'
import collections, glob, json, os, sys
received, watched = sys.argv[1:3]
docs = []
for path in sorted(glob.glob(received + "/*.payload")):
    try:
        body = json.load(open(path, encoding="utf-8"))
    except ValueError as e:
        print("   %s: not JSON (%s)" % (os.path.basename(path), e))
        continue
    docs.extend(body.get("events", []) if isinstance(body, dict) else [])
if not docs:
    print("   no FIM documents were uploaded")
    sys.exit(1)
actions = collections.Counter()
for doc in docs:
    action = doc.get("eventAction", "?")
    target = doc.get("imagePath", "")
    actor = doc.get("actor", {})
    print("   %-24s %-32s by %s (pid %s, user %s)" % (action, target.replace(watched, "<watched>"),
          actor.get("procTitle", "?"), actor.get("processID", "?"), actor.get("userName", "?")))
    actions[action] += 1
print()
print("   %d documents: %s" % (len(docs), ", ".join("%s %d" % kv for kv in sorted(actions.items()))))
print()
print("   first document in full:")
print("\n".join("     " + line for line in json.dumps(docs[0], indent=2).splitlines()))
PY

echo
echo "== health-status records the receiver got (route /edr/status)"
python3 - "$work/received" <<'PY'
import glob, json, os, sys
records = []
for path in sorted(glob.glob(sys.argv[1] + "/*.status"), key=lambda p: int(os.path.basename(p).split(".")[0])):
    records.extend(json.load(open(path, encoding="utf-8")).get("status", []))
if not records:
    print("   no health-status records were uploaded")
    sys.exit(1)
for record in records:
    fields = record.get("additionalFields")
    print("   %s %-22s %4d state %d %s" % (record["dateTime"], record["contextId"], record["statusCode"],
          record["state"], json.dumps(fields) if fields is not None else ""))
PY

echo
echo "== IOC batches the receiver decoded (route .../linuxagentevent/v1/customer/<c>/agent/<a>)"
python3 - "$work/receiver.out" "$stage" <<'PY2'
import collections, re, sys
out, stage = sys.argv[1:3]
lines = [l.rstrip("\n") for l in open(out, encoding="utf-8", errors="replace")]
batches = [l for l in lines if l.startswith("batch ")]
events = [l for l in lines if re.match(r"(processEvent|fileEvent|networkEvent|directoryEvent|loadedModule) ", l)]
if not batches:
    print("   the receiver took no IOC batch")
    sys.exit(1)
for line in batches:
    print("   " + line)
for line in (l for l in lines if l.startswith("warning: ")):
    print("   " + line)
kinds = collections.Counter(l.split(" ", 1)[0] for l in events)
print("   %d events: %s" % (len(events), ", ".join("%s %d" % kv for kv in sorted(kinds.items()))))
# The workload's own: the staged script, what it ran, and the file work.
workload = [l for l in events if stage in l or re.search(r"\((/usr)?/bin/(head|wget|mv|chmod|mkdir|cp|rm)\)", l)]
print("   the workload's events (kind, action, pid, process, path or endpoint, tags and verdicts):")
for line in workload:
    print("     " + line)
if not any("/etc/shadow" in l for l in workload) or not any("wget" in l for l in workload):
    print("   the staged script's credential read or transfer did not arrive")
    sys.exit(1)
if not any("/etc/shadow" in l and '"CredentialAccess"' in l for l in workload):
    print("   the second run's credential read did not arrive with its tags")
    sys.exit(1)
PY2
