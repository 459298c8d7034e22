#!/usr/bin/env bash
# Installs what building and testing need, from Debian's packages, and only what is
# missing: quiet and quick when everything is there. Run as root (or with sudo).
#   scripts/setup.sh               everything the test command needs
#   scripts/setup.sh --build-only  only what building and running the programs need
set -euo pipefail
here=$(dirname "$0")
source "$here/lib/packages.sh"

readonly PACKAGES=(
  cmake ninja-build g++ pkg-config
  clang clang-format libc++-14-dev libc++abi-14-dev libclang-rt-14-dev
  libgtest-dev libgmock-dev googletest libbenchmark-dev
  android-liblog-dev android-libutils-dev
  libevent-dev libev-dev libuv1-dev valgrind
)

ensure_packages setup "${PACKAGES[@]}"
[[ ${1:-} == --build-only ]] && exit 0

# GoogleTest for the libc++ build, the 64-bit Arm cross build and its emulator, and the
# kernels and busybox of the x86-64 and 64-bit Arm test VMs.
"$here/libcxx/prepare.sh"
"$here/arm64/prepare.sh"
"$here/vm/prepare.sh" amd64
"$here/vm/prepare.sh" arm64
