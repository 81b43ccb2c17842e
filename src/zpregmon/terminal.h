// What the program asks of the system about its standard streams and terminals.
#pragma once

#include <cstddef>
#include <cstdio>

namespace zpregmon {

/// A closed pipe is seen where it is written to, and standard streams carry bytes as they are.
void PrepareStandardStreams();

bool IsTerminal(std::FILE* file);
/// Whether it is a terminal that takes escape sequences for colours; some of Windows do not.
bool ShowsColour(std::FILE* file);
/// Columns of the terminal that the file is; 0 when it is none.
std::size_t TerminalColumnsOf(std::FILE* file);
/// Colour is for terminals that show it, unless the environment has a NO_COLOR that is not empty.
bool WantsColour(std::FILE* file);

}  // namespace zpregmon
