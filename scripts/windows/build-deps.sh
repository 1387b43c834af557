#!/usr/bin/env bash
# Builds the Windows (x86-64, mingw-w64) dependencies of lib_videorepair from
# Debian's source packages: Poco Foundation and JSON (static) and FFmpeg (static
# libavformat and friends, plus ffmpeg.exe and ffprobe.exe).
# Results go to a cache outside the source tree and are reused when present.
#
#   scripts/windows/build-deps.sh            # cache: ~/.cache/videorepair-windows
#   VIDEOREPAIR_WINDOWS_CACHE=/x scripts/windows/build-deps.sh
set -euo pipefail

here="$(cd "$(dirname "$0")" && pwd)"
repo="$(cd "$here/../.." && pwd)"
cache="${VIDEOREPAIR_WINDOWS_CACHE:-$HOME/.cache/videorepair-windows}"
prefix="$cache/prefix"
jobs="${JOBS:-$(nproc)}"
triple=x86_64-w64-mingw32
# Light optimisation: these builds run on every fresh machine, and the tests
# need correctness from them, not speed.
optflags=-O1
# Bump when a recipe below changes, so caches built by an older recipe are redone.
recipe=1

mkdir -p "$cache" "$prefix"

log() { echo "[windows-deps] $*"; }

# --- Debian source packages -------------------------------------------------
# apt is pointed at private copies of the machine's own Debian entries with
# deb-src added, so the system's apt configuration stays untouched.
apt_private() {
  local apt="$cache/apt"
  mkdir -p "$apt/sources.list.d" "$apt/lists/partial"
  local codename
  codename="$(. /etc/os-release && echo "${VERSION_CODENAME:-}")"
  : > "$apt/sources.list.d/deb-src.sources"
  shopt -s nullglob
  for f in /etc/apt/sources.list.d/*.sources; do
    awk -v codename="$codename" '
      function flush() {
        if (block != "" && types ~ /(^|[ \t])deb([ \t]|$)/ && enabled !~ /^no/ &&
            (codename == "" || suites ~ codename)) print block "\n";
        block = ""; types = ""; suites = ""; enabled = ""
      }
      /^[ \t]*$/ { flush(); next }
      /^[ \t]*#/ { next }
      /^Types:/ { types = $0; sub(/^Types:/, "", types); block = block "Types: deb-src\n"; next }
      /^Suites:/ { suites = $0 }
      /^Enabled:/ { enabled = $2 }
      { block = block $0 "\n" }
      END { flush() }' "$f" >> "$apt/sources.list.d/deb-src.sources"
  done
  if [ -f /etc/apt/sources.list ]; then
    grep -E '^deb[[:space:]]' /etc/apt/sources.list | grep -F "$codename" |
      sed -E 's/^deb[[:space:]]/deb-src /' > "$apt/sources.list.d/deb-src.list" || true
  fi
  shopt -u nullglob
  apt_opts=(-o "Dir::Etc::SourceList=/dev/null" -o "Dir::Etc::SourceParts=$apt/sources.list.d"
            -o "Dir::State::Lists=$apt/lists" -o "Dir::Cache::pkgcache=" -o "Dir::Cache::srcpkgcache="
            -o "APT::Sandbox::User=root")
  apt-get "${apt_opts[@]}" update -qq
}

fetch_source() {  # name -> extracted directory path on stdout
  local name="$1" dir="$cache/src/$1"
  if ! ls -d "$dir"/*/debian >/dev/null 2>&1; then
    [ -n "${apt_opts+x}" ] || apt_private >&2
    rm -rf "$dir" && mkdir -p "$dir"
    (cd "$dir" && apt-get "${apt_opts[@]}" source -qq "$name" >&2)
  fi
  dirname "$(ls -d "$dir"/*/debian | head -n1)"
}

# --- Poco Foundation ----------------------------------------------------------
configure_poco() {
  rm -rf "$cache/build-poco"
  cmake -S "$src" -B "$cache/build-poco" -G Ninja -DCMAKE_BUILD_TYPE=Release \
    -DCMAKE_C_FLAGS_RELEASE="$optflags -DNDEBUG" -DCMAKE_CXX_FLAGS_RELEASE="$optflags -DNDEBUG" \
    -DCMAKE_TOOLCHAIN_FILE="$repo/cmake/mingw-w64-x86_64.cmake" \
    -DCMAKE_MC_COMPILER:FILEPATH="$(command -v $triple-windmc)" -DCMAKE_INSTALL_PREFIX="$prefix" \
    -DBUILD_SHARED_LIBS=OFF -DPOCO_UNBUNDLED=OFF "${off[@]}" "$@" >"$cache/poco-configure.log"
}

build_poco() {
  local stamp="$cache/poco.done"
  if [ "$(cat "$stamp" 2>/dev/null)" = "$recipe" ]; then return; fi
  src="$(fetch_source poco)"
  log "building Poco Foundation from $(basename "$src")"
  # mingw's headers are lower case; the Windows sources spell some in mixed case.
  { grep -rlE '<(Winsock2|Iphlpapi|WinSock2|IPHlpApi)\.h>' "$src/Foundation" || true; } |
    xargs -r sed -i -E 's/<Winsock2\.h>/<winsock2.h>/; s/<WinSock2\.h>/<winsock2.h>/;
                        s/<Iphlpapi\.h>/<iphlpapi.h>/; s/<IPHlpApi\.h>/<iphlpapi.h>/'
  off=()
  for c in ENCODINGS XML MONGODB REDIS PROMETHEUS PDF UTIL NET NETSSL CRYPTO JWT DATA DATA_SQLITE \
           DATA_MYSQL DATA_POSTGRESQL DATA_ODBC SEVENZIP ZIP APACHECONNECTOR CPPPARSER POCODOC \
           PAGECOMPILER PAGECOMPILER_FILE2PAGE ACTIVERECORD ACTIVERECORD_COMPILER ENCODINGS_COMPILER TESTS; do
    off+=("-DENABLE_$c=OFF")
  done
  configure_poco
  cmake --build "$cache/build-poco" -j "$jobs" >"$cache/poco-build.log" 2>&1
  cmake --install "$cache/build-poco" >/dev/null
  rm -rf "$cache/build-poco"
  echo "$recipe" > "$stamp"
}

# --- FFmpeg -------------------------------------------------------------------
# Video is only ever copied, so no video encoders; the audio encoders that
# ffmpeg picks by default for the containers the engines merge into (AVI: AC-3,
# MPEG: MP2, MXF and WAV: PCM, others AAC), since the WMV and MXF merges let
# ffmpeg choose. Every demuxer, muxer, parser and bitstream filter; the decoders of the codecs that cameras and the tests
# write, because some streams (MPEG-PS, FLV1) are only read correctly with their
# decoder present, and ffprobe counts decoded frames.
decoders=(h264 hevc mpeg4 mpeg1video mpeg2video mjpeg flv h263 msmpeg4v1 msmpeg4v2 msmpeg4v3
          wmv1 wmv2 wmv3 vc1 dvvideo prores vp8 vp9 rawvideo
          aac ac3 eac3 mp1 mp2 mp3 opus vorbis flac wmav1 wmav2 wmapro alac amrnb amrwb
          pcm_s16le pcm_s16be pcm_s24le pcm_s24be pcm_s32le pcm_u8 pcm_alaw pcm_mulaw pcm_dvd pcm_bluray
          adpcm_ima_wav adpcm_ms)
encoders=(ac3 ac3_fixed mp2 mp2fixed aac pcm_s16le pcm_s16be pcm_s24le pcm_u8)
# The filters an audio conversion inserts (sample format, rate and layout).
filters=(aresample aformat anull atrim asetpts format null trim setpts)
ffmpeg_recipe=3
build_ffmpeg() {
  local stamp="$cache/ffmpeg.done"
  if [ "$(cat "$stamp" 2>/dev/null)" = "$recipe.$ffmpeg_recipe" ]; then return; fi
  local src
  src="$(fetch_source ffmpeg)"
  log "building FFmpeg from $(basename "$src")"
  rm -rf "$cache/build-ffmpeg" && mkdir -p "$cache/build-ffmpeg"
  (cd "$cache/build-ffmpeg" &&
    "$src/configure" --prefix="$prefix" --target-os=mingw32 --arch=x86_64 \
      --cross-prefix=$triple- --enable-cross-compile --disable-x86asm \
      --cc=$triple-gcc-posix --cxx=$triple-g++-posix \
      --enable-static --disable-shared --disable-debug --disable-doc --disable-autodetect \
      --disable-network --disable-avdevice --disable-postproc --disable-encoders \
      --disable-devices --disable-hwaccels --disable-ffplay --disable-filters \
      --disable-decoders --enable-decoder="$(IFS=,; echo "${decoders[*]}")" \
      --enable-encoder="$(IFS=,; echo "${encoders[*]}")" \
      --enable-filter="$(IFS=,; echo "${filters[*]}")" \
      --enable-ffmpeg --enable-ffprobe --extra-ldflags=-static --optflags="$optflags" >"$cache/ffmpeg-configure.log" &&
    make -j "$jobs" >"$cache/ffmpeg-build.log" 2>&1 &&
    make install >/dev/null 2>&1)
  rm -rf "$cache/build-ffmpeg"
  echo "$recipe.$ffmpeg_recipe" > "$stamp"
}

# --- GoogleTest ---------------------------------------------------------------
build_gtest() {
  local stamp="$cache/gtest.done"
  if [ "$(cat "$stamp" 2>/dev/null)" = "$recipe" ]; then return; fi
  log "building GoogleTest from /usr/src/googletest"
  rm -rf "$cache/build-gtest"
  cmake -S /usr/src/googletest -B "$cache/build-gtest" -G Ninja -DCMAKE_BUILD_TYPE=Release \
    -DCMAKE_TOOLCHAIN_FILE="$repo/cmake/mingw-w64-x86_64.cmake" -DCMAKE_INSTALL_PREFIX="$prefix" \
    -DBUILD_GMOCK=OFF -Dgtest_disable_pthreads=OFF >"$cache/gtest-configure.log"
  cmake --build "$cache/build-gtest" -j "$jobs" >"$cache/gtest-build.log" 2>&1
  cmake --install "$cache/build-gtest" >/dev/null
  rm -rf "$cache/build-gtest"
  echo "$recipe" > "$stamp"
}

build_poco
build_gtest
build_ffmpeg
log "ready in $prefix"
