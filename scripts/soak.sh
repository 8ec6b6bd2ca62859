#!/bin/sh
# soak.sh MINUTES [--seed N]: drives the simulator with hostile and ordinary programs for so long, while its network is
# edited, saved, opened and replaced; a build with the sanitizers and the release build side by side. What came out is
# printed and written to build/soak/summary.json.
set -eu

cd "$(dirname "$0")/.."
. scripts/packages.sh

# shellcheck disable=SC2086  # one word a package
install_packages $build_packages python3 >&2
for preset in asan release; do
    cmake --preset "$preset" >&2
    cmake --build --preset "$preset" --parallel 2 --target lattivo_soakserver >&2
done
LSAN_OPTIONS="suppressions=$PWD/tests/leaks.supp:print_suppressions=0"
export LSAN_OPTIONS
exec python3 -B soak/run.py "$@" --folder build/soak \
    --sanitized asan=build/asan/soak/lattivo_soakserver --plain release=build/release/soak/lattivo_soakserver
