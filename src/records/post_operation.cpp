#include "records/post_operation.h"

#include "intercept/operation_trace.h"
#include "records/caller_memory.h"
#include "records/record_size.h"
#include "records/record_writer.h"

namespace zpregflt {

void TraceKey(const PostOperation& post, OperationMask bit, const char* label) {
    TraceOperation(post.Object, bit, "process %p, key %p %Z: %s", label);
}

bool WriteHeaderRecord(RecordType type, const PostOperation& post, OperationMask bit,
                       const UNICODE_STRING* capturedPath) {
    const RecordWriter<RecordHeader> record(type, post.Object, ContextOf(post), bit,
                                            sizeof(RecordHeader), capturedPath);
    return static_cast<bool>(record);
}

bool WriteInformationRecord(RecordType type, const PostOperation& post, OperationMask bit,
                            ULONG informationClass, const void* data, ULONG length) {
    const RecordWriter<InformationRecord> record(type, post.Object, ContextOf(post), bit,
                                                 RecordSize(sizeof(InformationRecord), length));
    if (!record) {
        return false;
    }
    record->InformationClass = informationClass;
    record->DataLength = CopyOrNothing(record.At(sizeof(InformationRecord)), data, length);
    return true;
}

}  // namespace zpregflt
