#!/bin/sh
# fuzz.sh SECONDS [--seed SEED] [TARGET...]: runs the fuzz targets, two at a time, for so long each; fails when
# anything is found. Each target's seed is told, with which the same can be run again on the same corpus.
# fuzz.sh --coverage [TARGET...]: counts the lines that the seeds and everything learnt so far reach.
# fuzz.sh --minimise [TARGET...]: renews the committed inputs, tests/fuzz/corpus, from everything learnt so far.
set -eu

cd "$(dirname "$0")/.."
. scripts/packages.sh

mode=${1:?"fuzz.sh SECONDS [--seed SEED] [TARGET...]"}
shift
preset=fuzz
case $mode in
    --coverage)
        preset=fuzz-coverage
        options="--coverage-dir build/fuzz-coverage"
        ;;
    --minimise) options=--minimise ;;
    *) options="--seconds $mode" ;;
esac

# shellcheck disable=SC2086  # one word a package
install_packages $build_packages clang libclang-rt-14-dev llvm python3 >&2
cmake --preset "$preset" >&2
cmake --build --preset "$preset" --parallel 2 >&2
# shellcheck disable=SC2086
exec python3 -B -m tests.fuzz.run $options "$@"
