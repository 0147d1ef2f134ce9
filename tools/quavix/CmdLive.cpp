// The live subcommands: thru, record-midi, send and panic.
#include "Commands.h"
#include "Playback.h"

#include "platform/backends/QXBackend.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <functional>
#include <chrono>
#include <mutex>

namespace qxcli {

namespace {

// Counts or keeps what the inputs record; called on the input's thread.
struct Recorder {
    std::mutex mutex;
    bool bKeep = false;
    size_t count = 0;
    std::vector<std::pair<DWORD, DWORD>> events; // input time (ms), packed message

    static int Proc(DWORD_PTR dwUser, int, CQXEventData* pEvent)
    {
        auto* r = reinterpret_cast<Recorder*>(dwUser);
        if (pEvent == nullptr || pEvent->m_nType != QX_EVENT_MIDI) return 0;
        std::lock_guard<std::mutex> lock(r->mutex);
        ++r->count;
        if (r->bKeep) r->events.emplace_back(pEvent->m_dwTimeStamp, static_cast<DWORD>(pEvent->m_dwData));
        return 0;
    }
    size_t Count()
    {
        std::lock_guard<std::mutex> lock(mutex);
        return count;
    }
};

// Runs until Ctrl-C, --seconds, or (with --inject and no --seconds) the end of the
// feed. False when interrupted.
bool RunFor(const Args& args, double seconds, const Injector& injector, int64_t startNs,
            const std::function<void(double elapsedMs)>& tick)
{
    int64_t feedDoneNs = 0;
    for (;;) {
        if (!SleepUnlessInterrupted(20)) return false;
        const int64_t now = qxplat::NowNs();
        if (seconds > 0 && static_cast<double>(now - startNs) >= seconds * 1e9) return true;
        if (args.Has("inject") && seconds <= 0 && injector.Done()) {
            if (feedDoneNs == 0) feedDoneNs = now;
            if (now - feedDoneNs > 200'000'000) return true; // the input has passed it on
        }
        tick(static_cast<double>(now - startNs) / 1e6);
    }
}

// Time for a backend that delivers asynchronously to put out what it was handed.
void LetBackendDrain(const Session& session)
{
    if (!session.IsVirtual()) std::this_thread::sleep_for(std::chrono::milliseconds(100));
}

bool WriteCapture(const Args& args, VirtualLog& log, int64_t originNs, bool bDue)
{
    if (!args.Has("capture")) return true;
    log.Drain();
    std::string error;
    if (!log.Write(args.Get("capture"), originNs, bDue, 0, error)) {
        Fail(args.Command(), error);
        return false;
    }
    return true;
}

// --capture needs the virtual backend and a place it can be written to; 0 when fine,
// else the exit status, after one line.
int CheckCapture(const Args& args, const Session& session)
{
    if (!args.Has("capture")) return kExitOk;
    if (!session.IsVirtual())
        return Fail(args.Command(), "--capture records what a virtual output emitted: it needs the virtual backend",
                    kExitUsage);
    if (args.Has("inject") && !CheckNotAnInput(args.Command(), args.Get("capture"), {args.Get("inject")}))
        return kExitUsage;
    return CheckOutputPath(args.Command(), args.Get("capture")) ? kExitOk : kExitFailure;
}

// What happened to a device's peer, for the summary and the status.
// The name is the one taken at the start: a device that went away has none any more.
std::string LostLine(const std::string& name, int nDir, int nDevice, int64_t startNs)
{
    const int64_t lostNs = Session::LostAt(nDir, nDevice);
    if (lostNs == 0) return {};
    return std::string("MIDI ") + (nDir == QX_DEVDIR_IN ? "input " : "output ") + std::to_string(nDevice) + " (" +
           name + ") went away at " +
           FormatTime(static_cast<double>(std::max<int64_t>(lostNs - startNs, 0)) / 1e6);
}

// Hex tokens into bytes: "90", "0x90", "903C40".
bool ParseHex(const std::vector<std::string>& tokens, std::vector<uint8_t>& bytes, std::string& error)
{
    for (std::string t : tokens) {
        if (t.size() > 2 && t[0] == '0' && (t[1] == 'x' || t[1] == 'X')) t = t.substr(2);
        if (t.empty() || (t.size() > 2 && t.size() % 2 != 0)) {
            error = "'" + t + "' is not a hexadecimal byte";
            return false;
        }
        for (size_t i = 0; i < t.size(); i += 2) {
            const std::string pair = t.substr(i, 2);
            for (char c : pair)
                if (!std::isxdigit(static_cast<unsigned char>(c))) {
                    error = "'" + t + "' is not a hexadecimal byte";
                    return false;
                }
            bytes.push_back(static_cast<uint8_t>(std::stoul(pair, nullptr, 16)));
        }
    }
    if (bytes.empty()) {
        error = "no bytes to send";
        return false;
    }
    return true;
}

// Bytes into whole messages: short ones (running status allowed) and SysEx F0 ... F7.
bool SplitMessages(const std::vector<uint8_t>& bytes, std::vector<std::vector<uint8_t>>& messages, std::string& error)
{
    auto where = [](size_t i) { return " (byte " + std::to_string(i + 1) + ")"; };
    auto hex = [](uint8_t b) {
        char s[8];
        std::snprintf(s, sizeof s, "%02X", b);
        return std::string(s);
    };
    uint8_t running = 0;
    for (size_t i = 0; i < bytes.size();) {
        const uint8_t b = bytes[i];
        if (b == 0xF0) {
            size_t j = i + 1;
            while (j < bytes.size() && bytes[j] < 0x80) ++j;
            if (j >= bytes.size() || bytes[j] != 0xF7) {
                error = "the SysEx that starts at F0" + where(i) + " has no F7 at its end";
                return false;
            }
            messages.emplace_back(bytes.begin() + static_cast<std::ptrdiff_t>(i), bytes.begin() + static_cast<std::ptrdiff_t>(j + 1));
            i = j + 1;
            running = 0;
            continue;
        }
        if (b == 0xF7) {
            error = "F7" + where(i) + " ends a SysEx that was not started";
            return false;
        }
        std::vector<uint8_t> m;
        uint8_t status = b;
        const bool bRunning = b < 0x80;
        if (b >= 0x80) {
            m.push_back(b);
            ++i;
            if (b < 0xF0) running = b;
            else if (b < 0xF8) running = 0;
        } else {
            if (running == 0) {
                error = "data byte " + hex(b) + where(i) + " has no status byte before it";
                return false;
            }
            status = running;
            m.push_back(status);
        }
        const size_t need = qxsmf::ShortLength(status) - 1;
        const size_t first = i;
        for (size_t k = 0; k < need; ++k, ++i) {
            if (i >= bytes.size() || bytes[i] >= 0x80) {
                if (bRunning) {
                    // Data bytes after a complete message: too many, not too few.
                    std::string extra;
                    for (size_t j = first; j < i; ++j) extra += (extra.empty() ? "" : " ") + hex(bytes[j]);
                    error = qxsmf::Counted(i - first, "data byte") + " too many: " + extra + where(first) +
                            " after a complete " + hex(status) + " message (running status " + hex(status) +
                            " takes " + qxsmf::Counted(need, "data byte") + ")";
                } else {
                    error = "message " + hex(status) + " needs " + qxsmf::Counted(need, "data byte") +
                            (i < bytes.size() ? ", not " + hex(bytes[i]) + where(i) : "");
                }
                return false;
            }
            m.push_back(bytes[i]);
        }
        messages.push_back(std::move(m));
    }
    return true;
}

} // namespace

int RunThru(int argc, char** argv)
{
    const std::string cmd = "thru";
    Args args(cmd, {"in", "out", "channel", "seconds", "inject", "capture", "capture-times"});
    if (!args.Parse(argc, argv)) return kExitUsage;
    if (args.Help()) return PrintHelp(cmd);
    if (!args.Has("in") || !args.Has("out")) return Fail(cmd, "needs --in N and --out M", kExitUsage);
    if (!args.Positional().empty()) return Fail(cmd, "takes no file, not '" + args.Positional()[0] + "'", kExitUsage);
    int nIn = 0, nOut = 0, nChannel = 0;
    double seconds = 0;
    bool bDue = false;
    if (!args.GetInt("in", nIn, 0, 1023) || !args.GetInt("out", nOut, 0, 1023) ||
        !args.GetInt("channel", nChannel, 1, 16) || !args.GetDouble("seconds", seconds, 0.001, 86400) ||
        !CaptureUsesDue(args, bDue))
        return kExitUsage;

    Session session;
    if (!session.Begin(args, QX_INIT_MIDI)) return session.FailStatus();
    if (!session.CheckDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_IN, nIn) ||
        !session.CheckDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_OUT, nOut))
        return kExitFailure;
    if (session.IsVirtual() && nIn == nOut)
        return Fail(cmd, "virtual output " + std::to_string(nOut) + " loops back into input " + std::to_string(nIn) +
                             ": thru between them would feed back forever",
                    kExitUsage);
    if (const int status = CheckCapture(args, session)) return status;
    std::vector<qxsmf::Message> feed;
    if (!LoadInjection(args, session, feed)) return kExitUsage;
    CQuavix* q = session.Get();
    session.KeepOnly({{QX_DEVTYPE_MIDI, QX_DEVDIR_IN, nIn}, {QX_DEVTYPE_MIDI, QX_DEVDIR_OUT, nOut}});

    VirtualLog log(nOut);
    if (session.IsVirtual()) {
        log.Drain();
        log.Clear();
    }
    Recorder counter;
    q->StartRecording(Recorder::Proc, reinterpret_cast<DWORD_PTR>(&counter), 0);
    q->ConnectMidiThru(nOut, args.Has("channel") ? nChannel - 1 : -1);
    q->EnableMidiThru(1);
    if (!q->OpenDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_OUT, nOut)) {
        const std::string why = Session::LastReport();
        return Fail(cmd, "cannot open MIDI output " + std::to_string(nOut) + (why.empty() ? "" : ": " + why));
    }
    if (!q->OpenDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_IN, nIn) || !q->StartDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_IN, nIn)) {
        const std::string why = Session::LastReport();
        return Fail(cmd, "cannot open MIDI input " + std::to_string(nIn) + (why.empty() ? "" : ": " + why));
    }
    const std::string inName = session.DeviceName(QX_DEVTYPE_MIDI, QX_DEVDIR_IN, nIn),
                      outName = session.DeviceName(QX_DEVTYPE_MIDI, QX_DEVDIR_OUT, nOut);
    if (!args.Quiet())
        std::printf("Thru from MIDI input %d (%s) to output %d (%s)%s; Ctrl-C stops\n", nIn, inName.c_str(), nOut,
                    outName.c_str(),
                    args.Has("channel") ? (" on channel " + std::to_string(nChannel)).c_str() : "");

    Injector injector;
    if (!feed.empty()) injector.Start(nIn, std::move(feed));
    const int64_t startNs = args.Has("inject") ? injector.StartNs() : qxplat::NowNs();
    Progress progress(args.Quiet());
    const bool bDone = RunFor(args, seconds, injector, startNs, [&](double ms) {
        if (session.IsVirtual()) log.Drain();
        progress.Update(FormatTime(ms) + "  " + qxsmf::Counted(counter.Count(), "message"));
    });
    const bool bServerLost = !bDone && !Interrupted();
    injector.Stop();
    q->EnableMidiThru(0);
    q->CloseDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_IN, nIn);
    if (!bServerLost) LetBackendDrain(session);
    q->CloseDevices();
    progress.Finish();
    const double secs = static_cast<double>(qxplat::NowNs() - startNs) / 1e9;
    if (bServerLost) {
        char what[96];
        std::snprintf(what, sizeof what, "thru stopped after %.1f s", secs);
        return FailServerLost(cmd, what);
    }
    std::printf("%s %s passed through in %.1f s\n", bDone ? "Done:" : "Stopped:",
                qxsmf::Counted(counter.Count(), "message").c_str(), secs);
    const std::string lostOut = LostLine(outName, QX_DEVDIR_OUT, nOut, startNs),
                      lostIn = LostLine(inName, QX_DEVDIR_IN, nIn, startNs);
    for (const auto* l : {&lostIn, &lostOut})
        if (!l->empty()) std::printf("  %s\n", l->c_str());
    if (!WriteCapture(args, log, startNs, bDue)) return kExitFailure;
    if (!lostOut.empty() || !lostIn.empty()) return Fail(cmd, (lostOut.empty() ? lostIn : lostOut) + ": thru was cut");
    return kExitOk;
}

int RunRecordMidi(int argc, char** argv)
{
    const std::string cmd = "record-midi";
    Args args(cmd, {"in", "seconds", "inject"});
    if (!args.Parse(argc, argv)) return kExitUsage;
    if (args.Help()) return PrintHelp(cmd);
    if (!args.Has("in")) return Fail(cmd, "needs --in N, the MIDI input to record", kExitUsage);
    if (args.Positional().size() != 1)
        return Fail(cmd, args.Positional().empty() ? "needs the OUT.mid to write" : "writes one file", kExitUsage);
    int nIn = 0;
    double seconds = 0;
    if (!args.GetInt("in", nIn, 0, 1023) || !args.GetDouble("seconds", seconds, 0.001, 86400)) return kExitUsage;
    const std::string path = args.Positional()[0];
    if (args.Has("inject") && !CheckNotAnInput(cmd, path, {args.Get("inject")})) return kExitUsage;

    Session session;
    if (!session.Begin(args, QX_INIT_MIDI)) return session.FailStatus();
    if (!session.CheckDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_IN, nIn)) return kExitFailure;
    std::vector<qxsmf::Message> feed;
    if (!LoadInjection(args, session, feed)) return kExitUsage;
    // Checked before the take, written after it: a file that was there stays whole
    // until the take replaces it.
    if (!CheckOutputPath(cmd, path)) return kExitFailure;
    std::string error;
    // The input passes SysEx over; what the feed holds of it can be told.
    std::vector<size_t> sysexBefore{0};
    for (const auto& m : feed) sysexBefore.push_back(sysexBefore.back() + (m.IsSysEx() ? 1 : 0));
    CQuavix* q = session.Get();
    session.KeepOnly({{QX_DEVTYPE_MIDI, QX_DEVDIR_IN, nIn}});

    Recorder rec;
    rec.bKeep = true;
    const int nTag = q->StartRecording(Recorder::Proc, reinterpret_cast<DWORD_PTR>(&rec), 1);
    if (!q->OpenDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_IN, nIn) || !q->StartDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_IN, nIn)) {
        const std::string why = Session::LastReport();
        return Fail(cmd, "cannot open MIDI input " + std::to_string(nIn) + (why.empty() ? "" : ": " + why));
    }
    const std::string inName = session.DeviceName(QX_DEVTYPE_MIDI, QX_DEVDIR_IN, nIn);
    if (!args.Quiet()) std::printf("Recording MIDI input %d (%s) to %s; Ctrl-C stops\n", nIn, inName.c_str(), path.c_str());
    Injector injector;
    if (!feed.empty()) injector.Start(nIn, std::move(feed));
    const int64_t startNs = args.Has("inject") ? injector.StartNs() : qxplat::NowNs();
    Progress progress(args.Quiet());
    const bool bDone = RunFor(args, seconds, injector, startNs, [&](double ms) {
        progress.Update(FormatTime(ms) + "  " + qxsmf::Counted(rec.Count(), "message"));
    });
    const bool bServerLost = !bDone && !Interrupted();
    injector.Stop();
    const size_t sysexMissed = sysexBefore[std::min(injector.Sent(), sysexBefore.size() - 1)];
    q->CloseDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_IN, nIn); // no callback runs after this
    q->StopRecording(nTag);
    progress.Finish();

    std::vector<std::pair<uint64_t, std::vector<uint8_t>>> messages;
    {
        std::lock_guard<std::mutex> lock(rec.mutex);
        for (const auto& [ms, msg] : rec.events) messages.emplace_back(ms, UnpackShort(msg));
    }
    // What came before a server went away is kept all the same.
    if (!qxsmf::Write(path, qxsmf::FromMilliseconds(messages, "quavix recording"), error)) return Fail(cmd, error);
    const double secs = static_cast<double>(qxplat::NowNs() - startNs) / 1e9;
    if (bServerLost) {
        char what[160];
        std::snprintf(what, sizeof what, "recording stopped after %.1f s; %s kept in ", secs,
                      qxsmf::Counted(messages.size(), "message").c_str());
        return FailServerLost(cmd, what + path);
    }
    std::printf("%s %s recorded in %.1f s to %s\n", bDone ? "Done:" : "Stopped:",
                qxsmf::Counted(messages.size(), "message").c_str(), secs, path.c_str());
    if (sysexMissed > 0)
        std::printf("  %s not recorded: MIDI input takes short messages only\n",
                    qxsmf::Counted(sysexMissed, "SysEx message").c_str());
    const std::string lost = LostLine(inName, QX_DEVDIR_IN, nIn, startNs);
    if (!lost.empty()) {
        std::printf("  %s\n", lost.c_str());
        return Fail(cmd, lost + ": the recording ends there");
    }
    return kExitOk;
}

int RunSend(int argc, char** argv)
{
    const std::string cmd = "send";
    Args args(cmd, {"out", "capture", "capture-times"});
    if (!args.Parse(argc, argv)) return kExitUsage;
    if (args.Help()) return PrintHelp(cmd);
    if (!args.Has("out")) return Fail(cmd, "needs --out N", kExitUsage);
    int nOut = 0;
    bool bDue = false;
    if (!args.GetInt("out", nOut, 0, 1023) || !CaptureUsesDue(args, bDue)) return kExitUsage;
    std::vector<uint8_t> bytes;
    std::vector<std::vector<uint8_t>> messages;
    std::string error;
    if (!ParseHex(args.Positional(), bytes, error) || !SplitMessages(bytes, messages, error))
        return Fail(cmd, error, kExitUsage);

    Session session;
    if (!session.Begin(args, QX_INIT_MIDI)) return session.FailStatus();
    if (!session.CheckDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_OUT, nOut)) return kExitFailure;
    if (const int status = CheckCapture(args, session)) return status;
    CQuavix* q = session.Get();
    session.KeepOnly({{QX_DEVTYPE_MIDI, QX_DEVDIR_OUT, nOut}});
    VirtualLog log(nOut);
    if (session.IsVirtual()) {
        log.Drain();
        log.Clear();
    }
    if (!q->OpenDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_OUT, nOut)) {
        const std::string why = Session::LastReport();
        return Fail(cmd, "cannot open MIDI output " + std::to_string(nOut) + (why.empty() ? "" : ": " + why));
    }
    const int64_t startNs = qxplat::NowNs();
    const size_t reportsBefore = Session::ReportCount();
    for (const auto& m : messages) {
        if (m[0] == 0xF0)
            q->SendSysExMsg(static_cast<UINT>(nOut), m.data(), static_cast<int>(m.size()), 0);
        else
            q->SendMidiMsg(static_cast<UINT>(nOut), PackShort(m), 0);
    }
    // The sends return nothing; a failure shows as a report.
    if (Session::ReportCount() != reportsBefore) return Fail(cmd, "sending failed: " + Session::LastReport());
    LetBackendDrain(session);
    q->CloseDevices();
    if (!args.Quiet())
        std::printf("Sent %s (%s) to MIDI output %d (%s)\n", qxsmf::Counted(messages.size(), "message").c_str(),
                    qxsmf::Counted(bytes.size(), "byte").c_str(), nOut,
                    session.DeviceName(QX_DEVTYPE_MIDI, QX_DEVDIR_OUT, nOut).c_str());
    if (!WriteCapture(args, log, startNs, bDue)) return kExitFailure;
    return kExitOk;
}

int RunPanic(int argc, char** argv)
{
    const std::string cmd = "panic";
    Args args(cmd, {"out", "capture", "capture-times"});
    if (!args.Parse(argc, argv)) return kExitUsage;
    if (args.Help()) return PrintHelp(cmd);
    if (!args.Positional().empty()) return Fail(cmd, "takes no arguments, not '" + args.Positional()[0] + "'", kExitUsage);
    int nOut = -1;
    bool bDue = false;
    if (!args.GetInt("out", nOut, 0, 1023) || !CaptureUsesDue(args, bDue)) return kExitUsage;

    Session session;
    if (!session.Begin(args, QX_INIT_MIDI)) return session.FailStatus();
    if (nOut >= 0 && !session.CheckDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_OUT, nOut)) return kExitFailure;
    if (const int status = CheckCapture(args, session)) return status;
    CQuavix* q = session.Get();
    const int nCount = q->GetDeviceCount(QX_DEVTYPE_MIDI, QX_DEVDIR_OUT);
    if (nCount == 0) {
        std::printf("No MIDI outputs to silence on the %s backend\n", session.Backend().c_str());
        return kExitOk;
    }
    VirtualLog log(nOut < 0 ? 0 : nOut);
    if (session.IsVirtual()) {
        log.Drain();
        log.Clear();
    }
    // Only open outputs send the panic; the others are left closed.
    int nOpened = 0;
    std::string failures;
    for (int n = 0; n < nCount; ++n) {
        if (nOut >= 0 && n != nOut) continue;
        if (q->OpenDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_OUT, n))
            ++nOpened;
        else
            failures += (failures.empty() ? "" : ", ") + std::to_string(n);
    }
    if (nOpened == 0) {
        const std::string why = Session::LastReport();
        return Fail(cmd, "cannot open MIDI output " + failures + (why.empty() ? "" : ": " + why));
    }
    const int64_t startNs = qxplat::NowNs();
    q->OnPanicButton();
    LetBackendDrain(session);
    q->CloseDevices();
    std::printf("Silenced %d MIDI output%s", nOpened, nOpened == 1 ? "" : "s");
    if (!failures.empty()) std::printf(" (could not open %s)", failures.c_str());
    std::printf("\n");
    if (!WriteCapture(args, log, startNs, bDue)) return kExitFailure;
    return kExitOk;
}

} // namespace qxcli
