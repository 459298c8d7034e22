// The plain printer: each line of a state dump on stdout, for programs and tools.
#pragma once

#include "tavrel/Export.h"
#include "tavrel/IPrinter.h"

namespace NSCam {

class TAVREL_SYS_API StdoutPrinter : public IPrinter {
public:
    // Any thread. Writes `line` and a newline; lines of several threads never interleave.
    void printLine(const char* line) override;

    // Any thread. Formats without a length limit, then writes the text and a newline.
    void printFormatLine(const char* format, ...) override __attribute__((format(printf, 2, 3)));
};

}  // namespace NSCam
