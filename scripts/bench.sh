#!/usr/bin/env bash
# Builds the benchmarks (Release) and runs them; extra arguments go to Google Benchmark,
# e.g. scripts/bench.sh --benchmark_filter=decode
set -eu
top=$(cd "$(dirname "$0")/.." && pwd)
cd "$top"
scripts/install-deps.sh
cmake --preset bench >/dev/null
cmake --build build/bench -j2 --target codec_bench >/dev/null
exec build/bench/bench/codec_bench "$@"
