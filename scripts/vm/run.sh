#!/bin/bash
# Runs one test program inside a throw-away virtual machine of the program's own
# architecture (x86-64 or 64-bit Arm) whose kernel has the virtual video driver loaded, so
# that the program meets that architecture's kernel, and the driver wrappers a real V4L2
# and media-request implementation instead of mocks.
# Usage: run.sh [--with FILE]... TEST_PROGRAM [ARGS...]
#   --with FILE  also puts FILE (a program the test starts by its path) into the machine,
#                at the same path
#
# Builds an initramfs (busybox, the media modules, the programs and every library their
# loader lists), boots it under qemu with software emulation, prints the program's part of
# the serial log and exits with the program's exit status. qemu exits 0 whatever happens
# inside, so the status travels back as a marker line on the serial console.
#
# Environment: TAVREL_VM_CACHE (kernel/busybox cache, as prepare.sh), TAVREL_VM_TIMEOUT
# (seconds the program may run inside, default 180), TAVREL_VM_SMP (default 1),
# TAVREL_VM_KEEP=1 keeps the work folder for inspection.
set -euo pipefail

usage() {
  echo "usage: $0 [--with FILE]... TEST_PROGRAM [ARGS...]" >&2
  exit 2
}
extras=()
while [[ ${1:-} == --with ]]; do
  (($# >= 2)) || usage
  extras+=("$(readlink -f "$2")")
  shift 2
done
(($# >= 1)) || usage
prog=$(readlink -f "$1")
shift
for file in "$prog" "${extras[@]}"; do
  [[ -x "$file" ]] || { echo "vm/run: $file is not an executable" >&2; exit 2; }
done

here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
CACHE="${TAVREL_VM_CACHE:-${XDG_CACHE_HOME:-$HOME/.cache}/tavrel-vm}"
inner_timeout=${TAVREL_VM_TIMEOUT:-180}
# Boot and module loading take ~10 s under emulation on a quiet machine; leave room for a
# busy one on top of the program's own limit.
outer_timeout=$((inner_timeout + 90))
smp=${TAVREL_VM_SMP:-1}

# The machine follows the program's architecture, read from its ELF header (e_machine, a
# little-endian half-word at offset 18). The loader lists an x86-64 program's libraries
# directly, an Arm program's under the user-mode emulator, whose overlay (as the cross
# toolchain file sets it up) holds the arm64 libraries the host root cannot.
machine=$(od -An -tu2 -j18 -N2 "$prog" 2>/dev/null | tr -d ' ') || true
case "$machine" in
  62)
    arch=amd64
    qemu=(qemu-system-x86_64 -accel tcg -cpu max)
    console=ttyS0
    lister=()
    overlay=""
    ;;
  183)
    arch=arm64
    # -cpu max: every extension qemu emulates, a phone core's atomics among them. Pointer
    # authentication with qemu's cheap algorithm: the architected one makes a run two to
    # four times as long under emulation, and the programs are built without it.
    qemu=(qemu-system-aarch64 -machine virt -accel tcg -cpu "max,pauth-impdef=on")
    console=ttyAMA0
    overlay="${TAVREL_ARM64_OVERLAY:-${XDG_CACHE_HOME:-$HOME/.cache}/tavrel-arm64/overlay}"
    lister=(qemu-aarch64 -L "$overlay")
    ;;
  *)
    echo "vm/run: $prog is no x86-64 or 64-bit Arm program (ELF machine $machine)" >&2
    exit 2
    ;;
esac

# Idempotent and quiet once everything is there.
TAVREL_VM_CACHE="$CACHE" "$here/prepare.sh" "$arch"
CACHE="$CACHE/$arch"
kver=$(cat "$CACHE/kernel-version")
kdir="$CACHE/kernel-$kver"
kernel="$kdir/boot/vmlinuz-$kver"
busybox="$CACHE/busybox/bin/busybox"

work=$(mktemp -d "${TMPDIR:-/tmp}/tavrel-vm.XXXXXX")
if [[ "${TAVREL_VM_KEEP:-0}" == 1 ]]; then
  echo "vm/run: keeping $work" >&2
else
  trap 'rm -rf "$work"' EXIT
fi
root="$work/root"
mkdir -p "$root"/{bin,dev,proc,sys,tmp,test}
cp "$busybox" "$root/bin/busybox"

# The modules vivid needs, in the order kmod resolves them, copied at their usual paths so
# that depmod indexes them and busybox modprobe can load vivid by name inside.
modprobe -d "$kdir" -S "$kver" --show-depends vivid |
  awk '$1 == "insmod" { print $2 }' >"$work/modules"
[[ -s "$work/modules" ]] || { echo "vm/run: no modules for vivid in $kdir" >&2; exit 1; }
while read -r ko; do
  rel=${ko#"$kdir"/}
  mkdir -p "$root/$(dirname "$rel")"
  cp "$ko" "$root/$rel"
done <"$work/modules"
# depmod wants to know what is built in, and warns without it.
cp "$kdir/lib/modules/$kver"/modules.{order,builtin,builtin.modinfo} "$root/lib/modules/$kver/"
depmod -b "$root" "$kver"

# The programs, and their libraries at the paths their loader prints (Android's libraries
# sit in a folder of their own that binaries reach through their runpath). A library the
# emulator's overlay holds is taken from there, as the emulator would.
cp "$prog" "$root/test/"
libdirs=()
for file in "$prog" "${extras[@]}"; do
  [[ $file == "$prog" ]] || { mkdir -p "$root/$(dirname "$file")" && cp "$file" "$root/$file"; }
  interpreter=$(readelf -l "$file" | sed -n 's/^.*Requesting program interpreter: \(.*\)]$/\1/p')
  "${lister[@]}" "$interpreter" --list "$file" >"$work/libraries"
  if grep -q 'not found' "$work/libraries"; then
    echo "vm/run: $file has libraries the loader cannot find:" >&2
    grep 'not found' "$work/libraries" >&2
    exit 1
  fi
  while read -r lib; do
    from=$lib
    [[ -n "$overlay" && -e "$overlay/$lib" ]] && from="$overlay/$lib"
    mkdir -p "$root/$(dirname "$lib")"
    cp -L "$from" "$root/$lib"
    libdirs+=("$(dirname "$lib")")
  done < <(awk '/=> \// { print $3 } /^\t\// { print $1 }' "$work/libraries")
done
# Every folder holding a copied library, for the loader: the image has no ld.so.cache.
ld_path=$(printf '%s\n' "${libdirs[@]}" | sort -u | paste -sd:)

# Quoted for the shell inside; arguments travel as single-quoted words.
args=""
for a in "$@"; do
  args+=" '${a//\'/\'\\\'\'}'"
done
name=$(basename "$prog")

cat >"$root/init" <<INIT
#!/bin/busybox sh
/bin/busybox --install -s /bin
# Plain output: the log is read as text.
export PATH=/bin HOME=/tmp GTEST_COLOR=no LD_LIBRARY_PATH=$ld_path
mount -t proc proc /proc
mount -t sysfs sysfs /sys
mount -t devtmpfs devtmpfs /dev
# No tmpfs on /tmp: the root is already writable memory, and libraries copied from a
# build folder under /tmp live there.
# modprobe succeeds even when the driver's probe fails: the nodes are the real evidence.
modprobe vivid
n=0
while [ ! -e /dev/media0 ] || [ ! -e /dev/video1 ]; do
  n=\$((n + 1))
  if [ \$n -gt 100 ]; then echo "vivid nodes missing: \$(ls /dev)"; break; fi
  sleep 0.1
done
cd /tmp
# The console's reset sequence may still share the line: start the marker on a fresh one.
echo
echo "==== tavrel-vm: begin $name"
timeout $inner_timeout /test/$name$args
rc=\$?
# Output that did not end its last line would otherwise hide the marker.
echo
echo "==== tavrel-vm: end exit=\$rc"
poweroff -f
INIT
chmod +x "$root/init"

(cd "$root" && find . -print0 | cpio --null -o -H newc --quiet) | gzip -1 >"$work/initrd.gz"

log="$work/serial.log"
start=$(date +%s)
set +e
# No network: a default card would also want a boot ROM from a package of its own.
timeout "$outer_timeout" "${qemu[@]}" -smp "$smp" -m 512M -nic none \
  -nographic -monitor none -serial "file:$log" -no-reboot \
  -kernel "$kernel" -initrd "$work/initrd.gz" \
  -append "console=$console panic=-1 quiet" </dev/null >"$work/qemu.out" 2>&1
qemu_status=$?
set -e
echo "vm/run: virtual machine ran $(($(date +%s) - start)) s (qemu status $qemu_status)" >&2

# The program's own output, without the boot chatter before it.
tr -d '\r' <"$log" | sed -n '/==== tavrel-vm: begin/,/^==== tavrel-vm: end/p'
status=$(tr -d '\r' <"$log" | sed -n 's/^==== tavrel-vm: end exit=\([0-9]\{1,3\}\)$/\1/p' | tail -n1)
if [[ -z "$status" ]]; then
  echo "vm/run: no exit marker on the serial console; its last lines:" >&2
  tr -d '\r' <"$log" | tail -n 40 >&2
  cat "$work/qemu.out" >&2
  exit 1
fi
exit "$status"
