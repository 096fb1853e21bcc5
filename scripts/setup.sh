#!/usr/bin/env bash
# Sets Tessel up on a fresh Debian machine (run as root): installs every
# dependency with apt-get, builds the library, the host runtime and the
# Python extension, makes `import tessel` work for /usr/bin/python3, installs
# the `tessel` command, and runs `tessel demo`.
#
#   scripts/setup.sh             everything, then the demo
#   scripts/setup.sh --no-demo   everything but the demo
#   scripts/setup.sh --deps-only only the apt-get step
set -euo pipefail
cd "$(dirname "$0")/.."
ROOT=$(pwd)
BUILD=${TESSEL_BUILD_DIR:-$ROOT/build}

PACKAGES=(build-essential cmake g++ binutils pkg-config
          libgtest-dev libgmock-dev libbenchmark-dev
          python3 python3-dev python3-numpy python3-scipy python3-pandas
          python3-matplotlib python3-statsmodels python3-pytest python3-jsonschema
          pybind11-dev python3-pybind11)

missing=()
for p in "${PACKAGES[@]}"; do
  dpkg -s "$p" >/dev/null 2>&1 || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "setup: installing ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq
  apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi
[ "${1:-}" = "--deps-only" ] && exit 0

echo "setup: building in $BUILD"
cmake -S "$ROOT" -B "$BUILD" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$BUILD" -j"$(nproc)"

# `import tessel` for Debian's interpreter: a .pth file naming the package
# folder and the folder of the compiled module.
SITE=$(/usr/bin/python3 -c 'import site; print(site.getsitepackages()[0])')
mkdir -p "$SITE"
printf '%s\n%s\n' "$ROOT/python" "$BUILD/lib" > "$SITE/tessel.pth"
cat > /usr/local/bin/tessel <<SH
#!/bin/sh
exec /usr/bin/python3 -m tessel "\$@"
SH
chmod +x /usr/local/bin/tessel
echo "setup: done (tessel command in /usr/local/bin, package via $SITE/tessel.pth)"

[ "${1:-}" = "--no-demo" ] && exit 0
tessel demo
