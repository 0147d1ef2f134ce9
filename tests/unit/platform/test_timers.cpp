#include "platform/QXPlatform.h"

#include <gtest/gtest.h>

#include <algorithm>
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

// In real time (the render clock's tests judge the timers' logic to the moment): a tick
// never comes before its deadline, and the callback's own 12 ms do not push the grid,
// so the typical gap stays 20 ms, not 32. A run the machine held up is tried again.
TEST(Timer, PeriodicNeverFiresEarlyAndKeepsItsGridInRealTime)
{
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
}
