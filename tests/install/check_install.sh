#!/usr/bin/env bash
# SPDX-License-Identifier: BSD-3-Clause
# usage: check_install.sh BUILD_DIR SOURCE_DIR C_COMPILER
# Installs the library into a scratch prefix and builds a user's C program against it, shared and
# static, through pkg-config and through find_package(tov). The static programs must run without
# the shared libraries.
set -eu
build=$1 src=$2 cc=$3
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cmake --install "$build" --prefix "$work/prefix" >/dev/null
libdir=$(cd "$(dirname "$(find "$work/prefix" -name tov.pc | head -n 1)")/.." && pwd)
export PKG_CONFIG_PATH="$libdir/pkgconfig"

# expect_link PROGRAM shared|static
expect_link() {
    local kind=static
    if readelf -d "$1" | grep -q 'NEEDED.*libtov'; then kind=shared; fi
    [ "$kind" = "$2" ] || { echo "$1: linked $kind, expected $2"; exit 1; }
}

# CMake, one project per target: tov::tov (the default kind, shared), tov::tov_static.
for target in tov tov_static; do
    p="$work/cmake-$target"
    mkdir -p "$p"
    cp "$src/consumer.c" "$p/"
    cat >"$p/CMakeLists.txt" <<CMAKE
cmake_minimum_required(VERSION 3.21)
project(consumer C)
find_package(tov 0.2 REQUIRED)
add_executable(consumer consumer.c)
target_link_libraries(consumer PRIVATE tov::$target)
CMAKE
    cmake -S "$p" -B "$p/build" -DCMAKE_PREFIX_PATH="$work/prefix" -DCMAKE_C_COMPILER="$cc" >/dev/null
    cmake --build "$p/build" >/dev/null
    "$p/build/consumer" >/dev/null
    if [ $target = tov ]; then expect_link "$p/build/consumer" shared; else expect_link "$p/build/consumer" static; fi
done

# pkg-config, shared; then static, with the shared libraries gone as on a static-only system.
# shellcheck disable=SC2046
"$cc" -std=c11 -Wall -Werror "$src/consumer.c" -o "$work/shared" $(pkg-config --cflags --libs tov)
LD_LIBRARY_PATH="$libdir" "$work/shared" >/dev/null
expect_link "$work/shared" shared
rm "$libdir"/libtov*.so*
# shellcheck disable=SC2046
"$cc" -std=c11 -Wall -Werror "$src/consumer.c" -o "$work/static" $(pkg-config --static --cflags --libs tov)
"$work/static"
expect_link "$work/static" static
