#!/bin/sh
# Builds and runs all tests, plain and under the sanitizers. Needs no display.
set -eu

cd "$(dirname "$0")/.."
. scripts/packages.sh

# shellcheck disable=SC2086  # one word a package
install_packages $build_packages $test_packages

for preset in dev asan; do
    echo "== $preset =="
    cmake --preset "$preset"
    cmake --build --preset "$preset" --parallel 2
    ctest --preset "$preset" --parallel 4 # most tests wait for most of their time
done
