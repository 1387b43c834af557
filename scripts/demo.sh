#!/usr/bin/env bash
# Placeholder until the command-line host lands: shows what the library exports.
set -euo pipefail
build="${1:-build}"
echo "lib_videorepair exports:"
nm -D --defined-only "$build/bin/lib_videorepair.so" | awk '{print "  " $3}'
