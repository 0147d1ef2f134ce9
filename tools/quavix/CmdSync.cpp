// quavix sync-slave: a Standard MIDI File that starts, stops and continues with an
// external MIDI clock's transport.
#include "Commands.h"
#include "Playback.h"

#include "platform/backends/QXBackend.h"

#include <algorithm>
#include <bitset>
#include <cstdio>
#include <deque>
#include <chrono>
#include <mutex>
#include <new>

namespace qxcli {

namespace {

// The file plays in performance time from the external start. m_offset maps it: file
// time = performance time + m_offset. Callbacks run with the device lock held and then
// take m_mutex; the main thread takes m_mutex alone, so the two cannot deadlock.
class SlavePerformance {
public:
    SlavePerformance(CQuavix* q, const std::vector<Item>& items, int nOutput, double lengthMs)
        : m_q(q), m_items(items), m_nOutput(nOutput), m_lengthMs(static_cast<int64_t>(lengthMs))
    {
    }

    static int Proc(DWORD_PTR dwUser, int nTag, DWORD dwStart, DWORD dwEnd)
    {
        auto* p = reinterpret_cast<SlavePerformance*>(dwUser);
        switch (nTag) {
        case QX_SYNC_CLOCK:
            p->OnClock(dwEnd);
            break;
        case QX_SYNC_START:
            p->OnStart(dwStart);
            break;
        case QX_SYNC_CONTINUE:
            p->OnContinue();
            break;
        case QX_SYNC_STOP:
            p->OnStop();
            break;
        case QX_SYNC_POSITION:
            break;
        default:
            p->Hand(dwStart, dwEnd);
            break;
        }
        return 1; // past the end it waits for the next Start
    }

    // Readies the next queue to play from file position pos.
    void Prepare(int64_t pos)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_offset = pos;
        m_prepared = pos;
        m_next = FirstAt(pos);
        m_bPlaying = false;
    }

    bool TakeStopped() { return m_bStopped.exchange(false); }

    // Note-offs for what may still sound; forgets it.
    std::vector<DWORD> TakeSounding()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return TakeSoundingLocked();
    }

    struct Status {
        bool bPlaying;
        int64_t positionMs;
        double bpm;
        size_t clocks, starts, continues, stops;
    };
    Status GetStatus()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        Status s{m_bPlaying, m_bPlaying ? m_offset + static_cast<int64_t>(m_q->GetElapsedPlayTime()) : m_stopPos,
                 0.0, m_nClocks, m_nStarts, m_nContinues, m_nStops};
        s.positionMs = std::clamp<int64_t>(s.positionMs, 0, m_lengthMs);
        if (m_clockStamps.size() >= 2) {
            const double msPerClock =
                static_cast<double>(m_clockStamps.back() - m_clockStamps.front()) / static_cast<double>(m_clockStamps.size() - 1);
            if (msPerClock > 0) s.bpm = 60000.0 / (msPerClock * 24.0);
        }
        return s;
    }
    int64_t StopPosition()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_stopPos;
    }

private:
    size_t FirstAt(int64_t pos) const
    {
        return static_cast<size_t>(std::lower_bound(m_items.begin(), m_items.end(), pos,
                                                    [](const Item& it, int64_t t) { return static_cast<int64_t>(it.ms) < t; }) -
                                   m_items.begin());
    }

    std::vector<DWORD> TakeSoundingLocked()
    {
        std::vector<DWORD> offs;
        for (size_t i = 0; i < m_sounding.size(); ++i)
            if (m_sounding[i]) offs.push_back(0x80u | static_cast<DWORD>(i >> 7) | static_cast<DWORD>((i & 0x7F) << 8));
        m_sounding.reset();
        return offs;
    }

    void Track(DWORD msg)
    {
        const DWORD status = msg & 0xF0, ch = msg & 0x0F, key = (msg >> 8) & 0x7F, vel = (msg >> 16) & 0x7F;
        if (status == 0x90 && vel > 0) m_sounding.set(ch << 7 | key);
        if (status == 0x80 || (status == 0x90 && vel == 0)) m_sounding.reset(ch << 7 | key);
    }

    void Hand(DWORD dwStart, DWORD dwEnd)
    {
        CQXEventList list;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            while (m_next < m_items.size() && static_cast<int64_t>(m_items[m_next].ms) - m_offset < dwEnd) {
                const Item& it = m_items[m_next++];
                const int64_t t = std::max<int64_t>(static_cast<int64_t>(it.ms) - m_offset, dwStart);
                if (it.sysex.empty()) Track(it.msg);
                if (CQXEventData* e = MakeEvent(it, m_nOutput, static_cast<DWORD>(t)))
                    if (list.AddTail(e) == nullptr) delete e;
            }
        }
        m_q->PlayBuffer(list); // the device lock is this thread's already
    }

    void OnStart(DWORD dwNext)
    {
        CQXEventList list;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_bPlaying = true;
            ++m_nStarts;
            if (m_prepared != 0) {
                // The queue was readied for a Continue: the top of the file follows what
                // is queued, after note-offs for what that started.
                for (DWORD off : TakeSoundingLocked()) {
                    auto* e = new (std::nothrow) CQXEventData;
                    if (e == nullptr) continue;
                    e->SetMidiData(off);
                    e->SetDevice(m_nOutput);
                    e->SetTimeStamp(dwNext);
                    if (list.AddTail(e) == nullptr) delete e;
                }
                m_offset = -static_cast<int64_t>(dwNext);
                m_prepared = 0;
                m_next = 0;
            }
        }
        m_q->PlayBuffer(list);
    }

    void OnContinue()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_bPlaying = true;
        ++m_nContinues;
    }

    void OnStop()
    {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_stopPos = m_bPlaying ? m_offset + static_cast<int64_t>(m_q->GetElapsedPlayTime()) : m_prepared;
            m_stopPos = std::clamp<int64_t>(m_stopPos, 0, m_lengthMs);
            m_bPlaying = false;
            ++m_nStops;
        }
        m_bStopped = true;
    }

    void OnClock(DWORD dwStamp)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        ++m_nClocks;
        m_clockStamps.push_back(dwStamp);
        if (m_clockStamps.size() > 25) m_clockStamps.pop_front(); // one quarter note
    }

    CQuavix* m_q;
    const std::vector<Item>& m_items;
    int m_nOutput;
    int64_t m_lengthMs;
    std::mutex m_mutex;
    int64_t m_offset = 0;
    int64_t m_prepared = 0;
    int64_t m_stopPos = 0;
    size_t m_next = 0;
    bool m_bPlaying = false;
    std::bitset<16 * 128> m_sounding;
    std::deque<DWORD> m_clockStamps;
    size_t m_nClocks = 0, m_nStarts = 0, m_nContinues = 0, m_nStops = 0;
    std::atomic<bool> m_bStopped{false};
};

} // namespace

int RunSyncSlave(int argc, char** argv)
{
    const std::string cmd = "sync-slave";
    Args args(cmd, {"in", "output", "seconds", "tempo-scale", "inject", "capture", "capture-times"});
    if (!args.Parse(argc, argv)) return kExitUsage;
    if (args.Help()) return PrintHelp(cmd);
    if (!args.Has("in")) return Fail(cmd, "needs --in N, the MIDI input that carries the clock", kExitUsage);
    if (args.Positional().size() != 1)
        return Fail(cmd, args.Positional().empty() ? "needs a FILE.mid to play" : "plays one file at a time", kExitUsage);
    int nIn = 0, nOut = 0;
    double seconds = 0, scale = 1.0;
    bool bDue = false;
    if (!args.GetInt("in", nIn, 0, 1023) || !args.GetInt("output", nOut, 0, 1023) ||
        !args.GetDouble("seconds", seconds, 0.001, 86400) || !args.GetDouble("tempo-scale", scale, 0.05, 20) ||
        !CaptureUsesDue(args, bDue))
        return kExitUsage;

    std::string error;
    qxsmf::File file;
    qxsmf::Timeline timeline;
    const std::string path = args.Positional()[0];
    if (args.Has("capture") && !CheckNotAnInput(cmd, args.Get("capture"), {path, args.Get("inject")})) return kExitUsage;
    if (!LoadSong(cmd, path, scale, file, timeline)) return kExitFailure;
    const std::vector<Item> items = MakeItems(timeline);

    Session session;
    if (!session.Begin(args, QX_INIT_MIDI)) return session.FailStatus();
    if (!session.CheckDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_IN, nIn) ||
        !session.CheckDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_OUT, nOut))
        return kExitFailure;
    const bool bCapture = args.Has("capture");
    if (bCapture && !session.IsVirtual())
        return Fail(cmd, "--capture records what a virtual output emitted: it needs the virtual backend", kExitUsage);
    if (bCapture && !CheckOutputPath(cmd, args.Get("capture"))) return kExitFailure;
    std::vector<qxsmf::Message> feed;
    if (!LoadInjection(args, session, feed)) return kExitUsage;
    CQuavix* q = session.Get();
    session.KeepOnly({{QX_DEVTYPE_MIDI, QX_DEVDIR_IN, nIn}, {QX_DEVTYPE_MIDI, QX_DEVDIR_OUT, nOut}});
    q->SetDefaultMidiDevice(nOut);
    q->EnableDefaultMidiDevice(1);

    VirtualLog log(nOut);
    if (session.IsVirtual()) {
        log.Drain();
        log.Clear();
    }
    SlavePerformance perf(q, items, nOut, timeline.lengthMs);
    // Registered after the mode change, which notifies a stop to the performances.
    q->SetSyncMode(QX_SYNCMODE_SLAVE);
    if (!(q->GetDeviceState(QX_DEVTYPE_MIDI, QX_DEVDIR_OUT, nOut) & QX_STATE_OPEN)) {
        const std::string why = Session::LastReport();
        return Fail(cmd, "cannot open MIDI output " + std::to_string(nOut) + (why.empty() ? "" : ": " + why));
    }
    perf.Prepare(0);
    if (q->StartPerformance(SlavePerformance::Proc, reinterpret_cast<DWORD_PTR>(&perf), 1, 0) == 0)
        return Fail(cmd, "cannot start the performance (out of memory)");
    if (!q->OpenDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_IN, nIn) || !q->StartDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_IN, nIn)) {
        const std::string why = Session::LastReport();
        return Fail(cmd, "cannot open MIDI input " + std::to_string(nIn) + (why.empty() ? "" : ": " + why));
    }
    q->QueueSlavedPerformance();
    if (!args.Quiet())
        std::printf("Waiting for MIDI Start or Continue on input %d (%s) to play %s\n  on MIDI output %d (%s), %s backend\n",
                    nIn, session.DeviceName(QX_DEVTYPE_MIDI, QX_DEVDIR_IN, nIn).c_str(), path.c_str(), nOut,
                    session.DeviceName(QX_DEVTYPE_MIDI, QX_DEVDIR_OUT, nOut).c_str(), session.BackendText().c_str());

    Injector injector;
    if (!feed.empty()) injector.Start(nIn, std::move(feed));
    const int64_t startNs = args.Has("inject") ? injector.StartNs() : qxplat::NowNs();
    Progress progress(args.Quiet());
    bool bInterrupted = false, bLost = false, bServerLost = false;
    int64_t feedDoneNs = 0;
    for (;;) {
        if (!SleepUnlessInterrupted(20)) {
            (Interrupted() ? bInterrupted : bServerLost) = true;
            break;
        }
        const int64_t now = qxplat::NowNs();
        if (seconds > 0 && static_cast<double>(now - startNs) >= seconds * 1e9) break;
        if (args.Has("inject") && !args.Has("seconds") && injector.Done()) {
            if (feedDoneNs == 0) feedDoneNs = now;
            if (now - feedDoneNs > 300'000'000) break; // what the feed's last message started has played
        }
        if (perf.TakeStopped()) {
            // The stop handler ends every performance and reopens the outputs; it also
            // clears the buffer time just after it releases the device lock.
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
            if (q->StartPerformance(SlavePerformance::Proc, reinterpret_cast<DWORD_PTR>(&perf), 1, 0) == 0) {
                bLost = true; // the devices still run: leave through the cleanup below
                break;
            }
            for (DWORD off : perf.TakeSounding()) q->SendMidiMsg(static_cast<UINT>(nOut), off, 0);
            perf.Prepare(perf.StopPosition());
            q->QueueSlavedPerformance();
        }
        if (session.IsVirtual()) log.Drain();
        const auto st = perf.GetStatus();
        char bpm[32] = "-";
        if (st.bpm > 0) std::snprintf(bpm, sizeof bpm, "%.1f", st.bpm);
        const char* state = st.bPlaying ? "playing " : st.starts + st.continues == 0 ? "waiting " : "stopped ";
        progress.Update(std::string(state) + FormatTime(static_cast<double>(st.positionMs)) +
                        " / " + FormatTime(timeline.lengthMs) + " " +
                        Bar(timeline.lengthMs > 0 ? static_cast<double>(st.positionMs) / timeline.lengthMs : 1.0, 20) +
                        " clock " + bpm + " BPM, " + std::to_string(st.clocks) + " clocks");
    }
    injector.Stop();
    q->StopDevices();
    for (DWORD off : perf.TakeSounding()) q->SendMidiMsg(static_cast<UINT>(nOut), off, 0);
    if (bInterrupted) q->OnPanicButton();
    q->CloseDevices();
    progress.Finish();
    if (bLost) return Fail(cmd, "cannot start the performance again (out of memory)");
    if (bServerLost) return FailServerLost(cmd, "sync-slave stopped");

    const auto st = perf.GetStatus();
    std::printf("%s\n", bInterrupted ? "Stopped (interrupted); the output was silenced." : "Summary:");
    std::printf("  transport %zu starts, %zu continues, %zu stops, %zu clocks\n", st.starts, st.continues, st.stops,
                st.clocks);
    if (session.IsVirtual()) {
        log.Drain();
        size_t timed = 0;
        for (const auto& e : log.Entries()) timed += e.dueNs != 0 ? 1 : 0;
        std::printf("  events    %zu sent\n", timed);
        const Lateness late = MeasureLateness(log.Entries(), 0, log.Entries().size());
        if (late.count > 0)
            std::printf("  lateness  worst %.2f ms, 99%% within %.2f ms (emitted against due)\n", late.worstMs, late.p99Ms);
        if (bCapture) {
            if (!log.Write(args.Get("capture"), startNs, bDue, 0, error)) return Fail(cmd, error);
            std::printf("  capture   %s (%zu messages)\n", args.Get("capture").c_str(), log.Entries().size());
        }
    }
    std::fflush(stdout);
    return kExitOk;
}

} // namespace qxcli
