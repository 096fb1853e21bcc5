#!/usr/bin/env bash
# Installs the tools of the reliability jobs when they are missing: clang
# with its sanitizer and libFuzzer runtimes, llvm-symbolizer for readable
# reports, and valgrind. Debian packages only (run as root on a fresh
# machine; a no-op where everything is present).
set -euo pipefail
PACKAGES=(clang libclang-rt-14-dev llvm valgrind clang-format pyflakes3)
missing=()
for p in "${PACKAGES[@]}"; do
  dpkg -s "$p" >/dev/null 2>&1 || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "ci-tools: installing ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq
  apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi
