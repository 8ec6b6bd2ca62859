#!/bin/sh
# Builds the release tree and compares the headless simulator with the limit server; options: bench.sh --help.
set -eu

cd "$(dirname "$0")/.."
cmake --preset release >&2
cmake --build --preset release --target lattivo-headless lattivo_loadclient lattivo_limitserver >&2
exec python3 bench/run.py --build-dir build/release "$@"
