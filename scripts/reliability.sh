#!/bin/sh
# reliability.sh [--release] [FUZZ_SECONDS [SOAK_MINUTES]]: tests the machine's faults, measures attacks, fuzzes each target
# for so long (1800) and soaks for so long (30). It writes reliability.md into build/reliability/, or into docs/results/ with
# --release. It takes as long as the sum, and half as long again.
# reliability.sh [--release] --measure: tests and measures only; --from-summaries: runs nothing. The rest of the document is
# then what earlier runs have left under build/.
# Exit code 1: a promise does not hold, as the document says; 2: something could not be run.
set -eu

cd "$(dirname "$0")/.."
. scripts/packages.sh

export PYTHONPATH=.:client/python:examples
folder=build/reliability
if [ "${1:-}" = --release ]; then
    shift
    folder=docs/results
fi
mode=${1:-all}
fuzz_seconds=1800
soak_minutes=${2:-30}
case $mode in
all | --measure | --from-summaries) ;;
*[!0-9]*)
    sed -n '2,7s/^# //p' "scripts/$(basename "$0")" >&2
    exit 2
    ;;
*)
    fuzz_seconds=$mode
    mode=all
    ;;
esac

# accept_findings OUTPUT COMMAND...: what was found is told by the document; the output of an earlier run is not.
accept_findings()
{
    output=$1
    shift
    rm -f "$output"
    "$@" || [ $? -eq 1 ] || exit 2
    [ -f "$output" ] || exit 2
}

test_and_measure()
{
    # shellcheck disable=SC2086,SC2154  # one word a package
    install_packages $build_packages $test_packages >&2
    cmake --preset release >&2
    cmake --build --preset release --parallel 2 >&2
    export LATTIVO_HEADLESS="$PWD/build/release/lattivo-headless" LATTIVO_PROGRAM="$PWD/build/release/lattivo"
    mkdir -p build/reliability
    accept_findings build/reliability/tests.json \
        timeout 1200 /usr/bin/python3 -B -m measuring.reliability.faults --output build/reliability/tests.json
    accept_findings build/reliability/measurements.json \
        python3 -B -m measuring.reliability.measure --output build/reliability/measurements.json
}

case $mode in
--measure) test_and_measure ;;
all)
    accept_findings build/fuzz/summary.json scripts/fuzz.sh "$fuzz_seconds"
    accept_findings build/fuzz/coverage.json scripts/fuzz.sh --coverage
    accept_findings build/soak/summary.json scripts/soak.sh "$soak_minutes"
    test_and_measure
    ;;
esac
exec python3 -B -m measuring.reliability.document --output "$folder"
