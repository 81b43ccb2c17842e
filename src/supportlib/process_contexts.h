// Context blocks that clients attach to processes.
#pragma once

#include "supportlib/processes.h"

namespace zpklib {

/// Hidden in front of the client's block. Linked to one process at most, once.
struct alignas(16) ProcessContext {
    ZPK_PROCESS_TRACKING* Registration;  ///< referenced
    PVOID volatile NextOfProcess;        ///< ProcessContext
    ProcessContext* NextDetached;
    volatile LONG References;

    PVOID Block() { return this + 1; }
    static ProcessContext* Of(PVOID block) { return static_cast<ProcessContext*>(block) - 1; }
};

/// Starts with no registration.
void InitializeProcessContexts();

/// The registration's block of the process with a reference, or null.
PVOID ReferencedContext(Process* process, ZPK_PROCESS_TRACKING* registration);

/// Takes all contexts off a process; under the process table's mutex.
ProcessContext* DetachContexts(Process* process);
/// Drops the library's references on detached contexts; every detached one has to come here, since
/// the end of its registration waits for it. PASSIVE_LEVEL, no mutex held, after a wait
/// for readers.
void ReleaseDetached(ProcessContext* contexts);

}  // namespace zpklib
