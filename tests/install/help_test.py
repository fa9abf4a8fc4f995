"""The manual page names every command that the client's --help lists, and the shell completion offers them.

usage: help_test.py MODEM_API_TEST SOURCE_DIRECTORY
"""
import pathlib
import re
import subprocess
import sys


def listed(program, *commands):
    text = subprocess.run([program, *commands, "--help"], check=True, capture_output=True, text=True).stdout
    block = re.search(r"^Subcommands:\n(.*?)\n\n", text, re.S | re.M)
    return re.findall(r"^  ([a-z][a-z-]*) ", block[1], re.M) if block else []


def completed(program, completion, *words):
    script = f"""source "{completion}"; COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); _modem_api_test "{program}"
                 printf '%s\\n' "${{COMPREPLY[@]}}" """
    run = subprocess.run(["bash", "-c", script, "bash", "modem_api_test", *words], check=True, capture_output=True,
                         text=True)
    return run.stdout.split()


def main(program, source):
    source = pathlib.Path(source)
    completion = source / "tools/modem_api_test/completion.bash"
    page = re.sub(r"[^a-z-]+", " ", (source / "docs/man/modem_api_test.1").read_text())
    faults = []
    commands = listed(program)
    for words in [(command,) for command in commands] + [(a, b) for a in commands for b in listed(program, a)]:
        if not all(f" {word} " in page for word in words):
            faults.append(f"not in the manual page: {' '.join(words)}")
    expectations = {
        ("",): commands,
        ("--json", "nv", ""): ["read", "write", "delete"],
        ("efs-path", "re"): ["read"],
        ("lock", "lte", "--y"): ["--yes"],
    }
    for words, expected in expectations.items():
        if (got := completed(program, completion, *words)) != expected:
            faults.append(f"completion of {words}: {got}, not {expected}")
    print("\n".join(faults))
    return 1 if faults or not commands else 0


sys.exit(main(*sys.argv[1:]))
