#!/usr/bin/env bash
# In a fresh root with a compiler and the packages, the installed example is built with the development package's files
# for CMake and for pkg-config. Each program deletes a bundle and receives the event. The program with the shared library
# needs only the library package. The one with the static library needs no package.
#
# usage: consumer_test.sh PACKAGES
set -uo pipefail
root= # made by fresh_root

# shellcheck disable=SC1091 # checked by itself
. "$(dirname "$0")/fresh_root.sh"
enter_machine "$@"
for package in gcc cmake pkg-config; do
    [[ $(closure $package) ]] || skip "$package is not installed"
done
example=/usr/share/doc/libbundle-client-dev/examples/delete_and_hear.c

fresh_root
# shellcheck disable=SC2016,SC2046 # dpkg-query's own variables; one package a word
dpkg-query -L $(closure $(dpkg-query -W -f='${Essential} ${Package}\n' | sed -n 's/^yes //p') gcc libc6-dev make cmake pkg-config \
    $(depends_of "$1" bundle-server bundlectl)) | grep -vE '^/usr/share/(doc|man|locale|info)/' | sort -u | copy_files
unpack "$1" "$root" bundle-server bundlectl libbundle-client0 libbundle-client-dev || fail "the packages cannot be unpacked"
service start || fail "the server cannot be started"
await serves || fail "the server does not answer"

in_root() {
    chroot "$root" /usr/bin/env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root CC=gcc sh -ec "$1"
}

# check PROGRAM: it deletes a running bundle, receives the event, and reports a bundle that does not exist.
check() {
    local said status=0
    put_bundle radio
    await runs bin/radio.sh 1 || fail "the bundle's script is not run"
    said=$(in_root "$1 radio") || fail "$1 ends with $?"
    [ "$said" = "bundle_service app.event.init" ] || fail "$1 says: $said"
    [ ! -e "$root/var/lib/bundle-server/bundles/radio" ] || fail "$1 has left the bundle"
    said=$(in_root "$1 radio" 2>&1) || status=$?
    [[ $status -eq 1 && $said == "radio: the server knows no bundle of that name" ]] || fail "$1 of no bundle ends with $status: $said"
}

# needs PROGRAM: whether it is linked with the shared library.
needs() {
    readelf --dynamic "$root/$1" | grep -q 'NEEDED.*\[libbundle-client\.so\.0\]'
}

# shellcheck disable=SC2016 # expanded in the root
in_root "gcc -Wall -Werror $example"' $(pkg-config --cflags --libs bundle-client) -o /tmp/by_pkg_config' ||
    fail "it cannot be built by pkg-config"
check /tmp/by_pkg_config
needs tmp/by_pkg_config || fail "pkg-config does not link the shared library"

mkdir "$root/tmp/project"
cat > "$root/tmp/project/CMakeLists.txt" <<END
cmake_minimum_required(VERSION 3.22)
project(consumer LANGUAGES C)
find_package(BundleServer 0.1 REQUIRED COMPONENTS client client_static)
add_executable(shared $example)
target_link_libraries(shared PRIVATE BundleServer::client)
add_executable(static $example)
target_link_libraries(static PRIVATE BundleServer::client_static)
find_package(BundleServer 9.0 QUIET)
if(BundleServer_FOUND)
    message(FATAL_ERROR "a version is found that is not installed")
endif()
END
in_root "cmake -S /tmp/project -B /tmp/build && cmake --build /tmp/build" > "$root/tmp/log" 2>&1 ||
    fail "it cannot be built by CMake: $(tail -n 20 "$root/tmp/log")"
for program in shared static; do
    check /tmp/build/$program
done
needs tmp/build/shared || fail "BundleServer::client is not the shared library"
! needs tmp/build/static || fail "BundleServer::client_static is not the static library"

# A user of the program needs only the library package.
rm -r "$root"/usr/include/bundle_client.h "$root"/usr/lib/*/{libbundle-client.so,libbundle-client.a,cmake/BundleServer}
check /tmp/by_pkg_config
rm "$root"/usr/lib/*/libbundle-client.so.*
check /tmp/build/static
service stop || fail "the server cannot be stopped"
echo "built by pkg-config and by CMake; each program has deleted a bundle and received its event"
