#include "zpregmon/linux/interrupt.h"

#include <csignal>

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

}  // namespace zpregmon
