#!/usr/bin/env bash
# Installs every Debian package the project builds, tests and demonstrates with.
# Idempotent: only missing packages are installed, and apt-get update runs once, only when needed.
set -euo pipefail

PACKAGES=(
  build-essential cmake pkg-config
  libnats-dev nats-server
  libczmq-dev libjson-c-dev libsodium-dev libcurl4-openssl-dev libarchive-dev
  uuid-dev libssl-dev libjemalloc-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  openssl unzip zip procps
  libmagic-dev libclamav-dev
  clang-14 libclang-rt-14-dev
  libsystemd-dev
  libmicrohttpd-dev
)

missing=()
for p in "${PACKAGES[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  echo "install-deps: all packages present"
  exit 0
fi

SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi
echo "install-deps: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
