// A sink for state dumps: one call, one line.
#pragma once

#include "tavrel/Export.h"

namespace NSCam {

class TAVREL_SYS_API IPrinter {
public:
    // Prints `line` as one line.
    virtual void printLine(const char* line) = 0;

    // Formats with printf conventions and prints the result as one line.
    virtual void printFormatLine(const char* format, ...) __attribute__((format(printf, 2, 3))) = 0;

    // Does nothing. Defined in the library, so that the interface's type information
    // and table exist once, there, whatever the compiler inlines.
    virtual ~IPrinter();
};

}  // namespace NSCam
