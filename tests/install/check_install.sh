#!/usr/bin/env bash
# usage: check_install.sh BUILD_DIR SOURCE_DIR C_COMPILER
set -eu
build=$1 src=$2 cc=$3
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cmake --install "$build" --prefix "$work/prefix" >/dev/null
libdir=$(dirname "$(find "$work/prefix" -name tov.pc | head -n 1)")/..

# pkg-config
PKG_CONFIG_PATH="$libdir/pkgconfig" "$cc" -std=c11 -Wall -Werror "$src/consumer.c" -o "$work/by-pkg-config" \
    $(PKG_CONFIG_PATH="$libdir/pkgconfig" pkg-config --cflags --libs tov)
LD_LIBRARY_PATH="$libdir" "$work/by-pkg-config"

# find_package
mkdir -p "$work/project"
cp "$src/consumer.c" "$work/project/"
cat >"$work/project/CMakeLists.txt" <<'CMAKE'
cmake_minimum_required(VERSION 3.20)
project(consumer C)
find_package(tov REQUIRED)
add_executable(consumer consumer.c)
target_link_libraries(consumer PRIVATE tov::tov)
CMAKE
cmake -S "$work/project" -B "$work/project/build" -DCMAKE_PREFIX_PATH="$work/prefix" -DCMAKE_C_COMPILER="$cc" >/dev/null
cmake --build "$work/project/build" >/dev/null
"$work/project/build/consumer"
