#!/usr/bin/env bash
# Runs a shell script in a virtual machine whose kernel has QRTR, which few kernels have. The virtual machine has
# Debian's kernel, no network and no disk: its file system is in memory. The script runs as root with busybox,
# qrtr-lookup and qmicli. Its output is printed at once, and its exit status is the exit status of this program.
# usage: scripts/qrtr_vm.sh [-t SECONDS] SCRIPT [FILE...]    for example scripts/qrtr_vm.sh check.sh build/test/bin/modem_sim
#   -t SECONDS   the time limit (default: 120); the exit status is 124 if it is reached
#   FILE         a program or any other file that the script needs. It has the same absolute path in the machine. A
#                program comes with its shared libraries, and its directory is in PATH.
# The packages are stored in build/qrtr-vm, so a later run downloads nothing.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
source "$root/scripts/packages.sh"

seconds=120
while getopts t: option; do
  case $option in
    t) seconds=$OPTARG ;;
    *) exit 2 ;;
  esac
done
shift $((OPTIND - 1))
[ $# -gt 0 ] || { sed -n '2,/^set/s/^# \{0,1\}//p' "$0" >&2; exit 2; }
script=$(realpath -e "$1")
shift

# The name of the kernel's package contains its version, so it is read from the dependencies of linux-image-amd64.
fetch() {
  local kernel
  kernel=$(apt-cache depends linux-image-amd64 | sed -n 's/.*Depends: \(linux-image-[0-9][^ ]*\)$/\1/p')
  [ -n "$kernel" ] && apt-get download -qq "$kernel" busybox-static qrtr-tools
}

# Downloads packages and extracts the files that are needed.
prepare() (
  mkdir -p "$vm"
  exec 9>"$vm/lock"
  flock 9
  [ ! -e "$vm/ready" ] || return 0
  cd "$vm"
  # The package lists may be absent, or older than the packages.
  fetch || { apt-get update -qq && fetch; } ||
    { echo "qrtr_vm: cannot download Debian's kernel, busybox-static and qrtr-tools" >&2; exit 1; }
  for package in ./*.deb; do
    dpkg-deb --fsys-tarfile "$package" | tar -x --wildcards --no-anchored 'vmlinuz-*' qrtr.ko busybox qrtr-lookup \
      2>/dev/null || true  # tar fails for files that a package does not have
  done
  cp boot/vmlinuz-* kernel
  find lib -name qrtr.ko -exec cp {} . \;
  [ -e kernel ] && [ -e qrtr.ko ] && [ -e bin/busybox ] && [ -e usr/bin/qrtr-lookup ]
  touch ready
)

# Copies a file to its own path in the new file system, with the shared libraries that it needs.
add() {
  local file
  for file in "$1" $(ldd "$1" 2>/dev/null | grep -o '/[^ ]*' || true); do
    [ -e "$files$file" ] || { mkdir -p "$files${file%/*}" && cp -L "$file" "$files$file"; }
  done
}

need_packages $PACKAGES_QRTR >&2
vm=$root/build/qrtr-vm
prepare
work=$(mktemp -d "$vm/run.XXXXXX")
trap 'rm -rf "$work"' EXIT
files=$work/files
mkdir -p "$files"/{bin,dev,proc,sys,tmp,root}
cp "$vm/bin/busybox" "$vm/qrtr.ko" "$files/bin"
cp "$vm/usr/bin/qrtr-lookup" "$files/bin"
add "$vm/usr/bin/qrtr-lookup"
path=/bin
for file in "$(command -v qmicli)" "$@"; do
  file=$(realpath -e "$file")
  add "$file"
  case :$path: in *:"${file%/*}":*) ;; *) path+=:${file%/*} ;; esac
done
cp "$script" "$files/script"
cat >"$files/init" <<END
#!/bin/busybox sh
/bin/busybox --install -s /bin
mount -t devtmpfs none /dev
mount -t proc none /proc
mount -t sysfs none /sys
mount -t tmpfs none /tmp
ip link set lo up
insmod /bin/qrtr.ko
stty -onlcr </dev/ttyS0
cd /root
export PATH=$path HOME=/root
sh /script </dev/null >/dev/ttyS0 2>&1
echo \$? >/dev/ttyS1
reboot -f
END
chmod +x "$files/init"
(cd "$files" && find . | "$vm/bin/busybox" cpio -o -H newc 2>/dev/null) >"$work/initrd"

# The script's output goes over the first serial line, its exit status over the second, the kernel's messages over the
# third. With tsc=reliable, reading the clock takes no system call, as on real machines.
ended=0
timeout --foreground -k 5 "$seconds" qemu-system-x86_64 -accel tcg -smp 2 -m 1024 -nodefaults -no-user-config -display none \
  -no-reboot -kernel "$vm/kernel" -initrd "$work/initrd" \
  -append 'console=ttyS2 no_timer_check quiet panic=-1 reboot=t mitigations=off tsc=reliable' \
  -serial stdio -serial file:"$work/status" -serial file:"$work/kernel" </dev/null || ended=$?
if grep -q '^[0-9]' "$work/status" 2>/dev/null; then
  exit "$(tr -cd 0-9 <"$work/status")"
elif [ "$ended" -eq 124 ] || [ "$ended" -eq 137 ]; then
  echo "qrtr_vm: the virtual machine did not end in $seconds seconds" >&2
  exit 124
fi
tail -20 "$work/kernel" >&2
echo "qrtr_vm: the virtual machine ended before the script (status $ended)" >&2
exit 125
