#!/usr/bin/env bash
# Builds and runs the whole test suite:
#   1. the code follows .clang-format;
#   2. an AddressSanitizer + UndefinedBehaviorSanitizer build runs every test;
#   3. a ThreadSanitizer build runs the tests of threaded code (label "threads");
#   4. the fuzz targets run for a bounded time each (clang's libFuzzer);
#   5. a plain build (benchmarks, tools and examples included) builds the API
#      reference, which must have no doxygen warnings, and runs every test
#      (the examples among them); its CTest summary closes the output.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh clang libclang-rt-14-dev clang-format libbenchmark-dev doxygen
jobs=$(nproc)
export QT_QPA_PLATFORM=offscreen

echo "== format check"
mapfile -t sources < <(git ls-files -- '*.cpp' '*.h' 2>/dev/null || find src tests tools bench fuzz share -name '*.cpp' -o -name '*.h')
clang-format --dry-run --Werror "${sources[@]}"

echo "== address,undefined sanitizer build"
cmake -S . -B build/asan -G Ninja -DCMAKE_BUILD_TYPE=Debug \
      -DDATABASE_SANITIZE=address,undefined -DDATABASE_BUILD_BENCH=OFF \
      -DDATABASE_BUILD_TESTS=ON -DDATABASE_BUILD_EXAMPLES=ON >/dev/null
cmake --build build/asan -j"$jobs"
(cd build/asan && ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 \
     ctest --output-on-failure -j"$jobs" -E install_consumer)

echo "== thread sanitizer build (threaded code)"
cmake -S . -B build/tsan -G Ninja -DCMAKE_BUILD_TYPE=Debug \
      -DDATABASE_SANITIZE=thread -DDATABASE_BUILD_BENCH=OFF -DDATABASE_BUILD_TOOLS=OFF \
      -DDATABASE_BUILD_TESTS=ON -DDATABASE_BUILD_EXAMPLES=ON >/dev/null
cmake --build build/tsan -j"$jobs"
(cd build/tsan && ctest --output-on-failure -L threads --no-tests=ignore)

if [ -f fuzz/CMakeLists.txt ]; then
    echo "== fuzz targets (bounded runs)"
    CC=clang CXX=clang++ cmake -S . -B build/fuzz -G Ninja -DCMAKE_BUILD_TYPE=Debug \
        -DDATABASE_BUILD_FUZZ=ON -DDATABASE_BUILD_TESTS=OFF -DDATABASE_BUILD_TOOLS=OFF \
        -DDATABASE_SANITIZE=fuzzer-no-link,address,undefined >/dev/null
    cmake --build build/fuzz -j"$jobs"
    # A finding prints its report and leaves the input in build/fuzz/artifacts;
    # it belongs in the target's corpus as regression data once fixed.
    artifacts=build/fuzz/artifacts
    mkdir -p "$artifacts"
    for target in build/fuzz/fuzz/fuzz_*; do
        [ -f "$target" ] && [ -x "$target" ] || continue
        name=$(basename "$target")
        corpus=fuzz/corpus/${name#fuzz_}
        work=$(mktemp -d)
        cp -r "$corpus"/. "$work"/ 2>/dev/null || true
        echo "-- $name"
        status=0
        "$target" -max_total_time="${FUZZ_SECONDS:-30}" -rss_limit_mb=2048 -print_final_stats=0 \
                  -artifact_prefix="$artifacts/$name-" "$work" >"$work.log" 2>&1 || status=$?
        if [ "$status" -ne 0 ]; then
            tail -n 80 "$work.log"
            rm -rf "$work" "$work.log"
            exit "$status"
        fi
        tail -n 2 "$work.log"
        rm -rf "$work" "$work.log"
    done
fi

echo "== plain build and the whole suite"
cmake -S . -B build/debug -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DDATABASE_BUILD_BENCH=ON \
      -DDATABASE_BUILD_TESTS=ON -DDATABASE_BUILD_EXAMPLES=ON >/dev/null
cmake --build build/debug -j"$jobs"
echo "== API reference (fails on doxygen warnings)"
cmake --build build/debug --target docs
if [ -s build/debug/docs/warnings.log ]; then
    cat build/debug/docs/warnings.log
    exit 1
fi
cd build/debug && ctest --output-on-failure -j"$jobs"
