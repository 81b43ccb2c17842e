// The key-name tree's part of the library's interface.
#include "supportlib/key_contexts.h"
#include "supportlib/key_tree.h"
#include "supportlib/read_section.h"

using namespace zpklib;

namespace {

PVOID ReferencedContext(ZPK_NODE* node) {
    PVOID context = ReadPointerAcquire(&node->Context);
    if (context != nullptr) {
        ReferenceKeyContext(context);
    }
    return context;
}

}  // namespace

extern "C" {

NTSTATUS NTAPI ZPkDtInitialize(const KeyTreeConfig* config, ULONG options, ZPK_KEY_TREE** tree) {
    *tree = nullptr;
    if (options != ZPK_TREE_IGNORE_CASE) {
        return STATUS_INVALID_PARAMETER;
    }
    return ZPK_KEY_TREE::Create(*config, tree);
}

NTSTATUS NTAPI ZPkDtDestroy(ZPK_KEY_TREE* tree) {
    tree->Destroy();
    return STATUS_SUCCESS;
}

BOOLEAN NTAPI ZPkDtLookup(ZPK_KEY_TREE* tree, PUNICODE_STRING path, ZPK_NODE** node,
                          PVOID* context) {
    *context = nullptr;
    const TextView text = View(*path);
    TextView rest = text.From(text.Length);
    *node = tree->FindWhole(text);
    if (*node == nullptr) {
        *node = tree->FindLongestPart(text, &rest);
    }
    if (*node == nullptr) {
        return FALSE;
    }
    *context = ReferencedContext(*node);
    const auto matched = static_cast<USHORT>((text.Length - rest.Length) * sizeof(WCHAR));
    path->Buffer += text.Length - rest.Length;
    path->MaximumLength = static_cast<USHORT>(path->MaximumLength - matched);
    path->Length = static_cast<USHORT>(rest.Length * sizeof(WCHAR));
    return TRUE;
}

NTSTATUS NTAPI ZPkDtInsert(ZPK_KEY_TREE* tree, PCUNICODE_STRING path, PVOID context,
                           ZPK_NODE** node) {
    ZPK_NODE* base = *node;
    *node = nullptr;
    const NTSTATUS status = tree->Insert(base, View(*path), context, node);
    if (base != nullptr) {
        tree->Release(base);
    }
    return status;
}

void NTAPI ZPkDtReleaseNode(ZPK_KEY_TREE* tree, ZPK_NODE* node) {
    tree->Release(node);
}

PVOID NTAPI ZPkDtAllocateContext(ZPK_KEY_TREE* tree, ULONG /*reserved*/) {
    return AllocateKeyContext(tree->Config());
}

PVOID NTAPI ZPkDtGetContext(ZPK_KEY_TREE* /*tree*/, ZPK_NODE* node) {
    return ReferencedContext(node);
}

BOOLEAN NTAPI ZPkDtInsertContext(ZPK_KEY_TREE* /*tree*/, ZPK_NODE* node, PVOID context) {
    ReferenceKeyContext(context);
    if (InterlockedCompareExchangePointer(&node->Context, context, nullptr) != nullptr) {
        ReleaseKeyContext(context);
        return FALSE;
    }
    return TRUE;
}

NTSTATUS NTAPI ZPkDtDelete(ZPK_KEY_TREE* tree, PVOID /*reserved*/, ZPK_NODE* node) {
    return tree->Delete(node);
}

NTSTATUS NTAPI ZPkDtGetName(ZPK_KEY_TREE* /*tree*/, ZPK_NODE* node, PUNICODE_STRING name) {
    ReadSection section;  // a rename may replace the path meanwhile
    const TextView path = node->CurrentPath()->Text();
    const auto bytes = static_cast<USHORT>(path.Length * sizeof(WCHAR));
    if (name->Buffer == nullptr || name->MaximumLength < bytes) {
        name->MaximumLength = bytes;
        return STATUS_BUFFER_TOO_SMALL;
    }
    RtlCopyMemory(name->Buffer, path.Text, bytes);
    name->Length = bytes;
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI ZPkDtRename(ZPK_KEY_TREE* tree, PCUNICODE_STRING newName, ZPK_NODE** node) {
    // Renaming keeps the node: whoever references it sees its new path.
    return tree->Rename(*node, View(*newName));
}

}  // extern "C"
