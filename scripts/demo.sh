#!/usr/bin/env bash
# Installs, builds and runs the worker in console mode with its trace on the screen until Ctrl-C.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-deps.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j"$(nproc)" --target fq-av-scanproxy

basedir=$(mktemp -d /tmp/fq-av-demo.XXXXXX)
mkdir -p "$basedir/fq-av-scanproxy" "$basedir/run"
echo "demo: basedir $basedir; Ctrl-C stops the worker"
exec ./build/fq-av-scanproxy --console-mode --basedir "$basedir" --broker nats://127.0.0.1:4222 \
  --tracefile "$basedir/trace.log" --tracelevel 6 "$@"
