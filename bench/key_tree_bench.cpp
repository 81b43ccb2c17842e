// Looking a path up in the key-name tree: 8 components among 100,000 keys, against the baseline.
#include "baseline.h"
#include "platform/machine.h"
#include "supportlib/driver_entry.h"
#include "supportlib/zpklib.h"

#include <benchmark/benchmark.h>

#include <optional>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

constexpr std::uint32_t kKeys = 100'000;
constexpr std::uint32_t kContextTag = MakeTag("Bctx");

void Require(NTSTATUS status, const char* what) {
    if (!NT_SUCCESS(status)) throw std::runtime_error(what);
}

/// A machine with a tree of kKeys leaves of 8 components, each with a block as a client attaches
/// one.
class KeyTreeWorld {
public:
    KeyTreeWorld() {
        platform::EnableVerifier(false);
        machine_.emplace();
        Require(machine_->LoadDriver({u"zpklib", ZPkDriverEntry, true, {}}), "load zpklib");
        KeyTreeConfig config = {};
        config.ContextSize = 72;
        config.PoolTag = kContextTag;
        config.PoolType = NonPagedPoolNx;
        Require(ZPkDtInitialize(&config, ZPK_TREE_IGNORE_CASE, &tree_), "make a tree");
        for (std::uint32_t i = 0; i < kKeys; ++i) {
            AddKey(platform::ToUtf16("\\Registry\\Machine\\SOFTWARE\\Vendor" +
                                     std::to_string(i / 5000) + "\\Product" +
                                     std::to_string(i / 500) + "\\Settings\\Group" +
                                     std::to_string(i / 25) + "\\Key" + std::to_string(i)));
        }
    }
    ~KeyTreeWorld() {
        ZPkDtDestroy(tree_);
        Require(machine_->UnloadDriver(u"zpklib"), "unload zpklib");
        machine_.reset();
        platform::EnableVerifier(true);
    }
    KeyTreeWorld(const KeyTreeWorld&) = delete;
    KeyTreeWorld& operator=(const KeyTreeWorld&) = delete;

    void LookUp(std::uint32_t key) const {
        UNICODE_STRING path = platform::Describe(paths_[key]);
        ZPK_NODE* node = nullptr;
        PVOID context = nullptr;
        if (!ZPkDtLookup(tree_, &path, &node, &context) || path.Length != 0) {
            throw std::runtime_error("a key is missing");
        }
        ZPkDtReleaseContext(context);
        ZPkDtReleaseNode(tree_, node);
    }

private:
    void AddKey(std::u16string path) {
        paths_.push_back(std::move(path));
        const UNICODE_STRING text = platform::Describe(paths_.back());
        PVOID context = ZPkDtAllocateContext(tree_, 0);
        ZPK_NODE* node = nullptr;
        Require(ZPkDtInsert(tree_, &text, context, &node), "insert a key");
        ZPkDtReleaseContext(context);
        ZPkDtReleaseNode(tree_, node);
    }

    std::optional<platform::Machine> machine_;
    ZPK_KEY_TREE* tree_ = nullptr;
    std::vector<std::u16string> paths_;
};

std::optional<KeyTreeWorld> world;

void BeginWorld(const benchmark::State&) {
    world.emplace();
}
void EndWorld(const benchmark::State&) {
    world.reset();
}

/// Looks up as many different keys as the argument says. A few stay in the processor's caches, as
/// keys do that programs use again and again; with all of them most of the time goes to memory.
void KeyTreeLookup(benchmark::State& state) {
    std::minstd_rand random(state.thread_index() + 1);
    std::vector<std::uint32_t> order(state.range(0));
    for (std::uint32_t& key : order) {
        key = random() % kKeys;
    }
    std::size_t next = 0;
    for ([[maybe_unused]] auto _ : state) {
        world->LookUp(order[next]);
        next = next + 1 == order.size() ? 0 : next + 1;
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(KeyTreeLookup)
    ->Setup(BeginWorld)
    ->Teardown(EndWorld)
    ->Arg(1'000)
    ->Arg(kKeys)
    ->Threads(1)
    ->Threads(2)
    ->UseRealTime();

void KeyTreeLookupBaseline(benchmark::State& state) {
    zpregflt_bench::Baseline baseline;
    const unsigned char payload[zpregflt_bench::Baseline::kPayloadSize] = {1};
    const unsigned char name[zpregflt_bench::Baseline::kNameSize] = {2};
    for ([[maybe_unused]] auto _ : state) {
        baseline.Record(1, 2, payload, name);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(KeyTreeLookupBaseline)->UseRealTime();

}  // namespace
