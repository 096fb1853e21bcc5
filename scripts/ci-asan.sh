#!/usr/bin/env bash
# The C++ and Python test suites under AddressSanitizer + UndefinedBehavior-
# Sanitizer (clang), in their own build folder. Any sanitizer report fails
# the run (-fno-sanitize-recover=all; ASan exits non-zero).
#
# Python: the interpreter is not instrumented, so the ASan runtime is
# preloaded, and leak detection is off for that run (the interpreter keeps
# memory to exit on purpose, which LeakSanitizer would report). Leaks of the
# library are still caught there by the host's live-allocation counts that
# every Python test checks, and by the C++ suite, which runs with
# LeakSanitizer on.
set -euo pipefail
cd "$(dirname "$0")/.."
ROOT=$(pwd)
BUILD=${TESSEL_ASAN_BUILD_DIR:-$ROOT/build-asan}
JOBS=${JOBS:-$(nproc)}

CC=clang CXX=clang++ cmake -S "$ROOT" -B "$BUILD" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DTESSEL_SANITIZE=address,undefined >/dev/null
cmake --build "$BUILD" -j"$JOBS"

export TESSEL_SANITIZED_BUILD=1
export TESSEL_LIBRARY="$BUILD/lib/libtessel.so"
export ASAN_SYMBOLIZER_PATH=${ASAN_SYMBOLIZER_PATH:-$(command -v llvm-symbolizer || true)}
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1

echo "ci-asan: C++ suite (LeakSanitizer on; allocation-sweep table in $BUILD/allocation-sweep.txt)"
ASAN_OPTIONS=detect_leaks=1:strict_string_checks=1:detect_stack_use_after_return=1 \
  TESSEL_SWEEP_TABLE="$BUILD/allocation-sweep.txt" \
  "$BUILD/bin/tessel_tests" --gtest_brief=1

echo "ci-asan: Python suite"
ASAN_RT=$(clang -print-file-name=libclang_rt.asan-x86_64.so)
LD_PRELOAD="$ASAN_RT" ASAN_OPTIONS=detect_leaks=0 MPLBACKEND=Agg \
  PYTHONPATH="$ROOT/python:$BUILD/lib" \
  /usr/bin/python3 -m pytest -q -p no:cacheprovider "$ROOT/tests/python"
