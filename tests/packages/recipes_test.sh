#!/usr/bin/env bash
# Compares the recipes for Yocto and Buildroot with the installed files, as far as possible without these tools.
#
# usage: recipes_test.sh ROOT CMAKE BUILD_DIR
set -uo pipefail

root=$1
cmake=$2
build=$3
recipe=$root/packaging/yocto/meta-bundle-server/recipes-core/bundle-server/bundle-server_git.bb
buildroot=$root/packaging/buildroot
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

fail() {
    echo "FAILED: $*"
    exit 1
}

# The installed files and empty directories, without manual pages and the log's directory.
DESTDIR=$work/tree "$cmake" --install "$build" --prefix /usr > /dev/null || fail "it cannot be installed"
installed=$(cd "$work/tree" && find . \( -type f -o -type l -o -type d -empty \) -printf '/%P\n' |
    grep -vE '^/usr/share/man/|^/var/log/' | sort)
[ -n "$installed" ] || fail "nothing is installed"

libdir=$(sed -n 's/^CMAKE_INSTALL_LIBDIR:PATH=//p' "$build/CMakeCache.txt")
project_version=$(sed -n 's/^CMAKE_PROJECT_VERSION:STATIC=//p' "$build/CMakeCache.txt")

# --- Yocto: every installed file is in a package, and every file that the recipe names is installed.
# shellcheck disable=SC2016 # the recipe's own variables
named=$(sed -n '/^FILES:/,/^"/p' "$recipe" | grep -oE '\$\{[a-z_]+\}/[^ ]*' | sed \
    -e 's,${bindir},/usr/bin,' -e 's,${sbindir},/usr/sbin,' -e 's,${libexecdir},/usr/libexec,' -e "s,\${libdir},/usr/$libdir," \
    -e 's,${includedir},/usr/include,' -e "s,\${@d.getVar('PV').split('+')\[0\]},$project_version," -e 's,${datadir},/usr/share,' \
    -e 's,${sysconfdir},/etc,' -e 's,${localstatedir},/var,' -e 's,${nonarch_libdir},/usr/lib,' \
    -e 's,${systemd_system_unitdir},/usr/lib/systemd/system,')
[ -n "$named" ] || fail "the recipe names no files"
while read -r file; do
    found=no
    while read -r name; do
        [[ $file != "$name" && $file != "$name"/* ]] || found=yes
    done <<< "$named"
    [ $found = yes ] || fail "$file is installed, but no FILES of the recipe has it"
done <<< "$installed"
while read -r name; do
    grep -qE "^$name(/|\$)" <<< "$installed" || fail "the recipe names $name, which is not installed"
done <<< "$named"
sum=$(md5sum < "$root/LICENSE")
grep -q "file://LICENSE;md5=${sum%% *}\"" "$recipe" || fail "the recipe does not have the licence's checksum ${sum%% *}"
sed -n '/^do_install:append() {/,/^}/p' "$recipe" | sed '1d; $d' > "$work/do_install"
[ -s "$work/do_install" ] || fail "the recipe has no do_install:append"
sh -n "$work/do_install" || fail "do_install:append is not a valid shell script"
# A backslash continues a value on the next line. An unclosed value would include the rest of the file.
awk '
    /^#/ { next }
    open { if ($0 ~ /^"$/ || $0 !~ /\\$/) open = 0; if (!open && $0 !~ /"$/) { print FNR; exit 1 } next }
    /^[A-Z_]+[^=]*[?:+]*= "/ { if ($0 ~ /\\$/) open = 1; else if ($0 !~ /"$/) { print FNR; exit 1 } }
    END { if (open) exit 1 }' "$recipe" || fail "a value of the recipe is not closed"

# --- Both: every option that they set exists.
# shellcheck disable=SC2013 # an option a word
for option in $(grep -hoE -e '-DBUNDLE_SERVER_[A-Z]+' "$recipe" "$buildroot/package/bundle-server/bundle-server.mk" | sort -u); do
    grep -q "^${option#-D}:" "$build/CMakeCache.txt" || fail "this project has no option $option"
done

# --- Both: the libraries of put come with put alone.
grep -q '^PACKAGECONFIG\[put\] = "-DBUNDLE_SERVER_PUT=ON,-DBUNDLE_SERVER_PUT=OFF,elfutils libarchive libsodium"$' "$recipe" ||
    fail "the recipe does not name the libraries of put"
! grep '^DEPENDS' "$recipe" | grep -qE 'libarchive|libsodium|elfutils' || fail "the recipe always needs the libraries of put"

# --- Buildroot: make can read the package, which finds the sources and the licence.
cat > "$work/Makefile" <<END
BR2_EXTERNAL_BUNDLE_SERVER_PATH = $buildroot
BR2_PACKAGE_BUNDLE_SERVER_HOST_PLATFORM = y
qstrip = \$(strip \$(subst ",,\$(1)))
include \$(BR2_EXTERNAL_BUNDLE_SERVER_PATH)/external.mk
say:
	@echo '\$(BUNDLE_SERVER_SITE)|\$(BUNDLE_SERVER_LICENSE_FILES)|\$(strip \$(BUNDLE_SERVER_CONF_OPTS))|\$(BUNDLE_SERVER_VERSION)|\$(strip \$(BUNDLE_SERVER_DEPENDENCIES))'
END
said=$(make --no-print-directory -f "$work/Makefile" say 2> "$work/errors") ||
    fail "make does not read the package: $(cat "$work/errors")"
IFS='|' read -r site licence options version dependencies <<< "$said"
[ -f "$site/CMakeLists.txt" ] || fail "the sources are not in $site"
[ -f "$site/$licence" ] || fail "the licence is not in $site/$licence"
[[ $options == *-DBUNDLE_SERVER_PUT=OFF* && $dependencies != *libarchive* ]] || fail "without put: $options, $dependencies"
with_put=$(make --no-print-directory -f "$work/Makefile" BR2_PACKAGE_BUNDLE_SERVER_PUT=y say)
[[ $with_put == *-DBUNDLE_SERVER_PUT=ON*elfutils*libarchive*libsodium* ]] || fail "with put: $with_put"
[[ $options == *"-DBUNDLE_SERVER_INIT=sysv"*"-DBUNDLE_SERVER_PLATFORM=host"* ]] || fail "its options are $options"
grep -q "^CMAKE_PROJECT_VERSION:STATIC=$version\$" "$build/CMakeCache.txt" || fail "its version $version is not the project's"
grep -qF "PV = \"$version+git\"" "$recipe" || fail "the recipe's version is not $version"
head -n 1 "$root/debian/changelog" | grep -qF "($version)" || fail "the changelog's version is not $version"
[ -f "$buildroot/external.desc" ] || fail "the external tree has no description"
# shellcheck disable=SC2016 # the file's own variable
source=$(sed -n 's/^source "$BR2_EXTERNAL_BUNDLE_SERVER_PATH\/\(.*\)"$/\1/p' "$buildroot/Config.in")
[ -f "$buildroot/$source" ] || fail "Config.in refers to \"$source\", which does not exist"
[ "$(grep -c '^if ' "$buildroot/$source")" -eq "$(grep -c '^endif' "$buildroot/$source")" ] || fail "an if without endif"
[ -e "$work/tree/etc/init.d/bundle-server" ] || fail "the init script that the package renames is missing"
echo "$(wc -l <<< "$installed") files, each in a package"
