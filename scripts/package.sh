#!/usr/bin/env bash
# Builds the Debian packages fq-av-scanproxy, fq-av-peers and fq-av-client into build/packages/.
# Install them with: apt install ./build/packages/fq-av-*.deb
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo
cmake --build build -j"$(nproc)"
(cd build && cpack -G DEB -B "$PWD/packages")
ls -l build/packages/*.deb
