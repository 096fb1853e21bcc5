#!/usr/bin/env bash
# The C++ test suite under valgrind memcheck, then the fuzz seed corpus
# replayed through every entry point (fuzz_replay): any invalid read or
# write, use of an uninitialised value (which the ASan job does not see),
# or leak fails the run. Uses the ordinary build (TESSEL_BUILD_DIR, default
# build/), made by scripts/test.sh.
#
# Death tests run in the "threadsafe" style: the child re-executes the test
# binary outside valgrind, so the intended early exits of those children are
# not counted as leaks of the suite.
set -euo pipefail
cd "$(dirname "$0")/.."
BUILD=${TESSEL_BUILD_DIR:-$(pwd)/build}
if [ ! -x "$BUILD/bin/tessel_tests" ] || [ ! -x "$BUILD/bin/fuzz_replay" ]; then
  cmake -S . -B "$BUILD" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
  cmake --build "$BUILD" -j"${JOBS:-$(nproc)}"
fi
export TESSEL_LIBRARY="$BUILD/lib/libtessel.so"
MEMCHECK=(valgrind --tool=memcheck --error-exitcode=1 --leak-check=full
          --errors-for-leak-kinds=definite,indirect --track-origins=yes --quiet)
echo "ci-valgrind: C++ suite"
"${MEMCHECK[@]}" "$BUILD/bin/tessel_tests" --gtest_brief=1 --gtest_death_test_style=threadsafe
echo "ci-valgrind: fuzz seed corpus"
"${MEMCHECK[@]}" "$BUILD/bin/fuzz_replay" fuzz/corpus
