"""Wireshark's tshark and the client read one capture, that of the tour: with the dissector of the build, every message
has the same name, number and result in both, and no packet is malformed.

usage: dissector_test.py DIRECTORY_OF_THE_PROGRAMS DISSECTOR PROJECT_DIRECTORY
"""
import json
import os
import pathlib
import shutil
import subprocess
import sys
import tempfile

FIELDS = ["pelmar_qmi.msg", "pelmar_qmi.kind", "pelmar_qmi.transaction", "pelmar_qmi.error_name", "pelmar_qmi.item",
          "_ws.malformed", "pelmar_qmi.undescribed"]


def client_rows(programs, capture):
    lines = subprocess.run([programs / "modem_api_test", "trace", capture, "--json", "--fields"], check=True,
                           capture_output=True, text=True).stdout.splitlines()
    for message in map(json.loads, lines[:-1]):
        error = "SUCCESS" if message.get("is_success") else message.get("qmi_error", {}).get("name", "")
        item = [str(tlv["value"]) for tlv in message["tlvs"] if tlv.get("name") == "item"]
        yield [message["message"]["name"], message["kind"], str(message["transaction"]), error, *(item or [""]), "", ""]


def tshark_rows(dissector, capture):
    options = [word for field in FIELDS for word in ("-e", field)]
    tshark = subprocess.run(["tshark", "-X", f"lua_script:{dissector}", "-r", capture, "-T", "fields", *options],
                            check=True, capture_output=True, text=True)
    complaints = [line for line in tshark.stderr.splitlines() if not line.startswith("Running as user")]
    assert not complaints, complaints
    return [line.split("\t") for line in tshark.stdout.splitlines()]


def main(programs, dissector, project):
    if shutil.which("tshark") is None:
        sys.exit(77)
    with tempfile.TemporaryDirectory(prefix="pelmar-dissector-") as scratch:
        scratch, programs = pathlib.Path(scratch), pathlib.Path(programs)
        subprocess.run([pathlib.Path(project, "scripts/tour.sh"), programs], check=True, stdout=subprocess.DEVNULL,
                       env=os.environ | {"PELMAR_TRACE": str(scratch / "%p.pcapng")})
        capture = scratch / "all"
        capture.write_bytes(b"".join(path.read_bytes() for path in scratch.glob("*.pcapng")))
        expected, seen = list(client_rows(programs, capture)), tshark_rows(dissector, capture)
        assert len(seen) == len(expected) > 100, (len(seen), len(expected))
        for row, other in zip(seen, expected):
            assert row == other, f"tshark has {row}, the client {other}"


main(*sys.argv[1:])
