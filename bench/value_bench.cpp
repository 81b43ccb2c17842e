// A set of a value, from its pre-notification to the end of its post-notification; the
// configuration manager's own work between them is left out.
#include "road.h"

#include "driver/driver_state.h"
#include "intercept/registry_callback.h"

#include <benchmark/benchmark.h>

#include <string>

namespace zpregflt_bench {

namespace {

class ValueSetter {
public:
    ValueSetter(std::u16string_view key, std::size_t size)
        : key_(key), first_(size, '1'), second_(size, '2') {}

    void SetFirst() { Set(first_); }
    /// Never what was set before.
    void SetOther() {
        std::swap(first_, second_);
        Set(first_);
    }
    /// The registry comes to hold what SetFirst sets, by nobody that is watched.
    void Store() {
        Road::Instance().Machine().SetRegistryValue(key_.Path(), u"Value", REG_BINARY,
                                                    first_.data(), first_.size());
    }

private:
    void Set(std::string& data) {
        UNICODE_STRING name = platform::Describe(u"Value");
        REG_SET_VALUE_KEY_INFORMATION set = {
            key_.Object(), &name,          0,
            REG_BINARY,    data.data(),    static_cast<ULONG>(data.size()),
            nullptr,       key_.Context(), nullptr};
        zpregflt::RegistryCallback(&zpregflt::State, Class(RegNtPreSetValueKey), &set);
        REG_POST_OPERATION_INFORMATION post = {key_.Object(),  STATUS_SUCCESS,  &set,
                                               STATUS_SUCCESS, set.CallContext, key_.Context(),
                                               nullptr};
        zpregflt::RegistryCallback(&zpregflt::State, Class(RegNtPostSetValueKey), &post);
    }
    static PVOID Class(ULONG_PTR notifyClass) { return reinterpret_cast<PVOID>(notifyClass); }

    OpenKey key_;
    std::string first_;
    std::string second_;
};

/// What the process itself set last is found in its cache.
void BM_SetThatChangesNothing(benchmark::State& state) {
    const platform::ThreadScope thread(Road::Instance().MonitoredProcess());
    ValueSetter setter(u"Unchanged", 16);
    setter.SetFirst();
    for (auto _ : state) {
        setter.SetFirst();
    }
}
BENCHMARK(BM_SetThatChangesNothing);

void BM_RecordedSet(benchmark::State& state) {
    const platform::ThreadScope thread(Road::Instance().MonitoredProcess());
    ValueSetter setter(u"Set" + platform::ToUtf16(std::to_string(state.range(0))),
                       static_cast<std::size_t>(state.range(0)));
    for (auto _ : state) {
        setter.SetOther();
    }
}
BENCHMARK(BM_RecordedSet)->Arg(4)->Arg(64)->Arg(4096);

/// The value before is read from the registry, where no record of this process tells it.
void BM_RecordedSetWithPreviousData(benchmark::State& state) {
    const platform::ThreadScope thread(Road::Instance().MonitoredProcess());
    ValueSetter setter(u"Previous" + platform::ToUtf16(std::to_string(state.range(0))),
                       static_cast<std::size_t>(state.range(0)));
    setter.Store();
    zpregflt::State.ReportOriginal = 1;
    setter.SetFirst();  // leaves no record
    for (auto _ : state) {
        setter.SetOther();
    }
    zpregflt::State.ReportOriginal = 0;
}
BENCHMARK(BM_RecordedSetWithPreviousData)->Arg(4)->Arg(64)->Arg(4096);

}  // namespace

}  // namespace zpregflt_bench
