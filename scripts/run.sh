#!/bin/sh
# run.sh: builds the program and opens its window. run.sh demo: shows the simulator at work without a window.
set -eu

cd "$(dirname "$0")/.."
. scripts/packages.sh

# shellcheck disable=SC2086  # one word a package
install_packages $build_packages $demo_packages

build()
{
    mkdir -p build
    if ! { cmake --preset release && cmake --build --preset release --target "$@"; } >build/run.log 2>&1; then
        cat build/run.log >&2
        exit 1
    fi
}

case "${1:-window}" in
demo)
    build lattivo-headless
    exec sh scripts/demo.sh build/release/lattivo-headless
    ;;
window)
    if [ -z "${DISPLAY:-}${WAYLAND_DISPLAY:-}" ]; then
        echo "There is no display to open the window on; running the demo instead."
        build lattivo-headless
        exec sh scripts/demo.sh build/release/lattivo-headless
    fi
    build lattivo
    exec build/release/lattivo
    ;;
*)
    echo "usage: run.sh [demo]" >&2
    exit 2
    ;;
esac
