#include "supportlib/exemptions.h"

#include "supportlib/driver_entry.h"
#include "supportlib/folded_text.h"
#include "supportlib/locks.h"
#include "supportlib/pool_memory.h"
#include "supportlib/processes.h"
#include "supportlib/read_section.h"
#include "supportlib/upper_case.h"

namespace zpklib {

namespace {

/// Names one process of this boot.
struct ProcessIdentifier {
    ULONG64 ProcessId;
    ULONG64 ProcessKey;
};
static_assert(sizeof(ProcessIdentifier) == 16);

/// The library's copy of an ExemptionEntry, with the texts behind it. Never changes.
struct Exemption {
    PVOID volatile Next;  ///< Exemption
    bool HasNarrowName;
    bool HasWideName1;
    bool HasIdentifier;
    bool HasWideName2;
    ANSI_STRING NarrowName;
    UNICODE_STRING WideName1;
    UNICODE_STRING WideName2;
    ProcessIdentifier Identifier;
};

/// Guards the changes of all lists; entries are read in read sections and freed after a wait for
/// readers.
constinit GuardedMutex mutex = {};
/// Every list, under the mutex.
constinit LIST_ENTRY lists = {};

ProcessIdentifier ReadIdentifier(const UCHAR* bytes) {
    ProcessIdentifier identifier;
    RtlCopyMemory(&identifier, bytes, sizeof(identifier));
    return identifier;
}

Exemption* CopyEntry(const ExemptionEntry& entry) {
    const SIZE_T narrow = entry.NarrowName != nullptr ? entry.NarrowName->Length : 0;
    const SIZE_T wide1 = entry.WideName1 != nullptr ? entry.WideName1->Length : 0;
    const SIZE_T wide2 = entry.WideName2 != nullptr ? entry.WideName2->Length : 0;
    auto* copy = AllocateZeroed<Exemption>(PagedPool, kExemptionTag, wide1 + wide2 + narrow);
    if (copy == nullptr) {
        return nullptr;
    }
    auto* room = reinterpret_cast<UCHAR*>(copy + 1);
    const auto copyText = [&room](const auto* from, auto* to, bool* has) {
        if (from == nullptr) {
            return;
        }
        *has = true;
        *to = {from->Length, from->Length, reinterpret_cast<decltype(to->Buffer)>(room)};
        if (from->Length != 0) {
            RtlCopyMemory(room, from->Buffer, from->Length);
        }
        room += from->Length;
    };
    copyText(entry.WideName1, &copy->WideName1, &copy->HasWideName1);
    copyText(entry.WideName2, &copy->WideName2, &copy->HasWideName2);
    copyText(entry.NarrowName, &copy->NarrowName, &copy->HasNarrowName);
    if (entry.Identifier != nullptr) {
        copy->HasIdentifier = true;
        copy->Identifier = ReadIdentifier(entry.Identifier);
    }
    return copy;
}

bool EqualNames(const ANSI_STRING& first, const ANSI_STRING& second) {
    if (first.Length != second.Length) {
        return false;
    }
    for (USHORT i = 0; i < first.Length; ++i) {
        if (Upcase(static_cast<UCHAR>(first.Buffer[i])) !=
            Upcase(static_cast<UCHAR>(second.Buffer[i]))) {
            return false;
        }
    }
    return true;
}

bool EqualNames(const UNICODE_STRING& first, const UNICODE_STRING& second) {
    return EqualFolded(View(first), View(second));
}

template <typename Name>
bool SameMember(bool has, const Name& kept, const Name* given) {
    return has == (given != nullptr) && (!has || EqualNames(kept, *given));
}

bool SameEntry(const Exemption& kept, const ExemptionEntry& given) {
    if (kept.HasIdentifier != (given.Identifier != nullptr)) {
        return false;
    }
    if (kept.HasIdentifier && memcmp(&kept.Identifier, given.Identifier, 16) != 0) {
        return false;
    }
    return SameMember(kept.HasNarrowName, kept.NarrowName, given.NarrowName) &&
           SameMember(kept.HasWideName1, kept.WideName1, given.WideName1) &&
           SameMember(kept.HasWideName2, kept.WideName2, given.WideName2);
}

bool Matches(const Exemption& exemption, const Process& process) {
    const TextView image = View(process.Record.ImagePath);
    if (exemption.HasNarrowName && !EqualFolded(LastComponent(image), exemption.NarrowName)) {
        return false;
    }
    if (exemption.HasWideName1 && exemption.WideName1.Length != 0 &&
        !EndsWithPath(image, View(exemption.WideName1))) {
        return false;
    }
    if (exemption.HasIdentifier && (exemption.Identifier.ProcessId != process.Record.ProcessId ||
                                    exemption.Identifier.ProcessKey != process.Record.ProcessKey)) {
        return false;
    }
    return !exemption.HasWideName2 ||
           EndsWithPath(View(process.CreatorImage), View(exemption.WideName2));
}

}  // namespace

void InitializeExemptions() {
    mutex.Initialize();
    InitializeListHead(&lists);
}

}  // namespace zpklib

using namespace zpklib;

struct ZPK_EXEMPTIONS {
    LIST_ENTRY Lists;
    GUID Id;
    PVOID volatile First;  ///< Exemption; the youngest
};

namespace {

ZPK_EXEMPTIONS* FindList(const GUID& id) {
    for (LIST_ENTRY* at = lists.Flink; at != &lists; at = at->Flink) {
        auto* list = CONTAINING_RECORD(at, ZPK_EXEMPTIONS, Lists);
        if (memcmp(&list->Id, &id, sizeof(id)) == 0) {
            return list;
        }
    }
    return nullptr;
}

/// The link that leads to the entry with the same members; null when there is none.
PVOID volatile* FindLink(ZPK_EXEMPTIONS* list, const ExemptionEntry& entry) {
    PVOID volatile* link = &list->First;
    while (auto* exemption = static_cast<Exemption*>(ReadPointerNoFence(link))) {
        if (SameEntry(*exemption, entry)) {
            return link;
        }
        link = &exemption->Next;
    }
    return nullptr;
}

/// Frees unlinked entries, chained by Next.
void FreeUnlinked(PVOID first) {
    WaitForReaders();
    while (first != nullptr) {
        PVOID next = static_cast<Exemption*>(first)->Next;
        ExFreePoolWithTag(first, kExemptionTag);
        first = next;
    }
}

}  // namespace

extern "C" {

NTSTATUS NTAPI ZPkPeExemptRegister(const GUID* list, ZPK_EXEMPTIONS** exemptions) {
    *exemptions = nullptr;
    auto* made = AllocateZeroed<ZPK_EXEMPTIONS>(PagedPool, kExemptionsTag);
    if (made == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    made->Id = *list;
    MutexGuard guard(mutex);
    if (FindList(*list) != nullptr) {
        ExFreePoolWithTag(made, kExemptionsTag);
        return STATUS_OBJECT_NAME_COLLISION;
    }
    InsertTailList(&lists, &made->Lists);
    *exemptions = made;
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI ZPkPeExemptUnregister(ZPK_EXEMPTIONS* exemptions) {
    {
        MutexGuard guard(mutex);
        RemoveEntryList(&exemptions->Lists);
    }
    FreeUnlinked(exemptions->First);
    ExFreePoolWithTag(exemptions, kExemptionsTag);
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI ZPkPeExemptAdd1(ZPK_EXEMPTIONS* exemptions, const ExemptionEntry* entry) {
    if (entry->NarrowName == nullptr && entry->WideName1 == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    Exemption* copy = CopyEntry(*entry);
    if (copy == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    MutexGuard guard(mutex);
    if (FindLink(exemptions, *entry) != nullptr) {
        ExFreePoolWithTag(copy, kExemptionTag);
        return STATUS_OBJECT_NAME_COLLISION;
    }
    copy->Next = exemptions->First;
    WritePointerRelease(&exemptions->First, copy);
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI ZPkPeExemptRemove1(ZPK_EXEMPTIONS* exemptions, const ExemptionEntry* entry) {
    Exemption* removed = nullptr;
    {
        MutexGuard guard(mutex);
        PVOID volatile* link = FindLink(exemptions, *entry);
        if (link == nullptr) {
            return STATUS_NOT_FOUND;
        }
        removed = static_cast<Exemption*>(ReadPointerNoFence(link));
        WritePointerRelease(link, ReadPointerNoFence(&removed->Next));
    }
    // Readers may stand on the entry and need its link until they are through.
    WaitForReaders();
    ExFreePoolWithTag(removed, kExemptionTag);
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI ZPkPeExemptRemoveAll(ZPK_EXEMPTIONS* exemptions) {
    PVOID removed = nullptr;
    {
        MutexGuard guard(mutex);
        removed = InterlockedExchangePointer(&exemptions->First, nullptr);
    }
    FreeUnlinked(removed);
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI ZPkPeExemptCheck(ZPK_EXEMPTIONS* exemptions, HANDLE processId, PBOOLEAN exempt) {
    *exempt = FALSE;
    ProcessReference process;
    const NTSTATUS status = processTable.Get(processId, process);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    ReadSection section;
    auto* exemption = static_cast<Exemption*>(ReadPointerAcquire(&exemptions->First));
    while (exemption != nullptr && !Matches(*exemption, *process.Get())) {
        exemption = static_cast<Exemption*>(ReadPointerAcquire(&exemption->Next));
    }
    *exempt = exemption != nullptr ? TRUE : FALSE;
    return STATUS_SUCCESS;
}

}  // extern "C"
