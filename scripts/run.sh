#!/usr/bin/env bash
# The main job: builds the library and dbtool, then describes the sample table.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh
cmake -S . -B build/release -G Ninja -DCMAKE_BUILD_TYPE=Release -DDATABASE_BUILD_TESTS=OFF >/dev/null
cmake --build build/release --target dbtool -j"$(nproc)"
build/release/tools/dbtool describe "$@"
