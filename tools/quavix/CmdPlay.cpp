// quavix play: wave files together on one wave output, at once or at their times.
#include "Commands.h"
#include "Waves.h"

#include "platform/backends/QXBackend.h"

#include <algorithm>
#include <cstdio>
#include <set>

namespace qxcli {

namespace {

const std::set<std::string> kFileOptions{"volume", "pan", "rate", "at"};
const std::set<std::string> kValued{"out", "render", "backend"};
// How much later than their times files of a timeline start: more than an output's
// latency, for which each start is made early, so that none starts late.
constexpr long kTimelineLeadMs = 200;

bool SetFileOption(const std::string& cmd, WaveItem& item, std::set<std::string>& given, const std::string& name,
                   const std::string& value)
{
    if (!given.insert(name).second) {
        Fail(cmd, "--" + name + " is given twice for " + item.path, kExitUsage);
        return false;
    }
    if (name == "volume") return ParseDouble(cmd, name, value, item.volumeDb, -100, 0);
    if (name == "pan") return ParseDouble(cmd, name, value, item.pan, -1, 1);
    if (name == "rate") return ParseDouble(cmd, name, value, item.rate, 0.01, 100);
    int at = 0;
    if (!ParseInt(cmd, name, value, at, 0, 86'400'000)) return false;
    item.atMs = at;
    return true;
}

// The files and the options that follow each one come out of argv; what is left (the
// options of the whole command) goes to Args.
bool SplitFiles(const std::string& cmd, int argc, char** argv, WaveItems& items, std::vector<char*>& rest)
{
    rest.assign(1, argv[0]);
    std::vector<std::set<std::string>> given;
    bool bOptions = true;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        if (!bOptions || a.size() < 2 || a[0] != '-') {
            items.push_back(std::make_unique<WaveItem>());
            items.back()->path = a;
            given.emplace_back();
            continue;
        }
        if (a == "--") {
            bOptions = false;
            continue;
        }
        const size_t eq = a.find('=');
        const std::string name = a.rfind("--", 0) == 0 ? a.substr(2, eq == std::string::npos ? std::string::npos : eq - 2)
                                                       : std::string();
        if (kFileOptions.count(name) != 0) {
            std::string value;
            if (eq != std::string::npos) {
                value = a.substr(eq + 1);
            } else if (i + 1 < argc) {
                value = argv[++i];
            } else {
                Fail(cmd, "--" + name + " needs a value", kExitUsage);
                return false;
            }
            if (items.empty()) {
                Fail(cmd, "--" + name + " applies to the FILE.wav before it: put it after one", kExitUsage);
                return false;
            }
            if (!SetFileOption(cmd, *items.back(), given.back(), name, value)) return false;
            continue;
        }
        rest.push_back(argv[i]);
        if (kValued.count(name) != 0 && eq == std::string::npos && i + 1 < argc) rest.push_back(argv[++i]);
    }
    return true;
}

// Hands the timed files to the engine as wave events, period by period, and goes on
// until the main thread has seen them all played.
class WavePerformance {
public:
    WavePerformance(CQuavix* q, WaveSchedule& schedule) : m_q(q), m_schedule(schedule) {}

    static int Proc(DWORD_PTR dwUser, int nTag, DWORD, DWORD dwEnd)
    {
        auto* p = reinterpret_cast<WavePerformance*>(dwUser);
        if (nTag < 0) return 1;
        p->HandBefore(dwEnd);
        return p->m_bEnd.load() ? 0 : 1;
    }

    void HandBefore(DWORD dwEnd)
    {
        CQXEventList list;
        m_schedule.AddDue(list, dwEnd);
        m_q->PlayBuffer(list);
    }

    void End() { m_bEnd = true; }

private:
    CQuavix* m_q;
    WaveSchedule& m_schedule;
    std::atomic<bool> m_bEnd{false};
};

} // namespace

int RunPlay(int argc, char** argv)
{
    const std::string cmd = "play";
    WaveItems items; // outlives the session: done callbacks reach them until it closes
    std::vector<char*> rest;
    if (!SplitFiles(cmd, argc, argv, items, rest)) return kExitUsage;
    Args args(cmd, {"out", "render"});
    if (!args.Parse(static_cast<int>(rest.size()), rest.data())) return kExitUsage;
    if (args.Help()) return PrintHelp(cmd);
    if (items.empty()) return Fail(cmd, "needs a FILE.wav to play", kExitUsage);
    int nOut = 0;
    if (!args.GetInt("out", nOut, 0, 1023)) return kExitUsage;
    if (args.Has("render")) {
        std::vector<std::string> inputs;
        for (const auto& item : items) inputs.push_back(item->path);
        if (!CheckNotAnInput(cmd, args.Get("render"), inputs)) return kExitUsage;
    }
    // With one time given, every file is on the performance's timeline (a file without
    // one at 0), so that their distances are exact.
    const bool bTimeline = std::any_of(items.begin(), items.end(), [](const auto& item) { return item->atMs >= 0; });
    if (bTimeline)
        for (auto& item : items) item->atMs = std::max(item->atMs, 0L);

    WaveRender render;
    Session session;
    const bool bBegun = session.Begin(args, QX_INIT_MIDI | QX_INIT_WAVE, [&](const Session& s) {
        if (!args.Has("render")) return kExitOk;
        if (!s.IsVirtual())
            return Fail(cmd, "--render writes what a virtual wave output mixed: it needs the virtual backend", kExitUsage);
        return render.Prepare(cmd, args.Get("render")) ? kExitOk : kExitFailure;
    });
    if (!bBegun) return session.FailStatus();
    if (!session.CheckDevice(QX_DEVTYPE_WAVE, QX_DEVDIR_OUT, nOut)) return kExitFailure;
    CQuavix* q = session.Get();

    // Every file is looked at before anything sounds; one that cannot play is named
    // with the reason, and the others play all the same.
    size_t failed = 0;
    for (auto& item : items) {
        std::string why;
        if (!CheckWaveFile(nOut, *item, why)) {
            item->bFailed = true;
            item->state = WaveItem::kDone;
            ++failed;
            Fail(cmd, item->path + ": " + why);
        } else if (!item->warning.empty()) {
            Fail(cmd, item->path + ": " + item->warning);
        }
    }
    if (failed == items.size()) return kExitFailure;

    session.KeepOnly({{QX_DEVTYPE_WAVE, QX_DEVDIR_OUT, nOut}});
    const std::string outName = session.DeviceName(QX_DEVTYPE_WAVE, QX_DEVDIR_OUT, nOut);
    const long leadMs = bTimeline ? kTimelineLeadMs : 0;
    double endMs = 0;
    for (const auto& item : items)
        if (!item->bFailed) endMs = std::max(endMs, static_cast<double>(std::max(item->atMs, 0L) + leadMs) + item->playMs);
    if (!args.Quiet()) {
        std::printf("Playing %s on wave output %d (%s), %s backend\n",
                    qxsmf::Counted(items.size() - failed, "file").c_str(), nOut, outName.c_str(),
                    session.BackendText().c_str());
        for (const auto& item : items)
            if (!item->bFailed) std::printf("  %s  %s\n", item->path.c_str(), DescribeWave(*item).c_str());
        std::fflush(stdout);
    }

    WaveSchedule schedule(items, q->GetUniqueTag(), nOut, leadMs);
    WavePerformance perf(q, schedule);
    if (!schedule.Empty()) {
        // The periods written when the output opens are not asked for (and a timer-paced
        // engine asks from the prefetch on): what they play goes in first.
        perf.HandBefore(q->GetPerformanceLatency());
        if (q->StartPerformance(WavePerformance::Proc, reinterpret_cast<DWORD_PTR>(&perf), 1, schedule.Tag()) == 0)
            return Fail(cmd, "cannot start the performance (out of memory)");
    }
    q->OpenDevices();
    if (!(q->GetDeviceState(QX_DEVTYPE_WAVE, QX_DEVDIR_OUT, nOut) & QX_STATE_OPEN)) {
        const std::string why = Session::LastReport();
        return Fail(cmd, "cannot open wave output " + std::to_string(nOut) + " (" + outName + ")" +
                             (why.empty() ? "" : ": " + why));
    }
    if (!q->StartDevices()) {
        const std::string why = Session::LastReport();
        return Fail(cmd, "cannot start wave output " + std::to_string(nOut) + (why.empty() ? "" : ": " + why));
    }
    const int64_t startNs = qxplat::NowNs();
    PeakMeter peak(nOut);
    peak.Read(); // turns the meter on
    for (auto& item : items) {
        std::string why;
        if (item->bFailed || item->atMs >= 0) continue;
        if (!PlayWaveNow(q, nOut, *item, why)) {
            item->bFailed = true;
            ++failed;
            Fail(cmd, item->path + ": " + why);
        }
    }

    Progress progress(args.Quiet());
    bool bInterrupted = false, bServerLost = false, bStalled = false;
    double elapsed = 0;
    for (bool bEnding = false;;) {
        if (!SleepUnlessInterrupted(bEnding ? 200 : 40)) {
            (Interrupted() ? bInterrupted : bServerLost) = true;
            break;
        }
        elapsed = static_cast<double>(qxplat::NowNs() - startNs) / 1e6;
        peak.Read();
        progress.Update(FormatTime(std::min(elapsed, endMs)) + " / " + FormatTime(endMs) + " " +
                        Bar(endMs > 0 ? elapsed / endMs : 1.0, 30) + " " + peak.Text());
        // The last mix has reached the output (and the render) by the pass after the end.
        if (bEnding) break;
        const bool bScheduled = schedule.Watch(q, static_cast<double>(q->GetElapsedPlayTime()));
        if (bScheduled) perf.End();
        bool bAll = bScheduled;
        for (const auto& item : items) bAll = bAll && (item->atMs >= 0 || item->state.load() == WaveItem::kDone);
        bEnding = bAll;
        if (elapsed > endMs + 10000) {
            bStalled = true;
            break;
        }
    }
    q->StopDevices();
    q->CloseDevices(); // the players go, and the render is complete
    progress.Finish();
    if (bServerLost) return FailServerLost(cmd, "the sound stopped at " + FormatTime(elapsed) + " of " + FormatTime(endMs));
    if (bStalled) return Fail(cmd, "playback stalled: the files had not played out " + FormatTime(elapsed - endMs) + " after their end");

    size_t played = 0;
    for (const auto& item : items) played += item->bFailed ? 0 : 1;
    std::printf("%s\n", bInterrupted ? "Stopped (interrupted); the sound was stopped." : "Summary:");
    std::printf("  files     %zu of %zu %s\n", played, items.size(), bInterrupted ? "started" : "played");
    std::printf("  duration  %.1f s of sound, played in %.1f s\n", endMs / 1000.0, elapsed / 1000.0);
    std::printf("  peak      L %s dBFS, R %s dBFS\n", PeakMeter::FormatDb(peak.MaxDb(0)).c_str(),
                PeakMeter::FormatDb(peak.MaxDb(1)).c_str());
    if (render.Active()) {
        std::string error;
        double seconds = 0;
        if (!render.Finish(error, seconds)) return Fail(cmd, error);
        std::printf("  render    %s (%.1f s, 16-bit stereo)\n", render.Path().c_str(), seconds);
    }
    std::fflush(stdout);
    if (bInterrupted) return InterruptedStatus();
    return failed > 0 ? kExitFailure : kExitOk;
}

} // namespace qxcli
