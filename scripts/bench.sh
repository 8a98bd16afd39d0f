#!/usr/bin/env bash
# Builds the benchmarks (Release) and runs them; extra arguments go to Google Benchmark,
# e.g. scripts/bench.sh --benchmark_filter=decode
set -eu
top=$(cd "$(dirname "$0")/.." && pwd)
cd "$top"
scripts/install-deps.sh
cmake -S . -B build/bench -DCMAKE_BUILD_TYPE=Release -DTOV_BUILD_BENCH=ON -DTOV_BUILD_TESTS=OFF >/dev/null
cmake --build build/bench -j2 >/dev/null
exec build/bench/bench/codec_bench "$@"
