#!/usr/bin/env bash
# Formatting and lint: every C/C++ source formatted as .clang-format says,
# and pyflakes clean over the Python sources. Fails on the first finding.
set -euo pipefail
cd "$(dirname "$0")/.."
git ls-files '*.c' '*.cpp' '*.h' '*.hpp' | xargs clang-format --dry-run -Werror
pyflakes3 $(git ls-files '*.py')
echo "lint: clean"
