#!/usr/bin/env bash
# Builds the fuzz preset and runs every fuzz target for the given number of seconds (default 60).
# Each target grows its working corpus under build/fuzz/, starting from the committed seeds.
set -euo pipefail
seconds="${1:-60}"
cd "$(dirname "$0")/.."
cmake --preset fuzz
cmake --build --preset fuzz
for src in fuzz/fuzz_*.cpp; do
  name="$(basename "$src" .cpp)"
  corpus="build/fuzz/corpus/$name"
  mkdir -p "$corpus" build/fuzz/artifacts
  cp fuzz/corpus_seed/* "$corpus"/
  # Inputs of 4 KiB hold several sections; longer ones only slow the search down.
  "build/fuzz/fuzz/$name" -max_total_time="$seconds" -max_len=4096 -timeout=10 \
    -artifact_prefix=build/fuzz/artifacts/ "$corpus"
done
