// The event buffer pool: where reservations land, how buffers fill, seal and are handed over, and
// the chain that a reader finds.
#include "driver/driver_fixture.h"

namespace driver_test {

namespace {

using zpregflt::MEM_RESERVE_CLIENT_BUFFER;
using zpregflt::MEM_RESERVE_SAME_BUFFER;
using zpregflt::MemFlush;
using MarkList = std::vector<std::uint64_t>;
using SequenceList = std::vector<std::uint32_t>;

/// The largest reservation that a buffer of 64 KiB takes.
constexpr std::uint32_t kWholeBuffer = 0xFFE8;

enum Phase { kBoot, kNormal, kShutdown };

class EventPoolTest : public DriverTest {
protected:
    LONG64 Made(Phase phase) const { return Pool.reserveOk[phase]; }
    LONG64 Failed(Phase phase) const { return Pool.reserveFailed[phase]; }
    SequenceList Active() const { return Sequences(Pool.ActiveList); }
};

TEST_F(EventPoolTest, SizesAreMultiplesOfEight) {
    Start();
    std::size_t offset = sizeof(zpregflt::BufferHeader);
    const std::pair<std::uint32_t, std::uint32_t> cases[] = {{1, 8},   {7, 8},   {8, 8},  {9, 16},
                                                             {13, 16}, {40, 40}, {41, 48}};
    for (const auto& [asked, reserved] : cases) {
        const Space space(asked);
        ASSERT_TRUE(space);
        EXPECT_EQ(space.Size(), reserved) << asked;
        EXPECT_EQ(space.Offset(), offset) << asked;
        offset += reserved;
        space.Release();
    }
}

TEST_F(EventPoolTest, LargestReservation) {
    Start();
    for (const std::uint32_t size :
         {0xFFE9u, 0xFFF0u, 0x10000u, 0x7FFFFFFFu, 0xFFFFFFF8u, 0xFFFFFFF9u, 0xFFFFFFFFu}) {
        const LONG64 failed = Failed(kBoot);
        EXPECT_FALSE(Space(size)) << std::hex << size;
        EXPECT_EQ(Failed(kBoot), failed + 1) << std::hex << size;
    }
    EXPECT_EQ(Active(), (SequenceList{1, 2, 3})) << "an empty buffer was sealed";
    for (const std::uint32_t size : {kWholeBuffer, kWholeBuffer - 7, kWholeBuffer - 1}) {
        const Space space(size);
        ASSERT_TRUE(space) << std::hex << size;
        EXPECT_EQ(space.Offset(), 8u);
        space.Release();
    }
}

TEST_F(EventPoolTest, LastSixteenBytesAreNeverUsed) {
    Start();
    std::uint32_t count = 0;
    std::size_t end = 0;
    for (;; ++count) {
        const Space space(8);
        ASSERT_TRUE(space);
        if (space.Sequence() == 1) end = space.Offset() + space.Size();
        space.Release();
        if (space.Sequence() != 1) break;
    }
    EXPECT_EQ(end, 0x10000u - 16);
    EXPECT_EQ(count, (0x10000u - 16 - 8) / 8);
}

TEST_F(EventPoolTest, LargeRecordPassesEmptyBuffersAndSealsUsedOnes) {
    Start();
    const auto loan = TheClient().Lend(0x40000);
    ASSERT_EQ(Active(), (SequenceList{1, 4, 2, 3}));
    const Space passing(0x10000);
    ASSERT_TRUE(passing);
    EXPECT_EQ(passing.Sequence(), 4u);
    EXPECT_EQ(Active(), (SequenceList{1, 4, 2, 3})) << "the empty buffer stays the current one";
    const Space small(8);
    EXPECT_EQ(small.Sequence(), 1u);
    const Space sealing(0xFF00);
    EXPECT_EQ(sealing.Sequence(), 1u);
    const Space next(0x1000);
    EXPECT_EQ(next.Sequence(), 4u) << "the used buffer is sealed, the next one has room";
    EXPECT_EQ(Sequences(Pool.SealedList), SequenceList{1});
    for (const Space* space : {&small, &sealing, &next, &passing})
        space->Release();
    EXPECT_EQ(Active(), (SequenceList{4, 2, 3, 5})) << "the boot buffer comes back at the tail";
    EXPECT_EQ(Failed(kNormal), 0);
}

TEST_F(EventPoolTest, SealedBufferIsDeliveredWithItsLastRelease) {
    StartWithoutBootBuffers();
    const auto first = TheClient().Lend();
    const auto second = TheClient().Lend();
    const Space early(0x8000);
    const Space late(0x7000);
    ASSERT_EQ(late.Sequence(), early.Sequence());
    early.Commit(1);
    const Space sealing(0x1000);
    ASSERT_TRUE(sealing);
    EXPECT_NE(sealing.Sequence(), early.Sequence());
    early.Release();
    EXPECT_TRUE(first->IsOut());
    late.Commit(2);
    late.Release();
    EXPECT_EQ(first->Wait(), STATUS_SUCCESS);
    EXPECT_EQ(first->Information(), 2u);
    EXPECT_EQ(Marks(first->Records()), (MarkList{1, 2}));
    EXPECT_TRUE(second->IsOut());
    sealing.Release();
}

TEST_F(EventPoolTest, ChainFollowsTheOrderOfCommits) {
    StartWithoutBootBuffers();
    const auto loan = TheClient().Lend();
    const Space a(40), b(48), c(56);
    b.Commit(2);
    a.Commit(1);
    c.Commit(3);
    for (const Space* space : {&a, &b, &c})
        space->Release();
    MemFlush();
    ASSERT_EQ(loan->Wait(), STATUS_SUCCESS);
    const std::vector<Record> chain = loan->Records();
    ASSERT_EQ(Marks(chain), (MarkList{2, 1, 3}));
    EXPECT_EQ(chain[0].offset, 48u);
    EXPECT_EQ(chain[0].header.NextOffset, -40);
    EXPECT_EQ(chain[1].header.NextOffset, 88);
    EXPECT_EQ(chain[2].header.NextOffset, 0);
}

// --- Flags ---------------------------------------------------------------------------------------

TEST_F(EventPoolTest, SameBuffer) {
    Start();
    const auto loan = TheClient().Lend();
    const Space first(0x8000);
    const LONG64 failed = Failed(kNormal);
    EXPECT_FALSE(Space(8, MEM_RESERVE_SAME_BUFFER, first.Sequence() + 1));
    const Space same(8, MEM_RESERVE_SAME_BUFFER, first.Sequence());
    ASSERT_TRUE(same);
    EXPECT_EQ(same.Buffer(), first.Buffer());
    EXPECT_FALSE(Space(0x8000, MEM_RESERVE_SAME_BUFFER, first.Sequence()));
    EXPECT_EQ(Active().front(), first.Sequence()) << "a refusal seals nothing";
    const Space next(0x8000);
    EXPECT_NE(next.Sequence(), first.Sequence());
    EXPECT_FALSE(Space(8, MEM_RESERVE_SAME_BUFFER, first.Sequence()))
        << "the current buffer has changed";
    EXPECT_EQ(Failed(kNormal), failed) << "a refusal is no lack of space";
    for (const Space* space : {&first, &same, &next})
        space->Release();
}

TEST_F(EventPoolTest, ClientBufferOnly) {
    Start();
    EXPECT_FALSE(Space(8, MEM_RESERVE_CLIENT_BUFFER));
    const auto loan = TheClient().Lend(0x20000);
    EXPECT_FALSE(Space(8, MEM_RESERVE_CLIENT_BUFFER)) << "a boot buffer is still the current one";
    EXPECT_EQ(Failed(kBoot) + Failed(kNormal), 0) << "a refusal is no lack of space";
    WriteMark(1, kWholeBuffer);
    WriteMark(2);
    const Space space(8, MEM_RESERVE_CLIENT_BUFFER);
    ASSERT_TRUE(space);
    EXPECT_NE(space.Buffer()->request, nullptr);
    space.Release();
}

// --- Lists ---------------------------------------------------------------------------------------

TEST_F(EventPoolTest, FullBootBuffersWaitForClientBuffers) {
    Start();
    for (const std::uint64_t mark : {1, 2, 3})
        WriteMark(mark, kWholeBuffer);
    EXPECT_FALSE(Space(8));
    EXPECT_EQ(Sequences(Pool.PendingList), (SequenceList{1, 2, 3}));
    EXPECT_TRUE(Active().empty());
    EXPECT_EQ(Failed(kBoot), 2) << "the test's and that of the last buffer's copy";
    MemFlush();

    // Each buffer that is lent takes one of them over and sends it back to work.
    const auto large = TheClient().Lend(0x40000);
    EXPECT_EQ(Active(), (SequenceList{4, 5}));
    EXPECT_EQ(Sequences(Pool.PendingList), (SequenceList{2, 3}));
    const auto second = TheClient().Lend();
    EXPECT_EQ(Active(), (SequenceList{4, 6, 5, 7}));
    const auto third = TheClient().Lend();
    EXPECT_EQ(Active(), (SequenceList{4, 8, 6, 5, 7, 9}));
    EXPECT_TRUE(IsListEmpty(&Pool.PendingList));
    MemFlush();
    ASSERT_EQ(large->Wait(), STATUS_SUCCESS);
    EXPECT_EQ(Marks(large->Records()), (MarkList{1, 2, 3}));
    // One reservation of a writer's and one for the copy, each.
    EXPECT_EQ(large->Information(), 6u);
}

TEST_F(EventPoolTest, PendingBufferWaitsWhileABootBufferIsCurrent) {
    Start();
    WriteMark(1);
    MemFlush();
    // The second pass has sealed the empty second buffer, which is reset.
    EXPECT_EQ(Active(), (SequenceList{3, 4}));
    ASSERT_EQ(Sequences(Pool.PendingList), SequenceList{1});
    const auto loan = TheClient().Lend();
    EXPECT_EQ(Active(), (SequenceList{3, 5, 4}));
    EXPECT_EQ(Sequences(Pool.PendingList), SequenceList{1}) << "not lost";
}

TEST_F(EventPoolTest, FlushSealsOneClientBuffer) {
    StartWithoutBootBuffers();
    MemFlush();
    const auto first = TheClient().Lend();
    const auto second = TheClient().Lend();
    WriteMark(1);
    EXPECT_EQ(TheClient().Flush(), STATUS_SUCCESS);
    EXPECT_EQ(first->Wait(), STATUS_SUCCESS);
    EXPECT_EQ(Marks(first->Records()), MarkList{1});
    EXPECT_TRUE(second->IsOut());
    EXPECT_EQ(Active(), SequenceList{2});
}

TEST_F(EventPoolTest, FlushedBootBufferTakesTheClientBufferAlong) {
    Start();
    WriteMark(1);
    const auto first = TheClient().Lend();
    const auto second = TheClient().Lend();
    WriteMark(2);
    EXPECT_EQ(TheClient().Flush(), STATUS_SUCCESS);
    EXPECT_EQ(second->Wait(), STATUS_SUCCESS);
    EXPECT_EQ(Marks(second->Records()), (MarkList{1, 2}));
    EXPECT_TRUE(first->IsOut());
    EXPECT_EQ(Active(), (SequenceList{4, 2, 3, 6}));
}

// --- Hand-over of a boot buffer ------------------------------------------------------------------

TEST_F(EventPoolTest, HandedOverChainGoesOn) {
    const struct {
        const char* name;
        unsigned reservations;          ///< in the boot buffer, of 40 bytes each
        std::vector<unsigned> commits;  ///< which of them, in this order
    } patterns[] = {
        {"all in order", 3, {0, 1, 2}},    {"first is no record", 3, {1, 2}},
        {"first comes second", 2, {1, 0}}, {"first comes last", 4, {3, 2, 1, 0}},
        {"last is no record", 3, {0, 1}},  {"no record", 2, {}},
    };
    for (const bool targetUsed : {false, true}) {
        for (const auto& pattern : patterns) {
            SCOPED_TRACE(testing::Message()
                         << pattern.name << (targetUsed ? " behind others" : ""));
            Boot({});
            Start();
            auto loan = TheClient().Lend(0x40000);
            std::vector<Space> spaces;
            for (unsigned i = 0; i < pattern.reservations; ++i)
                spaces.emplace_back(40);
            // Stays without a record; fills the buffer, so that the next reservation goes to the
            // client's.
            const Space filler(kWholeBuffer - 40u * pattern.reservations);
            ASSERT_TRUE(filler);
            MarkList expected;
            if (targetUsed) expected.push_back(1);
            for (const unsigned index : pattern.commits) {
                spaces[index].Commit(10 + index);
                expected.push_back(10 + index);
            }
            const Space inTarget(40);
            ASSERT_EQ(inTarget.Sequence(), 4u);
            if (targetUsed) inTarget.Commit(1);
            inTarget.Release();
            filler.Release();
            for (const Space& space : spaces)
                space.Release();
            EXPECT_EQ(Active(), (SequenceList{4, 2, 3, 5}));

            WriteMark(99);
            expected.push_back(99);
            MemFlush();
            ASSERT_EQ(loan->Wait(), STATUS_SUCCESS);
            EXPECT_EQ(Marks(loan->Records()), expected);
            // The pattern's and the filler; the one in the target, the copy's and the last one.
            EXPECT_EQ(loan->Information(), pattern.reservations + 1 + 3);
            loan.reset();
            Stop();
        }
    }
}

// --- Counters ------------------------------------------------------------------------------------

TEST_F(EventPoolTest, ReservationsAreCountedByPhase) {
    Start();
    const auto count = [&](Phase phase) {
        const LONG64 made = Made(phase);
        const LONG64 failed = Failed(phase);
        WriteMark(1);
        EXPECT_FALSE(Space(0xFFFFFFFF));
        EXPECT_EQ(Made(phase), made + 1) << phase;
        EXPECT_EQ(Failed(phase), failed + 1) << phase;
    };
    count(kBoot);
    const auto loan = TheClient().Lend();
    count(kNormal);
    loan->Cancel();
    EXPECT_EQ(loan->Wait(), STATUS_CANCELLED);
    count(kShutdown);
    EXPECT_EQ(loan->Send(), STATUS_PENDING);
    count(kNormal);
    machine_->NotifyShutdown();
    count(kShutdown);
    EXPECT_EQ(Made(kBoot) + Made(kNormal) + Made(kShutdown), 5);
}

TEST_F(EventPoolTest, BufferLentLastIsUsedNextAndTheFirstRequestsTimeKept) {
    Start();
    EXPECT_EQ(Pool.firstRequestTime, 0);
    machine_->SetSystemTime(1000);
    const auto first = TheClient().Lend();
    machine_->SetSystemTime(2000);
    const auto second = TheClient().Lend();
    const auto third = TheClient().Lend();
    EXPECT_EQ(Active(), (SequenceList{1, 6, 5, 4, 2, 3}));
    EXPECT_EQ(Pool.firstRequestTime, 1000);
}

TEST(KeyEntry, ANameIsFoundFromItsOwnFillingOnly) {
    WCHAR buffer[8] = {};
    WCHAR other[8] = {};
    zpregflt::KeyEntry entry = {};
    entry.SetName(&buffer[4], 7);
    EXPECT_EQ(entry.NameIn(7, buffer, buffer + 8), &buffer[4]);
    EXPECT_EQ(entry.NameIn(6, buffer, buffer + 8), nullptr) << "an earlier filling";
    // Between the two stores of a change that another thread makes, and after it.
    entry.CachedName = &other[4];
    EXPECT_EQ(entry.NameIn(7, buffer, buffer + 8), nullptr);
    entry.SetName(&other[4], 9);
    EXPECT_EQ(entry.NameIn(7, buffer, buffer + 8), nullptr);
    entry.SetName(&buffer[2], 7);
    EXPECT_EQ(entry.NameIn(7, buffer, buffer + 8), &buffer[2]) << "the same filling again";
    entry.ForgetName();
    EXPECT_EQ(entry.NameIn(7, buffer, buffer + 8), nullptr);
}

}  // namespace

}  // namespace driver_test
