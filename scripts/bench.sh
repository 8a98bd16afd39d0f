#!/usr/bin/env bash
# SPDX-License-Identifier: BSD-3-Clause
# The codec against Google protobuf with an Arena and protobuf-c on the workload files.
#   scripts/bench.sh [REPS]   Release build; REPS (default 15) interleaved repetitions of every
#                             case; prints each contender's median over gpb-arena's, with the
#                             lowest and highest ratio of repetitions run side by side
#   scripts/bench.sh --count  callgrind instructions per tree node for decode, encode, duplicate
#                             and free on yang10k, in the x86-64 and the i386 build (stable figures
#                             on a busy machine, where times are not); then decode and free_ext
#                             timed alone in both builds (bump arena, fastest of 2,000)
# The workloads are ../shared/workloads beside the repository unless TOV_WORKLOADS names them.
set -eu
top=$(cd "$(dirname "$0")/.." && pwd)
cd "$top"
export TOV_WORKLOADS=${TOV_WORKLOADS:-$top/../shared/workloads}
[ -f "$TOV_WORKLOADS/yang10k.bin" ] || { echo "no workloads in $TOV_WORKLOADS (set TOV_WORKLOADS)" >&2; exit 2; }
scripts/install-deps.sh >/dev/null

build() { # preset (CMakePresets.json); it builds in build/<preset>
    cmake --preset "$1" >/dev/null
    cmake --build "build/$1" -j2 --target "${targets[@]}" >/dev/null
}

if [ "${1:-}" = --count ]; then
    targets=(codec_count)
    build bench
    build bench-i386
    printf '%-8s %10s %10s %10s %10s   (instructions per node, yang10k)\n' build decode encode duplicate free
    for b in bench bench-i386; do
        row=""
        for op in decode encode duplicate free; do
            out=$(mktemp)
            nodes=$(valgrind --tool=callgrind --callgrind-out-file="$out" --toggle-collect='counted_*' \
                build/$b/bench/codec_count "$TOV_WORKLOADS/yang10k.bin" $op 2>/dev/null | cut -d" " -f1)
            ir=$(sed -n 's/^summary: *//p' "$out")
            rm -f "$out"
            row="$row $(awk -v i="$ir" -v n="$nodes" 'BEGIN { printf "%10.1f", i / n }')"
        done
        printf '%-8s%s\n' "${b#bench-}" "$row" | sed 's/^bench /x86-64/'
    done
    # Times too, where no libprotobuf is needed: the i386 build has none to be compared with.
    for b in bench bench-i386; do
        for w in yang10k flat1k chain1k; do
            printf '%-8s %-8s %s\n' "$(echo "${b#bench-}" | sed 's/^bench$/x86-64/')" "$w" \
                "$(build/$b/bench/codec_count "$TOV_WORKLOADS/$w.bin" time)"
        done
    done
    exit 0
fi

targets=(codec_bench)
build bench
exec build/bench/bench/codec_bench --benchmark_repetitions="${1:-15}" --benchmark_enable_random_interleaving=true \
    --benchmark_min_time=0.1
