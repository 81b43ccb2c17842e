// Names of the table's slots: the functions that this stand-in offers and their neighbours that a
// control-device driver is likely to call, so that a stop at an empty slot says what was called.
#include "platform/framework/function_table.h"

#include <algorithm>
#include <iterator>

namespace platform::framework {

namespace {

struct NamedSlot {
    std::size_t index;
    const char* name;
};

// In rising order of the index.
constexpr NamedSlot kNames[] = {
    {25, "WdfControlDeviceInitAllocate"},
    {26, "WdfControlDeviceInitSetShutdownNotification"},
    {27, "WdfControlFinishInitializing"},
    {30, "WdfWdmDeviceGetWdfDeviceHandle"},
    {31, "WdfDeviceWdmGetDeviceObject"},
    {39, "WdfDeviceGetDriver"},
    {54, "WdfDeviceInitFree"},
    {61, "WdfDeviceInitSetIoType"},
    {62, "WdfDeviceInitSetExclusive"},
    {66, "WdfDeviceInitSetDeviceType"},
    {67, "WdfDeviceInitAssignName"},
    {68, "WdfDeviceInitAssignSDDLString"},
    {69, "WdfDeviceInitSetDeviceClass"},
    {70, "WdfDeviceInitSetCharacteristics"},
    {71, "WdfDeviceInitSetFileObjectConfig"},
    {72, "WdfDeviceInitSetRequestAttributes"},
    {73, "WdfDeviceInitAssignWdmIrpPreprocessCallback"},
    {74, "WdfDeviceInitSetIoInCallerContextCallback"},
    {75, "WdfDeviceCreate"},
    {80, "WdfDeviceCreateSymbolicLink"},
    {90, "WdfDeviceGetFileObject"},
    {91, "WdfDeviceEnqueueRequest"},
    {92, "WdfDeviceGetDefaultQueue"},
    {93, "WdfDeviceConfigureRequestDispatching"},
    {116, "WdfDriverCreate"},
    {117, "WdfDriverGetRegistryPath"},
    {118, "WdfDriverWdmGetDriverObject"},
    {120, "WdfWdmDriverGetWdfDriverHandle"},
    {122, "WdfDriverRetrieveVersionString"},
    {123, "WdfDriverIsVersionAvailable"},
    {137, "WdfFileObjectGetFileName"},
    {139, "WdfFileObjectGetDevice"},
    {140, "WdfFileObjectWdmGetFileObject"},
    {152, "WdfIoQueueCreate"},
    {153, "WdfIoQueueGetState"},
    {154, "WdfIoQueueStart"},
    {155, "WdfIoQueueStop"},
    {156, "WdfIoQueueStopSynchronously"},
    {157, "WdfIoQueueGetDevice"},
    {158, "WdfIoQueueRetrieveNextRequest"},
    {159, "WdfIoQueueRetrieveRequestByFileObject"},
    {160, "WdfIoQueueFindRequest"},
    {161, "WdfIoQueueRetrieveFoundRequest"},
    {162, "WdfIoQueueDrainSynchronously"},
    {163, "WdfIoQueueDrain"},
    {164, "WdfIoQueuePurgeSynchronously"},
    {165, "WdfIoQueuePurge"},
    {166, "WdfIoQueueReadyNotify"},
    {192, "WdfMemoryCreate"},
    {194, "WdfMemoryGetBuffer"},
    {202, "WdfObjectGetTypedContextWorker"},
    {203, "WdfObjectAllocateContext"},
    {204, "WdfObjectContextGetObject"},
    {205, "WdfObjectReferenceActual"},
    {206, "WdfObjectDereferenceActual"},
    {207, "WdfObjectCreate"},
    {208, "WdfObjectDelete"},
    {255, "WdfRequestMarkCancelable"},
    {256, "WdfRequestUnmarkCancelable"},
    {257, "WdfRequestIsCanceled"},
    {259, "WdfRequestIsFrom32BitProcess"},
    {263, "WdfRequestComplete"},
    {264, "WdfRequestCompleteWithPriorityBoost"},
    {265, "WdfRequestCompleteWithInformation"},
    {266, "WdfRequestGetParameters"},
    {267, "WdfRequestRetrieveInputMemory"},
    {268, "WdfRequestRetrieveOutputMemory"},
    {269, "WdfRequestRetrieveInputBuffer"},
    {270, "WdfRequestRetrieveOutputBuffer"},
    {273, "WdfRequestRetrieveUnsafeUserInputBuffer"},
    {274, "WdfRequestRetrieveUnsafeUserOutputBuffer"},
    {275, "WdfRequestSetInformation"},
    {276, "WdfRequestGetInformation"},
    {277, "WdfRequestGetFileObject"},
    {278, "WdfRequestProbeAndLockUserBufferForRead"},
    {279, "WdfRequestProbeAndLockUserBufferForWrite"},
    {280, "WdfRequestGetRequestorMode"},
    {281, "WdfRequestForwardToIoQueue"},
    {282, "WdfRequestGetIoQueue"},
    {283, "WdfRequestRequeue"},
    {285, "WdfRequestWdmGetIrp"},
    {310, "WdfObjectAcquireLock"},
    {311, "WdfObjectReleaseLock"},
    {312, "WdfWaitLockCreate"},
    {313, "WdfWaitLockAcquire"},
    {314, "WdfWaitLockRelease"},
    {315, "WdfSpinLockCreate"},
    {316, "WdfSpinLockAcquire"},
    {317, "WdfSpinLockRelease"},
    {318, "WdfTimerCreate"},
    {319, "WdfTimerStart"},
    {320, "WdfTimerStop"},
    {321, "WdfTimerGetParentObject"},
    {367, "WdfVerifierDbgBreakPoint"},
    {368, "WdfVerifierKeBugCheck"},
    {379, "WdfWorkItemCreate"},
    {380, "WdfWorkItemEnqueue"},
    {381, "WdfWorkItemGetParentObject"},
    {382, "WdfWorkItemFlush"},
    {393, "WdfRequestMarkCancelableEx"},
    {418, "WdfIoQueueStopAndPurge"},
    {419, "WdfIoQueueStopAndPurgeSynchronously"},
};

}  // namespace

const char* FunctionName(std::size_t index) {
    const auto* found =
        std::lower_bound(std::begin(kNames), std::end(kNames), index,
                         [](const NamedSlot& slot, std::size_t key) { return slot.index < key; });
    return found != std::end(kNames) && found->index == index ? found->name : nullptr;
}

}  // namespace platform::framework
