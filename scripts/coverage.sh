#!/usr/bin/env bash
# Which lines of the library the tests run: a report by file, and an error below the share that is asked for.
# usage: scripts/coverage.sh [LEAST_PERCENT]
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/packages.sh
need_packages $PACKAGES_BUILD $PACKAGES_TEST gcovr
least=${1:-95}
build=build/coverage

configure "$build" -DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_FLAGS='--coverage -fprofile-update=atomic'
cmake --build "$build" --target unit_tests system_tests modem_sim modem_api_test cli_tests
find "$build" -name '*.gcda' -delete
ctest --test-dir "$build" -j2 -R '^(unit|system)\.' --output-on-failure
gcovr --root . --filter modem/ --object-directory "$build" --exclude-unreachable-branches --sort-uncovered \
  --fail-under-line "$least" --html-details "$build/coverage.html" --txt
echo "lines by file: $build/coverage.html"
