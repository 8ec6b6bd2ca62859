#!/bin/sh
# Checks the format of the code, runs the static analysers and checks the types of the Python kit. Fails on any finding.
set -eu

cd "$(dirname "$0")/.."
. scripts/packages.sh

# shellcheck disable=SC2086  # one word a package
install_packages $build_packages $check_packages

# The analysers cannot read the compiler's precompiled headers, and need only what moc generates.
build=build/check
cmake --preset dev -B "$build" -DCMAKE_DISABLE_PRECOMPILE_HEADERS=ON >/dev/null
cmake --build "$build" --parallel 2 \
    --target lattivo_core_autogen lattivo_autogen lattivo_runner_autogen lattivo-headless_autogen

echo "== clang-format =="
find QtComponents client examples headless measuring src tests -name '*.h' -o -name '*.c' -o -name '*.cpp' | sort \
    | xargs clang-format --dry-run --Werror

echo "== black =="
black --check --line-length 120 client examples measuring scripts tests

echo "== mypy =="
mypy --config-file client/python/pyproject.toml client/python/lattivo

analysed=$(find QtComponents client headless src -name '*.c' -o -name '*.cpp' | sort)
echo "== clang-tidy =="
echo "$analysed" | xargs -P 2 -n 2 clang-tidy -p "$build" --quiet --warnings-as-errors='*'

echo "== clazy =="
echo "$analysed" | grep -v '\.c$' | xargs -P 2 -n 2 clazy-standalone -p "$build" --extra-arg=-Werror \
    --checks=level1,connect-not-normalized --ignore-dirs='.*_autogen.*'
echo "No findings."
