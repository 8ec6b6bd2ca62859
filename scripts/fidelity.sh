#!/bin/sh
# fidelity.sh [--short] [OPTION...]: measures whether links do what they are set to, and writes docs/fidelity.md.
# Builds the release tree first; --help lists the options. Wants an idle machine, but for --short.
set -eu

cd "$(dirname "$0")/.."
. scripts/packages.sh

# shellcheck disable=SC2086  # one word a package
install_packages $build_packages fonts-dejavu-core gnuplot-nox python3 python3-scipy util-linux >&2
cmake --preset release >&2
cmake --build --preset release --target lattivo-headless lattivo_fidelityclient >&2
PYTHONPATH=examples exec /usr/bin/python3 -B -m measuring.fidelity.fidelity --build-dir build/release "$@"  # Debian's, which has its modules
