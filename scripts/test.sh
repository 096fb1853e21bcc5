#!/usr/bin/env bash
# Builds everything and runs every C++ and Python test.
set -euo pipefail
cd "$(dirname "$0")/.."
BUILD=${TESSEL_BUILD_DIR:-$(pwd)/build}
cmake -S . -B "$BUILD" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$BUILD" -j"$(nproc)"
ctest --test-dir "$BUILD" --output-on-failure
