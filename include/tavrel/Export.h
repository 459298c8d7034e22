// Marks what libtavrel_sys_linux.so exports. The library is built with hidden visibility,
// so everything else in it stays internal and can change without breaking its users.
#pragma once

#define TAVREL_SYS_API __attribute__((visibility("default")))
