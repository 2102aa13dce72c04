#!/usr/bin/env bash
# Tests of the project's configuration, each with a name. Nothing is built.
#
# usage: configuration_test.sh TEST SOURCE_DIR SCRATCH_DIR CMAKE POCO_DIR [-DVARIABLE=VALUE...]
set -euo pipefail

test=$1
source=$2
scratch=$3
cmake=$4
framework=$5
shift 5
compiler=("$@")

fail() {
    echo "FAILED: $*"
    [ ! -e "$scratch/output" ] || cat "$scratch/output"
    exit 1
}

configure() {
    rm -rf "$scratch/build"
    "$cmake" -S "$source" -B "$scratch/build" "${compiler[@]}" "$@" > "$scratch/output" 2>&1
}

expect_message() {
    tr -s ' \n' ' ' < "$scratch/output" | grep -qF -- "$1" || fail "the message lacks: $1"
}

# make_framework VERSION: makes a copy of the machine's framework with another version number. Standard input is added to
# its configuration.
make_framework() {
    mkdir "$scratch/framework"
    { echo "include([[$framework/PocoConfig.cmake]])"; cat; } > "$scratch/framework/PocoConfig.cmake"
    printf 'set(PACKAGE_VERSION %s)\nset(PACKAGE_VERSION_COMPATIBLE TRUE)\n' "$1" > "$scratch/framework/PocoConfigVersion.cmake"
}

# compiled_with OPTION: the number of the project's own sources that are compiled with it.
compiled_with() {
    grep -c -- "\"command\": .* $1 .*system_server" "$scratch/build/compile_commands.json" || true
}

rm -rf "$scratch"
mkdir -p "$scratch"
case $test in
    WatchlessFramework)
        make_framework 1.11.0 <<< \
            'set_property(TARGET Poco::Foundation APPEND PROPERTY INTERFACE_COMPILE_DEFINITIONS POCO_NO_INOTIFY)'
        ! configure "-DPoco_DIR=$scratch/framework" || fail "it is configured"
        expect_message "POCO 1.11.0 in $scratch/framework has no DirectoryWatcher"
        expect_message "Build it without that definition, or name another with -DPoco_DIR=DIR"
        # The refusal is not cached: the same build directory can be configured once the framework has changed.
        "$cmake" "-DPoco_DIR=$framework" "$scratch/build" > "$scratch/output" 2>&1 || fail "it is still refused"
        ;;
    OldFramework)
        make_framework 1.8.1 < /dev/null
        ! configure "-DPoco_DIR=$scratch/framework" || fail "it is configured"
        expect_message "POCO 1.8.1 in $scratch/framework is too old: the server needs 1.9 or later."
        rm -r "$scratch/framework"
        make_framework 1.9.0 < /dev/null
        configure "-DPoco_DIR=$scratch/framework" || fail "1.9.0 is refused"
        ;;
    MissingFramework)
        ! configure -DCMAKE_DISABLE_FIND_PACKAGE_Poco=ON || fail "it is configured"
        expect_message "There is no POCO with Foundation, Util, XML, JSON. Debian has it in libpoco-dev"
        ;;
    Warnings)
        configure || fail "it cannot be configured"
        [ "$(compiled_with -Wconversion)" -gt 0 ] || fail "no source is compiled with warnings"
        [ "$(compiled_with -Werror)" -eq 0 ] || fail "warnings are errors in a plain build"
        for preset in dev release device; do
            configure --preset $preset || fail "the preset $preset cannot be configured"
            [ "$(compiled_with -Wconversion)" -eq "$(compiled_with -Werror)" ] ||
                fail "warnings are not errors in the preset $preset"
        done
        ;;
    Standard)
        configure || fail "it cannot be configured"
        [ "$(compiled_with -std=c++17)" -gt 0 ] || fail "the default is not C++17"
        configure -DCMAKE_CXX_STANDARD=20 || fail "C++20 cannot be chosen"
        [ "$(compiled_with '-std=c++2[0a]')" -gt 0 ] || fail "the chosen standard has no effect"
        ! configure -DCMAKE_CXX_STANDARD=14 || fail "a standard that is too old is accepted"
        expect_message "CMAKE_CXX_STANDARD is 14, and the sources are C++17: give 17, 20 or 23."
        ;;
    *) fail "no such test: $test" ;;
esac
rm -rf "$scratch"
