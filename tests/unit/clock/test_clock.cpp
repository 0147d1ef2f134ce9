// The render clock, and the platform's timers and waits on it, where a moment is exact:
// time stands while anyone works, jumps to the next moment someone waits for, and every
// wait, timer and sleep ends at its own moment and no other.
#include "platform/QXPlatform.h"
#include "platform/kernel/QXClock.h"

#include <quavix/QXClock.h>

#include <gtest/gtest.h>

#include <functional>
#include <mutex>
#include <thread>
#include <vector>

using qxplat::NowNs;

namespace {

constexpr int64_t kMs = 1'000'000;

// Notes the clock's moment of every callback (in ms since Start), then runs the hook.
struct Ticks {
    std::mutex m;
    std::vector<int64_t> at;
    int64_t startNs = NowNs();
    std::function<void(UINT id, size_t n)> hook;
    std::vector<UINT> ids;

    ~Ticks()
    {
        for (UINT id : ids) timeKillEvent(id);
    }
    UINT Arm(UINT ms, UINT flags)
    {
        const UINT id = timeSetEvent(ms, 0, Proc, reinterpret_cast<DWORD_PTR>(this), flags);
        ids.push_back(id);
        return id;
    }
    std::vector<int64_t> Seen()
    {
        std::lock_guard<std::mutex> lock(m);
        return at;
    }
    static void CALLBACK Proc(UINT id, UINT, DWORD_PTR user, DWORD_PTR, DWORD_PTR)
    {
        auto* t = reinterpret_cast<Ticks*>(user);
        size_t n;
        {
            std::lock_guard<std::mutex> lock(t->m);
            t->at.push_back((NowNs() - t->startNs) / kMs);
            n = t->at.size();
        }
        if (t->hook) t->hook(id, n);
    }
};

} // namespace

TEST(RenderClock, StandsWhileThreadsWorkAndWakesEachWaiterAtItsOwnMoment)
{
    ASSERT_TRUE(QXRenderClockOn());
    const int64_t t0 = NowNs();
    volatile uint64_t work = 0;
    for (int i = 0; i < 2'000'000; ++i) work = work + i;
    EXPECT_EQ(NowNs(), t0) << "time moved while the only thread worked";

    // Waiters of every kind, started in the wrong order: each sees its own moment.
    std::mutex m;
    std::vector<std::pair<int, int64_t>> woke;
    auto note = [&](int who) {
        std::lock_guard<std::mutex> lock(m);
        woke.emplace_back(who, (NowNs() - t0) / kMs);
    };
    HANDLE ev = CreateEventA(nullptr, FALSE, FALSE, nullptr);
    qxplat::ClockCondition cond;
    bool signalled = false;
    std::vector<std::thread> threads;
    threads.push_back(qxplat::StartClockThread([&] { Sleep(30), note(30); }));
    threads.push_back(qxplat::StartClockThread([&] {
        EXPECT_EQ(WaitForSingleObject(ev, 5000), WAIT_TIMEOUT);
        note(5000);
    }));
    threads.push_back(qxplat::StartClockThread([&] {
        std::unique_lock<std::mutex> lock(m);
        EXPECT_TRUE(cond.WaitUntil(lock, t0 + 60'000 * kMs, [&] { return signalled; }));
        lock.unlock();
        note(20);
    }));
    threads.push_back(qxplat::StartClockThread([&] {
        qxplat::ClockSleepFor(20 * kMs);
        std::lock_guard<std::mutex> lock(m);
        signalled = true;
        cond.NotifyAll();
    }));
    qxplat::ClockSleepFor(10'000 * kMs);
    for (auto& t : threads) t.join();
    CloseHandle(ev);
    EXPECT_EQ(woke, (std::vector<std::pair<int, int64_t>>{{20, 20}, {30, 30}, {5000, 5000}}));
    EXPECT_EQ(NowNs() - t0, 10'000 * kMs);
}

// A periodic timer keeps its grid whatever its callback takes; ticks missed by a full
// period are dropped, not fired in a burst; a kill waits for the running callback; a
// callback may arm and kill timers, its own too; a one-shot fires once and is gone.
TEST(RenderClock, TimersKeepTheirGridDropMissedTicksAndKillsWaitForTheCallback)
{
    Ticks slow;
    slow.hook = [](UINT, size_t n) { Sleep(n == 3 ? 70 : 12); };
    const UINT slowId = slow.Arm(20, TIME_PERIODIC);
    Sleep(205);
    EXPECT_EQ(timeKillEvent(slowId), TIMERR_NOERROR);
    // Held up 70 ms at 60: 80 and 100 are missed by a full period; 120 fires late, at
    // 130, and 140 a little late, after the 12 ms of the callback at 130.
    EXPECT_EQ(slow.Seen(), (std::vector<int64_t>{20, 40, 60, 130, 142, 160, 180, 200}));

    for (UINT flags : {TIME_ONESHOT, TIME_PERIODIC}) {
        Ticks p;
        int64_t finished = 0;
        p.hook = [&](UINT, size_t) { Sleep(100), finished = NowNs(); };
        const UINT id = p.Arm(1, flags);
        Sleep(2);
        EXPECT_EQ(timeKillEvent(id), TIMERR_NOERROR);
        EXPECT_EQ(NowNs(), finished) << "the kill came back before the callback it waited for, flags " << flags;
        EXPECT_EQ(p.Seen().size(), 1u);
    }

    Ticks p, inner, victim;
    const UINT victimId = victim.Arm(100, TIME_ONESHOT);
    MMRESULT killedVictim = ~0u, killedSelf = ~0u;
    p.hook = [&](UINT id, size_t n) {
        if (n < 3) return;
        inner.Arm(5, TIME_ONESHOT);
        killedVictim = timeKillEvent(victimId);
        killedSelf = timeKillEvent(id);
    };
    const UINT id = p.Arm(5, TIME_PERIODIC);
    Sleep(150);
    EXPECT_EQ(p.Seen(), (std::vector<int64_t>{5, 10, 15}));
    EXPECT_EQ(inner.Seen(), (std::vector<int64_t>{20}));
    EXPECT_TRUE(victim.Seen().empty());
    EXPECT_EQ(killedVictim, TIMERR_NOERROR);
    EXPECT_EQ(killedSelf, TIMERR_NOERROR);
    EXPECT_EQ(timeKillEvent(id), MMSYSERR_INVALPARAM);
    EXPECT_EQ(timeKillEvent(inner.ids[0]), MMSYSERR_INVALPARAM) << "a one-shot that fired is gone";
}

TEST(RenderClock, TimeGetTimeWrapsAt32BitsKeepingElapsedTime)
{
    QXSetTimeOffset(0);
    QXSetTimeOffset(0u - 50u - timeGetTime());
    const DWORD first = timeGetTime();
    EXPECT_EQ(first, 0u - 50u);
    EXPECT_EQ(QXClockMs(), first);
    QXClockSleep(80);
    EXPECT_EQ(timeGetTime(), 30u);
    QXSetTimeOffset(0);
}

// What a thread hands over at a moment is in before a settling thread goes on, whatever
// order the two were woken in; a notification ends a settle too.
TEST(RenderClock, ASettleWaitsForEveryoneElseAtThatMoment)
{
    std::mutex m;
    qxplat::ClockCondition cond;
    std::vector<int> order;
    bool quit = false;
    std::thread settler = qxplat::StartClockThread([&] {
        std::unique_lock<std::mutex> lock(m);
        cond.WaitUntil(lock, NowNs() + 10 * kMs);
        cond.Settle(lock);
        order.push_back(2);
        cond.Wait(lock, [&] { return quit; });
        cond.Settle(lock); // once the main thread sleeps, before its time comes
        order.push_back(4);
    });
    std::thread worker = qxplat::StartClockThread([&] {
        qxplat::ClockSleepFor(10 * kMs);
        volatile uint64_t work = 0;
        for (int i = 0; i < 3'000'000; ++i) work = work + i;
        std::lock_guard<std::mutex> lock(m);
        order.push_back(1);
    });
    QXClockSleep(20); // a join now would hold the clock before the worker's moment
    worker.join();
    {
        std::lock_guard<std::mutex> lock(m);
        order.push_back(3);
        quit = true;
        cond.NotifyAll();
    }
    const int64_t before = NowNs();
    QXClockSleep(1);
    settler.join();
    EXPECT_EQ(order, (std::vector<int>{1, 2, 3, 4}));
    EXPECT_EQ(NowNs() - before, kMs);
}
