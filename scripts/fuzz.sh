#!/bin/sh
# fuzz.sh SECONDS [--seed SEED] [TARGET...]: runs each fuzz target for so long, two at a time. Fails when one finds
# anything. Prints the seed of each target, which runs the same again on the same corpus.
# fuzz.sh --coverage [TARGET...]: counts the lines that the seeds and all learnt inputs reach.
# fuzz.sh --minimise [TARGET...]: renews the committed inputs, tests/fuzz/corpus, from all learnt inputs.
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
