#!/usr/bin/env bash
# The alerts for Prometheus are well-formed, and fire when they should.
#
# usage: alerts_test.sh ALERTS TESTS
set -euo pipefail

command -v promtool > /dev/null || { echo "skipped: promtool is not installed (package prometheus)"; exit 77; }
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
cp "$1" "$scratch/bundle-server-alerts.yml"
cp "$2" "$scratch/alerts_test.yml"
promtool check rules "$scratch/bundle-server-alerts.yml"
promtool test rules "$scratch/alerts_test.yml"
