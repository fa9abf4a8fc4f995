#!/usr/bin/env bash
# Runs client processes under a modem that fails in every way it knows, for as long as asked, in rounds of a storm and a
# calm; each round prints what it did. The seed that the run prints replays its operations and faults.
# usage: tests/chaos.sh [SECONDS [SEED]]     for example tests/chaos.sh 600
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/packages.sh

need_packages $PACKAGES_BUILD $PACKAGES_TEST
configure build/test
cmake --build build/test --target system_tests modem_sim
CHAOS_SECONDS=${1:-600} CHAOS_SEED=${2:-} exec build/test/bin/system_tests --gtest_filter='ChaosTest.*'
