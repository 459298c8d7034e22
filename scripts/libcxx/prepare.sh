#!/usr/bin/env bash
# Builds Debian's GoogleTest source (/usr/src/googletest) with Clang and libc++ and installs
# it into ~/.cache/tavrel-libcxx/googletest, which the clang-libcxx preset gives CMake as
# GTest_ROOT: Debian's packaged GoogleTest is compiled against libstdc++ and cannot be
# linked into a libc++ program. Does nothing when the prefix already holds a build of the
# installed source version. Run as root (or with sudo) when packages are missing.
set -euo pipefail
source "$(dirname "$0")/../lib/packages.sh"

ensure_packages libcxx googletest clang libc++-14-dev libc++abi-14-dev cmake ninja-build

readonly PREFIX="$HOME/.cache/tavrel-libcxx/googletest"
version=$(dpkg-query -W -f='${Version}' googletest)
stamp="$PREFIX/source-version"
if [[ -f $stamp && $(<"$stamp") == "$version" ]]; then
  exit 0
fi

echo "libcxx: building GoogleTest $version with libc++ into $PREFIX" >&2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
libcxx=-stdlib=libc++
cmake -S /usr/src/googletest -B "$work" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_C_COMPILER=clang "-DCMAKE_CXX_FLAGS=$libcxx" \
  "-DCMAKE_EXE_LINKER_FLAGS=$libcxx" "-DCMAKE_SHARED_LINKER_FLAGS=$libcxx" \
  "-DCMAKE_INSTALL_PREFIX=$PREFIX" >/dev/null
cmake --build "$work" -j2 >/dev/null
rm -rf "$PREFIX"
cmake --install "$work" >/dev/null
echo "$version" >"$stamp"
