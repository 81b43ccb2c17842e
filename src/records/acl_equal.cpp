#include "records/acl_equal.h"

namespace zpregflt {

namespace {

/// Goes through a list's entries. Asking for each by its index would begin at the list's start
/// every time, and a list has room for thousands.
class AceReader {
public:
    explicit AceReader(PACL acl)
        : next_(reinterpret_cast<UCHAR*>(acl + 1)),
          end_(reinterpret_cast<UCHAR*>(acl) + acl->AclSize) {}

    /// The next entry; null when there is none that lies within the list.
    const ACE_HEADER* Next() {
        if (next_ > end_ || Rest() < sizeof(ACE_HEADER)) {
            return nullptr;
        }
        const auto* const ace = reinterpret_cast<const ACE_HEADER*>(next_);
        if (ace->AceSize < sizeof(ACE_HEADER) || ace->AceSize > Rest()) {
            return nullptr;
        }
        next_ += ace->AceSize;
        return ace;
    }

private:
    SIZE_T Rest() const { return static_cast<SIZE_T>(end_ - next_); }

    UCHAR* next_;
    UCHAR* end_;
};

bool Same(const ACE_HEADER& first, const ACE_HEADER& second) {
    return first.AceSize == second.AceSize &&
           RtlCompareMemory(&first, &second, first.AceSize) == first.AceSize;
}

bool Holds(PACL acl, const ACE_HEADER& wanted) {
    AceReader reader(acl);
    for (ULONG i = 0; i < acl->AceCount; ++i) {
        const ACE_HEADER* const ace = reader.Next();
        if (ace == nullptr) {
            return false;
        }
        if (Same(wanted, *ace)) {
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
        const ACE_HEADER* const ace = reader.Next();
        if (ace == nullptr || !Holds(second, *ace)) {
            return false;
        }
    }
    return true;
}

}  // namespace zpregflt
