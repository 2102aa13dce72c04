#!/bin/sh
# Builds the projects of new bundles unchanged. Lint finds nothing in them, and their scripts may run twice.
# Usage: new_build_test.sh PROGRAM...: bundlectl, bundlectl-author, the server and its loader. The long form builds one
# of each kind, also for 32-bit ARM.
set -eu
# The address sanitizer's look for leaks fails inside a namespace of process numbers, where try runs the server.
export ASAN_OPTIONS=detect_leaks=0
place=$(mktemp -d)
trap 'rm -rf "$place"' EXIT
# In one directory they find each other, as in an installation.
mkdir "$place/programs"
cp "$@" "$place/programs"
bundlectl=$place/programs/bundlectl

fail() {
    cat "$place"/*.log
    echo "$*"
    exit 1
}

# new NAME [OPTION...]: makes a project and goes into it.
new() {
    cd "$place"
    "$bundlectl" new "$@" > new.log || fail "bundlectl new $*"
    cd "$1"
}

# build PRESET
build() {
    cmake --preset "$1" -DBUNDLECTL="$bundlectl" -DTRY_TIME=5s > "$place/configure.log" 2>&1 || fail "configure, $1"
    cmake --build --preset "$1" > "$place/build.log" 2>&1 || fail "build, $1"
    ! grep 'warning:' "$place/build.log" || fail "a warning"
    grep -q '^1 bundle: 0 errors, 0 warnings.$' "$place/build.log" || fail "lint has not been asked"
    bundle=$PWD/build/$1/bundle/${PWD##*/}
    [ "$(find "$bundle/bin" -type f | wc -l)" = 1 ] || fail "the bundle has not one item"
}

scripts_may_run_twice() {
    for script in install update uninstall; do
        "$bundle/script/$script.sh" 2> "$place/script.log" || fail "$script.sh"
        find "$bundle" | sort > "$place/once.log"
        "$bundle/script/$script.sh" 2> "$place/script.log" || fail "$script.sh, the second time"
        find "$bundle" | sort | diff "$place/once.log" - || fail "$script.sh does something else when it runs again"
    done
}

# The project's own test, which runs the bundle under the real server.
passes() {
    ctest --preset native > "$place/ctest.log" 2>&1 || fail "${PWD##*/} does not pass its test"
    grep -q '^100% tests passed, 0 tests failed out of 1$' "$place/ctest.log" || fail "${PWD##*/} has no test"
}

new a-script --lang sh --requires base,net
build native
scripts_may_run_twice
passes
echo "bundle_lode_mode = 0" >> bundle/BundleManifest.ini
! cmake --build --preset native > "$place/build.log" 2>&1 || fail "what lint finds does not fail the build"
grep -q key-unknown "$place/build.log" || fail "the build fails otherwise"

new a-program
build native
if [ -z "${BUNDLE_SERVER_LONG_TESTS:-}" ]; then
    exit
fi

passes
new a-library --lang so
build native
passes
new a-thread --mode thread
build native
passes
if ! command -v arm-linux-gnueabihf-g++ > "$place/found.log"; then
    echo "nothing is built for 32-bit ARM: arm-linux-gnueabihf-g++ is missing"
    exit 77
fi
for name in a-program a-library a-thread; do
    cd "$place/$name"
    build armhf
    file "$bundle"/bin/* | grep -q 'ELF 32-bit LSB.*ARM' || fail "the item is not for 32-bit ARM"
done
