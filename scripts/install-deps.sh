#!/usr/bin/env bash
# Installs from Debian what the build, the tests, the benchmarks and the
# fuzz targets need (clang-14 with libclang-rt-14-dev, which ships libFuzzer;
# llvm-14 for the symbolizer; rsyslog as a receiver for the delivery tests).
# Idempotent: packages already present are not touched. Works as root and,
# through sudo, as a user.
set -euo pipefail

PACKAGES=(
  g++ cmake make pkg-config ninja-build
  libpoco-dev libjsoncpp-dev libyara-dev yara zlib1g-dev
  libgtest-dev libgmock-dev googletest libbenchmark-dev
  nginx-light apache2 curl python3 procps util-linux iproute2 time
  clang-14 libclang-rt-14-dev llvm-14
  docker.io containerd runc podman busybox-static
  dpkg-dev
  rsyslog
)

missing=()
for p in "${PACKAGES[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done
[ ${#missing[@]} -eq 0 ] && exit 0

SUDO=""
if [ "$(id -u)" -ne 0 ]; then
  command -v sudo >/dev/null || { echo "install-deps: need root or sudo to install: ${missing[*]}" >&2; exit 1; }
  SUDO="sudo"
fi
echo "install-deps: installing ${missing[*]}" >&2
export DEBIAN_FRONTEND=noninteractive
# Web servers and container runtimes are test tools here: keep their packages
# from starting services (invoke-rc.d and deb-systemd-invoke ask policy-rc.d).
if [ ! -e /usr/sbin/policy-rc.d ]; then
  printf '#!/bin/sh\nexit 101\n' | $SUDO tee /usr/sbin/policy-rc.d >/dev/null
  $SUDO chmod +x /usr/sbin/policy-rc.d
  trap '$SUDO rm -f /usr/sbin/policy-rc.d' EXIT
fi
$SUDO apt-get update -qq
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
