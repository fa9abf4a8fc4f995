#!/usr/bin/env bash
# Compares the exported interface (functions, variables, and the layout of every type that they use) with its stored
# description, abi/libpelmar_modemapi.abi. After an intended change, `update` stores it; commit both together.
# usage: scripts/abi.sh check|update
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/packages.sh
need_packages $PACKAGES_BUILD abigail-tools
usage='usage: scripts/abi.sh check|update'
action=${1:?$usage}
stored=abi/libpelmar_modemapi.abi

# The comparison reads debug information.
configure build/abi -DCMAKE_BUILD_TYPE=Debug -DPELMAR_TESTS=OFF -DPELMAR_TOOLS=OFF
cmake --build build/abi --target pelmar_modemapi
library=build/abi/lib/libpelmar_modemapi.so

case $action in
  check)
    if ! abidiff --no-show-locs "$stored" "$library"; then
      echo "The exported interface differs from $stored. If the change is intended: scripts/abi.sh update" >&2
      exit 1
    fi
    echo "interface: unchanged"
    ;;
  update)
    abidw --no-show-locs --no-corpus-path --no-comp-dir-path "$library" |
      sed "s|path='$PWD/|path='|" >"$stored"
    ;;
  *)
    echo "$usage" >&2
    exit 2
    ;;
esac
