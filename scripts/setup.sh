#!/usr/bin/env bash
# Installs what building and testing need, from Debian's packages, and only what is
# missing: quiet and quick when everything is there. Run as root (or with sudo).
set -euo pipefail

readonly PACKAGES=(
  cmake ninja-build g++ pkg-config
  clang clang-format libc++-14-dev libc++abi-14-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  android-liblog-dev android-libutils-dev
  libevent-dev libev-dev libuv1-dev valgrind
)

# Asks for the native instance first: once a foreign architecture (arm64, for the
# cross build) is installed beside it, the bare name is ambiguous to dpkg.
installed() {
  local status
  status=$(dpkg-query -W -f='${Status}' "$1:$(dpkg --print-architecture)" 2>/dev/null ||
    dpkg-query -W -f='${Status}' "$1" 2>/dev/null) || return 1
  [[ $status == "install ok installed" ]]
}

missing=()
for pkg in "${PACKAGES[@]}"; do
  installed "$pkg" || missing+=("$pkg")
done

if ((${#missing[@]})); then
  echo "setup: installing ${missing[*]}"
  as_root=()
  [[ $(id -u) -eq 0 ]] || as_root=(sudo)
  "${as_root[@]}" apt-get update -qq
  DEBIAN_FRONTEND=noninteractive "${as_root[@]}" apt-get install -y -qq --no-install-recommends \
    "${missing[@]}" >/dev/null
fi

# The driver test boots a kernel with the virtual video driver; it has its own setup.
if [[ "${TAVREL_VM_TEST:-ON}" != OFF ]]; then
  "$(dirname "$0")/vm/prepare.sh"
fi
