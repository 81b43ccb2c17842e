#include "records/acl_equal.h"

namespace zpregflt {

namespace {

/// One entry, header and all; none for null bytes. Nothing says that it is aligned.
struct AceBytes {
    const UCHAR* bytes;
    USHORT size;
};

/// Goes through a list's entries. Asking for each by its index would begin at the list's start
/// every time, and a list has room for thousands.
class AceReader {
public:
    explicit AceReader(PACL acl)
        : next_(reinterpret_cast<const UCHAR*>(acl + 1)),
          end_(reinterpret_cast<const UCHAR*>(acl) + acl->AclSize) {}

    /// The next entry; none when there is none that lies within the list.
    AceBytes Next() {
        ACE_HEADER header;
        if (next_ > end_ || Rest() < sizeof(header)) {
            return {};
        }
        RtlCopyMemory(&header, next_, sizeof(header));
        if (header.AceSize < sizeof(header) || header.AceSize > Rest()) {
            return {};
        }
        const UCHAR* const bytes = next_;
        next_ += header.AceSize;
        return {bytes, header.AceSize};
    }

private:
    SIZE_T Rest() const { return static_cast<SIZE_T>(end_ - next_); }

    const UCHAR* next_;
    const UCHAR* end_;
};

bool Same(const AceBytes& first, const AceBytes& second) {
    return first.size == second.size &&
           RtlCompareMemory(first.bytes, second.bytes, first.size) == first.size;
}

bool Holds(PACL acl, const AceBytes& wanted) {
    AceReader reader(acl);
    for (ULONG i = 0; i < acl->AceCount; ++i) {
        const AceBytes ace = reader.Next();
        if (ace.bytes == nullptr) {
            return false;
        }
        if (Same(wanted, ace)) {
            return true;
        }
    }
    return false;
}

}  // namespace

bool AclEqual(PACL first, PACL second) {
    if (first->AceCount != second->AceCount) {
        return false;
    }
    AceReader reader(first);
    for (ULONG i = 0; i < first->AceCount; ++i) {
        const AceBytes ace = reader.Next();
        if (ace.bytes == nullptr || !Holds(second, ace)) {
            return false;
        }
    }
    return true;
}

}  // namespace zpregflt
