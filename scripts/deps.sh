#!/usr/bin/env bash
# Installs, with apt-get, whatever the build needs and this machine lacks.
# Usage: scripts/deps.sh [extra-package ...]
set -euo pipefail
packages=(cmake ninja-build g++ pkg-config qtbase5-dev zlib1g-dev python3 gzip libtbb-dev "$@")
missing=()
for p in "${packages[@]}"; do
    dpkg -s "$p" >/dev/null 2>&1 || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
    echo "installing: ${missing[*]}"
    export DEBIAN_FRONTEND=noninteractive
    apt-get update -qq
    apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi
