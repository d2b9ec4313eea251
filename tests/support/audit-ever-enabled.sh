#!/usr/bin/env bash
# Set-up of the process-level and kernel capture tests. The kernel gives a
# process its audit context when the process is forked, and only once audit
# has been enabled since boot: on a freshly booted host whose audit was never
# enabled, a test process that ctest started before the test itself enabled
# audit would never be audited, only its children. Enabling audit once here,
# before ctest starts those tests, and putting the enabled flag straight back
# leaves the host's state as it was.
if [ "$(id -u)" != 0 ] || ! command -v auditctl >/dev/null; then
  echo "not root or no auditctl: nothing to do"
  exit 0
fi
if ! status=$(auditctl -s 2>/dev/null); then
  echo "no audit subsystem: nothing to do"
  exit 0
fi
enabled=$(awk '$1 == "enabled" { print $2 }' <<<"$status")
if [ "$enabled" = 0 ]; then
  auditctl -e 1 >/dev/null && auditctl -e 0 >/dev/null
  echo "audit enabled once and disabled again"
else
  echo "audit enabled flag is $enabled: nothing to do"
fi
