#!/usr/bin/env bash
# Builds the library and the voxfill tool in Release under build/plain, and runs the built-in
# demo into build/demo (extra arguments go to `voxfill demo`).
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup-packages.sh
cmake -S . -B build/plain -G Ninja -DCMAKE_BUILD_TYPE=Release -DVOXFILL_BUILD_TOOLS=ON >/dev/null
cmake --build build/plain -j "$(nproc)"
./build/plain/tools/voxfill demo -o build/demo "$@"
