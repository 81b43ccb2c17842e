#include "client/control_session.h"

#include "driver/control_codes.h"

#include <gtest/gtest.h>

#include <condition_variable>
#include <cstring>
#include <deque>
#include <map>
#include <mutex>

namespace zpregmon {
namespace {

constexpr Status kRefused = static_cast<Status>(0xC0000017);
constexpr Status kCancelled = static_cast<Status>(0xC0000120);

/// A driver that fills its first lent buffer when it is told to.
class FakeDevice final : public ControlDevice {
public:
    void AllocateBuffers(std::size_t count, std::size_t size) override {
        buffers_.assign(count, std::vector<std::byte>(size));
    }
    std::span<std::byte> Buffer(std::size_t slot) override { return buffers_[slot]; }

    Status LendBuffer(std::size_t slot) override {
        const std::lock_guard guard(lock_);
        if (lendsLeft == 0) {
            return kRefused;
        }
        --lendsLeft;
        if (refusesLater) {
            finished_.push_back({slot, kRefused, 0});
        } else {
            lent_.push_back(slot);
        }
        changed_.notify_all();
        return 0;
    }
    std::vector<Completion> WaitForCompletions() override {
        std::unique_lock guard(lock_);
        changed_.wait(guard, [&] { return !finished_.empty(); });
        return std::exchange(finished_, {});
    }
    bool DriverHasBuffers(std::size_t count) override {
        const std::lock_guard guard(lock_);
        return lent_.size() >= count;
    }
    void CancelBuffers() override {
        const std::lock_guard guard(lock_);
        for (const std::size_t slot : lent_) {
            finished_.push_back({slot, kCancelled, 0});
        }
        lent_.clear();
        changed_.notify_all();
    }
    Status Control(std::uint32_t code, std::span<const std::byte> input) override {
        if (code == zpregflt::IOCTL_ZPRF_FLUSH) {
            Deliver(std::exchange(unflushed, 0));
            return 0;
        }
        controls[code].assign(input.begin(), input.end());
        return controlStatus;
    }
    Status SetDumpFile(const std::string&) override { return controlStatus; }

    /// Completes the current buffer, with `mark` as its contents; 0: nothing was reserved in it.
    void Deliver(std::uint32_t mark) {
        std::unique_lock guard(lock_);
        changed_.wait(guard, [&] { return !lent_.empty() || mark == 0; });
        if (lent_.empty()) {
            return;
        }
        const std::size_t slot = lent_.front();
        lent_.pop_front();
        std::memcpy(buffers_[slot].data(), &mark, sizeof(mark));
        finished_.push_back({slot, 0, mark});
        changed_.notify_all();
    }

    std::size_t lendsLeft = ~std::size_t{0};
    bool refusesLater = false;  ///< the request is taken, and comes back refused
    std::uint32_t unflushed = 0;
    Status controlStatus = 0;
    std::map<std::uint32_t, std::vector<std::byte>> controls;

private:
    std::mutex lock_;
    std::condition_variable changed_;
    std::vector<std::vector<std::byte>> buffers_;
    std::deque<std::size_t> lent_;
    std::vector<Completion> finished_;
};

/// Collects what the session hands out.
struct Received {
    std::vector<std::uint32_t> marks;
    BufferHandler Handler() {
        return [this](std::span<const std::byte> image) {
            std::uint32_t mark;
            std::memcpy(&mark, image.data(), sizeof(mark));
            marks.push_back(mark);
        };
    }
};

TEST(ControlSession, HandsOutEveryBufferInOrderAndLendsItAgain) {
    FakeDevice device;
    ControlSession session(device);
    Received received;
    session.Start({.buffers = 3, .bufferSize = 64}, received.Handler());
    std::vector<std::uint32_t> expected;
    for (std::uint32_t mark = 1; mark <= 100; ++mark) {
        device.Deliver(mark);  // waits while none is lent: 3 buffers carry 100 fillings
        expected.push_back(mark);
    }
    device.unflushed = 101;  // is in a buffer when the session ends
    expected.push_back(101);
    ASSERT_TRUE(session.WaitUntilLent(1));
    const SessionStatistics statistics = session.Finish();
    EXPECT_EQ(received.marks, expected);
    EXPECT_EQ(statistics.buffersDelivered, 101U);
    EXPECT_EQ(statistics.reservations, 101U * 102 / 2);
    EXPECT_EQ(statistics.buffersLost, 0U);
}

TEST(ControlSession, WaitUntilLentEndsWhenBuffersAreBackOrNeverComeBack) {
    FakeDevice device;
    device.lendsLeft = 2 + 1;  // the first that comes back is taken again, the others are not
    ControlSession session(device);
    Received received;
    session.Start({.buffers = 2, .bufferSize = 64}, received.Handler());
    device.Deliver(1);
    EXPECT_TRUE(session.WaitUntilLent(2));
    device.Deliver(2);
    EXPECT_FALSE(session.WaitUntilLent(2));
    EXPECT_TRUE(session.WaitUntilLent(1));
    const SessionStatistics statistics = session.Finish();
    EXPECT_EQ(statistics.buffersLost, 1U);
    EXPECT_EQ(statistics.lastFailure, kRefused);
    EXPECT_EQ(received.marks, (std::vector<std::uint32_t>{1, 2}));
}

TEST(ControlSession, StartFailsWhenTheDriverTakesNoBuffer) {
    FakeDevice device;
    device.lendsLeft = 0;
    ControlSession session(device);
    try {
        session.Start({.buffers = 2, .bufferSize = 64}, Received().Handler());
        FAIL() << "no buffer was lent";
    } catch (const ControlError& error) {
        EXPECT_EQ(error.Code(), kRefused);
    }
}

TEST(ControlSession, FlushFailsWhenEveryBufferCameBackRefused) {
    FakeDevice device;
    device.refusesLater = true;
    ControlSession session(device);
    const auto flushFor = [&](std::chrono::milliseconds time) {
        session.Start({.buffers = 2, .bufferSize = 64}, Received().Handler());
        const auto end = std::chrono::steady_clock::now() + time;
        while (std::chrono::steady_clock::now() < end) {
            session.Flush();
        }
    };
    EXPECT_THROW(flushFor(std::chrono::seconds(10)), ControlError);
}

TEST(ControlSession, TakesItsBuffersBackWhenItIsNotFinished) {
    FakeDevice device;
    {
        ControlSession session(device);
        session.Start({.buffers = 4, .bufferSize = 64}, [](std::span<const std::byte>) {});
    }
    EXPECT_FALSE(device.DriverHasBuffers(1));
}

TEST(ControlSession, SendsSettingsAsTheDriverReadsThem) {
    FakeDevice device;
    ControlSession session(device);
    session.SetLoggedOperations(0x403);
    session.SetCaptureMaxSize(0x10000);
    session.SetReportOriginal(true);
    session.RemoveAllExemptions();
    const auto number = [&](std::uint32_t code) {
        std::uint32_t value = 0;
        EXPECT_EQ(device.controls.at(code).size(), sizeof(value));
        std::memcpy(&value, device.controls.at(code).data(), sizeof(value));
        return value;
    };
    EXPECT_EQ(number(zpregflt::IOCTL_ZPRF_SET_LOGGED_OPERATIONS), 0x403U);
    EXPECT_EQ(number(zpregflt::IOCTL_ZPRF_SET_CAPTURE_MAX_SIZE), 0x10000U);
    EXPECT_EQ(number(zpregflt::IOCTL_ZPRF_SET_REPORT_ORIGINAL), 1U);
    EXPECT_TRUE(device.controls.at(zpregflt::IOCTL_ZPRF_EXEMPT_REMOVE_ALL).empty());

    device.controlStatus = kRefused;
    EXPECT_THROW(session.SetReportOriginal(false), ControlError);
    EXPECT_THROW(session.SetDumpFile("x"), ControlError);
}

}  // namespace
}  // namespace zpregmon
