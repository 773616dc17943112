#!/usr/bin/env bash
# The main job: builds the library and dbtool, then describes the sample table.
# Then (unless RUN_SAMPLE_FILES=0) it creates a sample table file in a temporary
# directory, plain and compressed, and shows and dumps it.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh
cmake -S . -B build/release -G Ninja -DCMAKE_BUILD_TYPE=Release -DDATABASE_BUILD_TESTS=OFF >/dev/null
cmake --build build/release --target dbtool -j"$(nproc)"
dbtool=build/release/tools/dbtool
$dbtool describe "$@"
if [ "${RUN_SAMPLE_FILES:-1}" = 1 ]; then
    work=$(mktemp -d)
    trap 'rm -rf "$work"' EXIT
    $dbtool create "$work/plain" --rows 1000
    $dbtool create "$work/gzip" --rows 1000 --gzip
    $dbtool info "$work/gzip" quotes
    $dbtool dump "$work/plain/quotes" --limit 5
fi
