"""Compares the library's sources in modem/ with the lists that CMake and the phone's build compile, and checks that the
phone's build finds every included header. Its directories do not include platform/include, which replaces the phone's
own headers.

usage: sources_test.py PROJECT_DIRECTORY
"""
import pathlib
import re
import sys

root = pathlib.Path(sys.argv[1])
android = (root / "Android.bp").read_text()


def android_list(name):
    return re.findall(r'"(\S+?)"', re.search(rf"\b{name}: \[(.*?)\]", android, re.S)[1])


def check_sources():
    present = sorted(str(path.relative_to(root)) for path in (root / "modem").rglob("*.cpp"))
    cmake = re.findall(r"^  (\S+\.cpp)$", (root / "modem/sources.cmake").read_text(), re.M)
    for name, listed in {"sources.cmake": sorted(f"modem/{source}" for source in cmake),
                         "Android.bp": android_list("srcs")}.items():
        if listed != present:
            yield f"{name} is not the sorted list of sources: {sorted(set(listed) ^ set(present)) or 'wrong order'}"


def check_includes():
    directories = [root / path for path in android_list("local_include_dirs") + android_list("export_include_dirs")]
    yield from (f"Android.bp names a directory that does not exist: {path}" for path in directories if not path.is_dir())
    own = {str(path.relative_to(directory)) for directory in directories for path in directory.rglob("*.h")}
    phone = {str(path.relative_to(root / "platform/include")) for path in (root / "platform/include").rglob("*.h")}
    yield from (f"both in the tree and on the phone: {header}" for header in own & phone)
    files = {root / source for source in android_list("srcs")} | {path for d in directories for path in d.rglob("*.h")}
    for file in sorted(files):
        for header in re.findall(r'^\s*#\s*include "([^"]+)"', file.read_text(), re.M):
            if header not in own | phone:
                yield f"{file.relative_to(root)} includes {header}, which Android.bp's directories do not have"


sys.exit("\n".join([*check_sources(), *check_includes()]) or 0)
