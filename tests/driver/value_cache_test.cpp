// The value cache against a plain list of what it must hold.
#include "channel/value_cache.h"
#include "driver/driver_fixture.h"
#include "intercept/tracing.h"

#include <algorithm>
#include <list>
#include <random>

namespace driver_test {

namespace {

using namespace zpregflt;

/// What the cache must hold, the entry that has been idle longest first; held ones anywhere.
struct ModelEntry {
    int key;
    std::u16string name;
    std::string data;
    ULONG type;
    bool recorded;
    ValueCacheEntry* entry = nullptr;  ///< while held
    int holders = 0;
    bool remove = false;
    std::optional<std::pair<std::string, ULONG>> pending = std::nullopt;
};

class ValueCacheTest : public DriverTest {
protected:
    static constexpr int kKeys = 3;
    static constexpr ULONG kLimit = 48;

    void SetUp() override {
        SetParameter(u"Report", u"CaptureMaxSize", kLimit);
        Start();
        process_.Cache = cache_ = ValueCacheCreate();
        ASSERT_NE(cache_, nullptr);
        for (int i = 0; i < kKeys; ++i) {
            // Two keys share a bucket; a node's address is all that counts.
            contexts_[i].ProcessContext = &process_;
            contexts_[i].KeyNode = reinterpret_cast<PVOID>(0x1000ull + 8ull * 16 * (i % 2) + 8);
            entries_[i].Identity = NewKeyIdentity();
            contexts_[i].KeyEntry = &entries_[i];
        }
    }
    void TearDown() override { ValueCacheDestroy(cache_); }

    ULONG Pick(ULONG count) { return random_() % count; }
    /// Within and beyond the 32 bytes for a name and for data.
    std::u16string PickName() {
        const std::size_t length = std::initializer_list<std::size_t>{1, 16, 17}.begin()[Pick(3)];
        return std::u16string(length, static_cast<char16_t>(u'a' + Pick(4)));
    }
    std::string PickData() {
        const std::size_t sizes[] = {0, 1, 32, 33, kLimit, kLimit + 1};
        return std::string(sizes[Pick(6)], static_cast<char>('A' + Pick(26)));
    }
    static std::string Captured(const std::string& data) { return data.substr(0, kLimit); }

    ModelEntry* Find(int key, const std::u16string& name) {
        const auto found = std::find_if(model_.begin(), model_.end(), [&](const ModelEntry& each) {
            return each.key == key && each.name == name;
        });
        return found != model_.end() ? &*found : nullptr;
    }
    void MoveToEnd(ModelEntry* entry) {
        const auto place = std::find_if(model_.begin(), model_.end(),
                                        [&](const ModelEntry& each) { return &each == entry; });
        model_.splice(model_.end(), model_, place);
    }
    static REG_SET_VALUE_KEY_INFORMATION Information(UNICODE_STRING& name, const std::string& data,
                                                     ULONG type) {
        return {nullptr,
                &name,
                0,
                type,
                const_cast<char*>(data.data()),
                static_cast<ULONG>(data.size()),
                nullptr,
                nullptr,
                nullptr};
    }

    void Insert(int key, const std::u16string& text) {
        const std::string data = PickData();
        const bool recorded = Pick(2) == 0;
        UNICODE_STRING name = platform::Describe(text);
        const ULONG type = Pick(12);
        const bool allHeld =
            model_.size() == kCacheEntryCount &&
            std::all_of(model_.begin(), model_.end(), [](auto& each) { return each.holders != 0; });
        const ULONG64 full = cache_->Full;
        ASSERT_EQ(
            ValueCacheInsert(&State, &contexts_[key], Information(name, data, type), recorded),
            !allHeld);
        ASSERT_EQ(cache_->Full, full + (allHeld ? 1 : 0));
        if (allHeld) return;
        if (model_.size() == kCacheEntryCount) {
            model_.erase(std::find_if(model_.begin(), model_.end(),
                                      [](const auto& each) { return each.holders == 0; }));
        }
        model_.push_back({key, text, Captured(data), type, recorded});
    }

    void Look(int key, const std::u16string& text) {
        const UNICODE_STRING name = platform::Describe(text);
        ValueCacheEntry* const entry = ValueCacheLookup(cache_, CacheKeyOf(contexts_[key]), name);
        ModelEntry* const expected = Find(key, text);
        ASSERT_EQ(entry != nullptr, expected != nullptr);
        if (entry == nullptr) {
            Insert(key, text);
            return;
        }
        ASSERT_EQ(std::string(static_cast<char*>(entry->Value.Data), entry->CapturedLength),
                  expected->data);
        ASSERT_EQ(entry->Value.DataType, expected->type);
        ASSERT_EQ((entry->Flags & ENTRY_RECORDED) != 0, expected->recorded);
        expected->entry = entry;
        ++expected->holders;
    }

    void SetPending(ModelEntry& held) {
        const std::string data = PickData();
        UNICODE_STRING name = platform::Describe(held.name);
        const ULONG type = Pick(12);
        ASSERT_TRUE(ValueCacheSetPending(&State, held.entry, Information(name, data, type)));
        held.pending.emplace(Captured(data), type);
    }

    void Release(ModelEntry& held, bool remove) {
        ValueCacheRelease(cache_, held.entry, remove);
        held.remove |= remove;
        if (--held.holders != 0) return;
        MoveToEnd(&held);
        if (held.pending) std::tie(held.data, held.type) = *std::exchange(held.pending, {});
        if (held.remove) model_.pop_back();
    }

    std::minstd_rand random_{1};
    ProcessContext process_ = {};
    KeyEntry entries_[kKeys] = {};
    KeyObjectContext contexts_[kKeys] = {};
    ValueCache* cache_ = nullptr;
    std::list<ModelEntry> model_;
};

TEST_F(ValueCacheTest, HoldsWhatAPlainListWould) {
    // At PASSIVE_LEVEL in a thread of its own process, as handlers run.
    const ThreadScope thread(Worker());
    std::size_t most = 0;
    for (int i = 0; i < 50000; ++i) {
        std::vector<ModelEntry*> held;
        for (ModelEntry& each : model_) {
            if (each.holders != 0) held.push_back(&each);
        }
        most = std::max(most, held.size());
        // Holding more than letting go at times, so that all entries are held now and then.
        const bool gathering = i / 500 % 2 == 0;
        const ULONG action = Pick(gathering ? 8 : 12);
        if (held.empty() || action < 6) {
            Look(static_cast<int>(Pick(kKeys)), PickName());
        } else if (action == 6) {
            SetPending(*held[Pick(static_cast<ULONG>(held.size()))]);
        } else {
            Release(*held[Pick(static_cast<ULONG>(held.size()))], Pick(4) == 0);
        }
        if (HasFatalFailure()) return;
        ASSERT_TRUE(ValueCacheIsConsistent(cache_)) << "after step " << i;
    }
    EXPECT_EQ(most, kCacheEntryCount);
    EXPECT_GT(cache_->Full, 0u);
    EXPECT_GT(cache_->Evictions, 0u);
}

TEST_F(ValueCacheTest, TraceTellsHowFullItWas) {
    const ThreadScope thread(Worker());
    Insert(0, u"a");
    Insert(0, u"b");
    Insert(1, u"a");
    std::optional<platform::TraceEvent> traced;
    platform::TraceController controller(
        kTraceProviderId, [&](const platform::TraceEvent& event) { traced = event; });
    controller.Enable(TRACE_LEVEL_VERBOSE, TRACE_CAPTURE);
    ValueCacheDestroy(std::exchange(cache_, ValueCacheCreate()));
    ASSERT_TRUE(traced);
    EXPECT_EQ(traced->Number(2), 1u) << "buckets";
    EXPECT_EQ(traced->Number(3), 2u) << "keys";
    EXPECT_EQ(traced->Number(4), 3u) << "entries";
}

}  // namespace

}  // namespace driver_test
