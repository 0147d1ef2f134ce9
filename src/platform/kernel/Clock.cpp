// Real time, or a render's: see QXClock.h.
//
// Render time is kept under one lock, the clock's, which every waiter and waker takes
// after its own lock (if any): lock order user lock -> clock lock. A waiter gives up its
// own lock only while it holds the clock's, so no notification falls between the two.
#include "platform/kernel/QXClock.h"

#include "platform/QXPlatform.h"
#include "quavix/QXClock.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <climits>
#include <system_error>

namespace qxplat {

struct ClockCondition::Waiter {
    Waiter(ClockCondition* c, int64_t due, bool part) : cond(c), dueNs(due), takesPart(part) {}
    ClockCondition* cond;
    int64_t dueNs;
    bool takesPart;
    bool woken = false;
    bool timedOut = false;
    std::condition_variable cv;
};

namespace {
thread_local bool t_takesPart = false;
std::atomic<bool> g_renderOn{false};
std::atomic<bool> g_threadStarted{false};
} // namespace

struct RenderClock {
    std::mutex lock;
    std::atomic<int64_t> nowNs{0};
    int busy = 0; // threads taking part that are not waiting
    std::vector<ClockCondition::Waiter*> timed;
    std::vector<ClockCondition::Waiter*> settling; // woken before time moves

    static RenderClock& Get()
    {
        static RenderClock* s = new RenderClock; // reachable by threads ending at exit
        return *s;
    }

    // Under lock.
    void Wake(ClockCondition::Waiter* w, bool bTimedOut)
    {
        w->woken = true;
        w->timedOut = bTimedOut;
        if (w->takesPart) ++busy;
        auto& list = w->cond->m_waiters;
        list.erase(std::find(list.begin(), list.end(), w));
        if (w->dueNs != INT64_MAX) timed.erase(std::find(timed.begin(), timed.end(), w));
        settling.erase(std::remove(settling.begin(), settling.end(), w), settling.end());
        w->cv.notify_one();
    }

    // Under lock, once nobody is busy: time moves to the earliest due time and whoever
    // waits for it wakes. With no due time at all, nothing can happen any more.
    void Advance()
    {
        if (busy != 0) return;
        if (!settling.empty()) {
            while (!settling.empty()) Wake(settling.front(), false);
            return;
        }
        if (timed.empty()) return;
        int64_t next = INT64_MAX;
        for (auto* w : timed) next = std::min(next, w->dueNs);
        if (next > nowNs.load()) nowNs.store(next, std::memory_order_release);
        std::vector<ClockCondition::Waiter*> due;
        for (auto* w : timed)
            if (w->dueNs <= next) due.push_back(w);
        for (auto* w : due) Wake(w, true);
    }

    void Idle()
    {
        --busy;
        Advance();
    }
};

namespace {

int64_t SteadyNs()
{
    using namespace std::chrono;
    return duration_cast<nanoseconds>(steady_clock::now().time_since_epoch()).count();
}

} // namespace

int64_t NowNs()
{
    if (!g_renderOn.load(std::memory_order_acquire)) return SteadyNs();
    return RenderClock::Get().nowNs.load(std::memory_order_acquire);
}

bool UseRenderClock()
{
    RenderClock& c = RenderClock::Get();
    std::lock_guard<std::mutex> lock(c.lock);
    if (g_renderOn.load()) return t_takesPart;
    if (g_threadStarted.load()) return false;
    // From a whole second on: where the render's steps fall against what it does then
    // depends on nothing that differs from run to run.
    c.nowNs.store((SteadyNs() / 1'000'000'000 + 1) * 1'000'000'000);
    c.busy = 1;
    t_takesPart = true;
    g_renderOn.store(true, std::memory_order_release);
    return true;
}

bool RenderClockOn()
{
    return g_renderOn.load(std::memory_order_acquire);
}

std::thread StartClockThread(std::function<void()> body)
{
    RenderClock& c = RenderClock::Get();
    bool bTakesPart = false;
    {
        std::lock_guard<std::mutex> lock(c.lock);
        g_threadStarted.store(true);
        if (g_renderOn.load()) {
            ++c.busy;
            bTakesPart = true;
        }
    }
    try {
        return std::thread([body = std::move(body), bTakesPart, &c] {
            t_takesPart = bTakesPart;
            body();
            if (!bTakesPart) return;
            std::lock_guard<std::mutex> lock(c.lock);
            c.Idle();
        });
    } catch (const std::system_error&) {
        if (bTakesPart) {
            std::lock_guard<std::mutex> lock(c.lock);
            c.Idle();
        }
        throw;
    }
}

bool ClockCondition::RenderWaitUntil(Relock& user, int64_t dueNs, bool bSettle)
{
    RenderClock& c = RenderClock::Get();
    Waiter w(this, dueNs, t_takesPart);
    std::unique_lock<std::mutex> clock(c.lock);
    if (dueNs <= c.nowNs.load()) return false;
    m_waiters.push_back(&w);
    if (dueNs != INT64_MAX) c.timed.push_back(&w);
    if (bSettle) c.settling.push_back(&w);
    user.Release(); // the clock's lock is held: no notification falls in between
    if (w.takesPart) c.Idle();
    w.cv.wait(clock, [&] { return w.woken; });
    clock.unlock();
    user.Retake();
    return !w.timedOut;
}

void ClockCondition::NotifyOne()
{
    if (!RenderClockOn()) {
        m_cv.notify_one();
        return;
    }
    RenderClock& c = RenderClock::Get();
    std::lock_guard<std::mutex> clock(c.lock);
    if (!m_waiters.empty()) c.Wake(m_waiters.front(), false);
}

void ClockCondition::NotifyAll()
{
    if (!RenderClockOn()) {
        m_cv.notify_all();
        return;
    }
    RenderClock& c = RenderClock::Get();
    std::lock_guard<std::mutex> clock(c.lock);
    while (!m_waiters.empty()) c.Wake(m_waiters.front(), false);
}

void ClockSleepUntil(int64_t dueNs)
{
    if (!RenderClockOn()) {
        using namespace std::chrono;
        std::this_thread::sleep_until(steady_clock::time_point(nanoseconds(dueNs)));
        return;
    }
    std::mutex m;
    ClockCondition never;
    std::unique_lock<std::mutex> lock(m);
    while (NowNs() < dueNs) never.WaitUntil(lock, dueNs);
}

void ClockSleepFor(int64_t ns)
{
    ClockSleepUntil(NowNs() + std::max<int64_t>(0, ns));
}

} // namespace qxplat

BOOL QXUseRenderClock()
{
    return qxplat::UseRenderClock() ? TRUE : FALSE;
}

BOOL QXRenderClockOn()
{
    return qxplat::RenderClockOn() ? TRUE : FALSE;
}

DWORD QXClockMs()
{
    return qxplat::MsTimeOf(qxplat::NowNs());
}

void QXClockSleep(DWORD dwMilliseconds)
{
    qxplat::ClockSleepFor(int64_t{dwMilliseconds} * 1'000'000);
}
