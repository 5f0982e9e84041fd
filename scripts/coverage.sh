#!/usr/bin/env bash
# Line and function coverage of the library (link/, ops/, capi/, display/,
# config/) under the whole test suite, from a --coverage build in
# build-coverage, and the size of the suite against the code it tests.
# Counters are updated atomically: the client and simulator threads would
# otherwise tear them, and gcov then reports negative counts.
# Usage: scripts/coverage.sh   (scripts/velmora.sh coverage installs gcovr first)
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
cb=${VELMORA_COVERAGE_BUILD_DIR:-$root/build-coverage}
jobs=${VELMORA_JOBS:-$(nproc)}

cmake -S "$root" -B "$cb" -G Ninja -DCMAKE_BUILD_TYPE=Debug \
  -DCMAKE_C_FLAGS="--coverage -fprofile-update=atomic" -DCMAKE_CXX_FLAGS="--coverage -fprofile-update=atomic" \
  -DCMAKE_EXE_LINKER_FLAGS=--coverage -DCMAKE_SHARED_LINKER_FLAGS=--coverage
cmake --build "$cb" -j "$jobs"
find "$cb" -name '*.gcda' -delete
(cd "$cb" && ctest -j "$jobs" --output-on-failure) || echo "coverage: some tests failed; the figures below count what ran" >&2
# From inside the build tree, where gcov leaves its intermediate files. The
# per-file report goes to a file: gcovr deletes its output path after probing
# it, so "-o /dev/null" would remove the machine's /dev/null.
(cd "$cb" && gcovr -r "$root" . --filter "$root/link/" --filter "$root/ops/" --filter "$root/capi/" \
  --filter "$root/display/" --filter "$root/config/" --exclude '.*_autogen.*' --print-summary -o "$cb/coverage.txt")

# Non-blank lines. Tests: everything in tests/ that is code. Code: C, C++,
# Python and Lua outside tests/, fuzz/ and bench/ (the simulator, tools,
# examples and the Python module count as code).
lines() { xargs -r cat | grep -cv '^[[:space:]]*$' || true; }
src='\.(c|cpp|h|py|lua|sh)$'
tests=$(git -C "$root" ls-files tests | grep -E "$src" | (cd "$root" && lines))
code=$(git -C "$root" ls-files | grep -vE '^(tests|fuzz|bench)/' | grep -E '\.(c|cpp|h|py|lua)$' | (cd "$root" && lines))
echo "suite size: $tests test lines for $code lines of code ($((100 * tests / code))%)"
