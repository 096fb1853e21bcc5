#!/usr/bin/env bash
# The hostile-input run over the public Python API and the `tessel` command
# (fuzz/hostile.py): every case in a process of its own, on every core. Any
# crash, hang past 8 s, unclear error, modified input, silently wrong result
# or refused valid input fails the run. Uses the build of scripts/test.sh.
set -euo pipefail
cd "$(dirname "$0")/.."
ROOT=$(pwd)
BUILD=${TESSEL_BUILD_DIR:-$ROOT/build}
PYTHONPATH="$ROOT/python:$BUILD/lib" TESSEL_LIBRARY="$BUILD/lib/libtessel.so" \
  /usr/bin/python3 "$ROOT/fuzz/hostile.py" --jobs "${JOBS:-$(nproc)}"
