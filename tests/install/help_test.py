"""The manual page names every command that the client's --help lists, and the shell completion offers them.

usage: help_test.py MODEM_API_TEST SOURCE_DIRECTORY
"""
import pathlib
import re
import subprocess
import sys


def output(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout


def listed(program, *commands):
    block = re.search(r"^Subcommands:\n(.*?)\n\n", output(program, *commands, "--help"), re.S | re.M)
    return re.findall(r"^  ([a-z][a-z-]*) ", block[1], re.M) if block else []


def main(program, source):
    page = re.sub(r"[^a-z-]+", " ", pathlib.Path(source, "docs/man/modem_api_test.1").read_text())
    script = f"""source "{source}/tools/modem_api_test/completion.bash"; COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1))
                 _modem_api_test "{program}"; printf '%s\\n' "${{COMPREPLY[@]}}" """
    commands = listed(program)
    assert commands, "the help lists no commands"
    for words in [(command,) for command in commands] + [(a, b) for a in commands for b in listed(program, a)]:
        assert all(f" {word} " in page for word in words), f"not in the manual page: {' '.join(words)}"
    for words, expected in {("",): commands, ("--json", "nv", ""): ["read", "write", "delete"],
                            ("efs-path", "re"): ["read"], ("lock", "lte", "--y"): ["--yes"]}.items():
        completed = output("bash", "-c", script, "bash", "modem_api_test", *words).split()
        assert completed == expected, f"completion of {words}: {completed}, not {expected}"


main(*sys.argv[1:])
