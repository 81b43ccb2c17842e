#include "driver/exemption_update.h"

#include "driver/control_codes.h"
#include "driver/driver_state.h"
#include "intercept/tracing.h"

namespace zpregflt {

namespace {

constexpr ULONG kIdentifierSize = 16;
/// Counted strings have 16-bit lengths in bytes.
constexpr SIZE_T kLongestString = 0xFFFF;

/// One entry in the request's input: its header, and the bytes from its start to the input's end.
struct EntryView {
    const UCHAR* start;
    SIZE_T remaining;
    ExemptionRequest header;
};

/// The entry's items as the library takes them; they point into the input.
struct EntryItems {
    ANSI_STRING narrowName;
    UNICODE_STRING wideName1;
    UNICODE_STRING wideName2;
    ExemptionEntry entry;
};

/// An entry may start anywhere, also on an odd address. False: its header is cut off.
bool ReadEntry(const UCHAR* start, SIZE_T remaining, EntryView& view) {
    view = {start, remaining, {}};
    if (remaining < sizeof(ExemptionRequest)) {
        return false;
    }
    RtlCopyMemory(&view.header, start, sizeof(view.header));
    return true;
}

/// Length in characters of the terminated string at `text`, of which `limit` characters may be
/// looked at; false when there is no terminator among them.
template <typename Character>
bool FindTerminator(const UCHAR* text, SIZE_T limit, SIZE_T& length) {
    for (length = 0; length < limit; ++length) {
        Character character;
        RtlCopyMemory(&character, text + length * sizeof(character), sizeof(character));
        if (character == 0) {
            return length * sizeof(character) <= kLongestString;
        }
    }
    return false;
}

bool TakeNarrowName(const EntryView& view, EntryItems& items) {
    const SIZE_T offset = view.header.NarrowNameOffset;
    if (offset == 0) {
        return true;
    }
    SIZE_T length = 0;
    if (offset >= view.remaining ||
        !FindTerminator<char>(view.start + offset, view.remaining - offset, length) ||
        length == 0) {
        return false;
    }
    const auto bytes = static_cast<USHORT>(length);
    items.narrowName = {bytes, bytes,
                        reinterpret_cast<PCHAR>(const_cast<UCHAR*>(view.start + offset))};
    items.entry.NarrowName = &items.narrowName;
    return true;
}

bool TakeWideName(const EntryView& view, SIZE_T offset, UNICODE_STRING& name,
                  const UNICODE_STRING*& member) {
    if (offset == 0) {
        return true;
    }
    SIZE_T length = 0;
    if (offset >= view.remaining ||
        !FindTerminator<WCHAR>(view.start + offset, (view.remaining - offset) / sizeof(WCHAR),
                               length)) {
        return false;
    }
    const auto bytes = static_cast<USHORT>(length * sizeof(WCHAR));
    name = {bytes, bytes, reinterpret_cast<PWSTR>(const_cast<UCHAR*>(view.start + offset))};
    member = &name;
    return true;
}

bool TakeIdentifier(const EntryView& view, EntryItems& items) {
    const SIZE_T offset = view.header.IdentifierOffset;
    if (offset == 0) {
        return true;
    }
    if (offset + kIdentifierSize > view.remaining) {
        return false;
    }
    items.entry.Identifier = view.start + offset;
    return true;
}

bool TakeItems(const EntryView& view, EntryItems& items) {
    if (view.header.NarrowNameOffset == 0 && view.header.WideName1Offset == 0) {
        return false;
    }
    return TakeNarrowName(view, items) &&
           TakeWideName(view, view.header.WideName1Offset, items.wideName1,
                        items.entry.WideName1) &&
           TakeIdentifier(view, items) &&
           TakeWideName(view, view.header.WideName2Offset, items.wideName2, items.entry.WideName2);
}

NTSTATUS ApplyEntry(const EntryView& view, bool remove) {
    EntryItems items = {};
    if (!TakeItems(view, items)) {
        return STATUS_INVALID_PARAMETER;
    }
    const NTSTATUS status = remove ? ZPkPeExemptRemove1(State.Exemptions, &items.entry)
                                   : ZPkPeExemptAdd1(State.Exemptions, &items.entry);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    ZPRF_TRACE(TRACE_CONTROL, TRACE_LEVEL_INFORMATION, "exemption %s %Z %b %Z %s",
               items.entry.NarrowName, items.entry.WideName1,
               RawBytes{items.entry.Identifier, kIdentifierSize}, items.entry.WideName2,
               remove ? "removed" : "added");
    InterlockedIncrement(&State.ExemptionGeneration);
    return STATUS_SUCCESS;
}

}  // namespace

NTSTATUS UpdateExemptions(const void* buffer, SIZE_T length, bool remove) {
    const auto* start = static_cast<const UCHAR*>(buffer);
    for (;;) {
        EntryView view;
        if (!ReadEntry(start, length, view)) {
            return STATUS_INVALID_PARAMETER;
        }
        const NTSTATUS status = ApplyEntry(view, remove);
        if (!NT_SUCCESS(status)) {
            return status;
        }
        const USHORT next = view.header.NextEntryOffset;
        if (next == 0) {
            return STATUS_SUCCESS;
        }
        if (next >= length) {
            return STATUS_INVALID_PARAMETER;
        }
        start += next;
        length -= next;
    }
}

}  // namespace zpregflt
