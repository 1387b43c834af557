#!/usr/bin/env bash
# Makes test media for the Windows tests running under wine. The Windows
# ffmpeg.exe has no encoders, so a test leaves a request in the media folder
# ("<file>.<pid>.request": the file name, then one ffmpeg argument per line) and
# this loop writes the file with the build machine's ffmpeg (lavfi sources and
# all encoders). It runs until the stop file appears.
#
#   media-broker.sh MEDIA_DIR STOP_FILE
set -uo pipefail
media="$1"
stop="$2"
mkdir -p "$media"
rm -f "$media"/*.failed "$media"/*.request

serve() {  # request file
  local request="$1" name args target part ext
  mapfile -t args < "$request"
  name="${args[0]}"
  args=("${args[@]:1}")
  target="$media/$name"
  ext="${name##*.}"
  part="$media/.broker.$$.$ext"
  if [ ! -e "$target" ]; then
    if ffmpeg -nostdin -hide_banner -loglevel error -y "${args[@]}" "$part" </dev/null; then
      mv -f "$part" "$target"
    else
      rm -f "$part"
      echo "media-broker: could not make $name" >&2
      : > "$target.failed"
    fi
  fi
  rm -f "$request"
}

shopt -s nullglob
while [ ! -e "$stop" ]; do
  served=0
  for request in "$media"/*.request; do
    serve "$request"
    served=1
  done
  [ "$served" = 1 ] || sleep 0.1
done
