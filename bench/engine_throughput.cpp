// How many events per second the engine merges into its output lists, routes, and packs
// into stream buffers, for events handed over in time order and in random order.
#include <quavix/Quavix.h>

#include "BenchStats.h"
#include "platform/backends/virtual/QXVirtual.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <random>
#include <vector>

namespace {

constexpr int kPeriods = 10;

CQuavix* Manager()
{
    static CQuavix* q = [] {
        qxplat::QXVirtualSetDevices(0, 4, 0, 0);
        CQuavix* m = CQuavix::InitQuavix();
        m->Initialize(QX_INIT_MIDI);
        m->SetPrefetchBufferCount(kPeriods);
        return m;
    }();
    return q;
}

std::vector<DWORD> Times(int n, bool bRandom)
{
    std::vector<DWORD> t(static_cast<size_t>(n));
    for (int i = 0; i < n; ++i) t[static_cast<size_t>(i)] = static_cast<DWORD>(i) * (kPeriods * 100) / n;
    if (bRandom) std::shuffle(t.begin(), t.end(), std::mt19937(7));
    return t;
}

void OpenOutputs(CQuavix* q)
{
    for (int d = 0; d < 4; ++d) q->OpenDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_OUT, d);
}

// The timed part: hand n events (spread over ten periods, four outputs) to PlayBuffer,
// then have OpenDevices write the ten periods: merge, route and pack everything.
void OneRun(CQuavix* q, const std::vector<DWORD>& times)
{
    const int n = static_cast<int>(times.size());
    CQXEventList list;
    for (int i = 0; i < n; ++i) {
        auto* e = new CQXEventData;
        e->SetMidiData(0x00400090 | static_cast<DWORD>((i % 64) << 8));
        e->SetTimeStamp(times[static_cast<size_t>(i)]);
        e->SetDevice(i % 4);
        list.AddTail(e);
    }
    q->PlayBuffer(list);
    q->OpenDevices();
}

// Untimed: returns the queued buffers and starts the next run at time 0 with the
// outputs opened afresh.
void Reset(CQuavix* q)
{
    q->CloseDevices();
    OpenOutputs(q);
}

void Engine(benchmark::State& state, bool bRandom)
{
    CQuavix* q = Manager();
    const std::vector<DWORD> times = Times(static_cast<int>(state.range(0)), bRandom);
    OpenOutputs(q);
    for (auto _ : state) {
        OneRun(q, times);
        state.PauseTiming();
        Reset(q);
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

void InOrder(benchmark::State& state)
{
    Engine(state, false);
}
void RandomOrder(benchmark::State& state)
{
    Engine(state, true);
}

// The headline figures: per-run times of 10,000 events, in order and in random order,
// and the events per second that the median run gives.
void PrintHeadline()
{
    constexpr int kEvents = 10000, kRuns = 300;
    CQuavix* q = Manager();
    for (bool bRandom : {false, true}) {
        const std::vector<DWORD> times = Times(kEvents, bRandom);
        std::vector<double> us;
        OpenOutputs(q);
        for (int r = 0; r < kRuns + 10; ++r) {
            auto t0 = std::chrono::steady_clock::now();
            OneRun(q, times);
            auto t1 = std::chrono::steady_clock::now();
            Reset(q);
            if (r >= 10) us.push_back(std::chrono::duration<double, std::micro>(t1 - t0).count()); // after warm-up
        }
        const char* what = bRandom ? "engine random order, 10000 events per run" : "engine in order, 10000 events per run";
        PrintStats(what, us);
        std::sort(us.begin(), us.end());
        std::printf("%s: %.2f M events/s at the median run\n", what, kEvents / us[us.size() / 2]);
    }
    std::fflush(stdout);
}

} // namespace

BENCHMARK(InOrder)->Arg(1000)->Arg(10000)->Unit(benchmark::kMicrosecond);
BENCHMARK(RandomOrder)->Arg(1000)->Arg(10000)->Unit(benchmark::kMicrosecond);

int main(int argc, char** argv)
{
    PrintHeadline();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
