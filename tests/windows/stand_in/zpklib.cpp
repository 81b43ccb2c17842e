// A driver that does nothing, in the place of the support library.
#include "kernel.h"

namespace {

void NTAPI OnUnload(PDRIVER_OBJECT) {}

}  // namespace

extern "C" NTSTATUS NTAPI DriverEntry(PDRIVER_OBJECT driver, PUNICODE_STRING) {
    driver->DriverUnload = OnUnload;
    return STATUS_SUCCESS;
}
