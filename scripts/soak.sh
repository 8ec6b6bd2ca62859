#!/bin/sh
# soak.sh MINUTES [--seed N]: drives the simulator with hostile and ordinary programs for so long, while its network is
# edited, saved, opened and replaced. A build with the sanitizers and the release build run side by side. Prints the
# outcome and writes it to build/soak/summary.json.
set -eu

cd "$(dirname "$0")/.."
. scripts/packages.sh

# shellcheck disable=SC2086  # one word a package
install_packages $build_packages python3 >&2
for preset in asan release; do
    cmake --preset "$preset" >&2
    cmake --build --preset "$preset" --parallel 2 --target lattivo_soakserver >&2
done
LSAN_OPTIONS="suppressions=$PWD/tests/support/leaks.supp:print_suppressions=0"
export LSAN_OPTIONS
PYTHONPATH=.:client/python exec python3 -B -m measuring.soak.run "$@" --folder build/soak \
    --sanitized asan=build/asan/measuring/soak/lattivo_soakserver --plain release=build/release/measuring/soak/lattivo_soakserver
