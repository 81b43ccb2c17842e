// The input is the image of a buffer.
#include "client/record_decoder.h"
#include "fuzz/print_everything.h"

#include <cstdlib>
#include <cstring>

namespace zpregmon {

/// A view that an event carries must lie in the image.
void CheckInside(Bytes image, const void* start, std::size_t size) {
    const auto* const first = static_cast<const std::byte*>(start);
    if (size != 0 && (first < image.data() || first + size > image.data() + image.size())) {
        std::abort();
    }
}

void Decode(Bytes image) {
    static EverythingPrinter printer;
    EventSummary summary({});
    RecordDecoder decoder(image);
    std::size_t events = 0;
    for (Event event; decoder.Next(event);) {
        if (++events > image.size()) {
            std::abort();  // more records than there are places for them
        }
        if (event.Key()) {
            CheckInside(image, event.Key()->data(), event.Key()->size() * sizeof(char16_t));
        }
        if (const auto set = event.As<ValueSet>()) {
            CheckInside(image, set->value.data(), set->value.size() * sizeof(char16_t));
            CheckInside(image, set->data.captured.data(), set->data.captured.size());
        }
        printer.Print(event, summary);
    }
    if (decoder.Error() && decoder.Error()->offset > image.size()) {
        std::abort();  // damage that is not in the image
    }
    summary.Describe();
}

}  // namespace zpregmon

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
    // Aligned, and with its end where the sanitizer sees it.
    std::byte* const image = static_cast<std::byte*>(std::malloc(size != 0 ? size : 1));
    std::memcpy(image, data, size);
    zpregmon::Decode({image, size});
    std::free(image);
    return 0;
}
