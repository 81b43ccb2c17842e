// The table's functions for all kinds of objects: references, contexts, deletion.
#include "platform/framework/contract.h"
#include "platform/framework/function_table.h"
#include "platform/framework/object.h"

namespace platform::framework {

namespace {

PVOID NTAPI ObjectGetTypedContextWorker(PWDF_DRIVER_GLOBALS globals, WDFOBJECT handle,
                                        PCWDF_OBJECT_CONTEXT_TYPE_INFO type) {
    const Call call(globals, "WdfObjectGetTypedContextWorker", DISPATCH_LEVEL);
    const Object& object = call.ToObject(handle);
    return object.FindContext(call.NotNull(type, "TypeInfo"));
}

NTSTATUS NTAPI ObjectAllocateContext(PWDF_DRIVER_GLOBALS globals, WDFOBJECT handle,
                                     PWDF_OBJECT_ATTRIBUTES attributes, PVOID* context) {
    const Call call(globals, "WdfObjectAllocateContext", DISPATCH_LEVEL);
    Object& object = call.ToObject(handle);
    call.NotNull(attributes, "ContextAttributes");
    if (const auto fault = call.PlannedFault()) return *fault;
    const NTSTATUS status = ValidateAttributes(attributes, ParentRule::kForbidden);
    if (!NT_SUCCESS(status)) return status;
    if (attributes->ContextTypeInfo == nullptr) return STATUS_OBJECT_NAME_INVALID;
    return object.AddContext(*attributes, context);
}

WDFOBJECT NTAPI ObjectContextGetObject(PWDF_DRIVER_GLOBALS globals, PVOID context) {
    const Call call(globals, "WdfObjectContextGetObject", DISPATCH_LEVEL);
    call.NotNull(static_cast<char*>(context), "ContextPointer");
    const Object* object = Object::FromContext(context);
    if (object == nullptr) {
        FrameworkBugcheck("WdfObjectContextGetObject: the address is no object's context", context);
    }
    return object->Handle();
}

void NTAPI ObjectReferenceActual(PWDF_DRIVER_GLOBALS globals, WDFOBJECT handle, PVOID /*tag*/,
                                 LONG /*line*/, PCHAR /*file*/) {
    const Call call(globals, "WdfObjectReferenceActual", DISPATCH_LEVEL);
    call.ToObject(handle).AddDriverReference();
}

void NTAPI ObjectDereferenceActual(PWDF_DRIVER_GLOBALS globals, WDFOBJECT handle, PVOID /*tag*/,
                                   LONG /*line*/, PCHAR /*file*/) {
    const Call call(globals, "WdfObjectDereferenceActual", DISPATCH_LEVEL);
    call.ToObject(handle).DropDriverReference(call.Function());
}

void NTAPI ObjectDelete(PWDF_DRIVER_GLOBALS globals, WDFOBJECT handle) {
    const Call call(globals, "WdfObjectDelete", DISPATCH_LEVEL);
    Object& object = call.ToObject(handle);
    if (!object.DriverMayDelete()) {
        call.VerifierBreak(object.Describe() + " is deleted by the framework only", handle);
        return;
    }
    const std::string description = VerifierEnabled() ? object.Describe() : std::string();
    if (!object.DeleteByDriver()) {
        call.VerifierBreak(description + " was deleted before", handle);
    }
}

}  // namespace

void AddObjectFunctions(FunctionTable& table) {
    table.Set(WdfObjectGetTypedContextWorkerTableIndex, &ObjectGetTypedContextWorker);
    table.Set(WdfObjectAllocateContextTableIndex, &ObjectAllocateContext);
    table.Set(WdfObjectContextGetObjectTableIndex, &ObjectContextGetObject);
    table.Set(WdfObjectReferenceActualTableIndex, &ObjectReferenceActual);
    table.Set(WdfObjectDereferenceActualTableIndex, &ObjectDereferenceActual);
    table.Set(WdfObjectDeleteTableIndex, &ObjectDelete);
}

}  // namespace platform::framework
