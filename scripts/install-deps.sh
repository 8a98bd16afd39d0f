#!/usr/bin/env bash
# SPDX-License-Identifier: BSD-3-Clause
# Installs the Debian packages that building and testing need, and only those that are missing.
# Run as root (or through sudo) on Debian 12; safe to run again.
set -u

need=(cmake make g++ pkg-config python3
      libsafec-dev libgtest-dev libgmock-dev libboost-dev libprotobuf-dev protobuf-compiler
      libbenchmark-dev libprotobuf-c-dev protobuf-c-compiler valgrind clang libclang-rt-14-dev
      g++-multilib libsafec-dev:i386 libgtest-dev:i386 qemu-user)
# libprotobuf for i386 lets the 32-bit build run the interoperability tests too; when Debian's
# i386 archive cannot supply it, that build skips them and says so.
optional=(libprotobuf-dev:i386)

missing() {
    local out=() p
    for p in "$@"; do
        dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || out+=("$p")
    done
    echo "${out[@]:-}"
}

sudo_cmd=()
[ "$(id -u)" -eq 0 ] || sudo_cmd=(sudo)
export DEBIAN_FRONTEND=noninteractive

if ! dpkg --print-foreign-architectures | grep -qx i386; then
    "${sudo_cmd[@]}" dpkg --add-architecture i386
fi

update() {
    # A partial failure (one mirror index out of sync) still refreshes the others, so it is only
    # worth a note; the install below says whether what we need was found.
    "${sudo_cmd[@]}" apt-get update -qq >/dev/null 2>&1 || echo "note: apt-get update reported errors" >&2
}
install() {
    # shellcheck disable=SC2068
    "${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends $@ >/dev/null 2>&1
}

todo=$(missing "${need[@]}")
if [ -n "$todo" ]; then
    echo "Installing: $todo"
    ok=0
    for attempt in 1 2 3; do
        update
        # shellcheck disable=SC2086
        if install $todo; then ok=1; break; fi
        echo "apt-get install failed (attempt $attempt); retrying" >&2
        sleep 5
    done
    [ "$ok" = 1 ] || { echo "error: could not install: $(missing "${need[@]}")" >&2; exit 1; }
fi
opt=$(missing "${optional[@]}")
if [ -n "$opt" ]; then
    # shellcheck disable=SC2086
    install $opt || echo "note: $opt not installable here; the i386 build skips the libprotobuf tests" >&2
fi
exit 0
