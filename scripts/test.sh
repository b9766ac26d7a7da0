#!/usr/bin/env bash
# Builds everything with the developer preset and runs the whole test suite.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup-packages.sh
cmake --preset dev
cmake --build --preset dev -j "$(nproc)"
ctest --preset dev
