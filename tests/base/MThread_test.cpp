#include "base/MThread.h"

#include <gtest/gtest.h>
#include <time.h>

#include <atomic>
#include <chrono>

#include "base/CriticalSection.h"
#include "base/TickCount.h"

namespace {

using Clock = std::chrono::steady_clock;

long ElapsedMs(Clock::time_point since) {
    return static_cast<long>(
        std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - since).count());
}

// Spins until flag is set or about two seconds pass.
bool WaitFor(const std::atomic<bool>& flag) {
    for (int i = 0; i < 2000 && !flag.load(); ++i) MThread::Sleep(1);
    return flag.load();
}

struct Gate {
    std::atomic<bool> started{false};
    std::atomic<bool> release{false};
    std::atomic<int> runs{0};
    void* seenArg = nullptr;
};

void* GatedRoutine(void* p) {
    Gate* g = static_cast<Gate*>(p);
    g->seenArg = p;
    g->started = true;
    WaitFor(g->release);
    ++g->runs;
    return nullptr;
}

// ---------------------------------------------------------------- MThread

TEST(MThreadTest, StartRunsRoutineAndJoinEndsIt) {
    Gate g;
    MThread t;
    EXPECT_FALSE(t.IsActive());
    ASSERT_EQ(t.StartThread("worker", GatedRoutine, &g), 1);
    ASSERT_TRUE(WaitFor(g.started));
    EXPECT_EQ(g.seenArg, &g);
    EXPECT_TRUE(t.IsActive());
    EXPECT_TRUE(t.IsEmpty());  // same flag as IsActive, despite the name

    g.release = true;
    t.JoinThread();
    EXPECT_EQ(g.runs.load(), 1);
    EXPECT_FALSE(t.IsActive());
    EXPECT_FALSE(t.IsEmpty());

    const auto start = Clock::now();
    t.JoinThread();  // second join returns at once
    t.StopThread();
    EXPECT_LT(ElapsedMs(start), 100);
}

TEST(MThreadTest, RestartAfterJoinAndLongName) {
    Gate g;
    g.release = true;
    MThread t;
    const char* longName = "a-thread-name-well-beyond-thirty-two-characters";
    ASSERT_EQ(t.StartThread(longName, GatedRoutine, &g, true), 1);
    t.JoinThread();
    ASSERT_EQ(t.StartThread("again", GatedRoutine, &g), 1);
    t.StopThread();
    EXPECT_EQ(g.runs.load(), 2);
}

TEST(MThreadTest, DestructorJoinsTheThread) {
    Gate g;
    {
        MThread t;
        ASSERT_EQ(t.StartThread("d", GatedRoutine, &g), 1);
        ASSERT_TRUE(WaitFor(g.started));
        g.release = true;
    }
    EXPECT_EQ(g.runs.load(), 1);
}

TEST(MThreadTest, UnstartedThreadJoinsAtOnceAndKeepsTheCallersWord) {
    MThread t;
    const auto start = Clock::now();
    t.JoinThread();
    t.StopThread();
    EXPECT_LT(ElapsedMs(start), 100);
    EXPECT_FALSE(t.IsActive());

    EXPECT_EQ(t.GetAddtionData(), 0xFFFFFFFFUL);  // low 32 bits only
    EXPECT_NE(t.GetAddtionData(), ~0UL);
    t.SetAddtionData(~0UL);
    EXPECT_EQ(t.GetAddtionData(), ~0UL);
    EXPECT_EQ(t.PauseThread(), 1);
    EXPECT_EQ(t.ResumeThread(), 1);
}

TEST(MThreadTest, SleepDurations) {
    auto start = Clock::now();
    MThread::Sleep(0);
    EXPECT_LT(ElapsedMs(start), 50);

    start = Clock::now();
    MThread::Sleep(30);
    EXPECT_GE(ElapsedMs(start), 30);

    // 4294968 ms x 1000 wraps in 32 bits to 704 microseconds.
    start = Clock::now();
    MThread::Sleep(4294968UL);
    EXPECT_LT(ElapsedMs(start), 1000);
}

// ---------------------------------------------------------------- locks

TEST(CriticalSectionTest, LockIsSharedAndReentrant) {
    ECriticalSection cs;
    EXPECT_EQ(cs.Lock(), 1);
    EXPECT_EQ(cs.Lock(), 1);
    EXPECT_EQ(cs.Unlock(), 0);
    EXPECT_EQ(cs.Unlock(), 0);

    {
        EAutoLock a(&cs);
        EAutoLock b(&cs);  // must not block
    }
    // Both guards released their holds: a second thread that takes the
    // section while this one holds it proceeds; the sections do not exclude.
    struct Ctx {
        ECriticalSection* cs;
        std::atomic<bool> inside{false};
    } ctx{&cs};
    EAutoLock held(&cs);
    MThread t;
    ASSERT_EQ(t.StartThread("locker",
                            [](void* p) -> void* {
                                Ctx* c = static_cast<Ctx*>(p);
                                EAutoLock l(c->cs);
                                c->inside = true;
                                return nullptr;
                            },
                            &ctx),
              1);
    EXPECT_TRUE(WaitFor(ctx.inside));
    t.JoinThread();
}

TEST(CriticalSectionTest, NullGuardIsHarmless) { EAutoLock l(nullptr); }

// ---------------------------------------------------------------- tick

TEST(TickCountTest, FollowsTheMonotonicClockModulo32Bits) {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    const uint32_t expected =
        static_cast<uint32_t>(static_cast<uint64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000);
    const uint32_t tick = GetTickCount();
    EXPECT_LT(static_cast<uint32_t>(tick - expected), 50u);

    MThread::Sleep(20);
    EXPECT_GE(static_cast<uint32_t>(GetTickCount() - tick), 20u);
}

}  // namespace
