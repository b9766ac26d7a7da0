#!/usr/bin/env bash
# Builds the library in Release, installs it under build/install, and runs the example on its
# built-in input.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup-packages.sh
cmake -S . -B build/plain -G Ninja >/dev/null
cmake --build build/plain -j "$(nproc)"
cmake --install build/plain --prefix build/install >/dev/null
cmake -S examples -B build/example -G Ninja -DCMAKE_PREFIX_PATH="$PWD/build/install" >/dev/null
cmake --build build/example
./build/example/mesh_cloud "$@"
