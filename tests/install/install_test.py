"""Installs a build into a temporary directory, builds clients against it, in C and C++ with the CMake package and in C
with pkg-config, and runs them with the installed simulated modem.

usage: install_test.py BUILD_DIRECTORY C_COMPILER CXX_COMPILER
"""
import os
import pathlib
import subprocess
import sys
import tempfile

CLIENTS = pathlib.Path(__file__).parent / "clients"


def run(*command, **options):
    return subprocess.run([str(word) for word in command], check=True, stdout=subprocess.PIPE, text=True, **options).stdout


def build_clients(prefix, out, c, cxx):
    run("cmake", "-G", "Ninja", "-S", CLIENTS, "-B", out, f"-DCMAKE_PREFIX_PATH={prefix}", f"-DCMAKE_C_COMPILER={c}",
        f"-DCMAKE_CXX_COMPILER={cxx}")
    run("cmake", "--build", out)
    directory = next(prefix.glob("lib*/**/pkgconfig"))
    flags = run("pkg-config", "--cflags", "--libs", "pelmar_modemapi",
                env=os.environ | {"PKG_CONFIG_PATH": str(directory)}).split()
    run(c, "-std=c11", "-Wall", "-Wextra", "-Werror", CLIENTS / "client.c", *flags, f"-Wl,-rpath,{directory.parent}",
        "-o", out / "mtb")
    return [out / "c_client" / "mtb", out / "cpp_client" / "mtb", out / "mtb"]


def main(build, c, cxx):
    with tempfile.TemporaryDirectory(prefix="pelmar-install-") as scratch:
        scratch = pathlib.Path(scratch)
        prefix, socket = scratch / "prefix", scratch / "socket"
        run("cmake", "--install", build, "--prefix", prefix)
        run(prefix / "bin" / "modem_api_test", "--help")
        for path in ("man/man1/modem_api_test.1", "man/man1/modem_sim.1", "bash-completion/completions/modem_api_test"):
            assert (prefix / "share" / path).is_file(), path
        environment = os.environ | {"PELMAR_MODEM": str(socket), "XDG_STATE_HOME": str(scratch / "state")}
        with subprocess.Popen([prefix / "bin" / "modem_sim", "serve", "--socket", socket, "--storage",
                               scratch / "storage"], stdout=subprocess.PIPE, text=True) as modem:
            try:
                assert modem.stdout.readline().startswith("modem_sim: ready"), "the installed modem does not start"
                for program in build_clients(prefix, scratch / "clients", c, cxx):
                    run(program, env=environment)
            finally:
                modem.terminate()


main(*sys.argv[1:])
