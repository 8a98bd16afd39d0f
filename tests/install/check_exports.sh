#!/usr/bin/env bash
# SPDX-License-Identifier: BSD-3-Clause
# usage: check_exports.sh NM LIBRARY VERSION_SCRIPT [PROTO]
# The library's dynamic symbols must be exactly the names of its version script, each under the
# script's version node. A pattern in the script (the codec's kesh_tov_*_decode_ext) stands for
# one name per message of PROTO.
set -eu
nm=$1 lib=$2 map=$3 proto=${4:-}

script=$(sed -e ':a' -e '/\/\*/{/\*\//!{N;ba}}' -e 's#/\*.*\*/##' "$map") # drop comments
node=$(sed -n 's/^ *\([A-Za-z0-9_.]*\) *{.*/\1/p' <<<"$script" | head -n 1)
messages=()
[ -z "$proto" ] || mapfile -t messages < <(sed -n 's/^message \([a-z0-9_]*\).*/\1/p' "$proto")

expected=$(sed -n '/global:/,/local:/p' <<<"$script" | grep -o '[A-Za-z0-9_*]*;' | tr -d ';' |
    while read -r name; do
        case "$name" in
        *'*'*)
            [ ${#messages[@]} -gt 0 ] || { echo "pattern $name without messages" >&2; echo "$name"; continue; }
            for m in "${messages[@]}"; do echo "${name/\*/$m}"; done ;;
        *) echo "$name" ;;
        esac
    done | sort -u)

# nm prints versioned names as name@@NODE; the node itself is an absolute symbol.
exported=$("$nm" -D --defined-only "$lib" | awk -v node="$node" '{n = $3; sub(/@.*/, "", n); if (n != node) print $3}' | sort)
status=0
unversioned=$(grep -v "@@$node\$" <<<"$exported" || true)
if [ -n "$unversioned" ]; then
    echo "exported without the version $node:"; sed 's/^/  /' <<<"$unversioned"; status=1
fi
exported=$(sed 's/@.*//' <<<"$exported")
missing=$(comm -23 <(echo "$expected") <(echo "$exported"))
extra=$(comm -13 <(echo "$expected") <(echo "$exported"))
if [ -n "$missing" ]; then echo "documented but not exported:"; sed 's/^/  /' <<<"$missing"; status=1; fi
if [ -n "$extra" ]; then echo "exported but not documented:"; sed 's/^/  /' <<<"$extra"; status=1; fi
echo "$(basename "$lib"): $(grep -c . <<<"$exported") exported, $(grep -c . <<<"$expected") documented ($node)"
exit $status
