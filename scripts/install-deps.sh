#!/usr/bin/env bash
# Installs the Debian packages the build and the tests need, skipping those already present.
set -euo pipefail

# With package names as arguments, installs those instead (used by the fuzz set-up).
if [ $# -gt 0 ]; then
  packages=("$@")
else
  # dpkg-dev and file: `cpack -G DEB` finds the programs in the package with file and reads
  # their library dependencies with dpkg-shlibdeps. libswscale-dev: the command-line host
  # scales the repaired video's frames for its report page and contact sheet.
  packages=(cmake ninja-build g++ pkg-config make libpoco-dev libavformat-dev libswscale-dev ffmpeg
            googletest libgtest-dev libgmock-dev mkvtoolnix dpkg-dev file
            libcli11-dev)  # libcli11-dev: the videorepair tool's option parser (header-only)
fi

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

echo "Installing missing packages: ${missing[*]}"
sudo_cmd=()
if [ "$(id -u)" -ne 0 ]; then
  sudo_cmd=(sudo)
fi
export DEBIAN_FRONTEND=noninteractive
"${sudo_cmd[@]}" apt-get update -qq
"${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}"
