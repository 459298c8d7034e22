// Marks what libtavrel_sys_linux.so exports. The library is built with hidden visibility,
// so everything else in it stays internal and can change without breaking its users.
#pragma once

// The headers use C++17 (inline variables, nested namespaces); an older
// standard would fail later with errors that name none of this.
#if __cplusplus < 201703L
#error "tavrel-sys headers need C++17 or newer: compile with -std=c++17 (or a later standard)"
#endif

#define TAVREL_SYS_API __attribute__((visibility("default")))
