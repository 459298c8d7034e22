#!/usr/bin/env bash
# Gets what the 64-bit Arm build runs on: the cross compiler, qemu's user-mode emulator,
# the arm64 builds of the libraries we link (Debian multiarch), and an overlay folder
# holding the arm64 7z.so that the arm64 libbacktrace needs but apt cannot install beside
# the amd64 one (both own /usr/lib/p7zip/7z.so). Quiet and idempotent.
set -euo pipefail
source "$(dirname "$0")/../lib/packages.sh"

# Kept outside the work tree so a fresh clone reuses it; the toolchain file reads the same path.
OVERLAY="${TAVREL_ARM64_OVERLAY:-${XDG_CACHE_HOME:-$HOME/.cache}/tavrel-arm64/overlay}"

log() { echo "arm64/prepare: $*" >&2; }
export DEBIAN_FRONTEND=noninteractive

# Multiarch must know arm64 before apt can resolve any :arm64 package.
if ! dpkg --print-foreign-architectures | grep -qx arm64; then
  log "enabling the arm64 architecture"
  as_root dpkg --add-architecture arm64
fi

readonly PACKAGES=(
  g++-aarch64-linux-gnu qemu-user
  android-liblog-dev:arm64 android-libutils-dev:arm64
  libgtest-dev:arm64 libgmock-dev:arm64
)
ensure_packages arm64/prepare "${PACKAGES[@]}"

# The overlay: qemu's -L prefix is tried first for every path the emulated program opens,
# so the arm64 7z.so found there shadows the host's amd64 one, and the rest falls through to /.
if [[ ! -f "$OVERLAY/usr/lib/p7zip/7z.so" ]]; then
  log "unpacking the arm64 7z.so into $OVERLAY"
  tmp=$(mktemp -d)
  trap 'rm -rf "$tmp"' EXIT
  $PACKAGE_LISTS_FETCHED || as_root apt-get update -qq
  # Downloading as root into a private temporary folder: apt's sandbox user could not write there.
  (cd "$tmp" && apt-get download -qq -o APT::Sandbox::User=root p7zip-full:arm64 >/dev/null)
  mkdir -p "$OVERLAY/usr/lib/p7zip"
  dpkg-deb -x "$tmp"/p7zip-full_*_arm64.deb "$tmp/pkg"
  # Copied under a temporary name first, so an interrupted run never leaves a half file.
  cp "$tmp/pkg/usr/lib/p7zip/7z.so" "$OVERLAY/usr/lib/p7zip/.7z.so.part"
  mv "$OVERLAY/usr/lib/p7zip/.7z.so.part" "$OVERLAY/usr/lib/p7zip/7z.so"
fi
