#!/usr/bin/env bash
# Generates the fuzzers' valid inputs and seeds with ffmpeg, then runs every fuzz
# target for FUZZ_SECONDS (default 60). Usage: fuzz.sh BUILD_DIR [target...]
# Findings land in BUILD_DIR/fuzz-findings/<target>/; the script fails when any
# target found something.
set -euo pipefail

build=$(realpath "$1")
shift
seconds=${FUZZ_SECONDS:-60}
media="$build/fuzz-media"
corpus="$build/fuzz-corpus"
findings="$build/fuzz-findings"
mkdir -p "$media" "$corpus" "$findings"

make_media() {  # name, ffmpeg arguments...
  local name=$1
  shift
  [ -s "$media/$name" ] || ffmpeg -nostdin -v error -y "$@" "$media/$name"
}

# Short, small clips: the fuzzers mutate whole files, and small ones run fast.
video=(-f lavfi -i "testsrc2=size=64x48:rate=10:duration=1")
audio=(-f lavfi -i "sine=frequency=440:sample_rate=8000:duration=1")
make_media sample.avi "${video[@]}" "${audio[@]}" -c:v mjpeg -q:v 8 -c:a pcm_s16le
make_media sample.flv "${video[@]}" "${audio[@]}" -c:v flv -q:v 8 -c:a libmp3lame -ar 11025
make_media sample.mts "${video[@]}" -c:v mpeg2video -q:v 8 -f mpegts -mpegts_m2ts_mode 1
make_media sample.mkv "${video[@]}" "${audio[@]}" -c:v mpeg4 -q:v 8 -c:a pcm_s16le -cluster_time_limit 200
make_media sample.mpg "${video[@]}" "${audio[@]}" -c:v mpeg2video -q:v 8 -c:a mp2 -ar 32000 -f mpeg
make_media sample.mxf -f lavfi -i "testsrc=size=64x48:rate=25:duration=1" \
  -f lavfi -i "sine=frequency=440:sample_rate=48000:duration=1" -c:v mpeg2video -g 12 -bf 0 -q:v 8 \
  -c:a pcm_s16le -ac 2
make_media sample.wmv "${video[@]}" "${audio[@]}" -c:v wmv2 -q:v 8 -c:a wmav2 -ar 22050 -packetsize 800
make_media small.wmv -f lavfi -i "testsrc2=size=64x48:rate=10:duration=0.3" -c:v wmv2 -q:v 8 -an -packetsize 800
# The streams ffmpeg extracts from an MPEG sample (as the engine asks it to).
make_media sample_Video -i "$media/sample.mpg" -an -c:v copy -f rawvideo
make_media sample_Audio.wav -i "$media/sample.mpg" -vn -acodec copy
# An MKV that lost its head: the engine has to take the sample's.
[ -s "$media/headless.mkv" ] || { cp "$media/sample.mkv" "$media/headless.mkv" &&
  printf '\0\0\0\0' | dd of="$media/headless.mkv" conv=notrunc status=none; }

seed() {  # target, files...
  local target=$1
  shift
  mkdir -p "$corpus/$target"
  for f in "$@"; do cp "$f" "$corpus/$target/"; done
}
with_settings() {  # target, settings bytes (printf format), file: the file behind a few setting bytes
  mkdir -p "$corpus/$1"
  { printf "$2"; cat "$3"; } >"$corpus/$1/seed-$(basename "$3")-$(printf '%s' "$2" | tr -dc '0-9a-f')"
}
seed avi_scan "$media/sample.avi"
seed avi_sample "$media/sample.avi"
seed flv_scan "$media/sample.flv"
seed mts_scan "$media/sample.mts"
seed mkv_scan "$media/sample.mkv"
seed mkv_head "$media/sample.mkv"
seed mpeg_prefix "$media/sample.mpg"
seed mxf_element "$media/sample.mxf"
seed wmv_scan "$media/sample.wmv"
seed asf_header "$media/small.wmv"
with_settings mpeg_scan '\x0a\x0a\x00' "$media/sample.mpg"
with_settings mpeg_scan '\x0f\x0a\x01' "$media/sample.mpg"
with_settings wmv_carve '\x20\x03\x01\x02' "$media/sample.wmv"
mkdir -p "$corpus/mxf_report" "$corpus/bit_reader"
ffmpeg -nostdin -hide_banner -i "$media/sample.mxf" 2>"$corpus/mxf_report/report.txt" || true
head -c 300 "$media/sample.mpg" >"$corpus/bit_reader/seed"
mkdir -p "$corpus/ebml"
head -c 4096 "$media/sample.mkv" >"$corpus/ebml/head.mkv"

targets=("$@")
if [ ${#targets[@]} -eq 0 ]; then
  targets=(avi_scan avi_sample flv_scan mts_scan mkv_scan mkv_head mpeg_scan mpeg_prefix
           mxf_element mxf_report wmv_scan wmv_carve asf_header bit_reader ebml)
fi

failed=()
for target in "${targets[@]}"; do
  mkdir -p "$findings/$target"
  echo "== fuzz_$target: ${seconds} s"
  # Whole files for the engines; the byte-level parsers learn more per second from short inputs.
  case $target in
    bit_reader | ebml | mxf_report) max_len=4096 ;;
    *) max_len=262144 ;;
  esac
  # -timeout: one input taking longer counts as a hang; leaks are reported by ASan.
  if ! (cd "$findings/$target" && VR_FUZZ_MEDIA="$media" "$build/bin/fuzz_$target" \
        -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -max_len=$max_len \
        -print_final_stats=1 "$corpus/$target" >"$findings/$target/log.txt" 2>&1); then
    failed+=("$target")
    tail -40 "$findings/$target/log.txt"
  fi
  grep -E '^stat::(number_of_executed_units|average_exec_per_sec|peak_rss_mb)' "$findings/$target/log.txt" |
    tr '\n' ' ' || true
  echo
done

if [ ${#failed[@]} -gt 0 ]; then
  echo "Fuzz targets with findings: ${failed[*]} (inputs and logs under $findings)"
  exit 1
fi
echo "All fuzz targets ran clean."
