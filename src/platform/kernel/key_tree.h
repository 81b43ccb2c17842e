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
    bool IsVolatile() const { return kind_.isVolatile; }
    bool IsLink() const { return kind_.isLink; }
    bool IsPermanent() const { return kind_.isPermanent; }
    /// The node is out of the tree: it has no name, subkeys or values any more.
    bool IsDeleted() const { return isDeleted_; }
    /// Levels below \REGISTRY, which is 0.
    unsigned Depth() const { return depth_; }
    LONGLONG LastWriteTime() const { return lastWriteTime_; }
    void SetLastWriteTime(LONGLONG time) { lastWriteTime_ = time; }
    /// The name from \REGISTRY down. The node is not deleted.
    std::u16string FullName() const;
    KeyCounts Counts() const;

    /// Null when there is none. `name` has at most kMaxKeyNameCharacters.
    KeyNode* FindSubkey(std::u16string_view name) const;
    /// By upper-case name order; null behind the last.
    KeyNode* SubkeyAt(std::size_t index) const;
    bool HasSubkeys() const { return !subkeys_.empty(); }
    /// The name must be free.
    KeyNode& AddSubkey(std::u16string_view name, Kind kind);
    /// Takes this node out of its parent; it has no subkeys and is not permanent.
    void Delete();
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

    std::u16string name_;
    std::u16string upperName_;
    std::u16string class_;
    KeyNode* parent_ = nullptr;        ///< owns this node; null at the root and when deleted
    std::vector<KeyNodeRef> subkeys_;  ///< sorted by upperName_
    std::vector<KeyValue> values_;     ///< in order of creation
    LONGLONG lastWriteTime_ = 0;
    unsigned depth_ = 0;
    Kind kind_;
    bool isDeleted_ = false;
};

struct KeyTree {
    std::shared_mutex lock;
    KeyNodeRef root;  ///< \REGISTRY; never changes
};

/// The machine's registry; exists between InitializeRegistry and DestroyRegistry.
KeyTree& RegistryTree();

}  // namespace platform
