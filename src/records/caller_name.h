// A caller's string, for use beyond a record.
#pragma once

#include <ntifs.h>

#include "intercept/key_path.h"

namespace zpregflt {

/// The string copied once into pool under fault protection. Empty, and false, when it cannot be
/// read or there is no memory. PASSIVE_LEVEL.
class CallerName {
public:
    explicit CallerName(PCUNICODE_STRING name);

    explicit operator bool() const { return text_.Buffer != nullptr; }
    const UNICODE_STRING& Text() const { return text_; }

private:
    PoolBlock<WCHAR, kKeyPathTag> block_;
    UNICODE_STRING text_ = {};
};

}  // namespace zpregflt
