"""Captures of the tour, of the client and of the modem. Played by modem_sim, each makes the client print the same. With
the dissector of the build, Wireshark's tshark shows the same name, number and result of every message as the client
does, and no malformed packet; also of a response that is not described.

usage: tour_test.py DIRECTORY_OF_THE_PROGRAMS DISSECTOR PROJECT_DIRECTORY
"""
import itertools
import json
import os
import pathlib
import re
import shutil
import struct
import subprocess
import sys
import tempfile

VALUES = ["item", "statistic", "rsrp_rx0", "earfcn", "rx_prx", "priority"]
FIELDS = [*("pelmar_qmi." + name for name in ["msg", "kind", "transaction", "error_name", *VALUES]),
          "frame.packet_flags_direction", "_ws.malformed", "pelmar_qmi.undescribed"]


def block(kind, content):
    length = struct.pack("<I", len(content) + 12)
    return struct.pack("<I", kind) + length + content + length


# A capture with a response of WDS, which has no names of messages: its result is NO_ENTRY. Its direction is inbound.
PACKET = bytes.fromhex("01 13 00 80 01 01  02 01 00 20 00 07 00  02 04 00 01 00 32 00")
FLAGS = bytes.fromhex("02 00 04 00 01 00 00 00  00 00 00 00")
UNDESCRIBED = (block(0x0A0D0D0A, struct.pack("<IHHq", 0x1A2B3C4D, 1, 0, -1)) + block(1, struct.pack("<HHI", 147, 0, 0)) +
               block(6, struct.pack("<5I", 0, 0, 0, len(PACKET), len(PACKET)) + PACKET + FLAGS))


def client_rows(programs, capture):
    lines = subprocess.run([programs / "modem_api_test", "trace", capture, "--json", "--fields"], check=True,
                           capture_output=True, text=True).stdout.splitlines()
    for line in lines[:-1]:
        message = json.loads(line)
        error = "SUCCESS" if message.get("is_success") else message.get("qmi_error", {}).get("name", "")
        values = [re.findall(rf'"(?:{name}|name":"{name}","value)":"?([^",}}]+)', line) for name in VALUES]
        name = message["message"]["name"] or f"0x{message['message']['number']:04x}"
        direction = f"0x{1 if message['direction'] == 'from_modem' else 2:08x}"
        yield [name, message["kind"], str(message["transaction"]), error, *map(",".join, values), direction, "", ""]


def tshark_rows(dissector, capture):
    options = [word for field in FIELDS for word in ("-e", field)]
    tshark = subprocess.run(["tshark", "-X", f"lua_script:{dissector}", "-r", capture, "-T", "fields", *options],
                            check=True, capture_output=True, text=True)
    complaints = [line for line in tshark.stderr.splitlines() if not line.startswith("Running as user")]
    assert not complaints, complaints
    return [line.split("\t") for line in tshark.stdout.splitlines()]


# Runs a changed tour, and returns what it prints without what differs between two runs.
def run_tour(programs, script, changes, environment):
    for pattern, text in changes:
        script, count = re.subn(pattern, text, script, flags=re.MULTILINE)
        assert count > 0, pattern
    output = subprocess.run(["bash", "-c", script, "tour", programs], check=True, capture_output=True, text=True,
                            env=os.environ | environment).stdout
    return re.sub(r"/tmp/[\w./]+|^\d\d:\d\d:\d\d\.\d{3}|(?<=^  id) +\d+", "...", output, flags=re.MULTILINE)


def main(programs, dissector, project):
    with tempfile.TemporaryDirectory(prefix="pelmar-tour-") as scratch:
        scratch, programs = pathlib.Path(scratch), pathlib.Path(programs)
        script = pathlib.Path(project, "scripts/tour.sh").read_text()
        capture = scratch / "all"
        # Every reading of the signal is printed. An item is read before it is written, too.
        always = [("--watch --rate 10 --for 4", "--rate 1 --count 3"),
                  ("^show (modem_api_test nv) write 550", r"show_refused \1 read 550\n\g<0>")]
        changes = [*always, ("^show (modem_sim ctl .*)", r"\1 >>modem.log"),
                   ("^modem_sim serve", rf"\g<0> --trace {scratch}/modem")]
        recorded = run_tour(programs, script, changes, {"PELMAR_TRACE": str(scratch / "%p.pcapng")})
        # In the order of the programs, because the first read of the item differs from the second.
        captures = sorted(scratch.glob("*.pcapng"), key=lambda path: path.stat().st_mtime_ns)
        capture.write_bytes(b"".join(path.read_bytes() for path in captures))
        # The modem that plays the capture gets no ctl commands: the capture has the event and the loss of a service.
        for source in (capture, scratch / "modem"):
            changes = [*always, ("^show modem_sim ctl .*", ""), ("^modem_sim serve", rf"\g<0> --replay {source}")]
            played = run_tour(programs, script, changes, {})
            for line, other in itertools.zip_longest(recorded.splitlines(), played.splitlines()):
                assert line == other, f"recorded: {line}, played from {source.name}: {other}"

        if shutil.which("tshark") is None:
            sys.exit(77)
        about = subprocess.run(["capinfos", capture], check=True, capture_output=True, text=True).stdout
        for text in ["application: +libpelmar_", "comment: +QMI messages in QMUX", "length = 0", "Description = modem"]:
            assert re.search(text, about), f"no {text} in {about}"
        capture.write_bytes(capture.read_bytes() + UNDESCRIBED)
        expected, seen = list(client_rows(programs, capture)), tshark_rows(dissector, capture)
        assert len(seen) == len(expected) > 100, (len(seen), len(expected))
        assert seen[-1] == ["0x0020", "response", "1", "NO_ENTRY", *[""] * len(VALUES), "0x00000001", "", ""], seen[-1]
        for row, other in zip(seen, expected):
            assert row == other, f"tshark has {row}, the client {other}"


main(*sys.argv[1:])
