#!/bin/sh
# Builds the benchmarks (Release, in build/bench) and runs them inside the
# sandbox; prints the tables and writes build/bench/results.json.
# Arguments are passed to zarn_bench (--quick, --only stream,roundtrip,...).
set -eu
cd "$(dirname "$0")/.."
sh scripts/setup.sh
dir=build/bench
cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=Release -DZARN_BUILD_BENCH=ON -DZARN_BUILD_TESTS=OFF >/dev/null
cmake --build "$dir" -j 2 --target zarn_bench
sh tests/support/sandbox.sh "$dir/bench/zarn_bench" --json "$dir/results.json" "$@"
