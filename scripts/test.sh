#!/bin/sh
# Installs what is missing, builds, and runs every test.
set -eu
cd "$(dirname "$0")/.."
sh scripts/setup.sh
jobs=$(nproc 2>/dev/null || echo 2)

cmake -S . -B build/release -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build/release -j "$jobs"
ctest --test-dir build/release -j "$jobs" --output-on-failure --timeout 300
