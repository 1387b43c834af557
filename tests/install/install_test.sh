#!/usr/bin/env bash
# The build as a packager and an integrator meet it, outside the build tree.
#   install: `cmake --install` into a temporary prefix; a consumer built once with
#            find_package(VideoRepair) and once with pkg-config; the installed tool
#            repairing a WMV file (the compatible road runs ffmpeg) with ffmpeg only
#            on PATH, the result checked with ffprobe.
#   deb:     `cpack -G DEB`: what the package holds and depends on, and its tool
#            running from the unpacked tree.
# usage: install_test.sh install|deb BUILD_DIR CMAKE GENERATOR CXX FFMPEG FFPROBE [CXXFLAGS]
set -euo pipefail

mode=$1 build=$2 cmake=$3 generator=$4 cxx=$5 ffmpeg=$6 ffprobe=$7 cxxflags=${8:-}
here=$(cd "$(dirname "$0")" && pwd)
cpack=$(dirname "$cmake")/cpack
tmp=$(mktemp -d "${TMPDIR:-/tmp}/vr-install.XXXXXX")
trap 'rm -rf "$tmp"' EXIT

fail() { echo "FAIL: $*" >&2; exit 1; }

video_frames() {
  "$ffprobe" -v error -count_frames -select_streams v:0 -show_entries stream=nb_read_frames -of csv=p=0 "$1"
}

check_install() {
  local prefix=$tmp/prefix
  "$cmake" --install "$build" --prefix "$prefix" >/dev/null
  local lib
  lib=$(find "$prefix" -name 'lib_videorepair.so' | head -n 1)
  [ -n "$lib" ] || fail "lib_videorepair.so was not installed"
  local libdir
  libdir=$(dirname "$lib")
  readelf -d "$lib" | grep -q 'SONAME.*lib_videorepair\.so\.[0-9]' || fail "the library has no versioned soname"
  [ -f "$prefix/include/videorepair/IVideoRepairManager.h" ] || fail "headers are not under include/videorepair"
  head -n 1 "$prefix/share/man/man1/videorepair.1" | grep -q '^\.TH VIDEOREPAIR 1' || fail "no man page"
  readelf -d "$prefix/bin/videorepair" | grep -E 'R(UN)?PATH' | grep -q '\$ORIGIN/\.\./' ||
    fail "the tool's run path is not relative"
  ! readelf -d "$prefix/bin/videorepair" | grep -E 'R(UN)?PATH' | grep -qF "$build" ||
    fail "the tool's run path points into the build tree"

  # A consumer through the CMake package.
  "$cmake" -S "$here/consumer" -B "$tmp/cmake-consumer" -G "$generator" -DCMAKE_CXX_COMPILER="$cxx" \
    -DCMAKE_CXX_FLAGS="$cxxflags" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
  "$cmake" --build "$tmp/cmake-consumer" >/dev/null
  mkdir -p "$tmp/run1"
  "$tmp/cmake-consumer/consumer" "$tmp/run1" | grep -q 'manager initialized: 0' || fail "the CMake consumer"

  # The same consumer through pkg-config.
  export PKG_CONFIG_PATH=$libdir/pkgconfig
  # shellcheck disable=SC2046,SC2086
  "$cxx" -std=c++17 $cxxflags "$here/consumer/consumer.cpp" -o "$tmp/pc-consumer" \
    $(pkg-config --cflags --libs videorepair) -Wl,-rpath,"$(pkg-config --variable=libdir videorepair)"
  mkdir -p "$tmp/run2"
  "$tmp/pc-consumer" "$tmp/run2" | grep -q 'manager initialized: 0' || fail "the pkg-config consumer"

  # The installed tool, with ffmpeg only on PATH: a WMV whose end is cut and whose
  # middle is overwritten, rebuilt from a sample of the same settings.
  local media=$tmp/media
  mkdir -p "$media" "$tmp/path"
  ln -s "$(readlink -f "$ffmpeg")" "$tmp/path/ffmpeg"
  local encode=(-c:v wmv2 -b:v 500k -g 10 -c:a wmav2 -b:a 64k)
  "$ffmpeg" -nostdin -v error -y -f lavfi -i testsrc2=size=320x240:rate=25:duration=2 -f lavfi -i sine=duration=2 \
    "${encode[@]}" "$media/sample.wmv"
  "$ffmpeg" -nostdin -v error -y -f lavfi -i testsrc=size=320x240:rate=25:duration=2 -f lavfi -i sine=duration=2 \
    "${encode[@]}" "$media/damaged.wmv"
  local size
  size=$(stat -c %s "$media/damaged.wmv")
  dd if=/dev/zero of="$media/damaged.wmv" bs=1 seek=$((size / 2)) count=3000 conv=notrunc status=none
  truncate -s $((size * 85 / 100)) "$media/damaged.wmv"
  [ ! -e "$prefix/bin/ffmpeg" ] || fail "ffmpeg should not be beside the installed tool"
  env -u LD_LIBRARY_PATH -u VIDEOREPAIR_FFMPEG PATH="$tmp/path" "$prefix/bin/videorepair" repair --compatible \
    "$media/damaged.wmv" --sample "$media/sample.wmv" -o "$media/repaired.wmv" \
    --work-dir "$tmp/work" --log-dir "$tmp" -q >"$tmp/tool.out" 2>&1 ||
    fail "the installed tool failed: $(cat "$tmp/tool.out")"
  grep -qF "$tmp/path/ffmpeg" "$tmp/KzVideoRepair.log" || fail "the tool did not run the ffmpeg on PATH"
  local frames
  frames=$(video_frames "$media/repaired.wmv")
  [ "${frames:-0}" -gt 10 ] || fail "the repaired file decodes ${frames:-no} video frames"
  echo "installed tool repaired the WMV: $frames video frames decode"
}

check_deb() {
  command -v dpkg-deb >/dev/null || { echo "dpkg-deb is absent"; exit 77; }
  (cd "$tmp" && "$cpack" -G DEB -B "$tmp/deb" --config "$build/CPackConfig.cmake" >"$tmp/cpack.out" 2>&1) ||
    fail "cpack failed: $(cat "$tmp/cpack.out")"
  local deb
  deb=$(find "$tmp/deb" -maxdepth 1 -name '*.deb' | head -n 1)
  [ -n "$deb" ] || fail "cpack made no .deb"
  local contents
  contents=$(dpkg-deb -c "$deb")
  for entry in ./usr/bin/videorepair 'lib_videorepair\.so\.[0-9.]*$' ./usr/include/videorepair/IVideoRepairManager.h \
               'cmake/VideoRepair/VideoRepairConfig\.cmake' 'cmake/VideoRepair/VideoRepairTargets\.cmake' \
               'pkgconfig/videorepair\.pc' 'man1/videorepair\.1'; do
    grep -Eq "$entry" <<<"$contents" || fail "the package lacks $entry"
  done
  local depends
  depends=$(dpkg-deb -f "$deb" Depends)
  for dependency in libpoco libavformat ffmpeg; do
    grep -q "$dependency" <<<"$depends" || fail "the package does not depend on $dependency: $depends"
  done
  dpkg-deb -x "$deb" "$tmp/root"
  env -u LD_LIBRARY_PATH "$tmp/root/usr/bin/videorepair" --help >/dev/null || fail "the packaged tool does not run"
  echo "$(basename "$deb"): Depends: $depends"
}

case $mode in
  install) check_install ;;
  deb) check_deb ;;
  *) fail "unknown mode $mode" ;;
esac
