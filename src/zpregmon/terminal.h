// What the program asks of the system that it runs on: terminals and signals.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdio>

namespace zpregmon {

/// A closed pipe is seen where it is written to, and standard streams carry bytes as they are.
void PrepareStandardStreams();

bool IsTerminal(std::FILE* file);
/// Columns of the terminal that the file is; 0 when it is none.
std::size_t TerminalColumnsOf(std::FILE* file);
/// Colour is for terminals, unless the environment has a NO_COLOR that is not empty.
bool WantsColour(std::FILE* file);

/// While it exists, the first interruption by the user sets `stop`; the second one ends the
/// program. One at a time.
class InterruptScope {
public:
    explicit InterruptScope(std::atomic<bool>& stop);
    ~InterruptScope();
    InterruptScope(const InterruptScope&) = delete;
    InterruptScope& operator=(const InterruptScope&) = delete;
};

}  // namespace zpregmon
