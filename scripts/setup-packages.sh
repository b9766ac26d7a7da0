#!/usr/bin/env bash
# Installs the Debian packages that building, testing and the tools need, when they are missing
# (python3-meshio: the tool tests read the written meshes with an independent reader; tetgen:
# starting meshes for the regularisation tests).
set -euo pipefail
packages=(cmake ninja-build g++ libgtest-dev libgmock-dev libbenchmark-dev libcli11-dev clang libclang-rt-14-dev python3-meshio tetgen "$@")
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  sudo=""
  [ "$(id -u)" -ne 0 ] && sudo="sudo"
  echo "Installing: ${missing[*]}"
  $sudo apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq "${missing[@]}" >/dev/null
fi
