// Lateness of the multimedia timers against their ideal moments: a 100 ms periodic timer
// (ideal: start + k * 100 ms, so drift shows up as growing lateness) and a series of
// 10 ms one-shots, each armed once the previous one has fired.
//
//   timer_jitter [--seconds N] [--oneshots N]

#include "platform/QXPlatform.h"

#include <dirent.h>
#include <sched.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <mutex>
#include <string>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

struct Recorder {
    std::vector<Clock::time_point> times; // sized before the timer starts: no allocation in the callback
    std::atomic<size_t> count{0};
    std::mutex mutex;
    std::condition_variable cv;
};

void CALLBACK Record(UINT, UINT, DWORD_PTR dwUser, DWORD_PTR, DWORD_PTR)
{
    Clock::time_point now = Clock::now();
    auto* r = reinterpret_cast<Recorder*>(dwUser);
    size_t i = r->count.load();
    if (i < r->times.size()) {
        r->times[i] = now;
        std::lock_guard<std::mutex> lock(r->mutex);
        r->count.store(i + 1);
        r->cv.notify_all();
    }
}

bool WaitCount(Recorder& r, size_t n, std::chrono::milliseconds timeout)
{
    std::unique_lock<std::mutex> lock(r.mutex);
    return r.cv.wait_for(lock, timeout, [&] { return r.count.load() >= n; });
}

void Report(const char* what, std::vector<double> us)
{
    if (us.empty()) {
        std::printf("%s: n=0\n", what);
        return;
    }
    std::sort(us.begin(), us.end());
    size_t n = us.size();
    size_t p99 = std::min(n - 1, (n * 99 + 99) / 100 - 1);
    std::printf("%s: n=%zu median=%.0f us p99=%.0f us max=%.0f us (min=%.0f us)\n", what, n, us[n / 2], us[p99],
                us[n - 1], us[0]);
}

double Micros(Clock::duration d)
{
    return std::chrono::duration<double, std::micro>(d).count();
}

// The timer thread names itself; its policy tells whether real-time scheduling was granted.
const char* TimerThreadPolicy()
{
    DIR* dir = opendir("/proc/self/task");
    if (dir == nullptr) return "unknown";
    const char* policy = "unknown (timer thread not found)";
    while (dirent* e = readdir(dir)) {
        std::ifstream comm(std::string("/proc/self/task/") + e->d_name + "/comm");
        std::string name;
        if (!std::getline(comm, name) || name != "qx-timer") continue;
        int p = sched_getscheduler(std::atoi(e->d_name));
        policy = p == SCHED_FIFO ? "SCHED_FIFO" : p == SCHED_RR ? "SCHED_RR" : "normal (no real-time right)";
        break;
    }
    closedir(dir);
    return policy;
}

} // namespace

int main(int argc, char** argv)
{
    int seconds = 20, oneshots = 500;
    for (int i = 1; i < argc; i += 2) {
        if (i + 1 < argc && std::strcmp(argv[i], "--seconds") == 0)
            seconds = std::max(1, std::atoi(argv[i + 1]));
        else if (i + 1 < argc && std::strcmp(argv[i], "--oneshots") == 0)
            oneshots = std::max(1, std::atoi(argv[i + 1]));
        else {
            std::fprintf(stderr, "usage: %s [--seconds N] [--oneshots N]\n", argv[0]);
            return 2;
        }
    }

    const auto period = std::chrono::milliseconds(100);
    Recorder periodic;
    size_t ticks = static_cast<size_t>(seconds) * 10;
    periodic.times.resize(ticks);
    Clock::time_point start = Clock::now();
    UINT id = timeSetEvent(100, 1, Record, reinterpret_cast<DWORD_PTR>(&periodic), TIME_PERIODIC);
    if (id == 0) {
        std::fprintf(stderr, "timeSetEvent failed\n");
        return 1;
    }
    bool complete = WaitCount(periodic, ticks, std::chrono::milliseconds(seconds * 1000 + 5000));
    timeKillEvent(id);
    std::printf("timer thread: %s\n", TimerThreadPolicy());
    std::vector<double> late;
    for (size_t k = 0; k < periodic.count.load(); ++k)
        late.push_back(Micros(periodic.times[k] - (start + (k + 1) * period)));
    Report("periodic 100 ms", late);
    if (!complete) std::printf("periodic 100 ms: only %zu of %zu ticks arrived\n", late.size(), ticks);

    late.clear();
    Recorder shot;
    shot.times.resize(static_cast<size_t>(oneshots));
    for (int i = 0; i < oneshots; ++i) {
        Clock::time_point armed = Clock::now();
        if (timeSetEvent(10, 1, Record, reinterpret_cast<DWORD_PTR>(&shot), TIME_ONESHOT) == 0) {
            std::fprintf(stderr, "timeSetEvent failed\n");
            return 1;
        }
        if (!WaitCount(shot, static_cast<size_t>(i) + 1, std::chrono::seconds(5))) {
            std::fprintf(stderr, "one-shot %d never fired\n", i);
            return 1;
        }
        late.push_back(Micros(shot.times[static_cast<size_t>(i)] - (armed + std::chrono::milliseconds(10))));
    }
    Report("one-shot 10 ms", late);
    return complete ? 0 : 1;
}
