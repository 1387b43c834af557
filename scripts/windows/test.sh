#!/usr/bin/env bash
# Builds and tests the Windows flavour on Debian: installs the cross tools and
# wine, builds the Windows dependencies (cached, see build-deps.sh), cross-builds
# lib_videorepair.dll, videorepair.exe and the tests with ffmpeg.exe beside them,
# and runs the suite under wine.
#
#   scripts/windows/test.sh [BUILD_DIR]      (make test-windows)
set -euo pipefail

here="$(cd "$(dirname "$0")" && pwd)"
repo="$(cd "$here/../.." && pwd)"
build="${1:-$repo/build-windows}"
cache="${VIDEOREPAIR_WINDOWS_CACHE:-$HOME/.cache/videorepair-windows}"
prefix="$cache/prefix"
jobs="${JOBS:-$(nproc)}"
export VIDEOREPAIR_WINDOWS_CACHE="$cache"

# --- tools ------------------------------------------------------------------
bash "$here/../install-deps.sh" cmake ninja-build make pkg-config dpkg-dev g++-mingw-w64-x86-64-posix \
  binutils-mingw-w64-x86-64 wine wine64 googletest ffmpeg

# --- dependencies and build -------------------------------------------------------
bash "$here/build-deps.sh"

wine=/usr/lib/wine/wine64
cmake -S "$repo" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release \
  -DCMAKE_CXX_FLAGS_RELEASE="-O2 -DNDEBUG" \
  -DCMAKE_TOOLCHAIN_FILE="$repo/cmake/mingw-w64-x86_64.cmake" \
  -DVIDEOREPAIR_WINDOWS_PREFIX="$prefix" -DGTest_DIR="$prefix/lib/cmake/GTest" \
  -DCMAKE_CROSSCOMPILING_EMULATOR="$wine" >/dev/null
cmake --build "$build" -j "$jobs"

# Exactly the six entry points leave the DLL.
dll="$build/bin/lib_videorepair.dll"
exports="$(x86_64-w64-mingw32-objdump -p "$dll" |
  sed -n '/\[Ordinal\/Name Pointer\] Table/,/^$/p' | grep -E '^\s*\[ *[0-9]+\]' | awk '{print $NF}' | sort)"
expected="$(printf '%s\n' CheckRemoteRepairable CreateMetaDataParser CreateRemoteRepairManager \
  DeleteRemoteRepairManager InitKzVideoRepairLib SetRemoteRepairLogPath)"
if [ "$exports" != "$expected" ]; then
  echo "lib_videorepair.dll exports other functions than the six entry points:" >&2
  echo "$exports" >&2
  exit 1
fi
echo "lib_videorepair.dll exports: $(echo $exports)"

# --- tests under wine ------------------------------------------------------------
export WINEPREFIX="$cache/wineprefix" WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml="
export WINEARCH=win64
unset DISPLAY
if [ ! -f "$WINEPREFIX/system.reg" ]; then
  echo "Creating the wine prefix"
  "$wine" wineboot --init >/dev/null 2>&1 || true
  wineserver -w  # the first boot's server goes away before the persistent one starts
fi
# One server for all test processes, instead of one per test (it refuses when
# one is already running, which is as good).
wineserver -p || true
# Start wine's own services now, with no output attached: started by the first
# test they would hold its output pipe open, and ctest would wait for it.
"$wine" cmd /c exit </dev/null >/dev/null 2>&1 || true
stop="$build/testmedia.stop"
rm -f "$stop"
bash "$here/media-broker.sh" "$build/testmedia" "$stop" &
broker=$!
status=0
(cd "$build" && ctest --output-on-failure -j "$jobs" --timeout 600) || status=$?
touch "$stop"
wait "$broker" || true
wineserver -k || true
exit "$status"
