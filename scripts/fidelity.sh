#!/bin/sh
# fidelity.sh [OPTION...]: measures whether links do what they are set to. It writes fidelity.md and its plots into
# build/fidelity/, or into docs/results/ when --release comes first. Builds first; needs an idle machine, but not for
# --short. --help lists all options.
set -eu

cd "$(dirname "$0")/.."
. scripts/packages.sh

output=""
if [ "${1:-}" = --release ]; then
    shift
    output="--output docs/results"
fi

# shellcheck disable=SC2086,SC2154  # one word a package
install_packages $build_packages fonts-dejavu-core gnuplot-nox python3 python3-scipy util-linux >&2
cmake --preset release >&2
cmake --build --preset release --target lattivo-headless lattivo_fidelityclient >&2
export PYTHONPATH=.:client/python
# Debian's own Python, which has the modules of the packages
# shellcheck disable=SC2086  # no word, or an option and its value
exec /usr/bin/python3 -B -m measuring.fidelity.fidelity --build-dir build/release $output "$@"
