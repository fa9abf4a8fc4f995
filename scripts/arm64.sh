#!/usr/bin/env bash
# Builds the library, the Linux platform and their tests for 64-bit Arm, the phone's processor, with Debian's cross
# compiler, and runs the tests under qemu-user. The layout of every exported structure is asserted by the compiler.
# usage: scripts/arm64.sh [BUILD_DIRECTORY]
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/packages.sh
need_packages $PACKAGES_BUILD $PACKAGES_ARM64
build=${1:-build/arm64}

configure "$build" --preset arm64
cmake --build "$build"
# Two tests of processes are excluded: qemu-user executes no second program, and starts no thread in a child of fork().
ctest --test-dir "$build" --output-on-failure -j2 -E 'PhoneRulesEndAProcess|AProcessReleasesItsClientIdsAtItsEndAndNoneOfItsParent'
