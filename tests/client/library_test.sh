#!/usr/bin/env bash
# The library needs only the C library, so that programs in any language can be linked with it. It exports only what its
# header declares. A C program can be linked with the static library without any option for C++.
#
# usage: library_test.sh CLIENT_DIR SHARED STATIC NM READELF CC
set -euo pipefail

client=$1
shared=$2
static=$3
nm=$4
readelf=$5
cc=$6

fail() {
    echo "FAILED: $*"
    exit 1
}

declared=$(sed -n 's/^BUNDLE_CLIENT_API .*[ *]\(bundle_client_[a-z_]*\)(.*/\1/p' "$client/include/bundle_client.h" | sort)
shown=$("$nm" --dynamic --defined-only --format=posix "$shared" | sed -n 's/^\([a-z_]*\)@@BUNDLE_CLIENT_0 T .*/\1/p' | sort)
[ "$(wc -l <<< "$declared")" -ge 10 ] || fail "the header declares only: $declared"
[ "$declared" = "$shown" ] || fail "the header declares ${declared//$'\n'/ }; the library shows ${shown//$'\n'/ }"
others=$("$nm" --dynamic --defined-only --format=posix "$shared" | grep -v '^bundle_client_\|^BUNDLE_CLIENT_0' || true)
[ -z "$others" ] || fail "the library shows also: $others"

[[ $("$readelf" --dynamic "$shared") == *"soname: [libbundle-client.so.0]"* ]] || fail "it has another soname"
needed=$("$readelf" --dynamic "$shared" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p')
# The machine's loader belongs to the C library.
others=$(grep -v '^libc\.so\|^ld-linux' <<< "$needed" || true)
[ -z "$others" ] || fail "it needs ${others//$'\n'/ } beside the C library"

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
"$cc" -std=c99 -Wall -Wextra -Wpedantic -Werror "-I$client/include" "$client/examples/delete_and_hear.c" "$static" \
    -o "$work/example" || fail "a C program cannot be linked with the static library"
needed=$("$readelf" --dynamic "$work/example" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p')
[[ $needed != *stdc++* ]] || fail "a C program that is linked with the static library needs the C++ library"
status=0
"$work/example" 2> "$work/errors" || status=$?
[ $status -eq 2 ] || fail "the example ends with $status: $(cat "$work/errors")"
