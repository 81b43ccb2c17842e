#include "zpregmon/terminal.h"

#include <fcntl.h>
#include <io.h>
#include <windows.h>

#include <cstdlib>
#include <optional>

namespace zpregmon {

namespace {

/// Nothing when the file is no console: the C library takes NUL and serial ports for terminals.
std::optional<DWORD> ConsoleMode(HANDLE file) {
    DWORD mode = 0;
    return GetConsoleMode(file, &mode) ? std::optional(mode) : std::nullopt;
}

HANDLE HandleOf(std::FILE* file) {
    return reinterpret_cast<HANDLE>(_get_osfhandle(_fileno(file)));
}

/// What the console was like before: it belongs to the programs that come after, too.
UINT formerCodePage = 0;
std::optional<DWORD> formerMode;

/// At exit, which is before the C library writes what is left: that is UTF-8 still.
void RestoreConsole() {
    std::fflush(stdout);
    SetConsoleOutputCP(formerCodePage);
    if (formerMode) {
        SetConsoleMode(HandleOf(stdout), *formerMode);
    }
}

}  // namespace

void PrepareStandardStreams() {
    _setmode(_fileno(stdin), _O_BINARY);
    _setmode(_fileno(stdout), _O_BINARY);
    formerCodePage = GetConsoleOutputCP();
    if (formerCodePage == 0) {
        return;  // the program has no console
    }
    formerMode = ConsoleMode(HandleOf(stdout));
    std::atexit(RestoreConsole);
    SetConsoleOutputCP(CP_UTF8);
    if (formerMode) {
        // Refused by the consoles of systems before Windows 10.
        SetConsoleMode(HandleOf(stdout), *formerMode | ENABLE_VIRTUAL_TERMINAL_PROCESSING);
    }
}

bool IsTerminal(std::FILE* file) {
    return ConsoleMode(HandleOf(file)).has_value();
}

bool ShowsColour(std::FILE* file) {
    return (ConsoleMode(HandleOf(file)).value_or(0) & ENABLE_VIRTUAL_TERMINAL_PROCESSING) != 0;
}

std::size_t TerminalColumnsOf(std::FILE* file) {
    CONSOLE_SCREEN_BUFFER_INFO information;
    if (!GetConsoleScreenBufferInfo(HandleOf(file), &information)) {
        return 0;
    }
    const int columns = information.srWindow.Right - information.srWindow.Left + 1;
    return static_cast<std::size_t>(columns);
}

}  // namespace zpregmon
