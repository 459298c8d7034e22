// Where the default unified logger's lines go: stderr, or a file named by a property.
#pragma once

namespace tavrel::host {

// Load time (before other libraries' initialisers). Opens the file kULogFileKey names,
// if any; when it cannot be opened, says so on stderr and keeps stderr.
void openHostLogOutput();

// Any thread. Writes "<date> <time>.<us> <pid> <tid> <L> <tag>: <text>" and a newline
// with one system call, so lines of several threads or processes never interleave.
// `text` is read up to its NUL only.
void writeHostLogLine(char levelLetter, const char* tag, const char* text);

}  // namespace tavrel::host
