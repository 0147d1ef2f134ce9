// The timers in real time; the render clock's tests judge their logic to the moment.
#include "platform/QXPlatform.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

// Notes when each tick came, then takes 12 ms of its own.
struct Ticks {
    std::mutex m;
    std::condition_variable cv;
    std::vector<Clock::time_point> at;
    static void CALLBACK Proc(UINT, UINT, DWORD_PTR user, DWORD_PTR, DWORD_PTR)
    {
        auto* t = reinterpret_cast<Ticks*>(user);
        {
            std::lock_guard<std::mutex> lock(t->m);
            t->at.push_back(Clock::now());
        }
        t->cv.notify_all();
        std::this_thread::sleep_for(12ms);
    }
};

} // namespace

// A tick never comes before its deadline, none comes after the kill, and the callback's
// own 12 ms do not push the grid: the typical gap stays 20 ms, not 32. A run the machine
// held up is tried again.
TEST(Timer, PeriodicNeverFiresEarlyAndKeepsItsGridInRealTime)
{
    Clock::duration median{};
    for (int attempt = 0; attempt < 3 && (attempt == 0 || median >= 26ms); ++attempt) {
        Ticks t;
        const Clock::time_point armed = Clock::now();
        const UINT id = timeSetEvent(20, 0, Ticks::Proc, reinterpret_cast<DWORD_PTR>(&t), TIME_PERIODIC);
        ASSERT_NE(id, 0u);
        std::unique_lock<std::mutex> lock(t.m);
        const bool ten = t.cv.wait_for(lock, 20s, [&] { return t.at.size() >= 10; });
        lock.unlock();
        ASSERT_EQ(timeKillEvent(id), TIMERR_NOERROR);
        ASSERT_TRUE(ten);
        std::vector<Clock::duration> gaps;
        for (size_t k = 0; k < t.at.size(); ++k) {
            EXPECT_GE(t.at[k], armed + (k + 1) * 20ms) << "tick " << k;
            if (k > 0) gaps.push_back(t.at[k] - t.at[k - 1]);
        }
        std::nth_element(gaps.begin(), gaps.begin() + gaps.size() / 2, gaps.end());
        median = gaps[gaps.size() / 2];
        const size_t n = t.at.size();
        std::this_thread::sleep_for(50ms);
        EXPECT_EQ(t.at.size(), n) << "a tick came after the kill";
    }
    EXPECT_LT(median, 26ms);
}
