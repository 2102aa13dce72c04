#!/usr/bin/env bash
# "--version" names the commit of the sources in every case, or says that it is unknown.
#
# usage: version_test.sh SOURCE_DIR SCRATCH_DIR CMAKE
set -euo pipefail

source=$1
scratch=$2
cmake=$3

command -v git > /dev/null || { echo "skipped: git is not installed"; exit 77; }
export GIT_CONFIG_GLOBAL=/dev/null GIT_CONFIG_NOSYSTEM=1
export GIT_AUTHOR_NAME=test GIT_AUTHOR_EMAIL=test@example.invalid
export GIT_COMMITTER_NAME=test GIT_COMMITTER_EMAIL=test@example.invalid

fail() {
    echo "FAILED: $*"
    exit 1
}

# version_of DIR [-DVARIABLE=VALUE...]: the version text for the sources in DIR.
version_of() {
    local directory=$1
    shift
    "$cmake" "-DSOURCE=$directory" "-DOUTPUT=$scratch/version.cpp" -DVERSION=1.2.3 "-DFRAMEWORK=POCO 1.9.0" "$@" \
        -P "$source/cmake/version.cmake"
    sed -n 's/^const char TOOL_VERSION\[\] = "\(.*\)";$/\1/p' "$scratch/version.cpp"
}

# expect DIR TEXT [-DVARIABLE=VALUE...]: checks the commit in that text.
expect() {
    local said
    said=$(version_of "$1" "${@:3}")
    [ "$said" = "1.2.3, commit $2, POCO 1.9.0" ] || fail "it says \"$said\" where the commit is $2"
}

rm -rf "$scratch"
tree=$scratch/tree
mkdir -p "$tree/cmake"
cp "$source/cmake/commit" "$tree/cmake/"
cp "$source/.gitattributes" "$tree/"
git -C "$tree" init -q
git -C "$tree" add .
git -C "$tree" commit -q -m first
commit=$(git -C "$tree" rev-parse HEAD)
expect "$tree" "${commit:0:12}"

echo "# changed" >> "$tree/.gitattributes"
expect "$tree" "${commit:0:12}+changes"
git -C "$tree" checkout -q .gitattributes

mkdir "$scratch/archive"
git -C "$tree" archive HEAD | tar -C "$scratch/archive" -xf -
expect "$scratch/archive" "${commit:0:12}"

# A copy without the directory .git, below another project's work tree.
mkdir -p "$tree/vendor/cmake"
cp "$source/cmake/commit" "$tree/vendor/cmake/"
expect "$tree/vendor" unknown
expect "$tree/vendor" 0123abc -DCOMMIT=0123abc

# Without a change nothing is compiled again.
before=$(stat -c %y "$scratch/version.cpp")
expect "$tree/vendor" 0123abc -DCOMMIT=0123abc
[ "$(stat -c %y "$scratch/version.cpp")" = "$before" ] || fail "the source is written again without a change"
rm -rf "$scratch"
