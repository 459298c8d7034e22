# Warnings are errors on every toolchain; Clang also checks the lock annotations.
add_library(tavrel_warnings INTERFACE)
target_compile_options(tavrel_warnings INTERFACE -Wall -Wextra -Werror
  $<$<CXX_COMPILER_ID:Clang>:-Wthread-safety>)

# The library and the platform layer throw nothing and are built that way.
add_library(tavrel_no_exceptions INTERFACE)
target_compile_options(tavrel_no_exceptions INTERFACE -fno-exceptions)
