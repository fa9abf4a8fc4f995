"""The help of every command has examples that the program takes, the manual pages describe every command and option,
wrong usage is reported in one form, and the shells complete commands, options and names.

usage: help_test.py MODEM_API_TEST DIRECTORY_OF_THE_TEXTS MODEM_SIM MANUAL_PAGE_OF_MODEM_SIM
"""
import os
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile


def run(*command, **options):
    return subprocess.run([str(word) for word in command], stdin=subprocess.DEVNULL, capture_output=True, text=True,
                          **options)


def section(text, title):
    block = re.search(rf"^{title}:\n((?:  .*\n)+)", text, re.M)
    return block[1] if block else ""


def commands(program, *words):
    """Returns the words of every command that has no subcommands."""
    names = re.findall(r"^  ([a-z][a-z-]*) ", section(run(program, *words, "--help").stdout, "Commands"), re.M)
    return [leaf for name in names for leaf in commands(program, *words, name)] if names else [words]


BASH = """source "{script}"; COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); _modem_api_test "{program}"
          printf '%s\\n' "${{COMPREPLY[@]}}" """
ZSH = """compset() {{ [[ $words[CURRENT] == @* ]] }}; _files() {{ print -l file }}; compadd() {{ print -l -- $matches }}
         words=("{program}" "${{@:2}}"); CURRENT=$#; source "{script}" """
COMPLETIONS = {
    ("inf",): ["info"],
    ("--json", "nv", ""): ["read", "write", "delete", "dump", "restore", "diff"],
    ("efs-path", "wr"): ["write"],
    ("lock", "lte", "--y"): ["--yes"],
    ("lock", "lte", "--js"): ["--json"],
    ("--modem", "nv", "avoid-trm", ""): ["on", "off"],
    ("stats", "get", "lte-pcc", "lte-u"): ["lte-uplink"],
    ("trace", "--message", "READ_N"): ["READ_NV"],
    ("trace", "--message", "READ_NV,WRITE_N"): ["READ_NV,WRITE_NV"],
    ("props", "get", "persist.radio.m"): ["persist.radio.multisim.config"],
}
WRONG = ("", "bogus", "nv bogus", "nv read", "nv read x", "nv read 1 --bogus", "avoid-trm maybe", "tx-power --max --sub 1")
WRONG_FOR_SIMULATOR = ("", "bogus", "serve", "serve --storage s --bogus", "serve --storage s --speed 2", "scenario",
                       "serve --storage s --seed", "ctl --storage s --control c status")


def main(program, texts, simulator, simulator_page):
    texts = pathlib.Path(texts)
    page = (texts / "modem_api_test.1").read_text()
    leaves = commands(program)
    assert len(leaves) > 40, leaves
    with tempfile.TemporaryDirectory(prefix="pelmar-help-") as scratch:
        # No modem: an example ends with another status than that of wrong usage.
        place = {"XDG_STATE_HOME": scratch, "PELMAR_MODEM": f"{scratch}/none", "PELMAR_PROPERTY_DIR": scratch,
                 "PATH": f"{pathlib.Path(program).parent}:{os.environ['PATH']}"}
        for words in leaves:
            text = run(program, *words, "--help").stdout
            examples = section(text, "Examples").splitlines()
            assert len(examples) >= 2 and text.count("Examples:\n") == 1, f"{words} has not one list of two examples"
            assert all(example.startswith(" ".join(("  modem_api_test", *words))) for example in examples), examples
            assert ".SS modem_api_test " + " ".join(words).replace("-", "\\-") + " [" in page, f"not in the manual page: {words}"
            for example in examples:
                outcome = run("sh", "-c", example, cwd=scratch, env=os.environ | place, timeout=30)
                assert outcome.returncode != 2, f"{example}: {outcome.stderr}"
    options = [set(re.findall(r"^  (?:-h,)?(--[a-z-]+)", run(simulator, *words, "--help").stdout, re.M))
               for words in ((), ("serve",), ("ctl",), ("scenario",))]
    described = set(re.findall(r"^\.It Fl (?:h , Fl )?(-[a-z-]+)", pathlib.Path(simulator_page).read_text(), re.M))
    described = {"-" + name for name in described}
    assert described == set.union(*options), described ^ set.union(*options)
    for wrong, binary, name in ((WRONG, program, "modem_api_test"), (WRONG_FOR_SIMULATOR, simulator, "modem_sim")):
        for line in wrong:
            outcome = run(binary, *line.split())
            form = rf"{name}: [a-z'-].*\n  '{name}.* --help' lists the commands and options\.\n"
            assert outcome.returncode == 2 and re.fullmatch(form, outcome.stderr), f"{line}: {outcome.stderr}"
    for shell, code, script in (("bash", BASH, "modem_api_test"), ("zsh", ZSH, "_modem_api_test")):
        code = code.format(program=program, script=texts / script)
        for words, expected in COMPLETIONS.items() if shutil.which(shell) else ():
            completed = run(shell, "-c", code, shell, "modem_api_test", *words)
            assert completed.stdout.split() == expected, f"{shell} {words}: {completed}, not {expected}"
    if shutil.which("mandoc"):
        for page in (texts / "modem_api_test.1", simulator_page):
            lint = run("mandoc", "-T", "lint", "-W", "warning", page)
            assert lint.returncode == 0, lint.stdout


main(*sys.argv[1:])
