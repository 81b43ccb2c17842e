// Copying from and to memory that may fault.
//
// The copy instructions stand between labels. When one of them faults, the signal handler continues
// at the label behind them, which reports failure. All other faults go to the handler that was
// there before. The instructions are assembler text, so no sanitizer checks the accesses.
#include "platform/include/protected_access.h"

#include "platform/kernel/verifier.h"

#include <signal.h>
#include <ucontext.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>

extern "C" {

/// rdi: to, rsi: from, rdx: size; the result is 1 or 0. Needs no stack.
int PlatformCopyBytes(void* to, const void* from, std::size_t size);
extern const char PlatformCopyBytesFirst[];
extern const char PlatformCopyBytesEnd[];
extern const char PlatformCopyBytesFaulted[];

__asm__(R"(
        .pushsection .text
        .globl PlatformCopyBytes
        .type PlatformCopyBytes, @function
PlatformCopyBytes:
        .cfi_startproc
PlatformCopyBytesFirst:
        cmpq    $8, %rdx
        je      8f
        cmpq    $4, %rdx
        je      4f
        cmpq    $2, %rdx
        je      2f
        cmpq    $1, %rdx
        je      1f
        movq    %rdx, %rcx
        rep movsb
        jmp     9f
8:      movq    (%rsi), %rax
        movq    %rax, (%rdi)
        jmp     9f
4:      movl    (%rsi), %eax
        movl    %eax, (%rdi)
        jmp     9f
2:      movw    (%rsi), %ax
        movw    %ax, (%rdi)
        jmp     9f
1:      movb    (%rsi), %al
        movb    %al, (%rdi)
PlatformCopyBytesEnd:
9:      movl    $1, %eax
        ret
PlatformCopyBytesFaulted:
        xorl    %eax, %eax
        ret
        .cfi_endproc
        .size PlatformCopyBytes, . - PlatformCopyBytes
        .popsection
)");

}  // extern "C"

namespace {

struct sigaction previousForSegv;
struct sigaction previousForBus;

void PassOn(int signal, siginfo_t* info, void* context) {
    const struct sigaction& previous = signal == SIGSEGV ? previousForSegv : previousForBus;
    if ((previous.sa_flags & SA_SIGINFO) != 0) {
        previous.sa_sigaction(signal, info, context);
    } else if (previous.sa_handler != SIG_DFL && previous.sa_handler != SIG_IGN) {
        previous.sa_handler(signal);
    } else {
        // The access is repeated and ends the process.
        ::signal(signal, SIG_DFL);
    }
}

void HandleFault(int signal, siginfo_t* info, void* context) {
    auto& instruction = static_cast<ucontext_t*>(context)->uc_mcontext.gregs[REG_RIP];
    const auto address = static_cast<std::uintptr_t>(instruction);
    if (address >= reinterpret_cast<std::uintptr_t>(PlatformCopyBytesFirst) &&
        address < reinterpret_cast<std::uintptr_t>(PlatformCopyBytesEnd)) {
        instruction =
            static_cast<greg_t>(reinterpret_cast<std::uintptr_t>(PlatformCopyBytesFaulted));
        return;
    }
    PassOn(signal, info, context);
}

bool InstallHandlers() {
    struct sigaction action {};
    action.sa_sigaction = HandleFault;
    // SA_NODEFER: a previous handler may itself end in a fault that is to be reported.
    action.sa_flags = SA_SIGINFO | SA_ONSTACK | SA_NODEFER;
    sigemptyset(&action.sa_mask);
    if (sigaction(SIGSEGV, &action, &previousForSegv) != 0 ||
        sigaction(SIGBUS, &action, &previousForBus) != 0) {
        std::perror("protected access: cannot install the fault handlers");
        std::abort();
    }
    return true;
}

[[maybe_unused]] const bool handlersInstalled = InstallHandlers();

}  // namespace

extern "C" bool NTAPI PlatformCopyProtected(void* to, const void* from, SIZE_T size) {
    platform::RequireIrql("PlatformCopyProtected", APC_LEVEL);
    return PlatformCopyBytes(to, from, size) != 0;
}
