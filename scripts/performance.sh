#!/bin/sh
# performance.sh [--rounds N] [--duration S] [--go-on] [--release]: compares lattivo-headless with limit and floor, with other
# tools, and with the window. It writes performance.md and its plots into build/performance/, or with --release into
# docs/results/. --go-on leaves out what an interrupted run has measured of this build.
# Exit code 1: a target is missed, as the document says; 2: something could not be measured, and there is no document.
set -eu

cd "$(dirname "$0")/.."
. scripts/packages.sh

usage()
{
    sed -n '2,5s/^# //p' "scripts/$(basename "$0")" >&2
    exit 2
}

rounds=5
duration=1.5
goes_on=no
results=build/performance
output=$results
while [ $# -gt 0 ]; do
    case "$1" in
    --rounds) rounds=${2:?}; shift 2 ;;
    --duration) duration=${2:?}; shift 2 ;;
    --go-on) goes_on=yes; shift ;;
    --release) output=docs/results; shift ;;
    *) usage ;;
    esac
done

[ "$goes_on" = yes ] || rm -rf "$results"
mkdir -p "$results"

# measure FILE COMMAND...: writes the figures there. The document tells of missed targets at the end.
measure()
{
    file=$1
    shift
    [ -z "$(find "$file" -newer build/release/lattivo-headless 2>/dev/null)" ] || return 0
    "$@" --rounds "$rounds" --duration "$duration" --json "$file" || [ $? -eq 1 ] || exit 2
    [ -s "$file" ] || exit 2
}

# shellcheck disable=SC2086,SC2154  # one word a package
install_packages $build_packages libns3-dev libvdeplug-dev vde2 gnuplot-nox python3 util-linux >&2
cmake --preset release >&2
cmake --build --preset release --target lattivo-headless lattivo_frameload lattivo_ns3link >&2

measure "$results/engine.json" scripts/bench.sh
measure "$results/comparison.json" python3 -B -m measuring.compare.compare --build-dir build/release
measure "$results/window.json" scripts/bench.sh --window
python3 -B -m measuring.limit.document "$results" --output "$output"
