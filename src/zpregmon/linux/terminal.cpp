#include "zpregmon/terminal.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <csignal>

namespace zpregmon {

void PrepareStandardStreams() {
    std::signal(SIGPIPE, SIG_IGN);
}

bool IsTerminal(std::FILE* file) {
    return isatty(fileno(file)) != 0;
}

bool ShowsColour(std::FILE* file) {
    return IsTerminal(file);
}

std::size_t TerminalColumnsOf(std::FILE* file) {
    constexpr std::size_t kUsual = 80;
    if (!IsTerminal(file)) {
        return 0;
    }
    winsize size{};
    return ioctl(fileno(file), TIOCGWINSZ, &size) == 0 && size.ws_col != 0 ? size.ws_col : kUsual;
}

}  // namespace zpregmon
