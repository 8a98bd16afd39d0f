#!/usr/bin/env bash
# SPDX-License-Identifier: BSD-3-Clause
# usage: check_subproject.sh SOURCE_DIR TEST_SOURCE_DIR C_COMPILER CXX_COMPILER
# A parent project in Release adds the library with add_subdirectory: it gets the static library
# (its BUILD_SHARED_LIBS is unset), its own newer C++ standard, no tests, no tools and nothing
# installed, until it asks with TOV_INSTALL.
set -eu
tov=$1 src=$2 cc=$3 cxx=$4
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cp "$src/consumer.c" "$work/"
cat >"$work/CMakeLists.txt" <<CMAKE
cmake_minimum_required(VERSION 3.21)
project(parent C)
set(CMAKE_CXX_STANDARD 23)
add_subdirectory("$tov" tov)
add_executable(consumer consumer.c)
target_link_libraries(consumer PRIVATE tov::tov)
install(TARGETS consumer)
CMAKE
b="$work/build"
cmake -S "$work" -B "$b" -DCMAKE_BUILD_TYPE=Release -DCMAKE_C_COMPILER="$cc" -DCMAKE_CXX_COMPILER="$cxx" >/dev/null
cmake --build "$b" -j "${TOV_JOBS:-2}" >/dev/null
"$b/consumer" >/dev/null
fail() { echo "subproject: $*"; exit 1; }
[ -f "$b/tov/libtov.a" ] && [ ! -e "$b/tov/libtov.so" ] || fail "expected the static library only"
[ -z "$(find "$b" -name '*_tests' -o -name tov-trace -o -name '*gtest*.a')" ] || fail "tests or tools were built"
grep -q -- '-std=c++23' "$b/tov/CMakeFiles/tov_objects.dir/flags.make" || fail "the parent's C++ standard was not kept"
cmake --install "$b" --prefix "$work/p1" >/dev/null
[ "$(cd "$work/p1" && find . -type f)" = "./bin/consumer" ] || fail "installed more than the parent's program"
cmake -DTOV_INSTALL=ON "$b" >/dev/null
cmake --install "$b" --prefix "$work/p2" >/dev/null
[ -f "$work/p2/include/tov/version.h" ] && [ -n "$(find "$work/p2" -name libtov.a)" ] || fail "TOV_INSTALL installed no library"
echo "subproject ok"
