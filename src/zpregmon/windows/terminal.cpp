#include "zpregmon/terminal.h"

#include <fcntl.h>
#include <io.h>
#include <windows.h>

namespace zpregmon {

void PrepareStandardStreams() {
    _setmode(_fileno(stdin), _O_BINARY);
    _setmode(_fileno(stdout), _O_BINARY);
    SetConsoleOutputCP(CP_UTF8);
    const HANDLE console = GetStdHandle(STD_OUTPUT_HANDLE);
    if (DWORD mode = 0; GetConsoleMode(console, &mode) != 0) {
        SetConsoleMode(console, mode | ENABLE_VIRTUAL_TERMINAL_PROCESSING);
    }
}

bool IsTerminal(std::FILE* file) {
    return _isatty(_fileno(file)) != 0;
}

std::size_t TerminalColumnsOf(std::FILE* file) {
    CONSOLE_SCREEN_BUFFER_INFO information;
    const auto console = reinterpret_cast<HANDLE>(_get_osfhandle(_fileno(file)));
    if (!IsTerminal(file) || GetConsoleScreenBufferInfo(console, &information) == 0) {
        return 0;
    }
    const int columns = information.srWindow.Right - information.srWindow.Left + 1;
    return static_cast<std::size_t>(columns);
}

}  // namespace zpregmon
