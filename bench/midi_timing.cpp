// Plays a long, dense performance through the engine on the virtual backend and reports
// how exactly it came out: lateness of every emitted event against its intended time,
// events lost, and drift over the run. Then runs the engine on the manager's timer and
// reports how punctually each period was polled.
//
//   midi_timing [--seconds N] [--timer-seconds N]
#include <quavix/Quavix.h>

#include "BenchStats.h"
#include "platform/QXPlatform.h"
#include "platform/kernel/QXRealtime.h"
#include "platform/backends/virtual/QXVirtual.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <vector>

namespace {

using qxplat::NowNs;

struct Planned {
    DWORD time;
    std::vector<BYTE> bytes;
};

struct Song {
    DWORD lengthMs;
    std::vector<Planned> planned; // written by the polling thread under the device lock
};

void Add(CQXEventList& list, std::vector<Planned>& planned, DWORD time, DWORD msg)
{
    auto* e = new CQXEventData;
    e->SetMidiData(msg);
    e->SetTimeStamp(time);
    list.AddTail(e);
    BYTE s = static_cast<BYTE>(msg);
    std::vector<BYTE> b{s, static_cast<BYTE>(msg >> 8), static_cast<BYTE>(msg >> 16)};
    if ((s & 0xF0) == 0xC0 || (s & 0xF0) == 0xD0) b.resize(2);
    planned.push_back({time, b});
}

// Dense chords, running sixteenths, a controller sweep and SysEx, period by period.
int SongProc(DWORD_PTR user, int tag, DWORD start, DWORD end)
{
    auto* song = reinterpret_cast<Song*>(user);
    if (tag < 0) return 1;
    if (start >= song->lengthMs) return 0;
    CQXEventList list;
    for (DWORD t = start; t < end; ++t) {
        if (t % 500 == 0)
            for (DWORD k = 0; k < 6; ++k) Add(list, song->planned, t, 0x00600090 | ((48 + k * 4 + t / 500 % 12) << 8));
        if (t % 500 == 400)
            for (DWORD k = 0; k < 6; ++k)
                Add(list, song->planned, t, 0x00000080 | ((48 + k * 4 + (t - 400) / 500 % 12) << 8));
        if (t % 125 == 0) Add(list, song->planned, t, 0x00500091 | ((60 + t / 125 % 24) << 8));
        if (t % 125 == 100) Add(list, song->planned, t, 0x00000081 | ((60 + (t - 100) / 125 % 24) << 8));
        if (t % 20 == 7) Add(list, song->planned, t, 0x000001B2 | ((t / 20 % 128) << 16));
        if (t % 2000 == 1000) {
            BYTE sysex[12] = {0xF0, 0x7D, 0x01, static_cast<BYTE>(t / 2000 % 128), 1, 2, 3, 4, 5, 6, 7, 0xF7};
            auto* e = new CQXEventData;
            e->SetSysExData(sysex, sizeof sysex);
            e->SetTimeStamp(t);
            list.AddTail(e);
            song->planned.push_back({t, std::vector<BYTE>(sysex, sysex + sizeof sysex)});
        }
    }
    CQuavix::GetQuavix()->PlayBuffer(list);
    return 1;
}

int StreamPaced(int seconds)
{
    std::printf("== engine paced by the timing MIDI output, %d s ==\n", seconds);
    Song song{static_cast<DWORD>(seconds) * 1000, {}};
    CQuavix* q = CQuavix::InitQuavix();
    q->Initialize(QX_INIT_MIDI);
    qxplat::QXVirtualTakeMidiOut(0);
    q->StartPerformance(SongProc, reinterpret_cast<DWORD_PTR>(&song), 1, 0);
    q->OpenDevices();
    const int64_t callNs = NowNs();
    q->StartDevices();
    while (q->IsActive()) Sleep(100);
    Sleep(q->GetPerformanceLatency() + 300); // let the last periods play out
    q->StopDevices();
    auto out = qxplat::QXVirtualTakeMidiOut(0);
    // The stream's origin: where performance time 0 lies on the steady clock.
    std::multimap<DWORD, const Planned*> byTime;
    for (auto& p : song.planned) byTime.emplace(p.time, &p);
    if (out.empty()) {
        std::printf("nothing was emitted\n");
        return 1;
    }
    const int64_t originNs = out.front().dueNs - static_cast<int64_t>(song.planned.front().time) * 1'000'000;
    std::vector<double> late;
    std::vector<std::pair<double, DWORD>> worst; // lateness, performance time
    size_t matched = 0, wrongTime = 0;
    for (auto& m : out) {
        const int64_t rel = m.dueNs - originNs;
        const DWORD t = static_cast<DWORD>(rel / 1'000'000);
        if (rel % 1'000'000 != 0) ++wrongTime;
        auto range = byTime.equal_range(t);
        auto it = std::find_if(range.first, range.second, [&](auto& kv) { return kv.second->bytes == m.bytes; });
        if (it == range.second) {
            ++wrongTime;
            continue;
        }
        byTime.erase(it);
        ++matched;
        late.push_back((m.timeNs - (originNs + static_cast<int64_t>(t) * 1'000'000)) / 1000.0);
        worst.emplace_back(late.back(), t);
    }
    const double driftMs =
        ((out.back().dueNs - out.front().dueNs) -
         static_cast<int64_t>(song.planned.back().time - song.planned.front().time) * 1'000'000) /
        1e6;
    std::printf("events planned=%zu emitted=%zu matched=%zu lost=%zu misplaced=%zu\n", song.planned.size(),
                out.size(), matched, song.planned.size() - matched, wrongTime);
    std::printf("stream start offset (origin - StartDevices call): %.1f us\n", (originNs - callNs) / 1000.0);
    PrintStats("lateness against intended time", late);
    std::sort(worst.begin(), worst.end(), std::greater<>());
    std::printf("latest events (us late @ ms):");
    for (size_t i = 0; i < std::min<size_t>(8, worst.size()); ++i)
        std::printf(" %.0f@%u", worst[i].first, static_cast<unsigned>(worst[i].second));
    std::printf("\n");
    std::printf("drift first to last event on the stream clock: %.3f ms\n", driftMs);
    const double wallDrift = ((out.back().timeNs - out.front().timeNs) -
                              static_cast<int64_t>(song.planned.back().time - song.planned.front().time) * 1'000'000) /
                             1000.0;
    std::printf("drift first to last event as emitted: %.1f us\n", wallDrift);
    CQuavix::ExitQuavix();
    return (song.planned.size() == matched && driftMs == 0.0) ? 0 : 1;
}

struct PollLog {
    DWORD latency;
    int64_t startNs;
    std::vector<std::pair<DWORD, int64_t>> polls;
};

int PollProc(DWORD_PTR user, int tag, DWORD start, DWORD)
{
    if (tag > 0) reinterpret_cast<PollLog*>(user)->polls.emplace_back(start, NowNs());
    return 1;
}

int TimerPaced(int seconds)
{
    std::printf("== engine paced by the manager's timer, %d s ==\n", seconds);
    CQuavix* q = CQuavix::InitQuavix();
    q->Initialize(QX_INIT_MIDI);
    q->EnableDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_OUT, QX_ALL_DEVICES, 0); // no output open: the timer paces
    PollLog log{q->GetPerformanceLatency(), 0, {}};
    q->StartPerformance(PollProc, reinterpret_cast<DWORD_PTR>(&log), 0, 0);
    q->OpenDevices();
    log.startNs = NowNs();
    q->StartDevices();
    Sleep(static_cast<DWORD>(seconds) * 1000);
    q->StopDevices();
    // The catch-up loop polls period s on the first tick at which the buffered time is
    // less than one latency ahead: the tick after s - latency. Lateness is given against
    // both moments.
    std::vector<double> late, lateTick;
    size_t skipped = 0, twice = 0;
    for (size_t i = 0; i < log.polls.size(); ++i) {
        const auto [start, ns] = log.polls[i];
        const int64_t idealNs = log.startNs + (static_cast<int64_t>(start) - log.latency) * 1'000'000;
        late.push_back((ns - idealNs) / 1000.0);
        lateTick.push_back((ns - (idealNs + 100'000'000)) / 1000.0);
        if (i > 0) {
            DWORD step = start - log.polls[i - 1].first;
            if (step > 100) ++skipped;
            if (step < 100) ++twice;
        }
    }
    std::printf("polls=%zu skipped=%zu polled-twice=%zu\n", log.polls.size(), skipped, twice);
    PrintStats("poll lateness against period start - latency", late);
    PrintStats("poll lateness against the tick that polls it", lateTick);
    CQuavix::ExitQuavix();
    return skipped == 0 && twice == 0 ? 0 : 1;
}

} // namespace

int main(int argc, char** argv)
{
    int seconds = 60, timerSeconds = 20;
    for (int i = 1; i + 1 < argc; i += 2) {
        if (std::strcmp(argv[i], "--seconds") == 0) seconds = std::atoi(argv[i + 1]);
        if (std::strcmp(argv[i], "--timer-seconds") == 0) timerSeconds = std::atoi(argv[i + 1]);
    }
    qxplat::QXVirtualSetDevices(0, 1, 0, 0);
    std::printf("idle CPU polling while streams run: %s (QUAVIX_IDLE_POLL=%s)\n",
                qxplat::CpuPollingEnabled() ? "on" : "off", std::getenv("QUAVIX_IDLE_POLL") ? std::getenv("QUAVIX_IDLE_POLL") : "auto");
    int rc = StreamPaced(seconds);
    rc |= TimerPaced(timerSeconds);
    return rc;
}
