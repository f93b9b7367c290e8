#!/usr/bin/env bash
# Builds fq-av-bench and the worker, then runs the benchmark. Arguments go to fq-av-bench
# (--quick for a smoke run, --help for the rest). The report is written to stdout, progress to stderr.
#   BUILD_DIR  build directory (default: build beside this script's parent)
set -euo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
build="${BUILD_DIR:-$root/build}"
cmake -S "$root" -B "$build" >/dev/null
cmake --build "$build" -j"$(nproc)" --target fq-av-bench fq-av-scanproxy >/dev/null
exec "$build/fq-av-bench" "$@"
