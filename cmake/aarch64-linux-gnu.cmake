# Cross build for 64-bit Arm Linux with Debian's cross compiler. The arm64 libraries we
# link (GoogleTest, Android's liblog and libutils) are Debian's multiarch arm64 packages,
# installed on the host root under /usr/lib/aarch64-linux-gnu; scripts/arm64/prepare.sh
# installs all of it. Test programs run in a 64-bit Arm virtual machine (scripts/vm/run.sh);
# the user-mode emulator below runs the install test's example and lists, for the machine,
# the libraries an Arm program loads.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)

set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)

# Multiarch: the arm64 packages live on the host root, so the search root is / and the
# architecture folder picks the arm64 copies (GoogleTest's CMake package in
# /usr/lib/aarch64-linux-gnu/cmake/GTest, Android's libraries in
# /usr/lib/aarch64-linux-gnu/android, which cmake/AndroidHost.cmake builds from it).
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)
set(CMAKE_FIND_ROOT_PATH /)
# Programs run on the build machine; libraries, headers and packages must be the target's.
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# The emulator. Its -L prefix is tried first for every absolute path the emulated program
# opens and falls back to the real path, so the overlay only has to hold what the host
# root cannot: the arm64 7z.so (its path is shared with the installed amd64 one) that
# the arm64 libbacktrace under libutils loads. Everything else, the arm64 loader and
# glibc included, comes from the multiarch packages on /. The cross toolchain's own
# sysroot must not be the prefix: its glibc differs from the multiarch one the libraries
# were built against, and threads and fork then hang.
if(DEFINED ENV{TAVREL_ARM64_OVERLAY})
  set(_tavrel_overlay "$ENV{TAVREL_ARM64_OVERLAY}")
elseif(DEFINED ENV{XDG_CACHE_HOME})
  set(_tavrel_overlay "$ENV{XDG_CACHE_HOME}/tavrel-arm64/overlay")
else()
  set(_tavrel_overlay "$ENV{HOME}/.cache/tavrel-arm64/overlay")
endif()
# try_compile projects re-read this file without our environment; only the top level
# runs anything, so only it needs the overlay.
if(NOT EXISTS "${_tavrel_overlay}/usr/lib/p7zip/7z.so" AND NOT CMAKE_IN_TRY_COMPILE)
  message(FATAL_ERROR "No arm64 overlay at ${_tavrel_overlay}: run scripts/arm64/prepare.sh")
endif()
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64 -L "${_tavrel_overlay}")

# The linker checks the libraries' own dependencies too: libbacktrace's runpath names
# /usr/lib/p7zip, where only the amd64 7z.so is, so point it at the arm64 one.
set(CMAKE_EXE_LINKER_FLAGS_INIT "-Wl,-rpath-link,${_tavrel_overlay}/usr/lib/p7zip")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-Wl,-rpath-link,${_tavrel_overlay}/usr/lib/p7zip")
