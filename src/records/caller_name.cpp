#include "records/caller_name.h"

#include "records/caller_memory.h"
#include "records/record_size.h"

namespace zpregflt {

CallerName::CallerName(PCUNICODE_STRING name) {
    UNICODE_STRING text;
    if (!ReadString(name, text)) {
        return;
    }
    block_.Reset(static_cast<PWSTR>(
        ExAllocatePoolWithTag(PagedPool, text.Length + kTerminator, kKeyPathTag)));
    if (block_ && CopyStringFromCaller(block_.Get(), &text, text.Length)) {
        text_ = {text.Length, text.Length, block_.Get()};
    }
}

}  // namespace zpregflt
