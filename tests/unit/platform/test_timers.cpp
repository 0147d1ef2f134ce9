#include "platform/QXPlatform.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

namespace {

// Records each call of its callback, then runs the hook inside it. Kills its timers
// when it goes, so that no callback outlives it, even on a failed ASSERT.
struct Probe {
    std::mutex m;
    std::condition_variable cv;
    std::vector<Clock::time_point> times;
    std::vector<UINT> ids;
    std::thread::id thread;
    std::function<void(UINT id, size_t n)> hook;

    ~Probe()
    {
        for (UINT id : ids) timeKillEvent(id);
    }
    bool WaitFor(size_t n)
    {
        std::unique_lock<std::mutex> lock(m);
        return cv.wait_for(lock, 20s, [&] { return times.size() >= n; });
    }
    size_t Count()
    {
        std::lock_guard<std::mutex> lock(m);
        return times.size();
    }
    UINT Arm(UINT ms, UINT flags)
    {
        UINT id = timeSetEvent(ms, 0, Proc, reinterpret_cast<DWORD_PTR>(this), flags);
        std::lock_guard<std::mutex> lock(m);
        ids.push_back(id);
        return id;
    }
    static void CALLBACK Proc(UINT id, UINT, DWORD_PTR user, DWORD_PTR, DWORD_PTR)
    {
        auto* p = reinterpret_cast<Probe*>(user);
        size_t n;
        {
            std::lock_guard<std::mutex> lock(p->m);
            p->times.push_back(Clock::now());
            p->thread = std::this_thread::get_id();
            n = p->times.size();
            p->cv.notify_all();
        }
        if (p->hook) p->hook(id, n);
    }
};

} // namespace

TEST(Timer, PeriodicKeepsAbsoluteDeadlinesSkipsMissedTicksAndStopsWhenKilled)
{
    // The callback's own 12 ms must not push the grid: the typical gap stays 20 ms, not
    // 32. A run the machine held up is tried again.
    Clock::duration median{};
    for (int attempt = 0; attempt < 3 && (attempt == 0 || median >= 26ms); ++attempt) {
        Probe p;
        p.hook = [](UINT, size_t) { std::this_thread::sleep_for(12ms); };
        const Clock::time_point armed = Clock::now();
        UINT id = p.Arm(20, TIME_PERIODIC);
        ASSERT_TRUE(p.WaitFor(10));
        ASSERT_EQ(timeKillEvent(id), TIMERR_NOERROR);
        const size_t n = p.Count();
        std::vector<Clock::duration> gaps;
        for (size_t k = 0; k < n; ++k) {
            EXPECT_GE(p.times[k], armed + (k + 1) * 20ms) << "tick " << k;
            if (k > 0) gaps.push_back(p.times[k] - p.times[k - 1]);
        }
        std::nth_element(gaps.begin(), gaps.begin() + gaps.size() / 2, gaps.end());
        median = gaps[gaps.size() / 2];
        std::this_thread::sleep_for(50ms);
        EXPECT_EQ(p.Count(), n);
    }
    EXPECT_LT(median, 26ms);

    // A callback held up 200 ms: of the 15 deadlines up to 300 ms, the 9 behind by a full
    // period are dropped instead of fired in a burst.
    Probe late;
    late.hook = [](UINT, size_t n) { if (n == 1) std::this_thread::sleep_for(200ms); };
    UINT id = late.Arm(20, TIME_PERIODIC);
    ASSERT_TRUE(late.WaitFor(1));
    std::this_thread::sleep_for(400ms);
    ASSERT_EQ(timeKillEvent(id), TIMERR_NOERROR);
    EXPECT_LE(std::count_if(late.times.begin(), late.times.end(), [&](auto t) { return t <= late.times[0] + 300ms; }),
              10);
}

// Callbacks run off the caller's thread with no lock of the service held; a kill from
// outside waits for the running callback; a one-shot fires once and is gone.
TEST(Timer, KillWaitsForTheRunningCallbackAndCallbacksMayArmAndKill)
{
    for (UINT flags : {TIME_ONESHOT, TIME_PERIODIC}) {
        Probe p;
        std::atomic<bool> finished{false};
        p.hook = [&](UINT, size_t) { std::this_thread::sleep_for(100ms), finished = true; };
        UINT id = p.Arm(1, flags);
        ASSERT_TRUE(p.WaitFor(1));
        EXPECT_EQ(timeKillEvent(id), TIMERR_NOERROR);
        EXPECT_TRUE(finished.load()) << flags;
        EXPECT_EQ(p.Count(), 1u);
    }
    Probe p, inner, victim;
    UINT victimId = victim.Arm(100, TIME_ONESHOT);
    std::atomic<MMRESULT> killedVictim{~0u}, killedSelf{~0u};
    p.hook = [&](UINT id, size_t n) {
        if (n < 3) return;
        inner.Arm(5, TIME_ONESHOT);
        killedVictim = timeKillEvent(victimId);
        killedSelf = timeKillEvent(id);
    };
    UINT id = p.Arm(5, TIME_PERIODIC);
    ASSERT_TRUE(inner.WaitFor(1));
    std::this_thread::sleep_for(150ms);
    EXPECT_EQ(p.Count(), 3u);
    EXPECT_EQ(victim.Count(), 0u);
    EXPECT_EQ(inner.Count(), 1u);
    EXPECT_NE(inner.thread, std::this_thread::get_id());
    EXPECT_EQ(killedVictim.load(), TIMERR_NOERROR);
    EXPECT_EQ(killedSelf.load(), TIMERR_NOERROR);
    EXPECT_EQ(timeKillEvent(id), MMSYSERR_INVALPARAM);
    EXPECT_EQ(timeKillEvent(inner.ids[0]), MMSYSERR_INVALPARAM) << "a one-shot that fired is gone";
}

TEST(Timer, TimeGetTimeWrapsAt32BitsKeepingElapsedTime)
{
    QXSetTimeOffset(0);
    QXSetTimeOffset(0u - 50u - timeGetTime());
    const DWORD first = timeGetTime();
    EXPECT_GT(first, 0xFFFFFF00u);
    for (Clock::time_point giveUp = Clock::now() + 10s; timeGetTime() >= first && Clock::now() < giveUp;)
        std::this_thread::sleep_for(1ms);
    const DWORD after = timeGetTime();
    QXSetTimeOffset(0);
    EXPECT_LT(after, first);
    EXPECT_LT(static_cast<DWORD>(after - first), 5000u);
}
