// How many events per second the engine merges into its output lists, routes, and packs
// into stream buffers, for events handed over in time order and in random order.
#include <quavix/Quavix.h>

#include "platform/backends/virtual/QXVirtual.h"

#include <benchmark/benchmark.h>

#include <algorithm>
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

// One iteration: hand n events (spread over ten periods, four outputs) to PlayBuffer,
// then have OpenDevices write the ten periods: merge, route and pack everything. The
// outputs are opened afresh outside the timed part.
void Engine(benchmark::State& state, bool bRandom)
{
    CQuavix* q = Manager();
    const int n = static_cast<int>(state.range(0));
    const std::vector<DWORD> times = Times(n, bRandom);
    for (int d = 0; d < 4; ++d) q->OpenDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_OUT, d);
    for (auto _ : state) {
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
        state.PauseTiming();
        q->CloseDevices(); // returns the queued buffers and starts the next run at time 0
        for (int d = 0; d < 4; ++d) q->OpenDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_OUT, d);
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * n);
}

void InOrder(benchmark::State& state)
{
    Engine(state, false);
}
void RandomOrder(benchmark::State& state)
{
    Engine(state, true);
}

} // namespace

BENCHMARK(InOrder)->Arg(1000)->Arg(10000)->Unit(benchmark::kMicrosecond);
BENCHMARK(RandomOrder)->Arg(1000)->Arg(10000)->Unit(benchmark::kMicrosecond);
BENCHMARK_MAIN();
