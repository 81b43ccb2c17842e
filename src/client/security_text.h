// SIDs, access control lists and security descriptors as text.
#pragma once

#include "client/event.h"

namespace zpregmon {

class TextSink;

/// S-1-5-18 for a SID that is sound and fills `sid`, else its bytes in hex.
void PutSid(TextSink& out, Bytes sid);

/// An ACL in the security descriptor definition language, entry by entry, with SIDs in full:
/// (A;CI;KA;;;S-1-5-18)(...). An entry of another form and what is not sound are in hex.
void PutAcl(TextSink& out, Bytes acl);

/// A self-relative descriptor in the same language: O:S-1-5-18G:S-1-5-18D:PAI(...)S:(...); in hex
/// when it is not sound.
void PutDescriptor(TextSink& out, Bytes descriptor);

}  // namespace zpregmon
