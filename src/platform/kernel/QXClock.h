// The platform's time, and the waits that know it. Normally that is the steady clock and
// a wait is a condition variable's. Under the render clock, time is a count that moves
// only when every thread taking part waits: then it jumps to the earliest time one of
// them waits for, and those wake. So the engine does in a render what it does in real
// time, with no real time spent waiting.
//
// Taking part: the thread that turned the render clock on, and every thread started with
// StartClockThread. Each is busy from its start (counted on the starting thread, so that
// no start looks like quiet) until it waits, and again from the moment it is woken
// (counted by the waker, for the same reason). A thread that takes part must wait only
// through this header (a mutex held briefly, or joining a thread that is ending, is
// fine): any other wait would hold the clock still.
#ifndef QUAVIX_PLATFORM_KERNEL_QXCLOCK_H
#define QUAVIX_PLATFORM_KERNEL_QXCLOCK_H

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace qxplat {

int64_t NowNs();

// From now on the process runs on the render clock, starting at the real time of this
// call rounded up to a whole second, and the caller takes part. Only before any platform thread has started: false
// (and no change) after.
bool UseRenderClock();
bool RenderClockOn();

// A thread that takes part while the render clock is on (otherwise a plain thread).
std::thread StartClockThread(std::function<void()> body);

// A condition variable whose waits the render clock knows of. A notifier changes the
// state under the waiter's lock, as with std::condition_variable.
class ClockCondition {
public:
    ClockCondition() = default;
    ClockCondition(const ClockCondition&) = delete;
    ClockCondition& operator=(const ClockCondition&) = delete;

    template <class Lock>
    void Wait(Lock& lock)
    {
        WaitUntil(lock, INT64_MAX);
    }
    template <class Lock, class Pred>
    void Wait(Lock& lock, Pred pred)
    {
        while (!pred()) Wait(lock);
    }
    // False when dueNs (platform time) came first.
    template <class Lock>
    bool WaitUntil(Lock& lock, int64_t dueNs)
    {
        if (!RenderClockOn()) return RealWaitUntil(lock, dueNs);
        Unlocker<Lock> u{lock};
        return RenderWaitUntil(u, dueNs, false);
    }
    // Under the render clock, a wait that also ends once every other thread taking part
    // waits, before time moves: what they hand over at this moment is then in. Elsewhere
    // returns at once.
    template <class Lock>
    void Settle(Lock& lock)
    {
        if (!RenderClockOn()) return;
        Unlocker<Lock> u{lock};
        RenderWaitUntil(u, INT64_MAX, true);
    }
    template <class Lock, class Pred>
    bool WaitUntil(Lock& lock, int64_t dueNs, Pred pred)
    {
        while (!pred())
            if (!WaitUntil(lock, dueNs)) return pred();
        return true;
    }
    void NotifyOne();
    void NotifyAll();

private:
    struct Waiter;
    struct Relock {
        virtual void Release() = 0;
        virtual void Retake() = 0;
    };
    template <class L>
    struct Unlocker final : Relock {
        explicit Unlocker(L& l) : lock(l) {}
        void Release() override { lock.unlock(); }
        void Retake() override { lock.lock(); }
        L& lock;
    };
    template <class Lock>
    bool RealWaitUntil(Lock& lock, int64_t dueNs)
    {
        if (dueNs == INT64_MAX) {
            m_cv.wait(lock);
            return true;
        }
        using namespace std::chrono;
        return m_cv.wait_until(lock, steady_clock::time_point(nanoseconds(dueNs))) == std::cv_status::no_timeout;
    }
    bool RenderWaitUntil(Relock& lock, int64_t dueNs, bool bSettle);

    std::condition_variable_any m_cv; // real time
    std::vector<Waiter*> m_waiters; // render time, under the clock's lock
    friend struct RenderClock;
};

// A render's heartbeat: the virtual output consumes, and the mixer looks, at every
// multiple of it, the mixer after the output (see Settle). Each wake-up in a render is a
// hand-over between threads, so it is coarser than real time's; the virtual output's
// target in a render (30 ms) outlasts it at any rate.
constexpr int64_t kRenderStepNs = 20'000'000;
inline int64_t NextRenderStep(int64_t nowNs)
{
    return (nowNs / kRenderStepNs + 1) * kRenderStepNs;
}

// Sleeps to a platform time, or for a span of it.
void ClockSleepUntil(int64_t dueNs);
void ClockSleepFor(int64_t ns);

} // namespace qxplat

#endif // QUAVIX_PLATFORM_KERNEL_QXCLOCK_H
