// Many threads send, cancel, find, take and close at once; every request ends exactly once.
#include "framework/framework_test.h"

#include <algorithm>
#include <atomic>
#include <random>
#include <thread>

namespace framework_test {
namespace {

struct Tally {
    std::atomic<int> sent{0};
    std::atomic<int> delivered{0};  ///< completed by a thread that took the request
    std::atomic<int> cancelledByDriver{0};
    std::atomic<int> lostRaces{0};  ///< found, but taken or cancelled before it could be taken
};

class RequestRaceTest : public FrameworkTest {
protected:
    static constexpr int kClients = 3;
    static constexpr int kTakers = 2;
    static constexpr int kRounds = 60;
    static constexpr int kBatch = 6;

    void SetUp() override {
        ParkRequests();
        behaviour.cancelled = [this](WDFREQUEST request) {
            ++tally.cancelledByDriver;
            WdfRequestComplete(request, STATUS_CANCELLED);
        };
        ASSERT_EQ(Load(), STATUS_SUCCESS);
    }

    /// One walk over the parked requests; takes each one found with a chance of one half.
    void WalkOnce(std::minstd_rand& random) {
        WDFREQUEST previous = nullptr;
        WDFREQUEST found = nullptr;
        for (;;) {
            const NTSTATUS status =
                WdfIoQueueFindRequest(objects.parked, previous, nullptr, nullptr, &found);
            if (previous != nullptr) WdfObjectDereference(previous);
            previous = nullptr;
            if (status == STATUS_NOT_FOUND) continue;
            if (status == STATUS_NO_MORE_ENTRIES) return;
            EXPECT_EQ(status, STATUS_SUCCESS);
            previous = found;
            if (random() % 2 == 0) Take(found);
        }
    }

    void Take(WDFREQUEST found) {
        WDFREQUEST taken = nullptr;
        const NTSTATUS status = WdfIoQueueRetrieveFoundRequest(objects.parked, found, &taken);
        if (status == STATUS_SUCCESS) {
            ++tally.delivered;
            WdfRequestCompleteWithInformation(taken, STATUS_SUCCESS, 1);
        } else {
            EXPECT_EQ(status, STATUS_NOT_FOUND);
            ++tally.lostRaces;
        }
    }

    /// Sends batches, cancels some of each, and either waits for the rest or closes the file.
    void RunClient(unsigned seed) {
        std::minstd_rand random(seed);
        for (int round = 0; round < kRounds; ++round) {
            NTSTATUS opened = STATUS_UNSUCCESSFUL;
            Client client(*machine, &opened);
            ASSERT_EQ(opened, STATUS_SUCCESS);
            std::vector<std::unique_ptr<Sent>> batch;
            for (int i = 0; i < kBatch; ++i) {
                batch.push_back(client.Send(kBuffered));
                ++tally.sent;
                if (random() % 3 == 0) client.Cancel(*batch[random() % batch.size()]);
            }
            if (round % 2 == 0) client.Close();
            for (const auto& sent : batch)
                CountEnd(client.Wait(*sent));
        }
    }

    void CountEnd(NTSTATUS status) {
        ++(status == STATUS_SUCCESS ? successes : cancellations);
        EXPECT_TRUE(status == STATUS_SUCCESS || status == STATUS_CANCELLED) << std::hex << status;
    }

    Tally tally;
    std::atomic<int> successes{0};
    std::atomic<int> cancellations{0};
};

TEST_F(RequestRaceTest, EveryRequestEndsOnce) {
    std::atomic<bool> stop{false};
    std::vector<std::thread> takers;
    for (int i = 0; i < kTakers; ++i) {
        takers.emplace_back([&, i] {
            std::minstd_rand random(static_cast<unsigned>(100 + i));
            while (!stop)
                WalkOnce(random);
        });
    }
    std::vector<std::thread> clients;
    for (int i = 0; i < kClients; ++i) {
        clients.emplace_back([&, i] { RunClient(static_cast<unsigned>(i + 1)); });
    }
    for (std::thread& client : clients)
        client.join();
    stop = true;
    for (std::thread& taker : takers)
        taker.join();

    EXPECT_EQ(tally.sent, kClients * kRounds * kBatch);
    EXPECT_EQ(successes, tally.delivered);
    EXPECT_EQ(cancellations, tally.cancelledByDriver);
    EXPECT_EQ(successes + cancellations, tally.sent);
    EXPECT_GT(tally.delivered, 0);
    EXPECT_GT(tally.cancelledByDriver, 0);
    EXPECT_EQ(Unload(), STATUS_SUCCESS);
}

}  // namespace
}  // namespace framework_test
