#include "zpregmon/session/delivered_events.h"

#include "client/record_decoder.h"

namespace zpregmon {

void WalkBuffer(std::span<const std::byte> image, const EventReceiver& receive,
                DeliveredEvents& delivered) {
    RecordDecoder decoder(image);
    for (Event event; decoder.Next(event);) {
        ++delivered.events;
        ++delivered.eventsByType[static_cast<std::size_t>(event.Type())];
        receive(event);
    }
    if (decoder.Error()) {
        ++delivered.damagedBuffers;
        if (!delivered.firstDamage) {
            delivered.firstDamage = decoder.Error();
        }
    }
}

}  // namespace zpregmon
