#!/usr/bin/env bash
# Installs what is needed, configures, builds and runs every test suite.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-deps.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo
cmake --build build -j"$(nproc)"
cd build
ctest --output-on-failure
