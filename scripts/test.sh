#!/usr/bin/env bash
# Installs what is needed, configures, builds and runs every test suite: once as built for
# production, once with AddressSanitizer and UndefinedBehaviorSanitizer, and the unit and
# integration suites once more with ThreadSanitizer; then a short fuzzing round.
#   FQ_SKIP_SANITIZERS=1   skips the ASan/UBSan and TSan rounds
#   FQ_SKIP_FUZZ=1         skips the fuzzing round
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-deps.sh
jobs="$(nproc)"
root="$(pwd)"

# The process tests time stops and outages, so they run one at a time after the others.
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo
cmake --build build -j"$jobs"
(cd build && ctest --output-on-failure -j"$jobs" -L 'unit|integration')
(cd build && ctest --output-on-failure -L process)

if [ "${FQ_SKIP_SANITIZERS:-0}" != "1" ]; then
  cmake -S . -B build-sanitize -DCMAKE_BUILD_TYPE=Debug -DFQ_SANITIZE=address,undefined
  cmake --build build-sanitize -j"$jobs"
  export UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1
  (cd build-sanitize && ctest --output-on-failure -j"$jobs" -L 'unit|integration')
  (cd build-sanitize && ctest --output-on-failure -L process)

  cmake -S . -B build-tsan -DCMAKE_BUILD_TYPE=Debug -DFQ_SANITIZE=thread
  cmake --build build-tsan -j"$jobs"
  (cd build-tsan && TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1 suppressions=$root/tests/tsan.supp" \
    ctest --output-on-failure -j"$jobs" -L 'unit|integration')
fi

# A short fuzzing round over every parser of outside input (clang, ASan, UBSan).
if [ "${FQ_SKIP_FUZZ:-0}" != "1" ]; then
  bash scripts/fuzz.sh --seconds 10
fi
