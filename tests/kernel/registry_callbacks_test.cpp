#include "kernel/callback_log.h"
#include "kernel/registry_fixture.h"

#include "platform/kernel/key_object.h"

#include <algorithm>
#include <atomic>
#include <functional>
#include <latch>
#include <memory>
#include <mutex>
#include <thread>
#include <tuple>

namespace platform {
namespace {

REG_CREATE_KEY_INFORMATION& Creation(void* information) {
    return *static_cast<REG_CREATE_KEY_INFORMATION*>(information);
}
void* Cleaned(void* information) {
    return static_cast<REG_CALLBACK_CONTEXT_CLEANUP_INFORMATION*>(information)->ObjectContext;
}
void* Number(std::uintptr_t number) {
    return reinterpret_cast<void*>(number);
}

class RegistryCallbacksTest : public RegistryTest {
protected:
    static ObjectRef<KeyObject> ObjectOf(HANDLE handle) {
        ObjectRef<KeyObject> object;
        EXPECT_EQ(ReferenceHandle(handle, 0, kKeyType, KernelMode, object), STATUS_SUCCESS);
        return object;
    }

    Log log_;
    KeyHandle key_ = MakeKey(kTestKey);
};

TEST_F(RegistryCallbacksTest, AltitudesOrderByValue) {
    const TestCallback low(log_, "low", u"9.5");
    const TestCallback top(log_, "top", u"360000000000000000000000.1");
    const TestCallback middle(log_, "middle", u"00010");
    for (const auto* text : {u"9.50", u"10", u"010.0"}) {
        EXPECT_EQ(TestCallback(log_, "x", text).Status(), STATUS_FLT_INSTANCE_ALTITUDE_COLLISION);
    }
    for (const auto* text : {u"", u"x", u"1.", u".1", u"1.2.3", u"-1", u" 1"}) {
        EXPECT_EQ(TestCallback(log_, "x", text).Status(), STATUS_INVALID_PARAMETER);
    }
    NtFlushKey(key_);
    EXPECT_EQ(log_.Take(),
              (Lines{"top 30", "middle 30", "low 30", "low 31", "middle 31", "top 31"}));
}

/// Which members their structures have, the driver's records and traces show; those of security,
/// hives and replacements come with the driver's tests of all operations.
TEST_F(RegistryCallbacksTest, EveryOperationIsToldOfBeforeAndAfter) {
    const ObjectRef<KeyObject> object = ObjectOf(key_);
    char buffer[256] = {};
    ULONG length = 0;
    UNICODE_STRING name = Describe(u"Renamed");
    KEY_VALUE_ENTRY entry{&name, 0, 0, 0};
    const struct {
        Lines lines;
        std::function<NTSTATUS()> call;
    } cases[] = {
        // clang-format off
        {{"c 1", "c 16"}, [&] { return SetValue(key_, u"V", REG_SZ, "x"); }},
        {{"c 8", "c 23"}, [&] { return QueryValue(key_, u"None").status; }},
        {{"c 6", "c 21"}, [&] {
             return NtEnumerateValueKey(key_, 0, KeyValueBasicInformation, buffer, 4, &length); }},
        {{"c 9", "c 24"}, [&] {
             return NtQueryMultipleValueKey(key_, &entry, 1, buffer, &(length = 9), &length); }},
        {{"c 2", "c 17"}, [&] { return DeleteValue(key_, u"None"); }},
        {{"c 3", "c 18"}, [&] { return NtSetInformationKey(key_, KeyWriteTimeInformation, buffer, 3); }},
        {{"c 5", "c 20"}, [&] {
             return NtEnumerateKey(key_, 7, KeyBasicInformation, buffer, 256, &length); }},
        {{"c 7", "c 22"}, [&] { return NtQueryKey(key_, KeyBasicInformation, buffer, 256, &length); }},
        {{"c 36", "c 37"}, [&] { return NtQuerySecurityObject(key_, 3, buffer, 47, &length); }},
        {{"c 47", "c 48"}, [&] {
             return NtQueryObject(key_, ObjectNameInformation, buffer, 256, &length); }},
        {{"c 43", "c 44"}, [&] { return ZwSaveKeyEx(key_, nullptr, 2); }},
        {{"c 41", "c 42"}, [&] { return NtRestoreKey(key_, nullptr, REG_NO_LAZY_FLUSH); }},
        {{"c 30", "c 31"}, [&] { return NtFlushKey(key_); }},
        {{"c 4", "c 19"}, [&] { return NtRenameKey(key_, &name); }},
        {{"c 1", "c 16"}, [&] { return ZwSetValueKey(key_, &name, 0, REG_SZ, buffer, 2); }},
        {{"c 0", "c 15"}, [&] { return NtDeleteKey(key_); }},
        // clang-format on
    };
    void* before = nullptr;
    NTSTATUS told = STATUS_PENDING;
    const TestCallback callback(log_, "c", u"1", [&](REG_NOTIFY_CLASS, void* information) {
        // Both kinds of structures begin with the object.
        EXPECT_EQ(*static_cast<void**>(information), object.get());
        if (std::exchange(before, nullptr) == nullptr) {
            before = information;
        } else {
            told = Post(information).Status;
            EXPECT_EQ(Post(information).ReturnStatus, told);
        }
        return STATUS_SUCCESS;
    });
    for (const auto& c : cases) {
        const NTSTATUS status = c.call();
        EXPECT_EQ(log_.Take(), c.lines);
        EXPECT_EQ(told, status) << c.lines[0];
    }
}

TEST_F(RegistryCallbacksTest, CreateAndOpenTellWhatIsAskedAndWhatCameOfIt) {
    /// Complete and remaining name, disposition, desired and granted access, status.
    using Told = std::tuple<std::u16string, std::u16string, void*, ULONG, ACCESS_MASK, ACCESS_MASK,
                            NTSTATUS>;
    std::vector<Told> told;
    const ObjectRef<KeyObject> root = ObjectOf(key_);
    const TestCallback callback(log_, "c", u"1", [&](REG_NOTIFY_CLASS c, void* information) {
        if (c == RegNtPreCreateKeyEx || c == RegNtPreOpenKeyEx) {
            EXPECT_EQ(Creation(information).Version, 1U);
            EXPECT_EQ(*Creation(information).ResultObject, nullptr);
            EXPECT_EQ(Creation(information).ObjectType, *CmKeyObjectType);
        } else if (c == RegNtPostCreateKeyEx || c == RegNtPostOpenKeyEx) {
            const auto& post = Post(information);
            const auto& pre = Creation(post.PreInformation);
            EXPECT_EQ(post.Object, *pre.ResultObject);
            EXPECT_EQ(post.Object != nullptr, NT_SUCCESS(post.Status));
            std::u16string rootName;
            EXPECT_TRUE(kKeyType.queryName(pre.RootObject, rootName));
            told.emplace_back(View(*pre.CompleteName), View(*pre.RemainingName),
                              rootName == u"\\REGISTRY" ? nullptr : pre.RootObject,
                              *pre.Disposition, pre.DesiredAccess,
                              pre.GrantedAccess & KEY_ALL_ACCESS, post.Status);
        }
        return STATUS_SUCCESS;
    });

    CreateKeyOf(u"New", {.root = key_, .access = MAXIMUM_ALLOWED});
    CreateKeyOf(u"\\Registry\\Machine\\Test", {.access = KEY_READ});
    OpenKeyOf(u"New\\None", {.root = key_, .access = KEY_READ});
    EXPECT_EQ(log_.Take(), (Lines{"c 26", "c 27", "c 14", "c 25", "c 26", "c 27", "c 14", "c 25",
                                  "c 28", "c 29"}));
    ASSERT_EQ(told.size(), 3U);
    EXPECT_EQ(told[0], Told(u"New", u"New", root.get(), REG_CREATED_NEW_KEY, MAXIMUM_ALLOWED,
                            KEY_ALL_ACCESS, STATUS_SUCCESS));
    EXPECT_EQ(told[1], Told(u"\\Registry\\Machine\\Test", u"Machine\\Test", nullptr,
                            REG_OPENED_EXISTING_KEY, KEY_READ, KEY_READ, STATUS_SUCCESS));
    EXPECT_EQ(std::get<6>(told[2]), STATUS_OBJECT_NAME_NOT_FOUND);

    // Names that are wrong before the registry is asked are not told of.
    OpenKeyOf(u"\\Elsewhere");
    OpenKeyOf(u"x", {.root = reinterpret_cast<HANDLE>(0x80000050)});
    EXPECT_EQ(log_.Take(), Lines{});
}

TEST_F(RegistryCallbacksTest, CallContextsAreEachCallbacksOwn) {
    const auto carries = [](std::uintptr_t number) {
        return [number](REG_NOTIFY_CLASS c, void* information) {
            if (c == RegNtPreSetValueKey) {
                auto& pre = *static_cast<REG_SET_VALUE_KEY_INFORMATION*>(information);
                EXPECT_EQ(pre.CallContext, nullptr);
                pre.CallContext = Number(number);
            } else {
                EXPECT_EQ(Post(information).CallContext, Number(number));
            }
            return STATUS_SUCCESS;
        };
    };
    const TestCallback high(log_, "high", u"2", carries(22));
    const TestCallback low(log_, "low", u"1", carries(11));
    EXPECT_EQ(SetValue(key_, u"V", REG_SZ, "x"), STATUS_SUCCESS);
    EXPECT_EQ(log_.Take().size(), 4U);
}

TEST_F(RegistryCallbacksTest, AnswersBeforehandDecideWhoHearsMore) {
    const struct {
        NTSTATUS answer, status, told;
    } cases[] = {
        {STATUS_ACCESS_DENIED, STATUS_ACCESS_DENIED, STATUS_ACCESS_DENIED},
        {STATUS_CALLBACK_BYPASS, STATUS_SUCCESS, STATUS_SUCCESS},
    };
    for (const auto& c : cases) {
        NTSTATUS told = STATUS_PENDING;
        const TestCallback high(log_, "high", u"3", [&](REG_NOTIFY_CLASS n, void* information) {
            if (n == RegNtPostSetValueKey) told = Post(information).Status;
            return STATUS_SUCCESS;
        });
        const TestCallback middle(log_, "middle", u"2", [&](REG_NOTIFY_CLASS n, void*) {
            return n == RegNtPreSetValueKey ? c.answer : STATUS_SUCCESS;
        });
        const TestCallback low(log_, "low", u"1");
        EXPECT_EQ(SetValue(key_, u"V", REG_SZ, "x"), c.status);
        EXPECT_EQ(log_.Take(), (Lines{"high 1", "middle 1", "high 16"}));
        EXPECT_EQ(told, c.told);
        EXPECT_EQ(QueryValue(key_, u"V").status, STATUS_OBJECT_NAME_NOT_FOUND);
        log_.Take();
    }
}

TEST_F(RegistryCallbacksTest, ABypassingCreateHandsOverItsOwnKey) {
    const KeyHandle other = MakeKey(u"Other", {.root = key_});
    const TestCallback callback(log_, "c", u"1", [&](REG_NOTIFY_CLASS c, void* information) {
        if (c != RegNtPreCreateKeyEx) return STATUS_SUCCESS;
        *Creation(information).ResultObject = ObjectOf(other).release();
        *Creation(information).Disposition = REG_OPENED_EXISTING_KEY;
        Creation(information).GrantedAccess = KEY_QUERY_VALUE;
        return STATUS_CALLBACK_BYPASS;
    });
    const Opened opened = CreateKeyOf(u"New", {.root = key_});
    EXPECT_EQ(log_.Take(), Lines{"c 26"});
    EXPECT_EQ(opened.disposition, REG_OPENED_EXISTING_KEY);
    EXPECT_EQ(FullName(opened.key), u"\\REGISTRY\\MACHINE\\Test\\Other");
    EXPECT_EQ(SetValue(opened.key, u"V", REG_SZ, "x"), STATUS_ACCESS_DENIED);
    EXPECT_EQ(OpenKeyOf(u"New", {.root = key_}).status, STATUS_OBJECT_NAME_NOT_FOUND);
}

TEST_F(RegistryCallbacksTest, AnswersAfterwardsCountOnlyAsBypass) {
    NTSTATUS answer = STATUS_ACCESS_DENIED;
    NTSTATUS told = STATUS_PENDING;
    const TestCallback high(log_, "high", u"2", [&](REG_NOTIFY_CLASS c, void* information) {
        if (c == RegNtPostSetValueKey) told = Post(information).Status;
        return STATUS_SUCCESS;
    });
    const TestCallback low(log_, "low", u"1", [&](REG_NOTIFY_CLASS c, void* information) {
        if (c != RegNtPostSetValueKey) return STATUS_SUCCESS;
        Post(information).ReturnStatus = STATUS_CANCELLED;
        return answer;
    });
    EXPECT_EQ(SetValue(key_, u"V", REG_SZ, "x"), STATUS_SUCCESS);
    EXPECT_EQ(told, STATUS_SUCCESS);
    answer = STATUS_CALLBACK_BYPASS;
    EXPECT_EQ(SetValue(key_, u"V", REG_SZ, "x"), STATUS_CANCELLED);
    EXPECT_EQ(told, STATUS_CANCELLED);
}

TEST_F(RegistryCallbacksTest, ACreateThatIsRefusedAfterwardsGivesItsKeyBack) {
    const TestCallback high(log_, "high", u"2", [](REG_NOTIFY_CLASS c, void* information) {
        if (c == RegNtPostOpenKeyEx) {
            EXPECT_EQ(Post(information).Object, nullptr);
        }
        return STATUS_SUCCESS;
    });
    TestCallback* self = nullptr;
    TestCallback low(log_, "low", u"1", [&](REG_NOTIFY_CLASS c, void* information) {
        if (c != RegNtPostOpenKeyEx) return STATUS_SUCCESS;
        EXPECT_EQ(self->SetContext(Post(information).Object, Number(7)), STATUS_SUCCESS);
        Post(information).ReturnStatus = STATUS_ACCESS_DENIED;
        return STATUS_CALLBACK_BYPASS;
    });
    self = &low;
    const Opened opened = OpenKeyOf(kTestKey);
    EXPECT_EQ(opened.status, STATUS_ACCESS_DENIED);
    EXPECT_EQ(opened.key, nullptr);
    EXPECT_EQ(log_.Take(), (Lines{"high 28", "low 28", "low 29", "high 29", "low 40"}));
}

TEST_F(RegistryCallbacksTest, ContextsBelongToOneCallbackAndOneObject) {
    using Seen = std::vector<std::pair<int, void*>>;
    Seen seen;
    const auto notes = [&](REG_NOTIFY_CLASS c, void* information) {
        void* context = nullptr;
        if (c == RegNtPreFlushKey) {
            context = static_cast<REG_FLUSH_KEY_INFORMATION*>(information)->ObjectContext;
        } else if (c == RegNtPreOpenKeyEx) {
            context = Creation(information).RootObjectContext;
        } else if (c == RegNtCallbackObjectContextCleanup) {
            context = Cleaned(information);
        } else if (c == RegNtPostFlushKey || c == RegNtPostOpenKeyEx) {
            context = Post(information).ObjectContext;
        } else {
            return STATUS_SUCCESS;
        }
        seen.emplace_back(c, context);
        return STATUS_SUCCESS;
    };
    const auto take = [&] { return std::exchange(seen, {}); };

    TestCallback noting(log_, "noting", u"2", notes);
    TestCallback other(log_, "other", u"1");
    KeyHandle same = MakeKey(kTestKey);
    seen.clear();
    void* old = Number(99);
    ObjectRef<KeyObject> object = ObjectOf(key_);
    EXPECT_EQ(noting.SetContext(object.get(), Number(1), &old), STATUS_SUCCESS);
    EXPECT_EQ(old, nullptr);
    EXPECT_EQ(noting.SetContext(object.get(), Number(2), &old), STATUS_SUCCESS);
    EXPECT_EQ(old, Number(1));
    EXPECT_EQ(other.SetContext(object.get(), Number(3), &old), STATUS_SUCCESS);
    EXPECT_EQ(old, nullptr);

    NtFlushKey(key_);
    EXPECT_EQ(take(), (Seen{{30, Number(2)}, {31, Number(2)}}));
    NtFlushKey(same);
    EXPECT_EQ(take(), (Seen{{30, nullptr}, {31, nullptr}}));
    OpenKeyOf(u"None", {.root = key_});
    EXPECT_EQ(take(), (Seen{{28, Number(2)}, {29, nullptr}}));

    // A second handle to the object shares the context; the last reference cleans up.
    HANDLE second = nullptr;
    ASSERT_EQ(CreateHandle(object.get(), KEY_READ, 0, &second), STATUS_SUCCESS);
    log_.Take();
    key_.Close();
    NtClose(second);
    EXPECT_EQ(log_.Take(), (Lines{"noting 14", "other 14", "other 25", "noting 25", "noting 14",
                                  "other 14", "other 25", "noting 25"}));
    take();
    object = {};
    Lines cleanUps = log_.Take();
    std::sort(cleanUps.begin(), cleanUps.end());
    EXPECT_EQ(cleanUps, (Lines{"noting 40", "other 40"}));
    EXPECT_EQ(take(), (Seen{{40, Number(2)}}));
}

TEST_F(RegistryCallbacksTest, AClosedHandleIsToldOfBeforeItsContextGoes) {
    TestCallback callback(log_, "c", u"1", [](REG_NOTIFY_CLASS c, void* information) {
        // Refusing a close changes nothing.
        if (c == RegNtPreKeyHandleClose) return STATUS_ACCESS_DENIED;
        if (c == RegNtPostKeyHandleClose) {
            EXPECT_EQ(Post(information).ObjectContext, Number(5));
            std::u16string name;
            EXPECT_TRUE(kKeyType.queryName(Post(information).Object, name));
        }
        return STATUS_SUCCESS;
    });
    const HANDLE closed = key_;
    EXPECT_EQ(callback.SetContext(ObjectOf(key_).get(), Number(5)), STATUS_SUCCESS);
    key_.Close();
    EXPECT_EQ(log_.Take(), (Lines{"c 14", "c 25", "c 40"}));
    EXPECT_EQ(NtFlushKey(closed), STATUS_INVALID_HANDLE);
    EXPECT_EQ(NtClose(closed), STATUS_INVALID_HANDLE);
    EXPECT_EQ(log_.Take(), Lines{});
}

TEST_F(RegistryCallbacksTest, TheEndOfAProcessClosesItsKeysInItsContext) {
    const ObjectRef<Process> process = machine_.StartProcess({.imagePath = u"\\x.exe"});
    const HANDLE id = reinterpret_cast<HANDLE>(process->Id());
    TestCallback* self = nullptr;
    TestCallback callback(log_, "c", u"1", [&](REG_NOTIFY_CLASS c, void* information) {
        EXPECT_EQ(PsGetCurrentProcessId(), id);
        if (c == RegNtPostOpenKeyEx) self->SetContext(Post(information).Object, Number(1));
        return STATUS_SUCCESS;
    });
    self = &callback;
    {
        const ThreadScope thread(*process);
        UNICODE_STRING name = Describe(kTestKey);
        OBJECT_ATTRIBUTES attributes;
        InitializeObjectAttributes(&attributes, &name, 0, nullptr, nullptr);
        HANDLE left = nullptr;
        ASSERT_EQ(NtOpenKey(&left, KEY_READ, &attributes), STATUS_SUCCESS);
    }
    machine_.ExitProcess(*process);
    EXPECT_EQ(log_.Take(), (Lines{"c 28", "c 29", "c 14", "c 25", "c 40"}));
}

TEST_F(RegistryCallbacksTest, UnregisteringCleansUpEveryContext) {
    std::vector<void*> cleaned;
    TestCallback callback(log_, "c", u"1", [&](REG_NOTIFY_CLASS c, void* information) {
        if (c == RegNtCallbackObjectContextCleanup) cleaned.push_back(Cleaned(information));
        return STATUS_SUCCESS;
    });
    const KeyHandle a = MakeKey(kTestKey), b = MakeKey(kTestKey), c = MakeKey(kTestKey);
    std::uintptr_t number = 1;
    for (const HANDLE handle : {HANDLE(key_), HANDLE(a), HANDLE(b)}) {
        ASSERT_EQ(callback.SetContext(ObjectOf(handle).get(), Number(number++)), STATUS_SUCCESS);
    }
    // A context that was taken away again is nobody's to clean up.
    ASSERT_EQ(callback.SetContext(ObjectOf(c).get(), Number(9)), STATUS_SUCCESS);
    ASSERT_EQ(callback.SetContext(ObjectOf(c).get(), nullptr), STATUS_SUCCESS);
    EXPECT_EQ(DescribeRegistryCallbacks().size(), 1U);

    EXPECT_EQ(callback.Unregister(), STATUS_SUCCESS);
    std::sort(cleaned.begin(), cleaned.end());
    EXPECT_EQ(cleaned, (std::vector<void*>{Number(1), Number(2), Number(3)}));
    EXPECT_EQ(callback.SetContext(ObjectOf(a).get(), Number(1)), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(callback.Unregister(), STATUS_INVALID_PARAMETER);
    EXPECT_TRUE(DescribeRegistryCallbacks().empty());
    log_.Take();
    NtFlushKey(key_);
    EXPECT_EQ(log_.Take(), Lines{});
}

TEST_F(RegistryCallbacksTest, CallsFromInsideACallbackAreToldOfAgain) {
    bool inside = false;
    const TestCallback callback(log_, "c", u"1", [&](REG_NOTIFY_CLASS c, void*) {
        if (c == RegNtPreFlushKey && !std::exchange(inside, true)) {
            EXPECT_EQ(ZwFlushKey(key_), STATUS_SUCCESS);
        }
        return STATUS_SUCCESS;
    });
    NtFlushKey(key_);
    EXPECT_EQ(log_.Take(), (Lines{"c 30", "c 30", "c 31", "c 31"}));
}

/// The stopped machine is a process of its own: what the stopped call held stays held.
TEST_F(RegistryCallbacksTest, BrokenContractsStopTheMachine) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    TestCallback* self = nullptr;
    TestCallback callback(log_, "c", u"1", [&](REG_NOTIFY_CLASS c, void*) {
        if (c == RegNtPreFlushKey) self->Unregister();
        return c == RegNtPreOpenKeyEx ? STATUS_CALLBACK_BYPASS : STATUS_SUCCESS;
    });
    self = &callback;
    EXPECT_DEATH(NtFlushKey(key_), "CmUnRegisterCallback") << "unregistered from inside";
    EXPECT_DEATH(OpenKeyOf(kTestKey), "ResultObject") << "success without a key";
}

TEST_F(RegistryCallbacksTest, UnregisteringWaitsForOperationsInFlight) {
    std::latch entered(1), goOn(1);
    std::thread::id inFlight;
    std::atomic<bool> left{false};
    auto callback = std::make_unique<TestCallback>(log_, "c", u"1", [&](REG_NOTIFY_CLASS c, void*) {
        if (std::this_thread::get_id() != inFlight) return STATUS_SUCCESS;
        if (c == RegNtPreFlushKey) {
            entered.count_down();
            goOn.wait();
        } else if (c == RegNtPostFlushKey) {
            left = true;
        }
        return STATUS_SUCCESS;
    });
    std::thread operation([&] {
        inFlight = std::this_thread::get_id();
        NtFlushKey(key_);
    });
    entered.wait();
    bool leftBefore = false;
    std::thread unregistration([&] {
        callback->Unregister();
        leftBefore = left;
    });
    // Once new operations are not told of any more, unregistration is under way.
    do {
        log_.Take();
        NtFlushKey(key_);
    } while (!log_.Take().empty());
    goOn.count_down();
    operation.join();
    unregistration.join();
    EXPECT_TRUE(leftBefore);
}

/// Keys are opened and closed on several threads, each with a context, while the callback comes and
/// goes: every context that was accepted is cleaned up exactly once.
TEST_F(RegistryCallbacksTest, RacingUnregistrationLosesNoContext) {
    constexpr int kThreads = 3;
    constexpr int kRounds = 150;
    std::atomic<long> attached{0}, cleanedByClose{0}, cleanedByUnregistration{0};
    std::atomic<bool> stop{false};
    const std::thread::id unregistering = std::this_thread::get_id();

    std::vector<std::thread> threads;
    std::atomic<long> opens{0};
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([&] {
            while (!stop) {
                const KeyHandle a = OpenKeyOf(kTestKey).key;
                const KeyHandle b = OpenKeyOf(kTestKey).key;
                SetValue(a, u"V", REG_SZ, "x");
                ++opens;
            }
        });
    }
    for (int round = 0; round < kRounds; ++round) {
        std::atomic<TestCallback*> self{nullptr};
        TestCallback callback(log_, "c", u"1", [&](REG_NOTIFY_CLASS c, void* information) {
            if (c == RegNtPostOpenKeyEx && Post(information).Object != nullptr) {
                TestCallback* known = self;
                auto number = std::make_unique<int>(round);
                if (known != nullptr &&
                    NT_SUCCESS(known->SetContext(Post(information).Object, number.get()))) {
                    number.release();
                    ++attached;
                }
            } else if (c == RegNtCallbackObjectContextCleanup) {
                // Freed twice, the address sanitizer would say so.
                delete static_cast<int*>(Cleaned(information));
                ++(std::this_thread::get_id() == unregistering ? cleanedByUnregistration
                                                               : cleanedByClose);
            }
            return STATUS_SUCCESS;
        });
        self = &callback;
        const long target = opens + kThreads;
        while (opens < target)
            std::this_thread::yield();
        EXPECT_EQ(callback.Unregister(), STATUS_SUCCESS);
        EXPECT_EQ(attached, cleanedByClose + cleanedByUnregistration);
        log_.Take();
    }
    stop = true;
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_GT(cleanedByClose, 0);
    EXPECT_GT(cleanedByUnregistration, 0);
}

}  // namespace
}  // namespace platform
