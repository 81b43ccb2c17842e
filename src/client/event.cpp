#include "client/event.h"

#include "client/payload_decoder.h"

namespace zpregmon {

template <typename Payload>
[[gnu::flatten]] void Event::Read(Payload& payload) const {
    Decode(RecordReader(record_), payload);  // true, as it was when the event was decoded
}

template void Event::Read(NoPayload&) const;
template void Event::Read(ValueSet&) const;
template void Event::Read(ValueDeleted&) const;
template void Event::Read(KeyRenamed&) const;
template void Event::Read(KeyInformation&) const;
template void Event::Read(ValueEnumerated&) const;
template void Event::Read(ValueQueried&) const;
template void Event::Read(ValuesQueried&) const;
template void Event::Read(HiveLoaded&) const;
template void Event::Read(FileOperation&) const;
template void Event::Read(KeyReplaced&) const;
template void Event::Read(KeySecuritySet&) const;
template void Event::Read(KeySecurityQueried&) const;

ValuesQueried::ValuesQueried(Bytes record, std::uint32_t count) : record_(record), count_(count) {
    for (std::size_t left = record.size(); within_ < count; ++within_) {
        const QueriedValue value = Read(within_);
        const std::size_t taken =
            value.data.size() + (value.value ? value.value->size() * sizeof(char16_t) : 0);
        if (taken > left) {
            return;
        }
        left -= taken;
    }
}

QueriedValue ValuesQueried::operator[](std::uint32_t index) const {
    QueriedValue value = Read(index);
    if (index >= within_) {
        value.value.reset();
        value.data = {};
    }
    return value;
}

QueriedValue ValuesQueried::Read(std::uint32_t index) const {
    const auto entry = LoadField<ValuesQueriedEntry>(record_.data() + EntriesEnd(index));
    const std::size_t least = EntriesEnd(count_);
    QueriedValue value;
    value.type = entry.ValueType;
    value.size = entry.DataLength;
    if (entry.NameOffset >= least && entry.NameOffset < record_.size()) {
        const std::size_t units = FindTextEnd(record_.subspan(entry.NameOffset));
        if (units != kNoTextEnd) {
            value.value = WireText(record_.data() + entry.NameOffset, units);
        }
    }
    if (entry.DataOffset >= least && entry.DataOffset <= record_.size() &&
        entry.DataLength <= record_.size() - entry.DataOffset) {
        value.data = record_.subspan(entry.DataOffset, entry.DataLength);
    }
    return value;
}

}  // namespace zpregmon
