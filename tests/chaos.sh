#!/usr/bin/env bash
# Runs client processes with a modem that has every kind of fault, for SECONDS. In each round
# faults are set for some time, then all items and clients are checked. The printed seed repeats operations and faults.
# usage: tests/chaos.sh [SECONDS [SEED]]     for example tests/chaos.sh 600
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/packages.sh

need_packages $PACKAGES_BUILD $PACKAGES_TEST
configure build/test
cmake --build build/test --target system_tests modem_sim
CHAOS_SECONDS=${1:-600} CHAOS_SEED=${2:-} exec build/test/bin/system_tests --gtest_filter='ChaosTest.*'
