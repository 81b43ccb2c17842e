// What the recorders of finished operations share.
#pragma once

#include <ntifs.h>

#include "intercept/contexts.h"
#include "records/record_format.h"

namespace zpregflt {

using PostOperation = REG_POST_OPERATION_INFORMATION;

inline KeyObjectContext& ContextOf(const PostOperation& post) {
    return *static_cast<KeyObjectContext*>(post.ObjectContext);
}

/// The operation's own structure, as its pre-notification had it.
template <typename Request>
const Request& RequestOf(const PostOperation& post) {
    return *static_cast<const Request*>(post.PreInformation);
}

/// The verbose trace of an operation that has nothing to tell but its label.
void TraceKey(const PostOperation& post, OperationMask bit, const char* label);

/// Writes a record that is its header alone. `capturedPath` as for RecordWriter.
bool WriteHeaderRecord(RecordType type, const PostOperation& post, OperationMask bit,
                       const UNICODE_STRING* capturedPath = nullptr);

/// Writes a record of one block of the caller's memory. Data that cannot be read are recorded as
/// none.
bool WriteInformationRecord(RecordType type, const PostOperation& post, OperationMask bit,
                            ULONG informationClass, const void* data, ULONG length);

}  // namespace zpregflt
