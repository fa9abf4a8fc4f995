#!/usr/bin/env bash
# Checks the format of every source, and lints the sources that a build directory compiles. Tests and fuzz targets are
# not linted, because the checks are for code that runs for a long time.
# usage: scripts/lint.sh BUILD_DIRECTORY
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:?usage: scripts/lint.sh BUILD_DIRECTORY}

git ls-files '*.cpp' '*.h' '*.c' | xargs clang-format --dry-run --Werror
echo "format: clean"

# The compilation database names each source once for each target that compiles it. A unity build's sources include
# several of the project's, so the headers that these share are read once; the analyzer enters them if the including
# file's name contains "UnifiedSource".
sources=$(python3 - "$build" build/lint <<'PY'
import json, os, re, shutil, sys
build, lint = sys.argv[1].rstrip("/"), sys.argv[2]
shutil.rmtree(lint, ignore_errors=True)
os.makedirs(lint)
sources, entries = set(), []
for entry in json.load(open(build + "/compile_commands.json")):
    file = os.path.relpath(entry["file"])
    if file.removeprefix(build + "/").startswith(("fuzz/", "tests/", "../")):
        continue
    unity = re.search(r"(\w+)\.dir/Unity/unity_(\d+)_", file)
    if unity:
        file = f"{lint}/UnifiedSource-{unity[1]}-{unity[2]}.cpp"
        shutil.copy(entry["file"], file)
        entry["command"] = entry["command"].replace(entry["file"], os.path.abspath(file))
        entry["file"] = os.path.abspath(file)
    sources.add(file)
    entries.append(entry)
json.dump(entries, open(lint + "/compile_commands.json", "w"))
print("\n".join(sorted(sources, reverse=True)))
PY
)
# The analyzer looks at 10,000 states of a function at most. Its own bound of 225,000 takes four times as long, and
# matters for the largest functions only.
bound=(--extra-arg=-Xclang --extra-arg=-analyzer-config --extra-arg=-Xclang --extra-arg=max-nodes=10000)
printf '%s\n' "$sources" | xargs -P "$(nproc)" -n 1 nice clang-tidy -p build/lint --quiet "${bound[@]}"
echo "lint: clean"
