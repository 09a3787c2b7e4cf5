#!/bin/sh
# Holds libmgmt.so to its interface both ways.
#   abi_check.sh exports LIB HAND_LIST GENERATED_LIST
#     the library exports exactly the names of both lists, each in LIBMGMT_1.0;
#   abi_check.sh imports LIB PLATFORM_LIST
#     every symbol it imports is versioned by a system library or is on the platform list
set -eu
names() { cat "$@" | grep -v '^#' | grep . | sort -u; }
case "$1" in
exports)
    lib=$2; shift 2
    have=$(nm -D --defined-only "$lib" | awk '$3 != "LIBMGMT_1.0" {print $3}')
    unversioned=$(printf '%s\n' "$have" | grep -v '@@LIBMGMT_1\.0$' || true)
    if [ -n "$unversioned" ]; then
        echo "exported outside LIBMGMT_1.0:"; printf '%s\n' "$unversioned"; exit 1
    fi
    listed=$(mktemp)
    names "$@" > "$listed"
    diff=$(printf '%s\n' "$have" | sed 's/@@.*//' | sort -u | diff - "$listed" || true)
    rm -f "$listed"
    if [ -n "$diff" ]; then
        echo "exports differ from the lists (< exported only, > listed only):"; printf '%s\n' "$diff"; exit 1
    fi
    echo "exports: $(printf '%s\n' "$have" | wc -l) names, all listed, all in LIBMGMT_1.0"
    ;;
imports)
    lib=$2; list=$3
    allowed=$(names "$list")
    bad=$(nm -D --undefined-only "$lib" | awk '{print $NF}' | grep -v '@' |
          grep -v -e '^_ITM_' -e '^__gmon_start__$' |
          while read -r n; do printf '%s\n' "$allowed" | grep -qx "$n" || echo "$n"; done)
    if [ -n "$bad" ]; then
        echo "imports neither versioned by a system library nor on $list:"; printf '%s\n' "$bad"; exit 1
    fi
    echo "imports: every unversioned import is on the platform list"
    ;;
*) echo "usage: $0 exports LIB LIST... | imports LIB LIST" >&2; exit 2 ;;
esac
