#!/usr/bin/env bash
# Reports by file which lines of the library the tests run. Fails if the share is below LEAST_PERCENT, or if no test
# calls an exported function.
#
# No input covers these lines: the end of a function behind a switch over all values of an enumeration
# (pelmar_utils_cmn_identity), a negative count of bytes (modem_hydra_mgr_fetch), and texts of 2 GiB, whose length does
# not fit an int (pelmar_utils_cmn_string).
#
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
  --fail-under-line "$least" --html-details "$build/coverage.html" --txt --json "$build/coverage.json"
echo "lines by file: $build/coverage.html"

nm --dynamic --defined-only --demangle "$build/lib/libpelmar_modemapi.so" | sed -n 's/^[0-9a-f]* T //p' |
  python3 -c '
import json, sys
calls = {}
for file in json.load(open(sys.argv[1]))["files"]:
    for function in file["functions"]:
        calls[function["name"]] = calls.get(function["name"], 0) + function["execution_count"]
exported = [line.strip().split("@")[0] for line in sys.stdin]
uncalled = [name for name in exported if not calls.get(name)]
sys.exit("exported, but called by no test: " + ", ".join(uncalled) if uncalled or not exported else 0)
' "$build/coverage.json"
