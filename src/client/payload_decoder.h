// Decodes what records have behind their header.
#pragma once

#include "client/event.h"

#include <cstddef>
#include <optional>

namespace zpregmon {

/// Decodes the fields of the record at `record` in `image`, whose header is inside and of
/// `event.type`, into the event's payload. On damage false, and `error` says where and what.
/// A record does not say where it ends: what it points at must lie between its fixed fields and the
/// image's end.
bool DecodePayload(Bytes image, std::size_t record, Event& event,
                   std::optional<DecodeError>& error);

}  // namespace zpregmon
