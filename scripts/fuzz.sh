#!/bin/sh
# Builds the libFuzzer harnesses with clang and runs each for a bounded time
# inside the test sandbox.  Any crash, leak or sanitizer report fails the run;
# the input that caused it is left in build/fuzz/artifacts-NAME/.  Prints the
# number of executions of each harness at the end.
# usage: fuzz.sh [SECONDS_EACH] [FUZZER...]
set -eu
cd "$(dirname "$0")/.."
seconds=${1:-30}
[ $# -gt 0 ] && shift
fuzzers=${*:-"packet_read hit_and_rewrite reply_stream document_reply folder_checks daemon_request extract_wire extract_documents extract_media"}
jobs=$(nproc 2>/dev/null || echo 2)
sh scripts/setup.sh

CC=clang CXX=clang++ cmake -S . -B build/fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DZARN_SANITIZE=fuzzer -DZARN_FUZZ=ON -DZARN_BUILD_TESTS=OFF >/dev/null
for name in $fuzzers; do targets="${targets:-} --target fuzz_$name"; done
cmake --build build/fuzz -j "$jobs" $targets

# Leaks inside the engine's query parser that the daemon cannot avoid (the
# file says which); every other leak fails the run.
export LSAN_OPTIONS="suppressions=$PWD/fuzz/lsan.supp${LSAN_OPTIONS:+:$LSAN_OPTIONS}"

summary=build/fuzz/summary.txt
: >"$summary"
for name in $fuzzers; do
  work=build/fuzz/corpus-$name
  artifacts=build/fuzz/artifacts-$name
  log=build/fuzz/fuzz_$name.log
  mkdir -p "$work" "$artifacts"
  echo "== fuzz_$name for ${seconds}s"
  # New inputs go to the work folder; the checked-in seeds stay as they are.
  tests/support/sandbox.sh build/fuzz/fuzz/fuzz_$name -max_total_time="$seconds" \
    -max_len=65536 -rss_limit_mb=2048 -timeout=25 -print_final_stats=1 \
    -artifact_prefix="$artifacts/" "$work" fuzz/corpus/$name 2>"$log" ||
    { tail -60 "$log"; echo "fuzz_$name failed; the input is in $artifacts/"; exit 1; }
  runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log")
  rss=$(sed -n 's/^stat::peak_rss_mb: *//p' "$log")
  printf 'fuzz_%-16s %10s executions in %ss, peak RSS %s MB\n' "$name" "$runs" "$seconds" "$rss" |
    tee -a "$summary"
done
echo "== fuzz summary"
cat "$summary"
