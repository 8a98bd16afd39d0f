#!/usr/bin/env bash
# SPDX-License-Identifier: BSD-3-Clause
# Longer fuzzing campaigns for the codec's decoders, in the clang sanitizer build.
#   scripts/fuzz.sh                     request, response, datatree 600 s each; every other 60 s
#   scripts/fuzz.sh 120 datatree error  the named messages, 120 s each
# Findings land in build/asan/fuzz-findings/<message>/; the growing corpus in build/asan/fuzz-work/.
# Prints, per message, the executions, the coverage (edges) and the features reached.
set -u
top=$(cd "$(dirname "$0")/.." && pwd)
cd "$top" || exit 1
build=build/asan
if [ ! -x "$build/tests/fuzz/fuzz_codec" ]; then
    scripts/install-deps.sh || exit 1
    cmake --preset asan >/dev/null && cmake --build "$build" -j2 >/dev/null || exit 1
fi
[ -d "$build/fuzz-corpus/request" ] || (cd "$build" && ctest -R fuzz_corpus >/dev/null)

mapfile -t all < <("$build/tests/fuzz/fuzz_codec" --list-messages)
seconds=${1:-}
shift || true
messages=("$@")
[ ${#messages[@]} -gt 0 ] || messages=("${all[@]}")

status=0
printf '%-18s %8s %12s %8s %8s  %s\n' message seconds executions cov ft result
for m in "${messages[@]}"; do
    t=$seconds
    if [ -z "$t" ]; then
        case "$m" in request | response | datatree) t=600 ;; *) t=60 ;; esac
    fi
    work="$build/fuzz-work/$m" findings="$build/fuzz-findings/$m"
    mkdir -p "$work" "$findings"
    log="$build/fuzz-work/$m.log"
    "$build/tests/fuzz/fuzz_codec" --message="$m" -max_total_time="$t" -max_len=65536 -print_final_stats=1 \
        -artifact_prefix="$findings/" "$work" "$build/fuzz-corpus/$m" >"$log" 2>&1
    rc=$?
    execs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log")
    cov=$(grep -Eo 'cov: [0-9]+' "$log" | tail -n 1 | cut -d' ' -f2)
    ft=$(grep -Eo 'ft: [0-9]+' "$log" | tail -n 1 | cut -d' ' -f2)
    result=ok
    if [ $rc -ne 0 ]; then result="FAILED (see $log)"; status=1; fi
    printf '%-18s %8s %12s %8s %8s  %s\n' "$m" "$t" "${execs:-?}" "${cov:-?}" "${ft:-?}" "$result"
done
exit $status
