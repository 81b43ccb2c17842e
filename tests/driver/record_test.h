// Records as bytes, and notifications made by hand.
#pragma once

#include "driver/driver_fixture.h"
#include "intercept/registry_callback.h"

#include <algorithm>
#include <cstring>
#include <type_traits>

namespace driver_test {

/// One record with everything behind it in its buffer. Its end is not known: records do not say.
struct RawRecord {
    zpregflt::RecordType type;
    std::u16string key;
    std::vector<std::byte> bytes;

    template <typename T>
    T At(std::size_t offset) const {
        T value{};
        EXPECT_LE(offset + sizeof(T), bytes.size());
        if (offset + sizeof(T) <= bytes.size())
            std::memcpy(&value, bytes.data() + offset, sizeof(T));
        return value;
    }
    std::uint32_t Number(std::size_t offset) const { return At<std::uint32_t>(offset); }
    std::uint16_t Short(std::size_t offset) const { return At<std::uint16_t>(offset); }
    std::string Data(std::size_t offset, std::size_t length) const {
        EXPECT_LE(offset + length, bytes.size());
        return {reinterpret_cast<const char*>(bytes.data()) + offset, length};
    }
    std::string Text(std::size_t offset) const {
        std::u16string text;
        for (char16_t unit; (unit = At<char16_t>(offset)) != 0; offset += sizeof(unit))
            text.push_back(unit);
        return platform::ToUtf8(text);
    }
};

/// Raises notifications on a key of the current process, as the configuration manager would.
class Notifier {
public:
    explicit Notifier(HANDLE key) : context_(ContextOf(key)) {
        EXPECT_EQ(ObReferenceObjectByHandle(key, 0, nullptr, KernelMode, &object_, nullptr),
                  STATUS_SUCCESS);
    }
    ~Notifier() { ObfDereferenceObject(object_); }
    Notifier(const Notifier&) = delete;
    Notifier& operator=(const Notifier&) = delete;

    template <typename Request>
    void Before(REG_NOTIFY_CLASS notifyClass, Request& request) {
        request.Object = object_;
        request.ObjectContext = context_;
        Raise(notifyClass, &request);
    }
    /// Returns whether a record was written.
    template <typename Request>
    bool After(REG_NOTIFY_CLASS notifyClass, Request& request, NTSTATUS status = STATUS_SUCCESS) {
        REG_POST_OPERATION_INFORMATION post = {
            object_, status, &request, status, request.CallContext, context_, nullptr};
        const LONG64 before = CountersOf(notifyClass).log;
        Raise(notifyClass, &post);
        return CountersOf(notifyClass).log != before;
    }

private:
    static void Raise(REG_NOTIFY_CLASS notifyClass, PVOID structure) {
        EXPECT_EQ(
            zpregflt::RegistryCallback(
                &State, reinterpret_cast<PVOID>(static_cast<ULONG_PTR>(notifyClass)), structure),
            STATUS_SUCCESS);
    }

    PVOID object_ = nullptr;
    zpregflt::KeyObjectContext* context_;
};

class RecordTest : public DriverTest {
protected:
    static constexpr std::u16string_view kKey = u"\\REGISTRY\\MACHINE\\Records";

    /// The records of these types that `actions` leave, done by the worker process with one key of
    /// its own open.
    template <typename Actions>
    std::vector<RawRecord> Recorded(std::initializer_list<zpregflt::RecordType> types,
                                    Actions actions, std::size_t bufferSize = 0x10000) {
        const auto loan = TheClient().Lend(bufferSize);
        {
            const ThreadScope thread(Worker());
            const KeyHandle key =
                platform::MakeKey(kKey, {.access = KEY_ALL_ACCESS | ACCESS_SYSTEM_SECURITY});
            actions(static_cast<HANDLE>(key));
        }
        EXPECT_EQ(TheClient().Flush(), STATUS_SUCCESS);
        EXPECT_EQ(loan->Wait(), STATUS_SUCCESS);
        std::vector<RawRecord> records;
        for (const Record& record : loan->Records()) {
            if (std::find(types.begin(), types.end(), record.header.Type) == types.end()) continue;
            const auto bytes = loan->Memory().subspan(record.offset);
            records.push_back(
                {record.header.Type, record.key.value_or(u""), {bytes.begin(), bytes.end()}});
        }
        return records;
    }
    /// The one record of this type.
    template <typename Actions>
    RawRecord RecordedOne(zpregflt::RecordType type, Actions actions,
                          std::size_t bufferSize = 0x10000) {
        std::vector<RawRecord> records = Recorded({type}, actions, bufferSize);
        EXPECT_EQ(records.size(), 1u);
        return records.empty() ? RawRecord{} : std::move(records.front());
    }
};

}  // namespace driver_test
