// Marks what libtavrel_platform_linux.so exports. The library is built with hidden
// visibility, so everything else in it stays internal and can change freely.
#pragma once

#define TAVREL_PLATFORM_API __attribute__((visibility("default")))
