#!/usr/bin/env bash
# Checks the format of every source, and lints the sources that a build directory compiles. Tests and fuzz targets are
# not linted, because the checks are for code that runs for a long time.
# usage: scripts/lint.sh BUILD_DIRECTORY
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:?usage: scripts/lint.sh BUILD_DIRECTORY}

git ls-files '*.cpp' '*.h' '*.c' | xargs clang-format --dry-run --Werror
echo "format: clean"

# The compilation database names each source once for each target that compiles it.
sources=$(python3 - "$build/compile_commands.json" <<'PY'
import json, os, sys
files = {os.path.relpath(entry["file"]) for entry in json.load(open(sys.argv[1]))}
print("\n".join(sorted(f for f in files if not f.startswith(("..", "build", "fuzz", "tests")))))
PY
)
printf '%s\n' "$sources" | xargs -P "$(nproc)" -n 4 clang-tidy -p "$build" --quiet
echo "lint: clean"
