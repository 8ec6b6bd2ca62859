#!/bin/sh
# bench.sh [OPTION...]: compares lattivo-headless with the limit server.
# bench.sh --window [OPTION...]: compares the window, on a virtual display, with lattivo-headless.
# Builds the release tree first. --help lists the options.
set -eu

cd "$(dirname "$0")/.."
. scripts/packages.sh

comparison=measuring.limit.run
packages="python3 util-linux"
targets="lattivo-headless lattivo_loadclient lattivo_limitserver"
if [ "${1:-}" = --window ]; then
    shift
    comparison=measuring.window.window
    packages="$packages fonts-dejavu-core xdotool xvfb"
    targets="lattivo-headless lattivo_loadclient lattivo_windowserver"
fi

# shellcheck disable=SC2086  # one word a package or target
install_packages $build_packages $packages >&2
cmake --preset release >&2
# shellcheck disable=SC2086
cmake --build --preset release --target $targets >&2
exec python3 -B -m "$comparison" --build-dir build/release "$@"
