#!/bin/sh
# The projects of new bundles are built as they come, lint finds nothing in them, and their scripts may run twice.
# Usage: new_build_test.sh BUNDLECTL. The long form builds one of each kind, for 32-bit ARM as well.
set -eu
bundlectl=$1
place=$(mktemp -d)
trap 'rm -rf "$place"' EXIT

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
    cmake --preset "$1" -DBUNDLECTL="$bundlectl" -DTRY_TIME=2s > "$place/configure.log" 2>&1 || fail "configure, $1"
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

new a-script --lang sh --requires base,net
build native
scripts_may_run_twice
echo "bundle_lode_mode = 0" >> bundle/BundleManifest.ini
! cmake --build --preset native > "$place/build.log" 2>&1 || fail "what lint finds does not fail the build"
grep -q key-unknown "$place/build.log" || fail "the build fails otherwise"

new a-program
build native
[ -z "${BUNDLE_SERVER_LONG_TESTS:-}" ] && exit

new a-library --lang so
build native
new a-thread --mode thread
build native
if ! command -v arm-linux-gnueabihf-g++ > "$place/found.log"; then
    echo "nothing is built for 32-bit ARM: arm-linux-gnueabihf-g++ is missing"
    exit 77
fi
for name in a-program a-library a-thread; do
    cd "$place/$name"
    build armhf
    file "$bundle"/bin/* | grep -q 'ELF 32-bit LSB.*ARM' || fail "the item is not for 32-bit ARM"
done
