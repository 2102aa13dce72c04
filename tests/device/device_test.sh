#!/usr/bin/env bash
# Tests of BUNDLE_SERVER_PLATFORM=device. Each has a name.
#
# usage: device_test.sh TEST SOURCE_DIR SCRATCH_DIR CMAKE [-DVARIABLE=VALUE...]
set -euo pipefail

test=$1
source=$2
scratch=$3
cmake=$4
shift 4
compiler=("$@")

fail() {
    echo "FAILED: $*"
    [ ! -e "$scratch/output" ] || cat "$scratch/output"
    exit 1
}

build_stubs() {
    "$cmake" -G Ninja -S "$source/tests/device/stub" -B "$scratch/stub" "${compiler[@]}" > "$scratch/output" 2>&1 ||
        fail "the stand-ins cannot be configured"
    "$cmake" --build "$scratch/stub" > "$scratch/output" 2>&1 || fail "the stand-ins cannot be built"
}

configure() {
    "$cmake" --preset device -S "$source" -B "$scratch/server" "${compiler[@]}" \
        -DBUNDLE_SERVER_PLATFORM=device "$@" > "$scratch/output" 2>&1
}

build() {
    "$cmake" --build "$scratch/server" --target bundle_server > "$scratch/output" 2>&1 || fail "it cannot be built"
}

# The names of the libraries that the daemon is linked with.
needed() {
    readelf --dynamic "$scratch/server/system_server/bundle_server_module/bundle_server" |
        sed -nE 's/.*\(NEEDED\).*\[(.*)\]/\1/p'
}

expect_message() {
    tr -s ' \n' ' ' < "$scratch/output" | grep -qF -- "$1" || fail "the message lacks: $1"
}

expect_no_message() {
    ! grep -qF -- "$1" "$scratch/output" || fail "the message has: $1"
}

rm -rf "$scratch"
mkdir -p "$scratch"
case $test in
    LinksWithTheDevicesLibraries)
        build_stubs
        configure "-DBUNDLE_SERVER_DEVICE_DIR=$scratch/stub" || fail "it cannot be configured"
        build
        for library in libbolt.so liblumo.so libzq_log.so libsprintf_s.so; do
            needed | grep -qxF $library || fail "it is not linked with $library"
        done
        ! needed | grep -E 'event|safec' || fail "it is linked with the host platform's libraries as well"
        "$scratch/server/system_server/bundle_server_module/bundle_server" --help > "$scratch/output" 2>&1 ||
            fail "it does not run"
        ;;
    NamesTheLibrariesThatAreMissing)
        ! configure || fail "it is configured without the device's libraries"
        for name in bolt lumo zq_log sprintf_s; do
            expect_message "lib$name, the functions of $name.h (-DBUNDLE_SERVER_${name^^}_LIBRARY=FILE)"
        done
        expect_message -DBUNDLE_SERVER_DEVICE_DIR=DIR
        # Only the missing ones are named.
        build_stubs
        rm "$scratch/stub/lib/liblumo.so"
        ! configure "-DBUNDLE_SERVER_DEVICE_DIR=$scratch/stub/lib" || fail "it is configured without one of them"
        expect_message "liblumo, the functions of lumo.h"
        for name in bolt zq_log sprintf_s; do
            expect_no_message "lib$name,"
        done
        ;;
    TakesALibraryByItsFile)
        build_stubs
        mv "$scratch/stub/lib/liblumo.so" "$scratch/stub/lib/libmessages.so"
        configure "-DBUNDLE_SERVER_DEVICE_DIR=$scratch/stub" "-DBUNDLE_SERVER_LUMO_LIBRARY=$scratch/stub/lib/libmessages.so" ||
            fail "it cannot be configured"
        ! configure "-DBUNDLE_SERVER_LUMO_LIBRARY=$scratch/nowhere.so" || fail "it accepts a missing file"
        expect_message "$scratch/nowhere.so, the functions of lumo.h (BUNDLE_SERVER_LUMO_LIBRARY names it)"
        ;;
    IsNotConfusedWithAnother)
        ! configure -DBUNDLE_SERVER_PLATFORM=devise || fail "it accepts an unknown platform"
        expect_message 'BUNDLE_SERVER_PLATFORM is "host" or "device", not "devise".'
        ;;
    *) fail "no such test: $test" ;;
esac
