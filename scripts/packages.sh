# The Debian packages that the project needs, and functions that install them and configure a build. Other scripts
# source this file.

PACKAGES_BUILD="g++ cmake ninja-build pkg-config libcli11-dev nlohmann-json3-dev"
PACKAGES_TEST="libgtest-dev libgmock-dev libqmi-utils prometheus-cpp-dev python3 python3-jsonschema"
PACKAGES_CI="clang lld clang-format clang-tidy libclang-rt-14-dev libc++-14-dev libc++abi-14-dev googletest mandoc prometheus zsh tshark"
PACKAGES_ARM64="g++-aarch64-linux-gnu qemu-user googletest"
PACKAGES_QRTR="qemu-system-x86 libqmi-utils"

# need_packages PACKAGE...: installs missing packages if the user is root; otherwise prints them and ends the script.
need_packages() {
  local package missing=()
  for package in "$@"; do
    dpkg-query -W -f='${db:Status-Abbrev}' "$package" 2>/dev/null | grep -q '^ii' || missing+=("$package")
  done
  [ ${#missing[@]} -eq 0 ] && return 0
  if [ "$(id -u)" -ne 0 ]; then
    printf 'These Debian packages are missing; install them and run this again:\n  apt-get install %s\n' "${missing[*]}" >&2
    exit 1
  fi
  echo "installing: ${missing[*]}"
  apt-get update -qq
  DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
}

# configure DIRECTORY [CMAKE ARGUMENTS...]: prepares a build directory, with ccache if it is installed.
configure() {
  local directory=$1
  shift
  local launcher=()
  if command -v ccache >/dev/null; then
    launcher=(-DCMAKE_C_COMPILER_LAUNCHER=ccache -DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
  fi
  local command=(cmake -S . -B "$directory" -G Ninja "${launcher[@]}" "$@") messages status=0
  messages=$("${command[@]}" 2>&1 >/dev/null) || status=$?
  [ -z "$messages" ] || printf '%s\n' "$messages" >&2
  [ $status -eq 0 ] || return $status
  # If the compiler has changed, CMake drops the other settings, too; the second time it takes them.
  case $messages in *"require your cache to be deleted"*) "${command[@]}" >/dev/null ;; esac
}
