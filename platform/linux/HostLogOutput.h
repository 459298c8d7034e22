// Where the default unified logger's lines go: stderr, or a file named by a property.
#pragma once

#include <cstddef>

namespace tavrel::host {

// Load time (before other libraries' initialisers). Opens the file kULogFileKey names,
// if any; when it cannot be opened, says so on stderr and keeps stderr.
void openHostLogOutput();

// Any thread. Writes "<date> <time>.<us> <pid> <tid> <L> <tag>: <text>" and a newline
// with one system call, so lines of several threads or processes never interleave.
// `text` is read up to its NUL only.
void writeHostLogLine(char levelLetter, const char* tag, const char* text);

// Any thread. The local time now, written into `out` as strftime's `format` gives it; returns
// the nanoseconds into the second, which both host logs print in their own precision.
long localTimeNow(const char* format, char* out, size_t size);

}  // namespace tavrel::host
