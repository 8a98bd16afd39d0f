#!/usr/bin/env bash
# SPDX-License-Identifier: BSD-3-Clause
# The one command that takes a fresh Debian machine to a tested library: installs what is missing,
# then configures each build from its preset in CMakePresets.json, builds it with warnings as
# errors, runs its tests, and ends with one line "N passed, N failed".
#   normal         gcc, every test, each test program repeated twice in shuffled order, the
#                  exported symbols, unloading, installing, linking from C, use as a subproject
#   asan           clang with AddressSanitizer + UBSan, every test and a short fuzzing run
#   i386           gcc -m32 Release, every test (under qemu-i386 where the kernel needs it)
#   release-gcc    gcc Release, every test
#   matrix         Debug, RelWithDebInfo and MinSizeRel with gcc and clang, and Release with
#                  clang: library and tools (tests off, otherwise default options)
#   tsan           clang with ThreadSanitizer: the ring_tests program only
#   release-clang  clang Release, every test (on request only)
#   scripts/test.sh               every build but release-clang
#   scripts/test.sh normal asan   only the named builds
set -u
top=$(cd "$(dirname "$0")/.." && pwd)
cd "$top" || exit 1

scripts/install-deps.sh || { echo "0 passed, 1 failed"; exit 1; }

builds=("$@")
[ ${#builds[@]} -gt 0 ] || builds=(normal asan i386 release-gcc matrix tsan)
export TOV_JOBS=${TOV_JOBS:-2}
jobs=$TOV_JOBS
total_pass=0
total_fail=0
mkdir -p build

# Some kernels (virtual machines among them) cannot run 32-bit x86 programs; there the i386
# build runs its tests under qemu's user-mode emulation instead.
i386_emulator() {
    local probe
    probe=$(mktemp -d)
    echo 'int main(void) { return 0; }' >"$probe/p.c"
    if gcc -m32 "$probe/p.c" -o "$probe/p" 2>/dev/null && ! "$probe/p" 2>/dev/null; then
        echo "-DCMAKE_CROSSCOMPILING_EMULATOR=$(command -v qemu-i386);-L;/"
    fi
    rm -rf "$probe"
}

# Adds the gtest XML counts of the tests matching $2 in build $1; a test program that failed
# without a report of its own (a crash, or a plain script) counts as one failure.
count_results() {
    local dir=$1 filter=$2 pass=0 fail=0 name xml tests failures disabled skipped failed_list
    failed_list="$dir/Testing/Temporary/LastTestsFailed.log"
    while read -r name; do
        [ -n "$name" ] || continue
        xml="$dir/test-results/$name.xml"
        local crashed=0
        if [ -f "$failed_list" ] && grep -q ":$name\$" "$failed_list"; then crashed=1; fi
        if [ -f "$xml" ]; then
            read -r tests failures disabled skipped < <(sed -n 's/.*<testsuites tests="\([0-9]*\)" failures="\([0-9]*\)" disabled="\([0-9]*\)"\( skipped="\([0-9]*\)"\)\{0,1\}.*/\1 \2 \3 \5/p' "$xml" | head -n 1)
            tests=${tests:-0} failures=${failures:-0} disabled=${disabled:-0} skipped=${skipped:-0}
            pass=$((pass + tests - failures - disabled - skipped))
            fail=$((fail + failures))
            if [ "$crashed" = 1 ] && [ "$failures" = 0 ]; then fail=$((fail + 1)); fi
        elif [ "$crashed" = 1 ]; then
            fail=$((fail + 1))
        else
            pass=$((pass + 1))
        fi
    done < <(cd "$dir" && ctest -N -R "$filter" 2>/dev/null | sed -n 's/^ *Test *#[0-9]*: //p')
    echo "$pass $fail"
}

# configure BUILD DIR PRESET [cmake arguments]: configures from the preset into DIR.
configure() {
    local b=$1 dir=$2 preset=$3
    shift 3
    mkdir -p "$(dirname "$dir")"
    if ! cmake --preset "$preset" -B "$dir" "$@" >"$dir.configure.log" 2>&1; then
        cat "$dir.configure.log"
        echo "$b: configure failed"
        return 1
    fi
    grep -E "^-- tov:" "$dir.configure.log"
    return 0
}

# build BUILD DIR [targets]
build() {
    local b=$1 dir=$2 targets=()
    shift 2
    for t in "$@"; do targets+=(--target "$t"); done
    if ! cmake --build "$dir" -j "$jobs" "${targets[@]}" >"$dir.build.log" 2>&1; then
        grep -E "error|Error" "$dir.build.log" | head -n 40
        echo "$b: build failed (full log: $dir.build.log)"
        return 1
    fi
}

# run_tests BUILD DIR [ctest regex]: runs the tests and adds their counts to the totals.
run_tests() {
    local b=$1 dir=$2 filter=${3:-.}
    rm -rf "$dir/test-results" "$dir/Testing/Temporary/LastTestsFailed.log"
    (cd "$dir" && ctest -j "$jobs" -R "$filter" --output-on-failure --timeout 1500 2>&1) |
        grep -vE "^ +Start|^[0-9]+/[0-9]+ Test +#.*Passed"
    read -r p f < <(count_results "$dir" "$filter")
    echo "$b: $p passed, $f failed in $(($(date +%s) - start)) s"
    total_pass=$((total_pass + p))
    total_fail=$((total_fail + f))
}

full_build() { # BUILD PRESET [cmake arguments]
    local b=$1 preset=$2 dir="build/$1"
    shift 2
    configure "$b" "$dir" "$preset" "$@" && build "$b" "$dir" && run_tests "$b" "$dir" && return
    total_fail=$((total_fail + 1))
}

for b in "${builds[@]}"; do
    start=$(date +%s)
    echo "=== $b build"
    case "$b" in
    normal)
        echo "-- tov: every test program runs twice, in shuffled order"
        GTEST_REPEAT=2 GTEST_SHUFFLE=1 full_build normal normal ;;
    asan | release-gcc | release-clang) full_build "$b" "$b" ;;
    i386)
        emulator=$(i386_emulator)
        [ -z "$emulator" ] || echo "-- tov: this kernel cannot run 32-bit programs; tests run under qemu-i386"
        # shellcheck disable=SC2086
        full_build i386 i386 $emulator ;;
    matrix)
        # The other compilers and build types with default options, library and tools only: what
        # they can break is compiling, and the tests already run in four builds (clang's in asan).
        for config in gcc-Debug gcc-RelWithDebInfo gcc-MinSizeRel clang-Debug clang-RelWithDebInfo \
            clang-MinSizeRel clang-Release; do
            compiler=${config%-*} type=${config#*-}
            dir="build/matrix/$config"
            if configure "$b" "$dir" "release-$compiler" -DCMAKE_BUILD_TYPE="$type" -DTOV_BUILD_TESTS=OFF &&
                build "$b" "$dir"; then
                total_pass=$((total_pass + 1))
            else
                total_fail=$((total_fail + 1))
            fi
        done
        echo "$b: 7 builds in $(($(date +%s) - start)) s" ;;
    tsan)
        dir=build/tsan
        if ! configure tsan "$dir" tsan; then
            total_fail=$((total_fail + 1))
        elif ! cmake --build "$dir" --target help | grep -qw ring_tests; then
            echo "tsan: skipped, there is no ring_tests program yet"
        elif build tsan "$dir" ring_tests; then
            run_tests tsan "$dir" '^ring_tests$'
        else
            total_fail=$((total_fail + 1))
        fi ;;
    *) echo "unknown build: $b" >&2; exit 2 ;;
    esac
done

echo "$total_pass passed, $total_fail failed"
[ "$total_fail" -eq 0 ]
