"""Every command's documents follow the JSON schema, and the examples in docs/batch.md run as printed. The commands run
as batches. Without Python's jsonschema the examples alone are run, and the test is skipped.

usage: json_test.py MODEM_API_TEST MODEM_SIM SOURCE_DIRECTORY
"""
import json
import os
import pathlib
import re
import subprocess
import sys
import tempfile

try:
    import jsonschema
except ImportError:
    jsonschema = None

SKIPPED = 77
WITHOUT_DOCUMENTS = {"batch", "completion"}

# By the modem that they need. Each command is here once or more, with a success or more.
LINES = """
info
nv write 10 --text hello
nv write 11 00
nv restore nv --dry-run
nv restore wrong --yes
nv diff nv
efs-path read "/a \\"b\\""
efs-sync
raw 01 02
raw --async --text ping
signal
signal --count 2 --rate 50 --csv drive.csv
signal --from drive.csv --plot drive.svg
signal --watch
tx-power
sys-mode
feature on
cell-info
drx
lock lte 1850:101 --yes
avoid-trm on
nr-mode 0
sar set 3
stats list
stats get lte-pcc nr-uplink 0x1234
stats clear lte-pcc
stats report on
stats deregister lte-pcc --client 0
stats report off --client 0
stats register lte-pcc --count 1 --for 60
events --count 1
props set a.b c
props get a.b
props get a.c
props list
ssr get
ssr set ssr
ssr name
ssr wait 0
shutdown-notice --yes
shutdown-notice
reset --yes
bogus
nv read 10 --modem x
nv 'read
"""
# {0} is the type of the items, {1} an item that exists, {2} another one.
ITEM_LINES = """
{0} write {1} 0a
{0} read {1}
{0} dump {1} {2}
{0} diff {0}
{0} restore {0} --yes
{0} diff {0}
{0} delete {1}
"""
ITEMS = (("nv", "10", "12"), ("efs", "10 --qualifier 3", "11"), ("efs-path", "'/a \"b\"'", "/c"), ("rfnv", "10", "9-11"))
POWER_LINES = """
power status
power vote --for 1
power watch --for 1
power release
"""
FILES = {"nv": "nv 10 = 68 65 6c 6c 6f  # hello\nnv 11 = 00\n", "wrong": "nv 1 = 0\n", "efs": "efs 11 = 0a\n",
         "efs-path": "efs-path /c = 0a\n", "rfnv": "rfnv 11 = 0a\n"}


def leaves(program, *words):
    text = subprocess.run([program, *words, "--help"], check=True, capture_output=True, text=True).stdout
    block = re.search(r"^Commands:\n((?:  .*\n)+)", text, re.M)
    names = re.findall(r"^  ([a-z][a-z-]*) ", block[1], re.M) if block else []
    return [leaf for name in names for leaf in leaves(program, *words, name)] if names else ["-".join(words)]


class Modem:
    def __init__(self, program, scratch, name, *options):
        self.socket = scratch / name
        self.control = scratch / (name + ".control")
        self.process = subprocess.Popen([program, "serve", "--socket", self.socket, "--storage", scratch / (name + ".d"),
                                         "--control", self.control, *options], stdout=subprocess.PIPE, text=True)
        assert self.process.stdout.readline().startswith("modem_sim: ready")

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.terminate()
        self.process.wait()


def run_batch(client, modem, lines, place):
    """The documents by the number of their line."""
    batch = subprocess.run([client, "--modem", modem.socket, "batch"], input=lines, stdout=subprocess.PIPE, text=True,
                           timeout=100, **place)
    documents = {}
    for line in batch.stdout.splitlines():
        document = json.loads(line)
        assert document["line"] not in documents, f"two documents of a line: {line}"
        documents[document["line"]] = document
    commands = [number for number, line in enumerate(lines.splitlines(), 1) if line]
    assert sorted(documents) == commands, f"{sorted(documents)}: not one document for each of the commands"
    assert batch.returncode == any(document["type"] == "error" for document in documents.values())
    return documents


def check_documents(documents, schema):
    """Returns the commands with at least one successful document."""
    succeeded = set()
    for document in documents:
        error = jsonschema.exceptions.best_match(schema.iter_errors(document))
        assert error is None, f"{json.dumps(document)}\n{error}"
        if document["type"] != "error":
            succeeded |= {document["type"], document.get("command")}
    return succeeded


def run_examples(text, place):
    for language, block in re.findall(r"^```(\w+)\n(.*?)^```", text, re.M | re.S):
        command = {"sh": ["sh", "-ec"], "python": [sys.executable, "-c"]}[language]
        subprocess.run([*command, block], check=True, timeout=100, **place)


def main(client, simulator, source):
    with tempfile.TemporaryDirectory(prefix="pelmar-json-") as scratch:
        scratch = pathlib.Path(scratch)
        for name, content in FILES.items():
            (scratch / name).write_text(content)
        environment = os.environ | {"XDG_STATE_HOME": str(scratch / "state"), "TZ": "UTC",
                                    "PATH": f"{pathlib.Path(client).parent}:{os.environ['PATH']}"}
        place = {"cwd": scratch, "env": environment}
        with Modem(simulator, scratch, "modem") as modem:
            environment["PELMAR_MODEM"] = str(modem.socket)
            run_examples(pathlib.Path(source, "docs/batch.md").read_text(), place)
            if jsonschema is None:
                return SKIPPED
            # An event is refused as long as no client follows them.
            events = subprocess.Popen(["sh", "-c", f"while '{simulator}' ctl --control '{modem.control}' status; do "
                                       f"'{simulator}' ctl --control '{modem.control}' event 3 5; sleep 0.05; done"],
                                      stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
            lines = LINES + "".join(ITEM_LINES.format(*item) for item in ITEMS)
            documents = list(run_batch(client, modem, lines, place).values())
        events.wait()  # ends with the modem
        environment |= {"PELMAR_MODEM": "", "PELMAR_MODEM_SIM": str(simulator)}
        with Modem(simulator, scratch, "power", "--pm-socket") as modem:
            documents += run_batch(client, modem, POWER_LINES, place).values()
        for words in (["modem", "stop"], ["nv"], ["--trace", "capture", "--modem", "@nobody", "info"],
                      ["trace", "capture", "--fields"]):
            lines = subprocess.run([client, "--json", *words], stdout=subprocess.PIPE, text=True, **place).stdout
            documents += map(json.loads, lines.splitlines())
    definition = json.loads(pathlib.Path(source, "tools/modem_api_test/json_schema.json").read_text())
    jsonschema.Draft202012Validator.check_schema(definition)
    succeeded = check_documents(documents, jsonschema.Draft202012Validator(definition))
    missing = set(leaves(client)) - WITHOUT_DOCUMENTS - succeeded
    assert not missing, f"no document of {missing} was checked"
    return 0


sys.exit(main(*sys.argv[1:]))
