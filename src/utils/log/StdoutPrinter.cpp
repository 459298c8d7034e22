#include "tavrel/StdoutPrinter.h"

#include <cstdarg>
#include <cstdio>

namespace NSCam {

void StdoutPrinter::printLine(const char* line) {
    flockfile(stdout);
    std::fputs(line, stdout);
    putc_unlocked('\n', stdout);
    funlockfile(stdout);
}

void StdoutPrinter::printFormatLine(const char* format, ...) {
    va_list args;
    va_start(args, format);
    flockfile(stdout);
    std::vfprintf(stdout, format, args);
    putc_unlocked('\n', stdout);
    funlockfile(stdout);
    va_end(args);
}

}  // namespace NSCam
