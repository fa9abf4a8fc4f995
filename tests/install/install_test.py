"""Installs a build into a temporary home, and there follows docs/first-program.md: extracts its files, runs its commands
as they are printed, and compares what the program prints. The program compiles as C++ too, without a warning.

usage: install_test.py BUILD_DIRECTORY PROJECT_DIRECTORY CXX_COMPILER
"""
import os
import pathlib
import re
import signal
import subprocess
import sys
import tempfile


def run(*command, **options):
    return subprocess.run([str(word) for word in command], check=True, stdout=subprocess.PIPE, text=True, **options).stdout


def check_program(start, others, expected, **options):
    """The commands that start the program print `expected`; `others` are those of another terminal, by the lines that are
    printed before."""
    printed = []
    with subprocess.Popen(["sh", "-ec", start], stdout=subprocess.PIPE, text=True, start_new_session=True,
                          **options) as shell:
        try:
            while "NV item 10: 5 bytes written" not in shell.stdout.readline():
                assert shell.poll() is None, "the modem does not start"
            while len(printed) < len(expected):
                printed.append(shell.stdout.readline())
                if len(printed) in others:
                    run("sh", "-ec", others[len(printed)], **options)
        finally:
            os.killpg(shell.pid, signal.SIGTERM)
            shell.stdout.read()  # the modem has ended, too
    assert [re.sub("RSRP .*", "RSRP", line) for line in printed] == \
        [re.sub("RSRP .*", "RSRP", line) for line in expected], printed


def main(build, project, cxx):
    with tempfile.TemporaryDirectory(prefix="pelmar-install-") as home:
        home = pathlib.Path(home)
        prefix, work = home / "pelmar", home / "work"
        work.mkdir()
        run("cmake", "--install", build, "--prefix", prefix)
        run(prefix / "bin" / "modem_api_test", "--help")
        for path in ("man/man1/modem_api_test.1", "man/man1/modem_sim.1", "bash-completion/completions/modem_api_test",
                     "zsh/site-functions/_modem_api_test", "pelmar/json_schema.json"):
            assert (prefix / "share" / path).is_file(), path

        text = pathlib.Path(project, "docs/first-program.md").read_text()
        blocks = {}
        for language, block in re.findall(r"^```(\w+)\n(.*?)^```", text, re.M | re.S):
            blocks.setdefault(language, []).append(block)
        (work / "first.c").write_text(blocks["c"][0])
        (work / "CMakeLists.txt").write_text(blocks["cmake"][0])
        environment = {name: value for name, value in os.environ.items() if not name.startswith(("PELMAR_", "XDG_"))}
        options = {"cwd": work, "env": environment | {"HOME": str(home)}}
        installation, with_cmake, with_cc, modem, start, event, restart = blocks["sh"]
        assert f"--prefix ~/{prefix.name}" in installation
        as_cxx = with_cc.replace("cc first.c", f"{cxx} -Wall -Wextra -Werror -x c++ first.c -x none").replace("mtb", "cxx")
        for commands in (with_cmake, with_cc, as_cxx):
            run("sh", "-ec", commands, **options)
        for directory in (work, work / "build"):
            check_program(modem + start, {2: event, 3: restart}, blocks["text"][0].splitlines(True),
                          **options | {"cwd": directory})


main(*sys.argv[1:])
