"""Compares the library's sources as they lie in modem/ with the lists that CMake and the phone's build compile.

usage: sources_test.py MODEM_DIRECTORY
"""
import pathlib
import re
import sys

modem = pathlib.Path(sys.argv[1])
present = sorted(str(path.relative_to(modem)) for path in modem.rglob("*.cpp"))
android = re.search(r"srcs: \[(.*?)\]", (modem / "Android.bp").read_text(), re.S)[1]
lists = {
    "sources.cmake": sorted(re.findall(r"^  (\S+\.cpp)$", (modem / "sources.cmake").read_text(), re.M)),
    "Android.bp": re.findall(r'"(\S+)"', android),
}
for name, listed in lists.items():
    if listed != present:
        sys.exit(f"{name} is not the sorted list of sources: {sorted(set(listed) ^ set(present)) or 'wrong order'}")
