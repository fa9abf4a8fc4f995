"""Compares the dynamic symbols of the built library with its list of exports, and its undefined symbols with the
platform's operations.

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
RUNTIME = r"/(ld-linux|lib(c|m|gcc_s|stdc\+\+|c\+\+\w*|unwind)\.so)"


def output(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout


def symbols(library, *options):
    """Names of dynamic symbols, without their versions; weak ones are left out of the undefined."""
    found = re.findall(r"^(?:[0-9a-f]+)?\s+(\w) (.*)$", output("nm", "-D", *options, library), re.M)
    return {name.split("@")[0] for kind, name in found if kind not in "vw"}


def main(library, script):
    text = re.search(r"global:(.*)local:\s*\*;", re.sub(r"#.*", "", open(script).read()), re.S)[1]
    listed = {name.strip(' "\n') for name in re.sub(r'extern "C\+\+" {|}', "", text).split(";")} - {""}
    exported, undefined = symbols(library, "--defined-only", "-C"), symbols(library, "--undefined-only")
    paths = re.findall(r"(/\S+)", output("ldd", library))
    of_runtime = {name for path in paths for name in symbols(path, "--defined-only")}
    differences = {
        "exported, not listed": exported - listed,
        "listed, not exported": listed - exported,
        "undefined, but not of the platform": undefined - of_runtime - PLATFORM,
        "of the platform, but not undefined": PLATFORM - undefined,
        "linked, but not of the C or C++ runtime": {path for path in paths if not re.search(RUNTIME, path)},
    }
    return "\n".join(f"{what}: {name}" for what, names in differences.items() for name in sorted(names)) or 0


sys.exit(main(*sys.argv[1:]))
