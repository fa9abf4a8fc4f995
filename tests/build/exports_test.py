"""Compares the dynamic symbols of the built library with its list of exports, and what it leaves undefined with the
operations of the platform beneath it.

usage: exports_test.py LIBRARY LINKER_SCRIPT
"""
import re
import subprocess
import sys

PLATFORM = set("""
    common_qmi_idl_type_table_object_v01 nas_get_service_object_internal_v01 sar_get_service_object_internal_v01
    qmi_client_init_instance qmi_client_message_decode qmi_client_notifier_init qmi_client_register_error_cb
    qmi_client_register_notify_cb qmi_client_release qmi_client_send_msg_async qmi_client_send_msg_sync
    qmi_idl_get_message_c_struct_len
    pm_client_connect pm_client_disconnect pm_client_event_acknowledge pm_client_register pm_client_unregister
    property_get property_set sleep vsyslog
""".split())


def symbols(library, *options):
    """Names and kinds of dynamic symbols, without their versions."""
    lines = subprocess.run(["nm", "-D", *options, library], check=True, capture_output=True, text=True).stdout
    found = (re.match(r"(?:[0-9a-f]+)?\s+(\w) (.*)", line) for line in lines.splitlines())
    return {(match[2].split("@")[0], match[1]) for match in found}


def listed_exports(script):
    text = re.sub(r"#.*", "", open(script).read())
    names = re.search(r"global:(.*)local:\s*\*;", text, re.S)[1]
    return {name.strip(' "\n') for name in re.sub(r'extern "C\+\+" {|}', "", names).split(";")} - {""}


def runtime(library):
    """What the C and C++ runtimes beneath the library define."""
    lines = subprocess.run(["ldd", library], check=True, capture_output=True, text=True).stdout
    paths = re.findall(r"(/\S+)", lines)
    known = re.compile(r"/(ld-linux|lib(c|m|gcc_s|stdc\+\+|c\+\+\w*|unwind)\.so)")
    strangers = [path for path in paths if not known.search(path)]
    return {name for path in paths for name, _ in symbols(path, "--defined-only")}, strangers


def main(library, script):
    exported, listed = {name for name, _ in symbols(library, "--defined-only", "-C")}, listed_exports(script)
    undefined = {name for name, kind in symbols(library, "--undefined-only") if kind == "U"}
    of_runtime, strangers = runtime(library)
    differences = {
        "exported, not listed": exported - listed,
        "listed, not exported": listed - exported,
        "undefined, of no platform": undefined - of_runtime - PLATFORM,
        "of the platform, not undefined": PLATFORM - undefined,
        "linked against": strangers,
    }
    for what, names in differences.items():
        for name in sorted(names):
            print(f"{what}: {name}")
    return 1 if any(differences.values()) else 0


sys.exit(main(*sys.argv[1:]))
