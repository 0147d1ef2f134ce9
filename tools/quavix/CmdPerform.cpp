// quavix perform: a Standard MIDI File through the performance engine.
#include "Commands.h"
#include "Playback.h"
#include "Waves.h"

#include "platform/backends/QXBackend.h"
#include "platform/backends/synth/QXSynth.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <new>
#include <sys/stat.h>

namespace qxcli {

std::vector<Item> MakeItems(const qxsmf::Timeline& timeline)
{
    std::vector<Item> items;
    items.reserve(timeline.messages.size());
    for (const auto& m : timeline.messages) {
        Item it{static_cast<DWORD>(std::llround(m.ms)), 0, {}};
        if (m.IsSysEx())
            it.sysex.assign(m.bytes.begin(), m.bytes.end());
        else
            it.msg = PackShort(m.bytes);
        items.push_back(std::move(it));
    }
    return items;
}

CQXEventData* MakeEvent(const Item& item, int nOutput, DWORD dwTime)
{
    auto* e = new (std::nothrow) CQXEventData;
    if (e == nullptr) return nullptr;
    if (!item.sysex.empty()) {
        e->SetSysExData(item.sysex.data(), static_cast<DWORD>(item.sysex.size()));
        if (e->m_nType != QX_EVENT_SYSEX) { // no memory for the bytes
            delete e;
            return nullptr;
        }
    } else {
        e->SetMidiData(item.msg);
    }
    e->SetDevice(nOutput);
    e->SetTimeStamp(dwTime);
    return e;
}

Lateness MeasureLateness(const std::vector<VirtualLog::Entry>& entries, size_t from, size_t to)
{
    std::vector<double> late;
    for (size_t i = from; i < to && i < entries.size(); ++i)
        if (entries[i].dueNs != 0) late.push_back(static_cast<double>(entries[i].timeNs - entries[i].dueNs) / 1e6);
    Lateness l;
    l.count = late.size();
    if (late.empty()) return l;
    std::sort(late.begin(), late.end());
    l.worstMs = late.back();
    l.p99Ms = late[std::min(late.size() - 1, static_cast<size_t>(std::ceil(0.99 * static_cast<double>(late.size()))) - 1)];
    return l;
}

std::string Describe(const qxsmf::File& file, const qxsmf::Timeline& timeline)
{
    char b[160];
    std::snprintf(b, sizeof b, "format %d, %s, %s, %s", file.format, qxsmf::Counted(file.tracks.size(), "track").c_str(),
                  FormatTime(timeline.lengthMs).c_str(), qxsmf::Counted(timeline.messages.size(), "event").c_str());
    std::string s = b;
    if (!timeline.title.empty()) s = "\"" + timeline.title + "\", " + s;
    return s;
}

namespace {

// Hands the file's events to the engine period by period. The callback runs on the
// polling thread with the device lock held; the main thread only reads the count.
class FilePerformance {
public:
    FilePerformance(CQuavix* q, const std::vector<Item>& items, int nOutput, WaveSchedule& waves)
        : m_q(q), m_items(items), m_nOutput(nOutput), m_waves(waves), m_bWavesOver(waves.Empty())
    {
    }

    static int Proc(DWORD_PTR dwUser, int nTag, DWORD, DWORD dwEnd)
    {
        auto* p = reinterpret_cast<FilePerformance*>(dwUser);
        if (nTag < 0) return 1; // sync notifications: not in this mode
        p->HandBefore(dwEnd);
        // Its end takes the wave files' players with it: not before they have played.
        return p->Done() && p->m_bWavesOver.load() ? 0 : 1;
    }

    void HandBefore(DWORD dwEnd)
    {
        CQXEventList list;
        while (m_next < m_items.size() && m_items[m_next].ms < dwEnd) {
            const Item& it = m_items[m_next++];
            if (CQXEventData* e = MakeEvent(it, m_nOutput, it.ms))
                if (list.AddTail(e) == nullptr) delete e;
        }
        m_handed = m_next;
        m_waves.AddDue(list, dwEnd);
        m_q->PlayBuffer(list);
    }

    bool Done() const { return m_handed.load() == m_items.size(); }
    void WavesOver() { m_bWavesOver = true; }
    size_t Handed() const { return m_handed.load(); }

private:
    CQuavix* m_q;
    const std::vector<Item>& m_items;
    int m_nOutput;
    size_t m_next = 0;
    std::atomic<size_t> m_handed{0};
    WaveSchedule& m_waves;
    std::atomic<bool> m_bWavesOver;
};

// --audio FILE.wav[@MS]: the time is what follows the last '@'. A file whose own name
// has an '@' is taken whole; anything else after an '@' is no time.
bool ParseAudio(const std::string& cmd, const std::string& arg, WaveItem& item)
{
    item.path = arg;
    item.atMs = 0;
    const size_t at = arg.rfind('@');
    struct stat st {};
    if (at == std::string::npos || stat(arg.c_str(), &st) == 0) return true;
    if (at + 1 == arg.size() || arg.find_first_not_of("0123456789", at + 1) != std::string::npos) {
        Fail(cmd, "--audio takes FILE.wav or FILE.wav@MS (a whole number of milliseconds), not '" + arg + "'",
             kExitUsage);
        return false;
    }
    int ms = 0;
    if (!ParseInt(cmd, "audio", arg.substr(at + 1), ms, 0, 86'400'000)) return false;
    item.path = arg.substr(0, at);
    item.atMs = ms;
    return true;
}

} // namespace

int RunPerform(int argc, char** argv)
{
    const std::string cmd = "perform";
    Args args(cmd, {"output", "tempo-scale", "capture", "capture-times", "audio", "wave-out", "render"});
    if (!args.Parse(argc, argv)) return kExitUsage;
    if (args.Help()) return PrintHelp(cmd);
    if (args.Positional().size() != 1)
        return Fail(cmd, args.Positional().empty() ? "needs a FILE.mid to play" : "plays one file at a time", kExitUsage);
    int nOutput = 0, nWaveOut = 0;
    double scale = 1.0;
    bool bDue = false;
    if (!args.GetInt("output", nOutput, 0, 1023) || !args.GetDouble("tempo-scale", scale, 0.05, 20) ||
        !CaptureUsesDue(args, bDue) || !args.GetInt("wave-out", nWaveOut, 0, 1023))
        return kExitUsage;
    WaveItems waveItems; // outlives the session, whose players play them
    for (const std::string& arg : args.GetAll("audio")) {
        waveItems.push_back(std::make_unique<WaveItem>());
        if (!ParseAudio(cmd, arg, *waveItems.back())) return kExitUsage;
    }
    const bool bWave = !waveItems.empty() || args.Has("render");
    {
        std::vector<std::string> inputs{args.Positional()[0]};
        for (const auto& item : waveItems) inputs.push_back(item->path);
        for (const char* output : {"render", "capture"})
            if (args.Has(output) && !CheckNotAnInput(cmd, args.Get(output), inputs)) return kExitUsage;
    }

    const std::string path = args.Positional()[0];
    qxsmf::File file;
    qxsmf::Timeline timeline;
    std::string error;
    if (!LoadSong(cmd, path, scale, file, timeline)) return kExitFailure;
    const std::vector<Item> items = MakeItems(timeline);

    WaveRender render;
    Session session;
    const bool bBegun = session.Begin(args, QX_INIT_MIDI | (bWave ? QX_INIT_WAVE : 0u), [&](const Session& s) {
        if (!args.Has("render")) return kExitOk;
        if (!s.IsVirtual())
            return Fail(cmd, "--render writes what a virtual wave output mixed: it needs the virtual backend", kExitUsage);
        return render.Prepare(cmd, args.Get("render")) ? kExitOk : kExitFailure;
    });
    if (!bBegun) return session.FailStatus();
    const bool bCapture = args.Has("capture");
    // Heard without a choice: the synth when nothing outside would sound (a capture
    // wants the virtual output that logs).
    if (!args.Has("output") && !bCapture) nOutput = qxplat::DefaultMidiOut();
    if (!session.CheckDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_OUT, nOutput)) return kExitFailure;
    if (bWave && !session.CheckDevice(QX_DEVTYPE_WAVE, QX_DEVDIR_OUT, nWaveOut)) return kExitFailure;
    if (bCapture && !session.IsVirtual())
        return Fail(cmd, "--capture records what a virtual output emitted: it needs the virtual backend", kExitUsage);
    // Before a note plays, not after the whole performance.
    if (bCapture && !CheckOutputPath(cmd, args.Get("capture"))) return kExitFailure;
    // A wave file that cannot be played is named; the rest of the performance goes on.
    size_t wavesFailed = 0;
    for (auto& item : waveItems) {
        std::string why;
        if (!CheckWaveFile(nWaveOut, *item, why)) {
            item->bFailed = true;
            ++wavesFailed;
            Fail(cmd, item->path + ": " + why);
        } else if (!item->warning.empty()) {
            Fail(cmd, item->path + ": " + item->warning);
        }
    }
    CQuavix* q = session.Get();
    if (bWave)
        session.KeepOnly({{QX_DEVTYPE_MIDI, QX_DEVDIR_OUT, nOutput}, {QX_DEVTYPE_WAVE, QX_DEVDIR_OUT, nWaveOut}});
    else
        session.KeepOnly({{QX_DEVTYPE_MIDI, QX_DEVDIR_OUT, nOutput}});
    // Every event, SysEx included, goes to the chosen output only.
    q->SetDefaultMidiDevice(nOutput);
    q->EnableDefaultMidiDevice(1);

    const std::string outName = session.DeviceName(QX_DEVTYPE_MIDI, QX_DEVDIR_OUT, nOutput);
    if (!args.Quiet()) {
        char tempo[48] = "";
        if (scale != 1.0) std::snprintf(tempo, sizeof tempo, ", tempo x%g", scale);
        std::printf("Playing %s (%s)\n  on MIDI output %d (%s), %s backend%s\n", path.c_str(),
                    Describe(file, timeline).c_str(), nOutput, outName.c_str(), session.BackendText().c_str(), tempo);
        if (bWave)
            std::printf("  wave output %d (%s)\n", nWaveOut,
                        session.DeviceName(QX_DEVTYPE_WAVE, QX_DEVDIR_OUT, nWaveOut).c_str());
        for (const auto& item : waveItems)
            if (!item->bFailed) std::printf("  with %s  %s\n", item->path.c_str(), DescribeWave(*item).c_str());
    }

    VirtualLog log(nOutput);
    // A virtual output logs what it emits; the synth's messages become sound instead.
    const bool bLogged = session.IsVirtual() && !qxplat::IsSynthMidiOut(nOutput);
    if (bLogged) {
        log.Drain(); // nothing from before this run
        log.Clear();
    }
    WaveSchedule waves(waveItems, q->GetUniqueTag(), nWaveOut);
    FilePerformance perf(q, items, nOutput, waves);
    // The periods written when the output opens are not asked for: what they play must
    // be merged before.
    const DWORD dwLatency = q->GetPerformanceLatency();
    perf.HandBefore(dwLatency);
    if (q->StartPerformance(FilePerformance::Proc, reinterpret_cast<DWORD_PTR>(&perf), 1, waves.Tag()) == 0)
        return Fail(cmd, "cannot start the performance (out of memory)");
    q->OpenDevices();
    if (!(q->GetDeviceState(QX_DEVTYPE_MIDI, QX_DEVDIR_OUT, nOutput) & QX_STATE_OPEN)) {
        const std::string why = Session::LastReport();
        return Fail(cmd, "cannot open MIDI output " + std::to_string(nOutput) + " (" + outName + ")" +
                             (why.empty() ? "" : ": " + why));
    }
    if (bWave && !(q->GetDeviceState(QX_DEVTYPE_WAVE, QX_DEVDIR_OUT, nWaveOut) & QX_STATE_OPEN)) {
        const std::string why = Session::LastReport();
        return Fail(cmd, "cannot open wave output " + std::to_string(nWaveOut) + (why.empty() ? "" : ": " + why));
    }
    if (!q->StartDevices()) {
        const std::string why = Session::LastReport();
        return Fail(cmd, "cannot start MIDI output " + std::to_string(nOutput) + (why.empty() ? "" : ": " + why));
    }
    const int64_t startNs = qxplat::NowNs();
    PeakMeter peak(nWaveOut);
    if (bWave) peak.Read(); // turns the meter on

    const double lastMs = items.empty() ? 0.0 : items.back().ms;
    const double endMs = std::max({timeline.lengthMs, lastMs, waves.EndMs()});
    Progress progress(args.Quiet());
    bool bInterrupted = false, bStalled = false, bServerLost = false;
    double elapsed = 0;
    size_t sent = 0;
    for (;;) {
        if (!SleepUnlessInterrupted(50)) {
            (Interrupted() ? bInterrupted : bServerLost) = true;
            break;
        }
        elapsed = static_cast<double>(qxplat::NowNs() - startNs) / 1e6;
        if (bLogged) {
            log.Drain();
            sent = log.Entries().size();
        } else {
            // What is due by now has gone to the backend.
            auto due = std::upper_bound(items.begin(), items.end(), elapsed,
                                        [](double t, const Item& it) { return t < it.ms; });
            sent = std::min(perf.Handed(), static_cast<size_t>(due - items.begin()));
        }
        std::string meter;
        if (bWave) {
            peak.Read();
            meter = " " + peak.Text();
        }
        progress.Update(FormatTime(std::min(elapsed, endMs)) + " / " + FormatTime(endMs) + " " +
                        Bar(endMs > 0 ? elapsed / endMs : 1.0, 30) + " " + std::to_string(sent) + "/" +
                        std::to_string(items.size()) + " events" + meter);
        const bool bWavesOver = waves.Watch(q, static_cast<double>(q->GetElapsedPlayTime()));
        if (bWavesOver) perf.WavesOver();
        const bool bPlayedOut = perf.Done() && (bLogged ? sent >= items.size()
                                                        : elapsed >= lastMs + dwLatency + 250);
        if (bPlayedOut && bWavesOver && elapsed >= endMs) {
            // The wave output's last mix reaches the sound (and the render).
            if (bWave && !SleepUnlessInterrupted(200)) (Interrupted() ? bInterrupted : bServerLost) = true;
            break;
        }
        if (elapsed > endMs + dwLatency + 5000) {
            bStalled = true;
            break;
        }
    }

    q->StopDevices(); // the queued periods go; nothing plays after the panic below
    size_t songMessages = 0;
    if (bLogged) {
        log.Drain();
        songMessages = log.Entries().size();
        sent = songMessages;
    }
    if (bInterrupted) q->OnPanicButton();
    q->CloseDevices();
    if (bLogged) log.Drain();
    progress.Finish();
    if (bServerLost)
        return FailServerLost(cmd, "the performance stopped at " + FormatTime(elapsed) + " of " + FormatTime(endMs));

    if (bStalled)
        return Fail(cmd, "playback stalled: " + std::to_string(perf.Handed()) + " of " + std::to_string(items.size()) +
                             " events were handed to the engine, " + std::to_string(sent) + " went out");

    std::printf("%s\n", bInterrupted ? "Stopped (interrupted); the output was silenced." : "Summary:");
    std::printf("  events    %zu of %zu sent\n", sent, items.size());
    std::printf("  duration  %.1f s of music, played in %.1f s\n", endMs / 1000.0, elapsed / 1000.0);
    if (!waveItems.empty())
        std::printf("  audio     %zu of %s played, peak L %s dBFS, R %s dBFS\n", waveItems.size() - wavesFailed,
                    qxsmf::Counted(waveItems.size(), "wave file").c_str(), PeakMeter::FormatDb(peak.MaxDb(0)).c_str(),
                    PeakMeter::FormatDb(peak.MaxDb(1)).c_str());
    if (bLogged) {
        const Lateness late = MeasureLateness(log.Entries(), 0, songMessages);
        if (late.count > 0)
            std::printf("  lateness  worst %.2f ms, 99%% within %.2f ms (emitted against due, %zu messages)\n",
                        late.worstMs, late.p99Ms, late.count);
    } else {
        std::printf("  lateness  not measured on the %s backend\n", session.Backend().c_str());
    }
    if (timeline.metaSkipped + timeline.dropped > 0)
        std::printf("  skipped   %s, %s\n", qxsmf::Counted(timeline.metaSkipped, "meta event").c_str(),
                    qxsmf::Counted(timeline.dropped, "malformed or incomplete message").c_str());
    // A destination that went away took what followed with it.
    const int64_t lostNs = Session::LostAt(QX_DEVDIR_OUT, nOutput);
    if (lostNs != 0)
        std::printf("  output    %s went away at %s: what followed reached no one\n", outName.c_str(),
                    FormatTime(static_cast<double>(lostNs - startNs) / 1e6).c_str());
    if (bCapture) {
        // Times count from the start of play: the first due time, less the time the
        // first event had in the file.
        int64_t originNs = startNs;
        for (const auto& e : log.Entries())
            if (e.dueNs != 0) {
                originNs = e.dueNs - (items.empty() ? 0 : static_cast<int64_t>(items.front().ms) * 1'000'000);
                break;
            }
        if (!log.Write(args.Get("capture"), originNs, bDue, 0, error)) return Fail(cmd, error);
        std::printf("  capture   %s (%s, %s times)\n", args.Get("capture").c_str(),
                    qxsmf::Counted(log.Entries().size(), "message").c_str(), bDue ? "due" : "emitted");
    }
    if (render.Active()) {
        double seconds = 0;
        if (!render.Finish(error, seconds)) return Fail(cmd, error);
        std::printf("  render    %s (%.1f s, 16-bit stereo)\n", args.Get("render").c_str(), seconds);
    }
    std::fflush(stdout);
    if (lostNs != 0)
        return Fail(cmd, "MIDI output " + std::to_string(nOutput) + " (" + outName + ") went away during the performance");
    if (bInterrupted) return InterruptedStatus();
    return wavesFailed > 0 ? kExitFailure : kExitOk;
}

} // namespace qxcli
