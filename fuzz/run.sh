#!/usr/bin/env bash
# Builds the fuzz preset and runs every fuzz target: the case file loader for the given number of
# seconds (default 60), each mesh file reader for the second number (default 30), the Delaunay
# kernel for the third (default 20). Each target grows its working corpus under build/fuzz/,
# starting from the committed seeds.
set -euo pipefail
load_seconds="${1:-60}"
read_seconds="${2:-30}"
kernel_seconds="${3:-20}"
cd "$(dirname "$0")/.."
cmake --preset fuzz
cmake --build --preset fuzz
mkdir -p build/fuzz/artifacts

# run NAME SECONDS SEED_FOLDER
run() {
  local corpus="build/fuzz/corpus/$1"
  mkdir -p "$corpus"
  cp "$3"/* "$corpus"/
  # Inputs of 4 KiB hold several sections; longer ones only slow the search down.
  "build/fuzz/fuzz/$1" -max_total_time="$2" -max_len=4096 -timeout=10 \
    -artifact_prefix=build/fuzz/artifacts/ "$corpus"
}

# Case files feed the loader; point clouds in their own byte layout feed the kernel.
run fuzz_load "$load_seconds" fuzz/corpus_seed
run fuzz_kernel "$kernel_seconds" fuzz/corpus_kernel
for seeds in fuzz/corpus_read/*/; do
  format="$(basename "$seeds")"
  run "fuzz_read_$format" "$read_seconds" "$seeds"
done
