#!/usr/bin/env bash
# Installs what is needed, configures, builds and runs every test suite: once as built for
# production, once with AddressSanitizer and UndefinedBehaviorSanitizer.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-deps.sh

cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo
cmake --build build -j"$(nproc)"
(cd build && ctest --output-on-failure)

if [ "${FQ_SKIP_SANITIZERS:-0}" != "1" ]; then
  cmake -S . -B build-sanitize -DCMAKE_BUILD_TYPE=Debug -DFQ_SANITIZE=address,undefined
  cmake --build build-sanitize -j"$(nproc)"
  (cd build-sanitize && UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1 ctest --output-on-failure)
fi

# A short fuzzing round over every parser of outside input (clang, ASan, UBSan).
if [ "${FQ_SKIP_FUZZ:-0}" != "1" ]; then
  bash scripts/fuzz.sh --seconds 10
fi
