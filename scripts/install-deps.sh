#!/usr/bin/env bash
# Installs the Debian packages a task needs; idempotent and non-interactive,
# run as root. Skips apt entirely when all of them are present.
#
#   install-deps.sh build   compile corvid-edr and make its package
#   install-deps.sh demo    build, plus what `make demo` runs
#   install-deps.sh all     build, demo and the whole test suite (default)
#
# Services that the packages bring (auditd, tinyproxy, rsyslog) are not
# started by the installation and not left enabled at boot: the tests and the
# demo start their own instances with their own settings.
set -euo pipefail

BUILD_PACKAGES=(
  build-essential cmake ninja-build ccache pkg-config git dpkg-dev
  libaudit-dev libauparse-dev
  libsqlite3-dev
  libprotobuf-dev protobuf-compiler
  libcurl4-openssl-dev libssl-dev ca-certificates
  liblzma-dev libmagic-dev libmagic-mgc
  libproxy-dev libpoco-dev rapidjson-dev
)
# What the demo runs beside the binaries: the kernel audit tools it checks
# with, its scripts' interpreter.
RUNTIME_PACKAGES=(auditd procps python3 openssl)
# The tests: frameworks, the sanitizer build's compiler, and the services the
# process tests start privately (auditd's dispatcher, a proxy, syslog).
TEST_PACKAGES=(
  libgtest-dev libgmock-dev libbenchmark-dev
  clang libclang-rt-14-dev
  audispd-plugins tinyproxy rsyslog sqlite3
)
SERVICES=(auditd tinyproxy rsyslog)

mode=${1:-all}
case "$mode" in
  build) PACKAGES=("${BUILD_PACKAGES[@]}") ;;
  demo) PACKAGES=("${BUILD_PACKAGES[@]}" "${RUNTIME_PACKAGES[@]}") ;;
  all) PACKAGES=("${BUILD_PACKAGES[@]}" "${RUNTIME_PACKAGES[@]}" "${TEST_PACKAGES[@]}") ;;
  *) echo "usage: install-deps.sh [build|demo|all]" >&2; exit 2 ;;
esac

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
# Keeps the packages' services from starting during the installation; the
# guard goes again however the installation ends.
guard=""
if [ ! -e /usr/sbin/policy-rc.d ]; then
  guard=/usr/sbin/policy-rc.d
  trap 'rm -f "$guard"' EXIT
  printf '#!/bin/sh\nexit 101\n' > "$guard"
  chmod +x "$guard"
fi
apt-get update -qq
apt-get install -y -qq --no-install-recommends "${missing[@]}"

# Not enabled at boot by us: only services whose package we just installed.
for service in "${SERVICES[@]}"; do
  for p in "${missing[@]}"; do
    if [ "$p" = "$service" ]; then
      systemctl disable "$service.service" >/dev/null 2>&1 || true
      update-rc.d "$service" disable >/dev/null 2>&1 || true
    fi
  done
done
