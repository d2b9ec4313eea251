#!/usr/bin/env bash
# Installs every Debian package that the build, the tests and the demo need.
# Idempotent and non-interactive; run as root. Skips apt entirely when all
# packages are already present.
set -euo pipefail

PACKAGES=(
  build-essential cmake ninja-build ccache pkg-config git
  libaudit-dev libauparse-dev auditd audispd-plugins
  libsqlite3-dev sqlite3
  libprotobuf-dev protobuf-compiler
  libcurl4-openssl-dev libssl-dev openssl ca-certificates
  liblzma-dev libmagic-dev libmagic-mgc
  libproxy-dev libpoco-dev rapidjson-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  clang libclang-rt-14-dev
  tinyproxy rsyslog procps python3
)

missing=()
for p in "${PACKAGES[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

if [ "$(id -u)" -ne 0 ]; then
  echo "install-deps: missing packages (${missing[*]}); run as root" >&2
  exit 1
fi

echo "install-deps: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
apt-get update -qq
# Services that the packages would start (auditd, tinyproxy, rsyslog) are
# started by the tests and the demo themselves, with their own settings.
printf '#!/bin/sh\nexit 101\n' > /usr/sbin/policy-rc.d.corvid
chmod +x /usr/sbin/policy-rc.d.corvid
had_policy=0
[ -e /usr/sbin/policy-rc.d ] && had_policy=1
[ $had_policy -eq 1 ] || cp /usr/sbin/policy-rc.d.corvid /usr/sbin/policy-rc.d
apt-get install -y -qq --no-install-recommends "${missing[@]}"
[ $had_policy -eq 1 ] || rm -f /usr/sbin/policy-rc.d
rm -f /usr/sbin/policy-rc.d.corvid
