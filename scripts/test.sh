#!/usr/bin/env bash
# The one command that takes a fresh Debian machine to a tested library: installs what is missing,
# then builds and runs every test three times (normal, AddressSanitizer + UBSan, 32-bit x86), and
# ends with one line "N passed, N failed".
#   scripts/test.sh            all three builds
#   scripts/test.sh normal     only the named builds (normal, asan, i386)
set -u
top=$(cd "$(dirname "$0")/.." && pwd)
cd "$top" || exit 1

scripts/install-deps.sh || { echo "0 passed, 1 failed"; exit 1; }

builds=("$@")
[ ${#builds[@]} -gt 0 ] || builds=(normal asan i386)
jobs=${TOV_JOBS:-2}
total_pass=0
total_fail=0

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

configure_args() {
    case "$1" in
    normal) echo "-DCMAKE_BUILD_TYPE=RelWithDebInfo" ;;
    asan) echo "-DCMAKE_BUILD_TYPE=Debug -DTOV_SANITIZE=ON" ;;
    i386) echo "-DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_TOOLCHAIN_FILE=$top/cmake/i386.cmake $(i386_emulator)" ;;
    *) return 1 ;;
    esac
}

# Adds the gtest XML counts of one build to the totals; a test program that failed without a
# report of its own (a crash, or a plain ctest script) counts as one failure.
count_results() {
    local dir=$1 pass=0 fail=0 name xml tests failures disabled skipped failed_list
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
    done < <(cd "$dir" && ctest -N 2>/dev/null | sed -n 's/^ *Test *#[0-9]*: //p')
    echo "$pass $fail"
}

for b in "${builds[@]}"; do
    args=$(configure_args "$b") || { echo "unknown build: $b" >&2; exit 2; }
    dir="build/$b"
    start=$(date +%s)
    echo "=== $b build ($dir)"
    # shellcheck disable=SC2086
    mkdir -p build
    if ! cmake -S . -B "$dir" $args >"$dir.configure.log" 2>&1; then
        cat "$dir.configure.log"
        echo "$b: configure failed"
        total_fail=$((total_fail + 1))
        continue
    fi
    grep -E "^-- tov:" "$dir.configure.log"
    case "$args" in *qemu-i386*) echo "-- tov: this kernel cannot run 32-bit programs; tests run under qemu-i386" ;; esac
    if ! cmake --build "$dir" -j "$jobs" >"$dir.build.log" 2>&1; then
        grep -E "error|Error" "$dir.build.log" | head -n 40
        echo "$b: build failed (full log: $dir.build.log)"
        total_fail=$((total_fail + 1))
        continue
    fi
    rm -rf "$dir/test-results" "$dir/Testing/Temporary/LastTestsFailed.log"
    (cd "$dir" && ctest -j "$jobs" --output-on-failure --timeout 1500) | grep -vE "^ +Start|^[0-9]+/[0-9]+ Test +#.*Passed"
    read -r p f < <(count_results "$dir")
    echo "$b: $p passed, $f failed in $(($(date +%s) - start)) s"
    total_pass=$((total_pass + p))
    total_fail=$((total_fail + f))
done

echo "$total_pass passed, $total_fail failed"
[ "$total_fail" -eq 0 ]
