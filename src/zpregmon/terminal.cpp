#include "zpregmon/terminal.h"

#include <csignal>
#include <cstdlib>

#ifdef _WIN32
#include <fcntl.h>
#include <io.h>
#include <windows.h>
#else
#include <sys/ioctl.h>
#include <unistd.h>
#endif

namespace zpregmon {

namespace {

std::atomic<std::atomic<bool>*> interruptible{nullptr};

}  // namespace

extern "C" {
/// Touches nothing but atomics. The handler is gone when it runs, or goes now.
static void ZpregmonInterrupt(int) {
    std::signal(SIGINT, SIG_DFL);
    if (std::atomic<bool>* const stop = interruptible.load()) {
        stop->store(true);
    }
}
}

InterruptScope::InterruptScope(std::atomic<bool>& stop) {
    interruptible.store(&stop);
    std::signal(SIGINT, ZpregmonInterrupt);
}

InterruptScope::~InterruptScope() {
    std::signal(SIGINT, SIG_DFL);
    interruptible.store(nullptr);
}

bool WantsColour(std::FILE* file) {
    const char* const noColour = std::getenv("NO_COLOR");
    return IsTerminal(file) && (noColour == nullptr || *noColour == '\0');
}

#ifdef _WIN32

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
    return static_cast<std::size_t>(information.srWindow.Right - information.srWindow.Left + 1);
}

#else

void PrepareStandardStreams() {
    std::signal(SIGPIPE, SIG_IGN);
}

bool IsTerminal(std::FILE* file) {
    return isatty(fileno(file)) != 0;
}

std::size_t TerminalColumnsOf(std::FILE* file) {
    constexpr std::size_t kUsual = 80;
    if (!IsTerminal(file)) {
        return 0;
    }
    winsize size{};
    return ioctl(fileno(file), TIOCGWINSZ, &size) == 0 && size.ws_col != 0 ? size.ws_col : kUsual;
}

#endif

}  // namespace zpregmon
