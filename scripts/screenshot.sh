#!/bin/sh
# Takes docs/screenshot.png, a picture of the program at work, on a virtual screen. Needs no display.
set -eu

cd "$(dirname "$0")/.."
. scripts/packages.sh

# shellcheck disable=SC2086  # one word a package
install_packages $build_packages fonts-dejavu-core openbox python3 xdotool xvfb

cmake --preset release >&2
cmake --build --preset release --target lattivo >&2
PYTHONPATH=.:client/python:examples exec python3 -B scripts/screenshot.py build/release/lattivo docs/screenshot.png
