#!/usr/bin/env bash
# Builds the libFuzzer harness (clang, ASan + UBSan, coverage on the library
# and the host) and runs it for FUZZ_SECONDS (default 60) from the checked-in
# seed corpus. New inputs go to a scratch folder, never into fuzz/corpus.
# Any crash, sanitizer report, leak, host storage left live, or an input
# running longer than 10 s fails the run; the input is kept in $ARTIFACTS.
#
# Allocation limits: the host refuses any single request above 1 TiB and
# the library must take that refusal as an allocation failure, so libFuzzer's
# own malloc limit is lifted to that size and ASan returns null for requests
# the machine cannot map (allocator_may_return_null) instead of aborting;
# the resident-memory limit stays at 2.5 GiB.
set -euo pipefail
cd "$(dirname "$0")/.."
ROOT=$(pwd)
BUILD=${TESSEL_FUZZ_BUILD_DIR:-$ROOT/build-fuzz}
SECONDS_TO_RUN=${FUZZ_SECONDS:-60}
ARTIFACTS=${FUZZ_ARTIFACTS:-$BUILD/artifacts}

CC=clang CXX=clang++ cmake -S "$ROOT" -B "$BUILD" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DTESSEL_SANITIZE=address,undefined -DTESSEL_FUZZ=ON \
  -DTESSEL_BUILD_TESTS=OFF -DTESSEL_BUILD_PYTHON=OFF >/dev/null
cmake --build "$BUILD" -j"${JOBS:-$(nproc)}" --target fuzz_entry_points

WORK=$(mktemp -d)
trap 'rm -rf "$WORK"' EXIT
mkdir -p "$ARTIFACTS"
export TESSEL_LIBRARY="$BUILD/lib/libtessel.so"
export ASAN_SYMBOLIZER_PATH=${ASAN_SYMBOLIZER_PATH:-$(command -v llvm-symbolizer || true)}
export ASAN_OPTIONS=allocator_may_return_null=1:detect_leaks=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
"$BUILD/bin/fuzz_entry_points" -max_total_time="$SECONDS_TO_RUN" -timeout=10 \
  -rss_limit_mb=2560 -malloc_limit_mb=1048576 -print_final_stats=1 \
  -artifact_prefix="$ARTIFACTS/" "$WORK" "$ROOT/fuzz/corpus"
