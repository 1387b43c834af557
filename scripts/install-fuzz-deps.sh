#!/usr/bin/env bash
# Installs what `make fuzz` needs on top of the usual packages: clang and its
# runtime libraries (libFuzzer, the sanitizers). Plain builds never need these.
set -euo pipefail
exec bash "$(dirname "$0")/install-deps.sh" clang libclang-rt-dev
