#!/bin/sh
# Builds the libFuzzer harnesses with clang and runs each for a bounded time
# inside the test sandbox.  usage: fuzz.sh [SECONDS_EACH] [FUZZER...]
set -eu
cd "$(dirname "$0")/.."
seconds=${1:-30}
[ $# -gt 0 ] && shift
fuzzers=${*:-"packet_read hit_and_rewrite reply_stream document_reply folder_checks"}
jobs=$(nproc 2>/dev/null || echo 2)

CC=clang CXX=clang++ cmake -S . -B build/fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DZARN_SANITIZE=fuzzer -DZARN_FUZZ=ON -DZARN_BUILD_TESTS=OFF >/dev/null
for name in $fuzzers; do targets="${targets:-} --target fuzz_$name"; done
cmake --build build/fuzz -j "$jobs" $targets

for name in $fuzzers; do
  work=build/fuzz/corpus-$name
  mkdir -p "$work"
  echo "== fuzz_$name for ${seconds}s"
  # New inputs go to the work folder; the checked-in seeds stay as they are.
  tests/support/sandbox.sh build/fuzz/fuzz/fuzz_$name -max_total_time="$seconds" \
    -max_len=65536 -rss_limit_mb=2048 -timeout=25 -print_final_stats=1 \
    "$work" fuzz/corpus/$name 2>build/fuzz/fuzz_$name.log ||
    { tail -60 build/fuzz/fuzz_$name.log; exit 1; }
  grep -E "stat::number_of_executed_units|stat::peak_rss_mb" build/fuzz/fuzz_$name.log
done
