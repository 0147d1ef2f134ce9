// quavix perform: a Standard MIDI File through the performance engine.
#include "Commands.h"
#include "Playback.h"
#include "Waves.h"

#include "platform/backends/QXBackend.h"
#include "platform/backends/synth/QXSynth.h"
#include "platform/backends/virtual/QXVirtual.h"
#include "platform/dsound/QXMixer.h"
#include "platform/kernel/QXClock.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <deque>
#include <mutex>
#include <new>
#include <sys/stat.h>
#include <thread>

namespace qxcli {

Item MakeItem(const qxsmf::Message& m)
{
    Item it{static_cast<DWORD>(std::llround(m.ms)), 0, {}};
    if (m.IsSysEx())
        it.sysex.assign(m.bytes.begin(), m.bytes.end());
    else
        it.msg = PackShort(m.bytes);
    return it;
}

std::vector<Item> MakeItems(const qxsmf::Timeline& timeline)
{
    std::vector<Item> items;
    items.reserve(timeline.messages.size());
    for (const auto& m : timeline.messages) items.push_back(MakeItem(m));
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

void LatenessMeter::Add(const std::vector<VirtualLog::Entry>& entries, size_t from, size_t to)
{
    for (size_t i = from; i < to && i < entries.size(); ++i) {
        if (entries[i].dueNs == 0) continue;
        const int64_t ns = entries[i].timeNs - entries[i].dueNs;
        const double ms = static_cast<double>(ns) / 1e6;
        m_worstMs = m_count == 0 ? ms : std::max(m_worstMs, ms);
        ++m_count;
        const int64_t us = std::max<int64_t>(0, ns / 1000);
        if (static_cast<size_t>(us) < kBins)
            ++m_bins[static_cast<size_t>(us)];
        else
            m_beyond.push_back(ms);
    }
}

Lateness LatenessMeter::Result() const
{
    Lateness l;
    l.count = m_count;
    if (m_count == 0) return l;
    l.worstMs = m_worstMs;
    // The smallest lateness that 99 % of the messages keep within.
    const size_t rank = static_cast<size_t>(std::ceil(0.99 * static_cast<double>(m_count)));
    size_t seen = 0;
    for (size_t us = 0; us < kBins; ++us) {
        seen += m_bins[us];
        if (seen >= rank) {
            l.p99Ms = std::min(static_cast<double>(us + 1) / 1000.0, m_worstMs);
            return l;
        }
    }
    std::vector<double> beyond = m_beyond;
    std::sort(beyond.begin(), beyond.end());
    l.p99Ms = beyond[std::min(beyond.size() - 1, rank - seen - 1)];
    return l;
}

Lateness MeasureLateness(const std::vector<VirtualLog::Entry>& entries, size_t from, size_t to)
{
    LatenessMeter meter;
    meter.Add(entries, from, to);
    return meter.Result();
}

namespace {

std::string Describe(int format, size_t tracks, const qxsmf::Summary& info, size_t events)
{
    char b[160];
    std::snprintf(b, sizeof b, "format %d, %s, %s, %s", format, qxsmf::Counted(tracks, "track").c_str(),
                  FormatTime(info.lengthMs).c_str(), qxsmf::Counted(events, "event").c_str());
    std::string s = b;
    if (!info.title.empty()) s = "\"" + info.title + "\", " + s;
    return s;
}

} // namespace

std::string Describe(const qxsmf::File& file, const qxsmf::Timeline& timeline)
{
    return Describe(file.format, file.tracks.size(), timeline, timeline.messages.size());
}

std::string Describe(const qxsmf::Song& song)
{
    return Describe(song.Format(), song.Tracks(), song.Info(), song.Messages());
}

namespace {

// Hands the file's events to the engine period by period, reading them from the file as
// it goes. The callback runs on the polling thread with the device lock held; the main
// thread only reads the counts.
class FilePerformance {
public:
    FilePerformance(CQuavix* q, qxsmf::Song& song, int nOutput, WaveSchedule& waves)
        : m_q(q), m_song(song), m_nOutput(nOutput), m_waves(waves), m_bWavesOver(waves.Empty())
    {
        m_bHasNext = m_song.Next(m_next);
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
        size_t handed = 0;
        {
            std::lock_guard<std::mutex> lock(m_timesLock);
            while (m_bHasNext && std::llround(m_next.ms) < dwEnd) {
                const Item it = MakeItem(m_next);
                if (CQXEventData* e = MakeEvent(it, m_nOutput, it.ms))
                    if (list.AddTail(e) == nullptr) delete e;
                m_times.push_back(it.ms);
                ++handed;
                m_bHasNext = m_song.Next(m_next);
            }
        }
        m_handed += handed;
        m_waves.AddDue(list, dwEnd);
        m_q->PlayBuffer(list);
    }

    bool Done() const { return m_handed.load() == m_song.Messages(); }
    void WavesOver() { m_bWavesOver = true; }
    size_t Handed() const { return m_handed.load(); }
    // Of those handed, how many were due by ms: only the times still ahead are kept.
    size_t DueBy(double ms)
    {
        std::lock_guard<std::mutex> lock(m_timesLock);
        while (!m_times.empty() && m_times.front() <= ms) {
            m_times.pop_front();
            ++m_due;
        }
        return m_due;
    }

private:
    CQuavix* m_q;
    qxsmf::Song& m_song;
    int m_nOutput;
    qxsmf::Message m_next;
    bool m_bHasNext = false;
    std::atomic<size_t> m_handed{0};
    std::mutex m_timesLock;
    std::deque<DWORD> m_times; // of messages handed and not yet due
    size_t m_due = 0;
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

// quavix render: the same performance on the render clock, through the synth, into a
// file: what real-time playback on the virtual backend would have mixed.
bool PrepareRender(const std::string& cmd, const Args& args)
{
    if (args.Positional().size() != 2)
        return Fail(cmd, "needs a FILE.mid to play and an OUT.wav to write", kExitUsage), false;
    // The virtual output's rates start at 8000 Hz.
    QX_DevFormat f{};
    if (!ParseFormat(cmd, args.Get("format", "48000:16:2"), 8000, f)) return false;
    if (args.Has("backend") && args.Get("backend") != "virtual" && args.Get("backend") != "auto")
        return Fail(cmd, "renders on the virtual backend only (a device keeps real time)", kExitUsage), false;
    // Read by the virtual backend when it starts, which comes after this.
    setenv("QUAVIX_BACKEND", "virtual", 1);
    setenv("QUAVIX_VIRTUAL_AUDIO_RATE", std::to_string(f.nSamplesPerSec).c_str(), 1);
    setenv("QUAVIX_VIRTUAL_WAVE_OUT_CAPTURE_FORMAT",
           (std::to_string(f.wBitsPerSample) + ":" + std::to_string(f.nChannels)).c_str(), 1);
    if (!QXUseRenderClock()) return Fail(cmd, "cannot render: the library's clock already runs"), false;
    return true;
}

int Perform(const std::string& cmd, int argc, char** argv)
{
    const bool bRenderClock = cmd == "render";
    Args args = bRenderClock ? Args(cmd, {"tempo-scale", "audio", "format"})
                             : Args(cmd, {"output", "tempo-scale", "capture", "capture-times", "audio", "wave-out", "render"});
    if (!args.Parse(argc, argv)) return kExitUsage;
    if (args.Help()) return PrintHelp(cmd);
    if (bRenderClock) {
        if (!PrepareRender(cmd, args)) return kExitUsage;
    } else if (args.Positional().size() != 1) {
        return Fail(cmd, args.Positional().empty() ? "needs a FILE.mid to play" : "plays one file at a time", kExitUsage);
    }
    const std::string renderPath = bRenderClock ? args.Positional()[1] : args.Get("render");
    const bool bRender = !renderPath.empty();
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
    const bool bWave = !waveItems.empty() || bRender;
    {
        std::vector<std::string> inputs{args.Positional()[0]};
        for (const auto& item : waveItems) inputs.push_back(item->path);
        if (bRender && !CheckNotAnInput(cmd, renderPath, inputs)) return kExitUsage;
        if (args.Has("capture") && !CheckNotAnInput(cmd, args.Get("capture"), inputs)) return kExitUsage;
    }

    const std::string path = args.Positional()[0];
    qxsmf::Song song;
    std::string error;
    if (!song.Load(path, scale, error)) return Fail(cmd, error);

    WaveRender render;
    Session session;
    const bool bBegun = session.Begin(args, QX_INIT_MIDI | (bWave ? QX_INIT_WAVE : 0u), [&](const Session& s) {
        if (!bRender) return kExitOk;
        if (!s.IsVirtual())
            return Fail(cmd, "--render writes what a virtual wave output mixed: it needs the virtual backend", kExitUsage);
        return render.Prepare(cmd, renderPath) ? kExitOk : kExitFailure;
    });
    if (!bBegun) return session.FailStatus();
    const bool bCapture = args.Has("capture");
    // Heard without a choice: the synth when nothing outside would sound (a capture
    // wants the virtual output that logs).
    if (!args.Has("output") && !bCapture) nOutput = qxplat::DefaultMidiOut();
    if (bRenderClock && !qxplat::IsSynthMidiOut(nOutput))
        return Fail(cmd, "cannot render without the GM synth: " + qxplat::SynthUnavailableReason());
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
                    Describe(song).c_str(), nOutput, outName.c_str(), session.BackendText().c_str(), tempo);
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
    FilePerformance perf(q, song, nOutput, waves);
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
    const auto wallStart = std::chrono::steady_clock::now();
    const bool bSynth = qxplat::IsSynthMidiOut(nOutput);
    const uint64_t lateBefore = qxplat::SynthLateMessages(), lateStartsBefore = qxplat::ds::LateStarts();
    PeakMeter peak(nWaveOut);
    if (bWave) peak.Read(); // turns the meter on

    const size_t total = song.Messages();
    const double lastMs = static_cast<double>(std::llround(song.LastMs()));
    const double endMs = std::max({song.Info().lengthMs, lastMs, waves.EndMs()});
    // Without a capture, what went out is counted and timed as it comes, not kept.
    const bool bKeepLog = bCapture;
    LatenessMeter lateness;
    size_t logged = 0;
    auto drainLog = [&](bool bSong) {
        log.Drain();
        if (bSong) lateness.Add(log.Entries(), bKeepLog ? logged : 0, log.Entries().size());
        logged = bKeepLog ? log.Entries().size() : logged + log.Entries().size();
        if (!bKeepLog) log.Clear();
    };
    Progress progress(args.Quiet());
    bool bInterrupted = false, bStalled = false, bServerLost = false;
    double elapsed = 0;
    size_t sent = 0;
    // Counted from the first look on: before the mixer's first block the output plays
    // the silence of its start.
    uint64_t dryBefore = UINT64_MAX;
    for (;;) {
        if (!SleepUnlessInterrupted(50)) {
            (Interrupted() ? bInterrupted : bServerLost) = true;
            break;
        }
        if (dryBefore == UINT64_MAX) dryBefore = qxplat::VirtualAudioUnderrunFramesAll();
        elapsed = static_cast<double>(qxplat::NowNs() - startNs) / 1e6;
        if (bLogged) {
            drainLog(true);
            sent = logged;
        } else {
            sent = perf.DueBy(elapsed); // what is due by now has gone to the backend
        }
        std::string meter;
        if (bWave) {
            peak.Read();
            meter = " " + peak.Text();
        }
        progress.Update(FormatTime(std::min(elapsed, endMs)) + " / " + FormatTime(endMs) + " " +
                        Bar(endMs > 0 ? elapsed / endMs : 1.0, 30) + " " + std::to_string(sent) + "/" +
                        std::to_string(total) + " events" + meter);
        const bool bWavesOver = waves.Watch(q, static_cast<double>(q->GetElapsedPlayTime()));
        if (bWavesOver) perf.WavesOver();
        const bool bPlayedOut = perf.Done() && (bLogged ? sent >= total : elapsed >= lastMs + dwLatency + 250);
        if (bPlayedOut && bWavesOver && elapsed >= endMs) {
            // The wave output's last mix reaches the sound (and the render).
            if (bWave && !SleepUnlessInterrupted(200)) (Interrupted() ? bInterrupted : bServerLost) = true;
            break;
        }
        if (elapsed > endMs + dwLatency + 5000) {
            bStalled = true;
            break;
        }
        // Its destination is gone (its client, or a netjack2 master that took the slave's
        // ports with it): nothing more of the performance reaches anyone.
        if (Session::LostAt(QX_DEVDIR_OUT, nOutput) != 0) break;
    }

    // The queued periods go, so that nothing plays after the panic. On an interrupt the
    // MIDI output stops and is silenced while the wave output (where the synth sounds)
    // still mixes: what is heard last is the silence, not the sound cut off.
    if (bInterrupted)
        q->StopDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_OUT, nOutput);
    else
        q->StopDevices();
    if (bLogged) {
        drainLog(true);
        sent = logged;
    }
    if (bInterrupted) {
        q->OnPanicButton();
        qxplat::ClockSleepFor(150'000'000);
        q->StopDevices();
    }
    q->CloseDevices();
    if (bLogged) drainLog(false);
    progress.Finish();
    if (bServerLost)
        return FailServerLost(cmd, "the performance stopped at " + FormatTime(elapsed) + " of " + FormatTime(endMs));

    if (bStalled)
        return Fail(cmd, "playback stalled: " + std::to_string(perf.Handed()) + " of " + std::to_string(total) +
                             " events were handed to the engine, " + std::to_string(sent) + " went out");

    std::printf("%s\n", bInterrupted ? "Stopped (interrupted); the output was silenced." : "Summary:");
    std::printf("  events    %zu of %zu sent\n", sent, total);
    if (bRenderClock) {
        const double wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - wallStart).count();
        std::printf("  duration  %.1f s of music, rendered in %.2f s (%.0fx real time)\n", endMs / 1000.0, wall,
                    wall > 0 ? elapsed / 1000.0 / wall : 0.0);
    } else {
        std::printf("  duration  %.1f s of music, played in %.1f s\n", endMs / 1000.0, elapsed / 1000.0);
    }
    if (!waveItems.empty())
        std::printf("  audio     %zu of %s played, peak L %s dBFS, R %s dBFS\n", waveItems.size() - wavesFailed,
                    qxsmf::Counted(waveItems.size(), "wave file").c_str(), PeakMeter::FormatDb(peak.MaxDb(0)).c_str(),
                    PeakMeter::FormatDb(peak.MaxDb(1)).c_str());
    if (bLogged) {
        const Lateness late = lateness.Result();
        if (late.count > 0)
            std::printf("  lateness  worst %.2f ms, 99%% within %.2f ms (emitted against due, %zu messages)\n",
                        late.worstMs, late.p99Ms, late.count);
    } else if (bSynth) {
        const uint64_t late = qxplat::SynthLateMessages() - lateBefore;
        if (late == 0)
            std::printf("  lateness  none: every message reached the synth before its frame was mixed\n");
        else
            std::printf("  lateness  %s reached the synth after its frame was mixed, and sounded late\n",
                        qxsmf::Counted(late, "message").c_str());
    } else {
        std::printf("  lateness  not measured on the %s backend\n", session.Backend().c_str());
    }
    if (const uint64_t late = bWave ? qxplat::ds::LateStarts() - lateStartsBefore : 0; late > 0)
        std::printf("  late      %s started after its time, at once\n", qxsmf::Counted(late, "wave sound").c_str());
    // A virtual output that ran dry put silence in, and everything after it came later.
    if (const uint64_t dry = bWave && session.IsVirtual() && dryBefore != UINT64_MAX
                                 ? qxplat::VirtualAudioUnderrunFramesAll() - dryBefore
                                 : 0;
        dry > 0)
        std::printf("  underrun  the wave output ran dry: %llu frames of silence went in\n",
                    static_cast<unsigned long long>(dry));
    if (song.Info().metaSkipped + song.Info().dropped > 0)
        std::printf("  skipped   %s, %s\n", qxsmf::Counted(song.Info().metaSkipped, "meta event").c_str(),
                    qxsmf::Counted(song.Info().dropped, "malformed or incomplete message").c_str());
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
                originNs = e.dueNs - (total == 0 ? 0 : std::llround(song.FirstMs()) * 1'000'000);
                break;
            }
        if (!log.Write(args.Get("capture"), originNs, bDue, 0, error)) return Fail(cmd, error);
        std::printf("  capture   %s (%s, %s times)\n", args.Get("capture").c_str(),
                    qxsmf::Counted(log.Entries().size(), "message").c_str(), bDue ? "due" : "emitted");
    }
    if (render.Active()) {
        double seconds = 0;
        if (!render.Finish(error, seconds)) return Fail(cmd, error);
        std::printf("  render    %s (%.1f s, %s)\n", renderPath.c_str(), seconds, render.Format().c_str());
    }
    std::fflush(stdout);
    if (lostNs != 0)
        return Fail(cmd, "MIDI output " + std::to_string(nOutput) + " (" + outName + ") went away during the performance");
    if (bInterrupted) return InterruptedStatus();
    return wavesFailed > 0 ? kExitFailure : kExitOk;
}

int RunPerform(int argc, char** argv)
{
    return Perform("perform", argc, argv);
}

int RunRender(int argc, char** argv)
{
    return Perform("render", argc, argv);
}

} // namespace qxcli
