#!/usr/bin/env bash
# Builds the libFuzzer targets (clang, AddressSanitizer and UBSan) into build-fuzz/ and runs each
# one on a scratch copy of its seed corpus in tests/fuzz/corpus/<target>/.
#
#   scripts/fuzz.sh                 each target for 10 s (the short round of scripts/test.sh)
#   scripts/fuzz.sh --seconds N     each target for N s
#   scripts/fuzz.sh --runs N        each target for N executions (the long round)
#
# A crash leaves its input in build-fuzz/artifacts/ and ends the script with status 1; add that
# input to the target's corpus once the fault is fixed, so it stays a regression case.
set -euo pipefail
cd "$(dirname "$0")/.."

limit=(-max_total_time=10)
case "${1:-}" in
  --seconds) limit=(-max_total_time="$2") ;;
  --runs) limit=(-runs="$2") ;;
  "") ;;
  *) echo "usage: $0 [--seconds N | --runs N]" >&2; exit 2 ;;
esac

CC=clang-14 CXX=clang++-14 cmake -S . -B build-fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo -DFQ_FUZZ=ON >/dev/null
cmake --build build-fuzz -j"$(nproc)" >/dev/null

mkdir -p build-fuzz/artifacts
status=0
for corpus in tests/fuzz/corpus/*/; do
  target=$(basename "$corpus")
  scratch=$(mktemp -d)
  cp -r "$corpus". "$scratch"/
  echo "fuzz: $target ${limit[*]}"
  if ! UBSAN_OPTIONS=halt_on_error=1 "build-fuzz/$target" "${limit[@]}" -artifact_prefix=build-fuzz/artifacts/ \
      -print_final_stats=1 "$scratch" >"build-fuzz/$target.log" 2>&1; then
    echo "fuzz: $target FAILED, see build-fuzz/$target.log" >&2
    tail -30 "build-fuzz/$target.log" >&2
    status=1
  else
    grep -E "stat::number_of_executed_units|Done [0-9]+ runs" "build-fuzz/$target.log" | sed "s/^/fuzz: $target: /"
  fi
  rm -rf "$scratch"
done
exit $status
