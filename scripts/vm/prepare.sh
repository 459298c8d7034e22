#!/bin/bash
# Gets what a test virtual machine of one architecture needs: qemu, kmod and cpio as
# installed packages, and a stock kernel of that architecture with its media modules plus a
# static busybox of the same architecture, unpacked into the cache folder's subfolder named
# after the architecture. The kernel and busybox are only unpacked, never installed: the
# host's own kernel and shell stay untouched. Quiet and idempotent; reuses the cache.
# Usage: prepare.sh [amd64|arm64]   (Debian's architecture names; amd64 when not given)
set -euo pipefail
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
source "$here/../lib/packages.sh"

arch=${1:-amd64}
CACHE="${TAVREL_VM_CACHE:-${XDG_CACHE_HOME:-$HOME/.cache}/tavrel-vm}/$arch"

log() { echo "vm/prepare: $*" >&2; }

# The emulator's package, and what the packages of that architecture are called.
case "$arch" in
  amd64) qemu_package=qemu-system-x86 suffix="" ;;
  arm64) qemu_package=qemu-system-arm suffix=":arm64" ;;
  *)
    log "unknown architecture $arch (amd64 or arm64)"
    exit 2
    ;;
esac

# Two runs at once (setup and a test, or two test runs) take turns rather than unpack over
# each other.
mkdir -p "$CACHE"
exec 9>"$CACHE/.lock"
flock 9

# An Arm machine's programs come from the cross build, whose preparation lets apt know the
# arm64 architecture and installs the user-mode emulator that lists an Arm program's
# libraries.
if [[ $arch == arm64 ]]; then "$here/../arm64/prepare.sh"; fi
# Packages run on the host. apt-get update only when something is missing, since it is slow.
ensure_packages vm/prepare "$qemu_package" kmod cpio

# The generic kernel: the cloud flavour is built without the media drivers. Its version
# comes from the meta-package, since older versions leave the archive.
kernel_package() {
  apt-cache depends "linux-image-$arch$suffix" 2>/dev/null |
    sed -n "s/^ *Depends: \(linux-image-[0-9].*-$arch\)\($suffix\)\?\$/\1/p" | head -n1
}
kpkg=$(kernel_package)
if [[ -z "$kpkg" ]]; then
  # A machine whose package lists were never fetched knows no kernel package yet.
  apt-get update -qq >/dev/null
  kpkg=$(kernel_package)
fi
if [[ -z "$kpkg" ]]; then
  log "no kernel package behind linux-image-$arch"
  exit 1
fi
kver=${kpkg#linux-image-}

tmp=$(mktemp -d "$CACHE/.dl.XXXXXX")
trap 'rm -rf "$tmp"' EXIT
# apt-get download fetches as the unprivileged _apt user, who cannot reach a cache under
# root's home; as root, fetch as root instead of warning about it each time.
download=(apt-get download -qq)
if ((EUID == 0)); then download+=(-o APT::Sandbox::User=root); fi

# Unpacks only the kernel image, the media modules and the module indexes: the whole
# package is several hundred megabytes unpacked.
kdir="$CACHE/kernel-$kver"
if [[ ! -f "$kdir/.complete" ]]; then
  log "fetching $kpkg"
  rm -rf "$kdir"
  (cd "$tmp" && "${download[@]}" "$kpkg$suffix")
  mkdir -p "$kdir"
  dpkg-deb --fsys-tarfile "$tmp"/"$kpkg"_*.deb |
    tar -x -C "$kdir" --wildcards \
      "./boot/vmlinuz-$kver" \
      "./lib/modules/$kver/kernel/drivers/media/*" \
      "./lib/modules/$kver/modules.*"
  # The package leaves the dependency index to its install script: build it here, for
  # run.sh to ask kmod which modules vivid needs (kmod reads modules of any architecture).
  depmod -b "$kdir" "$kver"
  touch "$kdir/.complete"
fi

bdir="$CACHE/busybox"
if [[ ! -f "$bdir/.complete" ]]; then
  log "fetching busybox-static$suffix"
  rm -rf "$bdir"
  (cd "$tmp" && "${download[@]}" "busybox-static$suffix")
  dpkg-deb -x "$tmp"/busybox-static_*.deb "$bdir"
  touch "$bdir/.complete"
fi

# Kernels the archive has moved past are not used again.
for old in "$CACHE"/kernel-*/; do
  [[ "$old" == "$kdir/" ]] || rm -rf "$old"
done

# run.sh reads the version from here rather than asking apt again.
echo "$kver" >"$CACHE/kernel-version"
