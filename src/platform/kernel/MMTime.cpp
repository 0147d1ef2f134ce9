// Multimedia time: a monotonic millisecond clock that wraps at 2^32, and timers served by
// one high-priority thread from a deadline heap.
#include "platform/QXFaults.h"
#include "platform/QXPlatform.h"
#include "platform/kernel/QXClock.h"
#include "platform/kernel/QXRealtime.h"

#include <time.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <system_error>
#include <thread>
#include <unordered_map>
#include <vector>

namespace {

using qxplat::ClockCondition;
using qxplat::NowNs;

constexpr UINT kPeriodMin = 1;
constexpr UINT kPeriodMax = 1000000;

// A sleep to the deadline itself wakes ~100 us late, with a tail past 300 us; spinning
// the last stretch (lock released) brought p99 to ~50 us in bench/timer_jitter, for at
// most this much CPU per firing.
constexpr int64_t kSpinNs = 200'000;

std::atomic<DWORD> g_timeOffset{0};
// Set once the service is destroyed at exit, so that late callers get an error instead
// of touching a dead object.
std::atomic<bool> g_serviceGone{false};

struct Timer {
    uint64_t serial; // unique for the process's life: tells a timer from a reused id
    int64_t periodNs; // zero for a one-shot
    LPTIMECALLBACK proc;
    HANDLE event; // non-null: TIME_CALLBACK_EVENT_SET
    DWORD_PTR user;
};

struct Due {
    int64_t whenNs;
    uint64_t serial; // equal deadlines fire in creation order
    UINT id;
    bool operator>(const Due& o) const { return whenNs != o.whenNs ? whenNs > o.whenNs : serial > o.serial; }
};

// Lock order: m_mutex is a leaf; no callback and no other platform call runs under it.
class TimerService {
public:
    static TimerService& Instance()
    {
        static TimerService s;
        return s;
    }

    ~TimerService()
    {
        g_serviceGone.store(true);
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_stop = true;
        }
        m_wake.NotifyAll();
        if (!m_thread.joinable()) return;
        // exit() called from a callback runs this on the timer thread, which then never
        // returns to its loop.
        if (m_thread.get_id() == std::this_thread::get_id())
            m_thread.detach();
        else
            m_thread.join();
    }

    UINT Add(int64_t dueNs, int64_t periodNs, LPTIMECALLBACK proc, HANDLE event, DWORD_PTR user)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_stop) return 0;
        if (!m_thread.joinable()) {
            try {
                m_thread = qxplat::StartClockThread([this] { Run(); });
            } catch (const std::system_error&) {
                return 0; // no thread to serve it: the timer cannot be made
            }
            m_threadId = m_thread.get_id();
        }
        UINT id = m_lastId;
        do {
            ++id;
        } while (id == 0 || m_timers.count(id) != 0);
        m_lastId = id;
        uint64_t serial = ++m_lastSerial;
        m_timers.emplace(id, Timer{serial, periodNs, proc, event, user});
        Push({dueNs, serial, id});
        if (m_heap.front().serial == serial) m_wake.NotifyOne();
        return id;
    }

    MMRESULT Kill(UINT id)
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        auto it = m_timers.find(id);
        if (it == m_timers.end()) return MMSYSERR_INVALPARAM;
        uint64_t serial = it->second.serial;
        m_timers.erase(it);
        if (m_running != serial) {
            // Its heap entry stays until popped or swept; see Sweep.
            ++m_stale;
            Sweep();
            return TIMERR_NOERROR;
        }
        // From its own callback: marking it dead is all that can be done, and enough.
        if (std::this_thread::get_id() == m_threadId) return TIMERR_NOERROR;
        ++m_killWaiters;
        m_finished.Wait(lock, [&] { return m_running != serial; });
        --m_killWaiters;
        return TIMERR_NOERROR;
    }

private:
    TimerService() = default;

    void Push(Due d)
    {
        m_heap.push_back(d);
        std::push_heap(m_heap.begin(), m_heap.end(), std::greater<>());
    }

    Due Pop()
    {
        std::pop_heap(m_heap.begin(), m_heap.end(), std::greater<>());
        Due d = m_heap.back();
        m_heap.pop_back();
        return d;
    }

    bool Live(const Due& d) const
    {
        auto it = m_timers.find(d.id);
        return it != m_timers.end() && it->second.serial == d.serial;
    }

    // Killed long timers would otherwise pile up in the heap under set/kill churn.
    void Sweep()
    {
        if (m_stale < 64 || m_stale * 2 < m_heap.size()) return;
        std::erase_if(m_heap, [this](const Due& d) { return !Live(d); });
        std::make_heap(m_heap.begin(), m_heap.end(), std::greater<>());
        m_stale = 0;
    }

    void Run()
    {
        qxplat::MakeRealtimeThread("qx-timer");
        std::unique_lock<std::mutex> lock(m_mutex);
        while (!m_stop) {
            if (m_heap.empty()) {
                m_wake.Wait(lock);
                continue;
            }
            if (!Live(m_heap.front())) {
                Pop();
                if (m_stale > 0) --m_stale;
                continue;
            }
            const int64_t when = m_heap.front().whenNs;
            // A render's time moves only while this thread waits: no spin there.
            const int64_t spin = qxplat::RenderClockOn() ? 0 : kSpinNs;
            if (NowNs() < when - spin) {
                m_wake.WaitUntil(lock, when - spin);
                continue;
            }
            if (NowNs() < when) {
                // Spin without the lock so that callers are not held up; re-check after,
                // as the front may have changed meanwhile.
                lock.unlock();
                while (NowNs() < when) std::this_thread::yield();
                lock.lock();
                continue;
            }
            Due due = Pop();
            Timer t = m_timers.at(due.id);
            m_running = t.serial;
            lock.unlock();

            if (t.event != nullptr)
                SetEvent(t.event);
            else
                t.proc(due.id, 0, t.user, 0, 0);

            lock.lock();
            m_running = 0;
            if (Live(due)) {
                // A one-shot stays live until its callback has returned, so that a kill
                // meanwhile succeeds and waits for it, as for a periodic timer.
                if (t.periodNs == 0) {
                    m_timers.erase(due.id);
                } else {
                    // Absolute deadlines keep the grid; ticks missed by a full period or
                    // more are dropped rather than fired in a burst.
                    int64_t next = due.whenNs + t.periodNs;
                    const int64_t behind = NowNs() - next;
                    if (behind >= t.periodNs) next += (behind / t.periodNs) * t.periodNs;
                    Push({next, due.serial, due.id});
                }
            }
            if (m_killWaiters > 0) m_finished.NotifyAll();
        }
    }

    std::mutex m_mutex;
    ClockCondition m_wake; // the timer thread: earlier deadline, or stop
    ClockCondition m_finished; // killers: the running callback has returned
    std::unordered_map<UINT, Timer> m_timers; // the live timers
    std::vector<Due> m_heap; // min-heap; entries of killed timers are skipped
    size_t m_stale = 0;
    UINT m_lastId = 0;
    uint64_t m_lastSerial = 0;
    uint64_t m_running = 0; // serial of the timer whose callback runs, 0 when none
    int m_killWaiters = 0;
    bool m_stop = false;
    std::thread m_thread;
    std::thread::id m_threadId;
};

} // namespace

DWORD timeGetTime()
{
    return qxplat::MsTimeOf(NowNs());
}

DWORD qxplat::MsTimeOf(int64_t ns)
{
    return static_cast<DWORD>(static_cast<uint64_t>(ns) / 1000000u + g_timeOffset.load(std::memory_order_relaxed));
}

void QXSetTimeOffset(DWORD dwOffset)
{
    g_timeOffset.store(dwOffset, std::memory_order_relaxed);
}

MMRESULT timeGetDevCaps(LPTIMECAPS ptc, UINT cbtc)
{
    if (ptc == nullptr || cbtc < sizeof(TIMECAPS)) return TIMERR_NOCANDO;
    ptc->wPeriodMin = kPeriodMin;
    ptc->wPeriodMax = kPeriodMax;
    return TIMERR_NOERROR;
}

// The timer thread always runs at its best precision, so the period requests need only
// be valid.
MMRESULT timeBeginPeriod(UINT uPeriod)
{
    return uPeriod >= kPeriodMin && uPeriod <= kPeriodMax ? TIMERR_NOERROR : TIMERR_NOCANDO;
}

MMRESULT timeEndPeriod(UINT uPeriod)
{
    return uPeriod >= kPeriodMin && uPeriod <= kPeriodMax ? TIMERR_NOERROR : TIMERR_NOCANDO;
}

// uResolution is accepted and ignored: every timer gets the thread's best precision.
// TIME_CALLBACK_EVENT_PULSE has no counterpart here and is refused; kills are always
// synchronous, so TIME_KILL_SYNCHRONOUS changes nothing.
UINT timeSetEvent(UINT uDelay, UINT uResolution, LPTIMECALLBACK lpTimeProc, DWORD_PTR dwUser, UINT fuEvent)
{
    (void)uResolution;
    const int64_t now = NowNs();
    constexpr UINT known = TIME_PERIODIC | TIME_CALLBACK_EVENT_SET | TIME_KILL_SYNCHRONOUS;
    if (uDelay < kPeriodMin || uDelay > kPeriodMax || lpTimeProc == nullptr || (fuEvent & ~known) != 0) return 0;
    DWORD fault = 0;
    if (QXFaultCheck("timeSetEvent", &fault)) return 0;
    if (g_serviceGone.load()) return 0;
    const int64_t delay = int64_t{uDelay} * 1'000'000;
    HANDLE event = (fuEvent & TIME_CALLBACK_EVENT_SET) != 0 ? reinterpret_cast<HANDLE>(lpTimeProc) : nullptr;
    const int64_t period = (fuEvent & TIME_PERIODIC) != 0 ? delay : 0;
    return TimerService::Instance().Add(now + delay, period, lpTimeProc, event, dwUser);
}

MMRESULT timeKillEvent(UINT uTimerID)
{
    if (uTimerID == 0 || g_serviceGone.load()) return MMSYSERR_INVALPARAM;
    return TimerService::Instance().Kill(uTimerID);
}
