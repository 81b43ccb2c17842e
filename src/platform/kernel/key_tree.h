// Keys and values in memory.
//
// Everything in a KeyNode is guarded by the lock of the KeyTree that it belongs to: shared to read,
// exclusive to change. A node lives as long as the tree or an open key refers to it.
#pragma once

#include <ntifs.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <shared_mutex>
#include <string>
#include <string_view>
#include <vector>

namespace platform {

/// Longest name of a key, longest name of a value, deepest key, in characters and levels.
inline constexpr std::size_t kMaxKeyNameCharacters = 255;
inline constexpr std::size_t kMaxValueNameCharacters = 16383;
inline constexpr unsigned kMaxKeyDepth = 512;

struct KeyValue {
    std::u16string name;  ///< empty: the default value
    std::size_t nameHash;
    ULONG type;
    std::vector<std::byte> data;
};

/// Counts of a key's contents, lengths in bytes. The maxima are those of what is there now.
struct KeyCounts {
    ULONG subkeys = 0;
    ULONG maxNameLength = 0;
    ULONG maxClassLength = 0;
    ULONG values = 0;
    ULONG maxValueNameLength = 0;
    ULONG maxValueDataLength = 0;
};

/// What NtSetInformationKey keeps of its flag classes. They have no effect.
struct KeyFlags {
    ULONG wow64 = 0;
    ULONG control = 0;
    ULONG virtualization = 0;
};

struct Hive;
using HiveRef = std::shared_ptr<Hive>;
class KeySecurity;
using KeySecurityRef = std::shared_ptr<const KeySecurity>;
class KeyNode;
using KeyNodeRef = std::shared_ptr<KeyNode>;

class KeyNode : public std::enable_shared_from_this<KeyNode> {
public:
    struct Kind {
        bool isVolatile = false;
        bool isLink = false;
        bool isPermanent = false;  ///< cannot be deleted or renamed
    };

    KeyNode(std::u16string_view name, Kind kind);
    ~KeyNode();
    KeyNode(const KeyNode&) = delete;
    KeyNode& operator=(const KeyNode&) = delete;

    const std::u16string& Name() const { return name_; }
    const std::u16string& Class() const { return class_; }
    void SetClass(std::u16string_view text) { class_ = text; }
    /// Never null in the registry's tree.
    const KeySecurityRef& Security() const { return security_; }
    void SetSecurity(KeySecurityRef security) { security_ = std::move(security); }
    bool IsVolatile() const { return kind_.isVolatile; }
    bool IsLink() const { return kind_.isLink; }
    /// Cannot be deleted or renamed: a permanent key, or the root of a mounted hive.
    bool IsPermanent() const { return kind_.isPermanent || hive_ != nullptr; }
    /// The hive whose root this node is; null for other nodes.
    const HiveRef& MountedHive() const { return hive_; }
    void Mount(HiveRef hive) { hive_ = std::move(hive); }
    void MakeLink() { kind_.isLink = true; }
    /// The node is out of the tree: it has no name, subkeys or values any more.
    bool IsDeleted() const { return isDeleted_; }
    /// Levels below \REGISTRY, which is 0.
    unsigned Depth() const { return depth_; }
    LONGLONG LastWriteTime() const { return lastWriteTime_; }
    void SetLastWriteTime(LONGLONG time) { lastWriteTime_ = time; }
    const KeyFlags& Flags() const { return flags_; }
    void SetFlags(const KeyFlags& flags) { flags_ = flags; }
    /// The name from \REGISTRY down. The node is not deleted.
    std::u16string FullName() const;
    KeyCounts Counts() const;

    /// Null when there is none. `name` has at most kMaxKeyNameCharacters.
    KeyNode* FindSubkey(std::u16string_view name) const;
    /// By upper-case name order; null behind the last.
    KeyNode* SubkeyAt(std::size_t index) const;
    bool HasSubkeys() const { return !subkeys_.empty(); }
    /// The name must be free. The new key has this one's security.
    KeyNode& AddSubkey(std::u16string_view name, Kind kind);
    /// Takes this node, and all that is below it, out of the tree.
    void Delete();
    /// Gives this node the class, values, subkeys, flags and security of `content`, a root of its
    /// own, which is left empty. What was below this node is deleted; what comes is volatile if
    /// this node is.
    void ReplaceContents(KeyNode& content);
    /// Levels below this one.
    unsigned Height() const;
    /// Whether anybody but the tree holds a node below this one. With the tree's lock held
    /// exclusively.
    bool HasOpenSubkeys() const;
    /// Gives this node another name, which is free among its siblings or differs only in case.
    void Rename(std::u16string_view name);

    const KeyNode* Parent() const { return parent_; }

    const KeyValue* FindValue(std::u16string_view name) const;
    /// In order of creation; null behind the last.
    const KeyValue* ValueAt(std::size_t index) const;
    /// Creates the value, or replaces type and data of the one that is there in its place.
    void SetValue(std::u16string_view name, ULONG type, std::vector<std::byte> data);
    /// False when there is none.
    bool DeleteValue(std::u16string_view name);

private:
    std::size_t SubkeyPosition(std::u16string_view upperName) const;
    void InsertSubkey(KeyNodeRef subkey);
    KeyNodeRef RemoveSubkey(const KeyNode& subkey);
    void Touch();
    void MarkDeleted();
    void DropContents();
    void AdoptSubkeys();

    std::u16string name_;
    std::u16string upperName_;
    std::u16string class_;
    KeySecurityRef security_;
    HiveRef hive_;
    KeyNode* parent_ = nullptr;        ///< owns this node; null at the root and when deleted
    std::vector<KeyNodeRef> subkeys_;  ///< sorted by upperName_
    std::vector<KeyValue> values_;     ///< in order of creation
    LONGLONG lastWriteTime_ = 0;
    unsigned depth_ = 0;
    Kind kind_;
    KeyFlags flags_;
    bool isDeleted_ = false;
};

struct KeyTree {
    std::shared_mutex lock;
    KeyNodeRef root;  ///< \REGISTRY; never changes
};

/// The machine's registry; exists between InitializeRegistry and DestroyRegistry.
KeyTree& RegistryTree();

}  // namespace platform
