#include "client/security_text.h"

#include "client/text_sink.h"

#include <optional>

namespace zpregmon {

namespace {

// Layouts of the system.
constexpr std::size_t kSidHeader = 8;
constexpr std::size_t kMostSubAuthorities = 15;
constexpr std::size_t kAclHeader = 8;
constexpr std::size_t kAceHeader = 4;
constexpr std::size_t kAceSid = 8;  ///< behind the header and the mask
constexpr std::size_t kDescriptorHeader = 20;

namespace control {
constexpr std::uint16_t kDaclPresent = 0x4, kSaclPresent = 0x10, kDaclAutoInheritRequest = 0x100,
                        kSaclAutoInheritRequest = 0x200, kDaclAutoInherited = 0x400,
                        kSaclAutoInherited = 0x800, kDaclProtected = 0x1000,
                        kSaclProtected = 0x2000, kSelfRelative = 0x8000;
}  // namespace control

/// The SID at the start of `bytes`, without what follows it.
std::optional<Bytes> FindSid(Bytes bytes) {
    if (bytes.size() < kSidHeader || LoadField<std::uint8_t>(bytes, 0) != 1) {
        return std::nullopt;
    }
    const std::size_t subAuthorities = LoadField<std::uint8_t>(bytes, 1);
    const std::size_t length = kSidHeader + subAuthorities * sizeof(std::uint32_t);
    if (subAuthorities > kMostSubAuthorities || length > bytes.size()) {
        return std::nullopt;
    }
    return bytes.first(length);
}

void PutSoundSid(TextSink& out, Bytes sid) {
    std::uint64_t authority = 0;
    for (std::size_t at = 2; at < kSidHeader; ++at) {
        authority = authority << 8 | LoadField<std::uint8_t>(sid, at);
    }
    if (authority >> 32 == 0) {
        out.Format("S-1-{}", authority);
    } else {
        out.Format("S-1-{:#014x}", authority);
    }
    for (std::size_t at = kSidHeader; at < sid.size(); at += sizeof(std::uint32_t)) {
        out.Put('-');
        out.Number(LoadField<std::uint32_t>(sid, at));
    }
}

/// The ACL at the start of `bytes`, without what follows it.
std::optional<Bytes> FindAcl(Bytes bytes) {
    if (bytes.size() < kAclHeader) {
        return std::nullopt;
    }
    const std::size_t size = LoadField<std::uint16_t>(bytes, 2);
    if (size < kAclHeader || size > bytes.size()) {
        return std::nullopt;
    }
    return bytes.first(size);
}

std::string_view AceTypeText(std::uint8_t type) {
    switch (type) {
        case 0:
            return "A";
        case 1:
            return "D";
        case 2:
            return "AU";
        case 3:
            return "AL";
        case 0x11:
            return "ML";
        default:
            return {};
    }
}

void PutAceFlags(TextSink& out, std::uint8_t flags) {
    constexpr std::string_view kNames[] = {"OI", "CI", "NP", "IO", "ID", "", "SA", "FA"};
    for (unsigned bit = 0; bit < std::size(kNames); ++bit) {
        if ((flags >> bit & 1U) != 0) {
            out.Put(kNames[bit]);
        }
    }
}

void PutRights(TextSink& out, std::uint32_t mask) {
    switch (mask) {
        case 0xF003F:
            return out.Put("KA");
        case 0x20019:
            return out.Put("KR");
        case 0x20006:
            return out.Put("KW");
        case 0x10000000:
            return out.Put("GA");
        case 0x80000000:
            return out.Put("GR");
        case 0x40000000:
            return out.Put("GW");
        case 0x20000000:
            return out.Put("GX");
        default:
            return out.Format("{:#x}", mask);
    }
}

void PutAce(TextSink& out, Bytes ace) {
    const std::string_view type = AceTypeText(LoadField<std::uint8_t>(ace, 0));
    const auto sid = ace.size() >= kAceSid ? FindSid(ace.subspan(kAceSid)) : std::nullopt;
    out.Put('(');
    if (type.empty() || !sid) {
        out.Hex(ace);
    } else {
        out.Put(type);
        out.Put(';');
        PutAceFlags(out, LoadField<std::uint8_t>(ace, 1));
        out.Put(';');
        PutRights(out, LoadField<std::uint32_t>(ace, kAceHeader));
        out.Put(";;;");
        PutSoundSid(out, *sid);
    }
    out.Put(')');
}

/// False: it is not sound, and nothing is written.
bool PutSoundAcl(TextSink& out, Bytes acl) {
    const std::size_t start = out.Size();
    const std::size_t count = LoadField<std::uint16_t>(acl, 4);
    std::size_t at = kAclHeader;
    for (std::size_t i = 0; i < count; ++i) {
        const std::size_t left = acl.size() - at;
        const std::size_t size = left >= kAceHeader ? LoadField<std::uint16_t>(acl, at + 2) : 0;
        if (size < kAceHeader || size > left) {
            out.Truncate(start);
            return false;
        }
        PutAce(out, acl.subspan(at, size));
        at += size;
    }
    return true;
}

/// What the self-relative descriptor has at the offset that stands in its field: nothing for 0.
Bytes Part(Bytes descriptor, std::size_t field) {
    const std::size_t offset = LoadField<std::uint32_t>(descriptor, field);
    return offset >= kDescriptorHeader && offset <= descriptor.size() ? descriptor.subspan(offset)
                                                                      : Bytes();
}

bool PutOwner(TextSink& out, std::string_view label, Bytes descriptor, std::size_t field) {
    if (LoadField<std::uint32_t>(descriptor, field) == 0) {
        return true;
    }
    const std::optional<Bytes> sid = FindSid(Part(descriptor, field));
    if (sid) {
        out.Put(label);
        PutSoundSid(out, *sid);
    }
    return sid.has_value();
}

struct ListControl {
    std::string_view label;
    std::size_t field;
    std::uint16_t present, isProtected, inheritRequest, inherited;
};
constexpr ListControl kDacl{"D:",
                            16,
                            control::kDaclPresent,
                            control::kDaclProtected,
                            control::kDaclAutoInheritRequest,
                            control::kDaclAutoInherited};
constexpr ListControl kSacl{"S:",
                            12,
                            control::kSaclPresent,
                            control::kSaclProtected,
                            control::kSaclAutoInheritRequest,
                            control::kSaclAutoInherited};

bool PutList(TextSink& out, const ListControl& list, Bytes descriptor) {
    const auto bits = LoadField<std::uint16_t>(descriptor, 2);
    if ((bits & list.present) == 0) {
        return true;
    }
    out.Put(list.label);
    out.Put((bits & list.isProtected) != 0 ? "P" : "");
    out.Put((bits & list.inheritRequest) != 0 ? "AR" : "");
    out.Put((bits & list.inherited) != 0 ? "AI" : "");
    if (LoadField<std::uint32_t>(descriptor, list.field) == 0) {
        out.Put("NO_ACCESS_CONTROL");
        return true;
    }
    const std::optional<Bytes> acl = FindAcl(Part(descriptor, list.field));
    return acl && PutSoundAcl(out, *acl);
}

}  // namespace

void PutSid(TextSink& out, Bytes sid) {
    if (const std::optional<Bytes> sound = FindSid(sid); sound && sound->size() == sid.size()) {
        PutSoundSid(out, sid);
    } else {
        out.Hex(sid);
    }
}

void PutAcl(TextSink& out, Bytes acl) {
    const std::optional<Bytes> sound = FindAcl(acl);
    if (!sound || sound->size() != acl.size() || !PutSoundAcl(out, acl)) {
        out.Hex(acl);
    }
}

void PutDescriptor(TextSink& out, Bytes descriptor) {
    const std::size_t start = out.Size();
    if (descriptor.size() < kDescriptorHeader || LoadField<std::uint8_t>(descriptor, 0) != 1 ||
        (LoadField<std::uint16_t>(descriptor, 2) & control::kSelfRelative) == 0 ||
        !PutOwner(out, "O:", descriptor, 4) || !PutOwner(out, "G:", descriptor, 8) ||
        !PutList(out, kDacl, descriptor) || !PutList(out, kSacl, descriptor)) {
        out.Truncate(start);
        out.Hex(descriptor);
    }
}

}  // namespace zpregmon
