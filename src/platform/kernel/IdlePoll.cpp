// Idle-priority CPU pollers: the guest-side stand-in for halt polling, which keeps a
// virtual CPU runnable so that timers due on it fire on time.
#include "platform/kernel/QXRealtime.h"

#include "platform/kernel/QXClock.h"

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <mutex>
#include <pthread.h>
#include <sched.h>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

namespace qxplat {

namespace {

bool RunsOnHypervisor()
{
    std::ifstream in("/proc/cpuinfo");
    std::string line;
    while (std::getline(in, line))
        if (line.rfind("flags", 0) == 0) return line.find(" hypervisor") != std::string::npos;
    return false;
}

std::string IdleDriver()
{
    std::ifstream in("/sys/devices/system/cpu/cpuidle/current_driver");
    std::string s;
    std::getline(in, s);
    return s;
}

class Pollers {
public:
    static Pollers& Get()
    {
        static Pollers* s = new Pollers; // reached by stream control calls until exit
        return *s;
    }

    void Hold()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_nHolds++ > 0 || !m_bWanted) return;
        // Each set of pollers has its own flags: a release may still be joining the last set.
        m_pSet = std::make_shared<Set>();
        cpu_set_t allowed;
        CPU_ZERO(&allowed);
        if (sched_getaffinity(0, sizeof allowed, &allowed) != 0) return;
        try {
            for (int cpu = 0; cpu < CPU_SETSIZE; ++cpu)
                if (CPU_ISSET(cpu, &allowed)) m_threads.emplace_back([set = m_pSet, cpu] { Poll(cpu, *set); });
        } catch (const std::system_error&) {
            // Polling is a wish: fewer pollers, or none, only cost precision.
        }
    }

    void Release()
    {
        std::vector<std::thread> ending;
        std::shared_ptr<Set> set;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            if (m_nHolds == 0 || --m_nHolds > 0) return;
            if (m_pSet) m_pSet->stop.store(true, std::memory_order_relaxed);
            ending.swap(m_threads);
            set = m_pSet;
        }
        // An idle-priority thread on a busy CPU may wait seconds for its turn to see the
        // flag: each is lifted to normal priority until it has ended (again, should it
        // have made itself idle after the last lift), so a stream stop never waits on them.
        while (set && set->ended.load() < static_cast<int>(ending.size())) {
            for (auto& t : ending) {
                sched_param sp{};
                pthread_setschedparam(t.native_handle(), SCHED_OTHER, &sp);
            }
            std::this_thread::yield();
        }
        for (auto& t : ending) t.join();
    }

    bool Enabled() const { return m_bWanted; }

    int Count()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return static_cast<int>(m_threads.size());
    }

private:
    Pollers()
    {
        const char* mode = std::getenv("QUAVIX_IDLE_POLL");
        m_bWanted = IdlePollWanted(mode, RunsOnHypervisor(), IdleDriver().c_str());
    }

    struct Set {
        std::atomic<bool> stop{false};
        std::atomic<int> ended{0};
    };

    static void Poll(int cpu, Set& set)
    {
        // Pinned, so that each CPU has its own; idle priority, so that any other thread
        // that wants the CPU gets it at once.
        cpu_set_t one;
        CPU_ZERO(&one);
        CPU_SET(cpu, &one);
        pthread_setaffinity_np(pthread_self(), sizeof one, &one);
        sched_param sp{};
        pthread_setschedparam(pthread_self(), SCHED_IDLE, &sp);
        pthread_setname_np(pthread_self(), "qx-idlepoll");
        while (!set.stop.load(std::memory_order_relaxed)) {
#if defined(__x86_64__) || defined(__i386__)
            __builtin_ia32_pause();
#endif
        }
        set.ended.fetch_add(1);
    }

    std::mutex m_mutex;
    int m_nHolds = 0;
    bool m_bWanted = false;
    std::shared_ptr<Set> m_pSet;
    std::vector<std::thread> m_threads;
};

} // namespace

bool IdlePollWanted(const char* pszMode, bool bHypervisor, const char* pszIdleDriver)
{
    if (pszMode != nullptr && std::strcmp(pszMode, "on") == 0) return true;
    if (pszMode != nullptr && std::strcmp(pszMode, "off") == 0) return false;
    // A guest with a cpuidle driver (haltpoll above all) already polls before it halts.
    return bHypervisor && (pszIdleDriver == nullptr || *pszIdleDriver == '\0' || std::strcmp(pszIdleDriver, "none") == 0);
}

// A render wakes nothing on time: its pollers would only take CPU from it.
void HoldCpusAwake()
{
    if (!RenderClockOn()) Pollers::Get().Hold();
}
void ReleaseCpusAwake()
{
    if (!RenderClockOn()) Pollers::Get().Release();
}
bool CpuPollingEnabled() { return Pollers::Get().Enabled(); }
int CpuPollerCount() { return Pollers::Get().Count(); }

} // namespace qxplat
