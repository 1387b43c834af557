#!/usr/bin/env bash
# make demo: makes short example videos with ffmpeg's lavfi sources, damages a
# copy of each, repairs it with `videorepair` and prints what decodes before and
# after. One demo_row line per container; work files stay under BUILD/demo.
set -euo pipefail

build="${1:-build}"
bin="$build/bin"
tool="$bin/videorepair"
ffmpeg="$bin/ffmpeg"
work="$build/demo"

if [ ! -x "$tool" ]; then
  echo "demo: $tool is missing; build first (make build)" >&2
  exit 1
fi
rm -rf "$work"
mkdir -p "$work"

# --- damage: each takes its parameters, then the file (changed in place) -----

size_of() { stat -c %s "$1"; }

# cut_tail PERCENT FILE: the last PERCENT % of the file is lost (a card pulled mid-write).
cut_tail() {
  local keep=$(( $(size_of "$2") * (100 - $1) / 100 ))
  truncate -s "$keep" "$2"
}

# cut_middle PERCENT FILE: PERCENT % of the bytes in the middle are gone.
cut_middle() {
  local size gap start
  size=$(size_of "$2"); gap=$(( size * $1 / 100 )); start=$(( (size - gap) / 2 ))
  { head -c "$start" "$2"; tail -c +"$(( start + gap + 1 ))" "$2"; } > "$2.cut"
  mv "$2.cut" "$2"
}

# zero_bytes START COUNT FILE: COUNT bytes from START overwritten with zeros.
zero_bytes() {
  dd if=/dev/zero of="$3" bs=1 seek="$1" count="$2" conv=notrunc status=none
}

# random_bytes AT_PERCENT LEN_PERCENT FILE: LEN_PERCENT % of the file overwritten with
# random bytes, starting AT_PERCENT % into it (a bad sector, a broken transfer).
random_bytes() {
  local size
  size=$(size_of "$3")
  dd if=/dev/urandom of="$3" bs=1 seek="$(( size * $1 / 100 ))" count="$(( size * $2 / 100 ))" \
    conv=notrunc status=none
}

# mixed HEADER_BYTES AT_PERCENT LEN_PERCENT CUT_PERCENT FILE: what a card pulled while
# recording tends to leave: the head zeroed, a range overwritten, the tail lost.
mixed() {
  zero_bytes 0 "$1" "$5"
  random_bytes "$2" "$3" "$5"
  cut_tail "$4" "$5"
}

# --- measuring ---------------------------------------------------------------

frames_of() {  # video frames that decode, or "-" when the file does not open
  local n
  n=$(ffprobe -v error -count_frames -select_streams v:0 -show_entries stream=nb_read_frames \
        -of default=nw=1:nk=1 "$1" 2>/dev/null | head -n1) || true
  echo "${n:--}"
}

duration_of() {  # the container's own duration claim, in seconds
  local d
  d=$(ffprobe -v error -show_entries format=duration -of default=nw=1:nk=1 "$1" 2>/dev/null | head -n1) || true
  case "$d" in ''|N/A) echo "-" ;; *) printf '%.2f s' "$d" ;; esac
}

result_of() {  # videorepair's exit code in words
  case "$1" in
    0) echo "repaired" ;; 1) echo "failed" ;; 3) echo "no engine yet" ;; 4) echo "missing file" ;;
    5) echo "no ffmpeg" ;; 6) echo "save failed" ;; 7) echo "cancelled" ;; 9) echo "unplayable" ;;
    10) echo "result exists" ;; 11) echo "partly read" ;; *) echo "error $1" ;;
  esac
}

lavfi_av() {  # DURATION: test picture and tone, as generation arguments
  echo "-f lavfi -i testsrc2=size=320x240:rate=25:duration=$1 -f lavfi -i sine=frequency=440:duration=$1"
}

lavfi_sample() {  # DURATION: other picture and tone with the same settings, for samples
  echo "-f lavfi -i testsrc=size=320x240:rate=25:duration=$1 -f lavfi -i sine=frequency=880:duration=$1"
}

# --- one row -------------------------------------------------------------------

rows=()
row_format='%-13s %-28s %-6s %-13s %8s %8s %8s  %8s %8s'

# demo_row EXT "SAMPLE ARGS" "SOURCE ARGS" "DAMAGE TEXT" "DAMAGE COMMAND" repair|remux
demo_row() {
  local ext="$1" sample_args="$2" source_args="$3" damage_text="$4" damage_cmd="$5" method="$6"
  local n=$(( ${#rows[@]} + 1 ))
  local dir="$work/$n-$ext"
  mkdir -p "$dir"
  local sample="$dir/sample.$ext" source="$dir/original.$ext" damaged="$dir/clip$n.$ext"
  local repaired="$dir/repaired.$ext"
  # shellcheck disable=SC2086  # the argument strings are meant to split into words
  "$ffmpeg" -nostdin -v error -y $sample_args "$sample"
  # shellcheck disable=SC2086
  "$ffmpeg" -nostdin -v error -y $source_args "$source"
  cp "$source" "$damaged"
  $damage_cmd "$damaged"

  local args=("$method" "$damaged" -o "$repaired" -y --quiet --work-dir "$work/vr" --log-dir "$work/vr")
  [ "$method" = repair ] && args+=(--sample "$sample")
  echo "\$ videorepair ${args[*]}"
  local code=0
  "$tool" "${args[@]}" > "$dir/report.txt" 2> "$dir/errors.txt" || code=$?
  [ "$code" -ne 0 ] && sed 's/^/    /' "$dir/errors.txt"

  local after="-" after_duration="-"
  if [ -f "$repaired" ]; then after=$(frames_of "$repaired"); after_duration=$(duration_of "$repaired"); fi
  # shellcheck disable=SC2059  # one format shared by the header and the rows
  rows+=("$(printf "$row_format" \
    "clip$n.$ext" "$damage_text" "$method" "$(result_of "$code")" \
    "$(frames_of "$source")" "$(frames_of "$damaged")" "$after" \
    "$(duration_of "$damaged")" "$after_duration")")
}

# --- the table: one line per container -------------------------------------------

demo_row mkv "$(lavfi_av 2) -c:v mpeg4 -c:a pcm_s16le" "$(lavfi_av 4) -c:v mpeg4 -c:a pcm_s16le" \
  "last 40% cut off" "cut_tail 40" remux
demo_row avi "$(lavfi_av 2) -c:v mpeg4 -c:a pcm_s16le" "$(lavfi_av 4) -c:v mpeg4 -c:a pcm_s16le" \
  "last 40% cut off (no index)" "cut_tail 40" remux
demo_row flv "$(lavfi_av 2) -c:v flv1 -c:a mp3" "$(lavfi_av 4) -c:v flv1 -c:a mp3" \
  "last 40% cut off" "cut_tail 40" remux
demo_row ts "$(lavfi_av 2) -c:v mpeg2video -c:a mp2" "$(lavfi_av 4) -c:v mpeg2video -c:a mp2" \
  "30% cut out of the middle" "cut_middle 30" remux
# Engine repairs guided by a healthy sample from the same "device" (same settings, other content).
demo_row avi "$(lavfi_sample 2) -c:v mjpeg -c:a pcm_s16le" "$(lavfi_av 4) -c:v mjpeg -c:a pcm_s16le" \
  "header zeroed (first 8 KiB)" "zero_bytes 0 8192" repair
demo_row avi "$(lavfi_sample 2) -c:v mpeg4 -c:a libmp3lame" "$(lavfi_av 4) -c:v mpeg4 -c:a libmp3lame" \
  "head, 1% at 30%, last 15%" "mixed 8192 30 1 15" repair
demo_row flv "$(lavfi_sample 2) -c:v flv1 -q:v 3 -c:a libmp3lame -ar 44100" \
  "$(lavfi_av 4) -c:v flv1 -q:v 3 -c:a libmp3lame -ar 44100" "head, 1% at 30%, last 10%" "mixed 200 30 1 10" repair
demo_row mkv "$(lavfi_sample 2) -c:v mpeg4 -g 25 -c:a pcm_s16le" "$(lavfi_av 4) -c:v mpeg4 -g 25 -c:a pcm_s16le" \
  "head, 2% at 40%, last 30%" "mixed 4096 40 2 30" repair
demo_row m2ts "$(lavfi_sample 2) -c:v mpeg2video -g 12 -bf 0 -c:a mp2 -f mpegts -mpegts_m2ts_mode 1" \
  "$(lavfi_av 4) -c:v mpeg2video -g 12 -bf 0 -c:a mp2 -f mpegts -mpegts_m2ts_mode 1" \
  "head, 8% at 40%, last 20%" "mixed 4096 40 8 20" repair
demo_row mpg "$(lavfi_sample 2) -c:v mpeg2video -g 12 -b:v 2M -c:a mp2 -f mpeg" \
  "$(lavfi_av 4) -c:v mpeg2video -g 12 -b:v 2M -c:a mp2 -f mpeg" "head, 2% at 40%, last 30%" "mixed 4096 40 2 30" repair
demo_row mxf "$(lavfi_sample 2) -c:v mpeg2video -g 12 -bf 0 -c:a pcm_s16le -ar 48000 -ac 2" \
  "$(lavfi_av 4) -c:v mpeg2video -g 12 -bf 0 -c:a pcm_s16le -ar 48000 -ac 2" \
  "head, 8% at 40%, last 20%" "mixed 16384 40 8 20" repair
demo_row wmv "$(lavfi_sample 2) -c:v wmv2 -b:v 1M -c:a wmav2" "$(lavfi_av 4) -c:v wmv2 -b:v 1M -c:a wmav2" \
  "head, 2% at 40%, last 30%" "mixed 4096 40 2 30" repair

echo
printf '%-13s %-28s %-6s %-13s %-26s  %s\n' "" "" "" "" "   video frames that decode" " container duration"
# shellcheck disable=SC2059
printf "$row_format\n" "file" "damage" "method" "result" "original" "damaged" "repaired" "damaged" "repaired"
printf '%s\n' "${rows[@]}"
echo
echo "frames: video frames that decode (ffprobe -count_frames); duration: what the container claims."
echo "Files and reports: $work/<row>-<ext>/; the library's log: $work/vr/KzVideoRepair.log"
