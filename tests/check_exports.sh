#!/usr/bin/env bash
# Checks the dynamic symbol tables of the two shared libraries.
#
#   check_exports.sh platform <nm> <libapartment_platform.so> <header dir> <sanitize>
#       Every function declared with OS_PLATFORM_API in the headers is
#       defined and exported.
#   check_exports.sh apartment <nm> <libapartment.so> <expected count> <sanitize>
#       Every exported function is named apartment_*, and there are exactly
#       the expected number of them.
#
# <sanitize> is the build's sanitizer list (may be empty). A sanitizer
# runtime can add exports of its own; the check is then skipped (exit 77)
# rather than failed.
set -euo pipefail

mode=$1 nm=$2 lib=$3 arg=$4 sanitize=${5:-}

# Exported functions: "T" (text) and "W" (weak) entries of the dynamic table.
exported_functions() {
    "$nm" -D --defined-only "$lib" | awk '$2 == "T" || $2 == "W" { print $3 }' | sort -u
}

skip_if_sanitizer_exports() {  # <symbols>
    if [[ -n $sanitize ]] && grep -qE '^_*(asan|ubsan|tsan|lsan|sanitizer)_' <<<"$1"; then
        echo "SKIP: the sanitizer runtime ($sanitize) adds exports"
        exit 77
    fi
}

case $mode in
platform)
    # Names from declarations such as
    #   OS_PLATFORM_API mutex_handle* os_mutex_create(unsigned int attribute, ...
    declared=$(cat "$arg"/*.h |
        grep -oE '^[[:space:]]*OS_PLATFORM_API[[:space:]][^(;]*\(' |
        sed -E 's/[[:space:]]*\($//; s/.*[^A-Za-z0-9_]//' | sort -u)
    if [[ -z $declared ]]; then
        echo "FAIL: no OS_PLATFORM_API declarations found in $arg"
        exit 1
    fi
    missing=$(comm -23 <(echo "$declared") <(exported_functions))
    if [[ -n $missing ]]; then
        echo "FAIL: declared but not exported by $(basename "$lib"):"
        echo "$missing"
        exit 1
    fi
    echo "OK: all $(wc -l <<<"$declared") declared platform functions are exported"
    ;;
apartment)
    all=$(exported_functions)
    foreign=$(grep -v '^apartment_' <<<"$all" || true)
    if [[ -n $foreign ]]; then
        skip_if_sanitizer_exports "$foreign"
        echo "FAIL: $(basename "$lib") exports functions outside apartment_*:"
        echo "$foreign"
        exit 1
    fi
    count=$(grep -c '^apartment_' <<<"$all" || true)
    if [[ $count -ne $arg ]]; then
        echo "FAIL: $(basename "$lib") exports $count apartment_* functions, expected $arg:"
        echo "$all"
        exit 1
    fi
    echo "OK: $count apartment_* functions exported, nothing else"
    ;;
*)
    echo "usage: $0 platform|apartment <nm> <library> <header dir|expected count> [sanitize]"
    exit 2
    ;;
esac
