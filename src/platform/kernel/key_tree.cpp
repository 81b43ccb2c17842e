#include "platform/kernel/key_tree.h"

#include "platform/kernel/text.h"

#include <algorithm>
#include <utility>

namespace platform {
namespace {

/// A name in upper case, without touching the heap for anything that can be a key's name.
class UpperName {
public:
    explicit UpperName(std::u16string_view name) : size_(name.size()) {
        std::transform(name.begin(), name.end(), text_, Upcase);
    }
    std::u16string_view Text() const { return {text_, size_}; }

private:
    char16_t text_[kMaxKeyNameCharacters];
    std::size_t size_;
};

ULONG ByteLength(std::u16string_view text) {
    return static_cast<ULONG>(text.size() * sizeof(char16_t));
}

}  // namespace

KeyNode::KeyNode(std::u16string_view name, Kind kind)
    : name_(name), upperName_(UpperName(name).Text()), kind_(kind) {
    Touch();
}

KeyNode::~KeyNode() {
    // Open keys may outlive the tree.
    DropContents();
}

void KeyNode::Touch() {
    LARGE_INTEGER now;
    KeQuerySystemTime(&now);
    lastWriteTime_ = now.QuadPart;
}

std::u16string KeyNode::FullName() const {
    std::vector<const KeyNode*> path;
    std::size_t size = 0;
    for (const KeyNode* node = this; node != nullptr; node = node->parent_) {
        path.push_back(node);
        size += 1 + node->name_.size();
    }
    std::u16string name;
    name.reserve(size);
    for (auto node = path.rbegin(); node != path.rend(); ++node) {
        name += u'\\';
        name += (*node)->name_;
    }
    return name;
}

KeyCounts KeyNode::Counts() const {
    KeyCounts counts;
    counts.subkeys = static_cast<ULONG>(subkeys_.size());
    counts.values = static_cast<ULONG>(values_.size());
    for (const KeyNodeRef& subkey : subkeys_) {
        counts.maxNameLength = std::max(counts.maxNameLength, ByteLength(subkey->name_));
        counts.maxClassLength = std::max(counts.maxClassLength, ByteLength(subkey->class_));
    }
    for (const KeyValue& value : values_) {
        counts.maxValueNameLength = std::max(counts.maxValueNameLength, ByteLength(value.name));
        counts.maxValueDataLength =
            std::max(counts.maxValueDataLength, static_cast<ULONG>(value.data.size()));
    }
    return counts;
}

/// Where a subkey of that name is, or would go.
std::size_t KeyNode::SubkeyPosition(std::u16string_view upperName) const {
    const auto position = std::lower_bound(subkeys_.begin(), subkeys_.end(), upperName,
                                           [](const KeyNodeRef& subkey, std::u16string_view name) {
                                               return subkey->upperName_ < name;
                                           });
    return static_cast<std::size_t>(position - subkeys_.begin());
}

KeyNode* KeyNode::FindSubkey(std::u16string_view name) const {
    const UpperName upper(name);
    KeyNode* subkey = SubkeyAt(SubkeyPosition(upper.Text()));
    return subkey != nullptr && subkey->upperName_ == upper.Text() ? subkey : nullptr;
}

KeyNode* KeyNode::SubkeyAt(std::size_t index) const {
    return index < subkeys_.size() ? subkeys_[index].get() : nullptr;
}

void KeyNode::InsertSubkey(KeyNodeRef subkey) {
    const auto position = static_cast<std::ptrdiff_t>(SubkeyPosition(subkey->upperName_));
    subkeys_.insert(subkeys_.begin() + position, std::move(subkey));
    Touch();
}

KeyNodeRef KeyNode::RemoveSubkey(const KeyNode& subkey) {
    const auto position = static_cast<std::ptrdiff_t>(SubkeyPosition(subkey.upperName_));
    KeyNodeRef removed = std::move(subkeys_[static_cast<std::size_t>(position)]);
    subkeys_.erase(subkeys_.begin() + position);
    Touch();
    return removed;
}

KeyNode& KeyNode::AddSubkey(std::u16string_view name, Kind kind) {
    auto subkey = std::make_shared<KeyNode>(name, kind);
    KeyNode& added = *subkey;
    added.parent_ = this;
    added.depth_ = depth_ + 1;
    added.security_ = security_;
    InsertSubkey(std::move(subkey));
    return added;
}

void KeyNode::Delete() {
    const KeyNodeRef self = parent_->RemoveSubkey(*this);
    MarkDeleted();
}

void KeyNode::MarkDeleted() {
    DropContents();
    parent_ = nullptr;
    isDeleted_ = true;
    hive_.reset();
}

void KeyNode::DropContents() {
    for (const KeyNodeRef& subkey : subkeys_)
        subkey->MarkDeleted();
    subkeys_.clear();
    values_.clear();
}

void KeyNode::ReplaceContents(KeyNode& content) {
    DropContents();
    class_ = std::move(content.class_);
    values_ = std::exchange(content.values_, {});
    subkeys_ = std::exchange(content.subkeys_, {});
    flags_ = content.flags_;
    security_ = content.security_;
    AdoptSubkeys();
    lastWriteTime_ = content.lastWriteTime_;
}

void KeyNode::AdoptSubkeys() {
    for (const KeyNodeRef& subkey : subkeys_) {
        subkey->parent_ = this;
        subkey->depth_ = depth_ + 1;
        if (kind_.isVolatile) subkey->kind_.isVolatile = true;
        subkey->AdoptSubkeys();
    }
}

unsigned KeyNode::Height() const {
    unsigned height = 0;
    for (const KeyNodeRef& subkey : subkeys_)
        height = std::max(height, 1 + subkey->Height());
    return height;
}

bool KeyNode::HasOpenSubkeys() const {
    return std::any_of(subkeys_.begin(), subkeys_.end(), [](const KeyNodeRef& subkey) {
        return subkey.use_count() > 1 || subkey->HasOpenSubkeys();
    });
}

void KeyNode::Rename(std::u16string_view name) {
    KeyNodeRef self = parent_->RemoveSubkey(*this);
    name_ = name;
    upperName_ = UpperName(name).Text();
    parent_->InsertSubkey(std::move(self));
    Touch();
}

const KeyValue* KeyNode::FindValue(std::u16string_view name) const {
    const std::size_t hash = HashIgnoringCase(name);
    for (const KeyValue& value : values_) {
        if (value.nameHash == hash && EqualIgnoringCase(value.name, name)) return &value;
    }
    return nullptr;
}

const KeyValue* KeyNode::ValueAt(std::size_t index) const {
    return index < values_.size() ? &values_[index] : nullptr;
}

void KeyNode::SetValue(std::u16string_view name, ULONG type, std::vector<std::byte> data) {
    if (const KeyValue* found = FindValue(name)) {
        KeyValue& value = values_[static_cast<std::size_t>(found - values_.data())];
        value.type = type;
        value.data = std::move(data);
    } else {
        values_.push_back({std::u16string(name), HashIgnoringCase(name), type, std::move(data)});
    }
    Touch();
}

bool KeyNode::DeleteValue(std::u16string_view name) {
    const KeyValue* found = FindValue(name);
    if (found == nullptr) return false;
    values_.erase(values_.begin() + (found - values_.data()));
    Touch();
    return true;
}

}  // namespace platform
