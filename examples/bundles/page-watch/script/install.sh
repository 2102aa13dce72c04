#!/bin/sh
# The item writes below data/, which must be there before it starts.
set -eu
mkdir -p "$(dirname "$0")/../data"
