// Queries, enumerations and changes of security, as the driver is notified of them; the
// configuration manager's own work is left out.
#include "road.h"

#include "driver/driver_state.h"
#include "intercept/registry_callback.h"
#include "platform/kernel/security.h"

#include <benchmark/benchmark.h>

#include <stdexcept>
#include <string>

namespace zpregflt_bench {

namespace {

template <typename Request>
void NotifyAfter(const OpenKey& key, REG_NOTIFY_CLASS notifyClass, Request& request) {
    REG_POST_OPERATION_INFORMATION post = {key.Object(),   STATUS_SUCCESS,      &request,
                                           STATUS_SUCCESS, request.CallContext, key.Context(),
                                           nullptr};
    zpregflt::RegistryCallback(&zpregflt::State,
                               reinterpret_cast<PVOID>(static_cast<ULONG_PTR>(notifyClass)), &post);
}

void BM_RecordedQueryOfAValue(benchmark::State& state) {
    const platform::ThreadScope thread(Road::Instance().MonitoredProcess());
    const OpenKey key(u"Queried");
    std::string answer(static_cast<std::size_t>(state.range(0)), '1');
    auto length = static_cast<ULONG>(answer.size());
    UNICODE_STRING name = platform::Describe(u"Value");
    REG_QUERY_VALUE_KEY_INFORMATION query = {};
    query.ValueName = &name;
    query.KeyValueInformationClass = KeyValuePartialInformation;
    query.KeyValueInformation = answer.data();
    query.ResultLength = &length;
    for (auto _ : state) {
        NotifyAfter(key, RegNtPostQueryValueKey, query);
    }
}
BENCHMARK(BM_RecordedQueryOfAValue)->Arg(16)->Arg(4096);

void BM_RecordedEnumeration(benchmark::State& state) {
    const platform::ThreadScope thread(Road::Instance().MonitoredProcess());
    const OpenKey key(u"Enumerated");
    char answer[48] = {};
    ULONG length = sizeof(answer);
    REG_ENUMERATE_KEY_INFORMATION enumeration = {};
    enumeration.KeyInformation = answer;
    enumeration.ResultLength = &length;
    for (auto _ : state) {
        NotifyAfter(key, RegNtPostEnumerateKey, enumeration);
    }
}
BENCHMARK(BM_RecordedEnumeration);

/// The access list goes from one to another and back, the operation itself included: what the
/// driver fetches, before and after, is the key's security.
void BM_RecordedChangeOfSecurity(benchmark::State& state) {
    const platform::ThreadScope thread(Road::Instance().MonitoredProcess());
    const OpenKey key(u"Secured");
    platform::SecurityDescriptor descriptors[2];
    if (!NT_SUCCESS(platform::ParseSddl(u"D:(A;;KA;;;WD)(A;;KR;;;BA)", descriptors[0])) ||
        !NT_SUCCESS(platform::ParseSddl(u"D:(A;;KA;;;WD)(A;;KR;;;SY)", descriptors[1]))) {
        throw std::runtime_error("no descriptors to measure with");
    }
    HANDLE handle = nullptr;
    if (!NT_SUCCESS(ObOpenObjectByPointer(key.Object(), OBJ_KERNEL_HANDLE, nullptr, KEY_ALL_ACCESS,
                                          *CmKeyObjectType, KernelMode, &handle))) {
        throw std::runtime_error("no handle to measure with");
    }
    std::size_t next = 0;
    for (auto _ : state) {
        ZwSetSecurityObject(handle, DACL_SECURITY_INFORMATION, descriptors[next].bytes.data());
        next ^= 1;
    }
    ZwClose(handle);
}
BENCHMARK(BM_RecordedChangeOfSecurity);

}  // namespace

}  // namespace zpregflt_bench
