#!/usr/bin/env bash
# Checks the format of every source, and lints the sources that a build directory compiles. Tests and fuzz targets are
# not linted, because the checks are for code that runs for a long time.
# usage: scripts/lint.sh BUILD_DIRECTORY
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:?usage: scripts/lint.sh BUILD_DIRECTORY}

git ls-files '*.cpp' '*.h' '*.c' | xargs clang-format --dry-run --Werror
echo "format: clean"

# The compilation database names each source once for each target that compiles it. A unity build's sources are in the
# build directory, each with several of the project's; so the headers that these share are read once.
sources=$(python3 - "$build" <<'PY'
import json, os, sys
build = sys.argv[1].rstrip("/")
files = {os.path.relpath(entry["file"]) for entry in json.load(open(build + "/compile_commands.json"))}
skipped = tuple(prefix + name for prefix in ("", build + "/") for name in ("fuzz/", "tests/")) + ("../",)
print("\n".join(sorted(f for f in files if not f.startswith(skipped))))
PY
)
printf '%s\n' "$sources" | xargs -P "$(nproc)" -n 1 clang-tidy -p "$build" --quiet
echo "lint: clean"
