"""Installs a build into a directory of its own, builds clients against it, in C and C++ with the CMake package and in C with
pkg-config, and runs them on the installed simulated modem.

usage: install_test.py BUILD_DIRECTORY C_COMPILER CXX_COMPILER
"""
import os
import pathlib
import subprocess
import sys
import tempfile

CLIENTS = pathlib.Path(__file__).parent / "clients"


def run(*command, **options):
    subprocess.run([str(word) for word in command], check=True, **options)


def build_with_cmake(prefix, out, c, cxx):
    run("cmake", "-G", "Ninja", "-S", CLIENTS, "-B", out, f"-DCMAKE_PREFIX_PATH={prefix}", f"-DCMAKE_C_COMPILER={c}",
        f"-DCMAKE_CXX_COMPILER={cxx}", stdout=subprocess.DEVNULL)
    run("cmake", "--build", out, stdout=subprocess.DEVNULL)
    return [out / "c_client" / "mtb", out / "cpp_client" / "mtb"]


def build_with_pkg_config(prefix, out, c):
    directory = next(prefix.glob("lib*/**/pkgconfig"))
    flags = subprocess.run(["pkg-config", "--cflags", "--libs", "pelmar_modemapi"], check=True, text=True,
                           capture_output=True, env=os.environ | {"PKG_CONFIG_PATH": str(directory)}).stdout.split()
    out.mkdir()
    run(c, "-std=c11", "-Wall", "-Wextra", "-Werror", CLIENTS / "client.c", *flags, f"-Wl,-rpath,{directory.parent}",
        "-o", out / "mtb")
    return [out / "mtb"]


def check_tools(prefix):
    """The installed client starts the installed modem; the manual pages and the completion are in their places."""
    run(prefix / "bin" / "modem_api_test", "--help", stdout=subprocess.DEVNULL)
    for path in ("man/man1/modem_api_test.1", "man/man1/modem_sim.1", "bash-completion/completions/modem_api_test"):
        assert (prefix / "share" / path).is_file(), path


def main(build, c, cxx):
    with tempfile.TemporaryDirectory(prefix="pelmar-install-") as scratch:
        scratch = pathlib.Path(scratch)
        prefix = scratch / "prefix"
        run("cmake", "--install", build, "--prefix", prefix, stdout=subprocess.DEVNULL)
        check_tools(prefix)
        programs = build_with_cmake(prefix, scratch / "cmake", c, cxx)
        programs += build_with_pkg_config(prefix, scratch / "pkg-config", c)
        socket = scratch / "socket"
        with subprocess.Popen([prefix / "bin" / "modem_sim", "serve", "--socket", socket, "--storage",
                               scratch / "storage"], stdout=subprocess.PIPE, text=True) as modem:
            assert modem.stdout.readline().startswith("modem_sim: ready"), "the installed modem does not start"
            try:
                environment = {"PELMAR_MODEM": str(socket), "XDG_STATE_HOME": str(scratch / "state")}
                for program in programs:
                    run(program, env=os.environ | environment)
            finally:
                modem.terminate()
    return 0


sys.exit(main(*sys.argv[1:]))
