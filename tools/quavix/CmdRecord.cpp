// quavix record: a wave input into a WAV file, through the manager's recordings and
// the wave file writer.
#include "Cli.h"
#include "Commands.h"
#include "Waves.h"

#include "platform/backends/QXBackend.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <mutex>

namespace qxcli {

namespace {

// The peak of one PCM sample, as a fraction of full scale.
float SampleLevel(const BYTE* p, int bytes)
{
    switch (bytes) {
    case 1:
        return std::abs(static_cast<int>(p[0]) - 128) / 128.0f;
    case 2:
        return std::abs(static_cast<int16_t>(p[0] | (p[1] << 8)) / 32768.0f);
    case 3:
        return static_cast<float>(
            std::abs(static_cast<int32_t>((uint32_t{p[0]} << 8) | (uint32_t{p[1]} << 16) | (uint32_t{p[2]} << 24)) /
                     2147483648.0));
    default: {
        int32_t v;
        std::memcpy(&v, p, 4);
        return static_cast<float>(std::abs(v / 2147483648.0));
    }
    }
}

// Runs on the wave input's thread: writes each buffer (no more than the take asks for)
// and keeps the peaks for the meter.
class Take {
public:
    Take(CWaveFileWrite& file, const QX_DevFormat& f, uint64_t limitBytes)
        : m_file(file), m_format(f), m_limit(limitBytes)
    {
    }

    static int Proc(DWORD_PTR dwUser, int, CQXEventData* pEvent)
    {
        if (pEvent->m_nType == QX_EVENT_WAVEHEADER) reinterpret_cast<Take*>(dwUser)->Add(*reinterpret_cast<WAVEHDR*>(pEvent->m_dwData));
        return 1;
    }

    uint64_t Bytes() const { return m_bytes.load(); }
    bool Full() const { return m_limit != 0 && m_bytes.load() >= m_limit; }
    bool WriteFailed() const { return m_bFailed.load(); }
    // The peaks since the last call, per channel (a mono take shows on both).
    void TakePeaks(float out[2])
    {
        std::lock_guard<std::mutex> lock(m_peakLock);
        out[0] = m_peak[0];
        out[1] = m_format.nChannels == 2 ? m_peak[1] : m_peak[0];
        m_peak[0] = m_peak[1] = 0;
    }

private:
    void Add(const WAVEHDR& h)
    {
        if (m_bFailed.load() || Full()) return;
        WAVEHDR part = h;
        const uint64_t room = m_limit == 0 ? UINT64_MAX : m_limit - m_bytes.load();
        part.dwBytesRecorded = static_cast<DWORD>(std::min<uint64_t>(h.dwBytesRecorded, room));
        const long written = m_file.Write(&part);
        if (written < 0) {
            m_bFailed = true;
            return;
        }
        const int bytes = m_format.wBitsPerSample / 8, block = m_format.nBlockAlign;
        float peak[2] = {0, 0};
        const auto* p = reinterpret_cast<const BYTE*>(part.lpData);
        for (DWORD at = 0; at + block <= part.dwBytesRecorded; at += block)
            for (int c = 0; c < m_format.nChannels; ++c) peak[c] = std::max(peak[c], SampleLevel(p + at + c * bytes, bytes));
        {
            std::lock_guard<std::mutex> lock(m_peakLock);
            m_peak[0] = std::max(m_peak[0], peak[0]);
            m_peak[1] = std::max(m_peak[1], peak[1]);
            m_max[0] = std::max(m_max[0], peak[0]);
            m_max[1] = std::max(m_max[1], m_format.nChannels == 2 ? peak[1] : peak[0]);
        }
        m_bytes += static_cast<uint64_t>(written);
    }

public:
    float Max(int c)
    {
        std::lock_guard<std::mutex> lock(m_peakLock);
        return m_max[c];
    }

private:
    CWaveFileWrite& m_file;
    const QX_DevFormat m_format;
    const uint64_t m_limit; // 0: until stopped
    std::atomic<uint64_t> m_bytes{0};
    std::atomic<bool> m_bFailed{false};
    std::mutex m_peakLock;
    float m_peak[2] = {0, 0};
    float m_max[2] = {0, 0};
};

std::string FormatBytes(uint64_t n)
{
    char buf[32];
    if (n < 1024 * 1024)
        std::snprintf(buf, sizeof buf, "%.0f KB", static_cast<double>(n) / 1024);
    else
        std::snprintf(buf, sizeof buf, "%.1f MB", static_cast<double>(n) / (1024 * 1024));
    return buf;
}

std::string DbText(float level)
{
    return PeakMeter::FormatDb(PeakMeter::ToDb(level));
}

} // namespace

int RunRecord(int argc, char** argv)
{
    const std::string cmd = "record";
    Args args(cmd, {"in", "seconds", "format"});
    if (!args.Parse(argc, argv)) return kExitUsage;
    if (args.Help()) return PrintHelp(cmd);
    if (args.Positional().size() != 1)
        return Fail(cmd, args.Positional().empty() ? "needs the OUT.wav to write" : "writes one file", kExitUsage);
    int nIn = 0;
    double seconds = 0;
    if (!args.GetInt("in", nIn, 0, 1023) || !args.GetDouble("seconds", seconds, 0.001, 86400)) return kExitUsage;
    QX_DevFormat format{};
    if (!ParseFormat(cmd, args.Get("format", kRecordFormat), 1000, format)) return kExitUsage;
    const std::string path = args.Positional()[0];

    Session session;
    if (!session.Begin(args, QX_INIT_WAVE)) return session.FailStatus();
    if (!session.CheckDevice(QX_DEVTYPE_WAVE, QX_DEVDIR_IN, nIn)) return kExitFailure;
    // Written beside its place, and renamed over it once the first sound is in it: a
    // take that never starts leaves the file that was there whole, and a recorder that
    // is killed later leaves a file whose header is at most a second behind its data.
    OutputFile out;
    if (!out.Prepare(cmd, path)) return kExitFailure;
    CQuavix* q = session.Get();
    session.KeepOnly({{QX_DEVTYPE_WAVE, QX_DEVDIR_IN, nIn}});
    if (!q->SetDeviceFormat(QX_DEVTYPE_WAVE, QX_DEVDIR_IN, nIn, &format)) return Fail(cmd, "out of memory");

    CWaveFileWrite file;
    file.SetFormat(&format);
    file.SetFilename(out.Temp().c_str());
    if (!file.Open(0)) {
        const std::string why = Session::LastReport();
        return Fail(cmd, "cannot write " + path + (why.empty() ? "" : ": " + why));
    }
    const uint64_t limit =
        seconds > 0 ? static_cast<uint64_t>(std::llround(seconds * format.nSamplesPerSec)) * format.nBlockAlign : 0;
    Take take(file, format, limit);
    const int nTag = q->StartRecording(Take::Proc, reinterpret_cast<DWORD_PTR>(&take), 1);
    const std::string inName = session.DeviceName(QX_DEVTYPE_WAVE, QX_DEVDIR_IN, nIn);
    if (nTag == 0 || !q->OpenDevice(QX_DEVTYPE_WAVE, QX_DEVDIR_IN, nIn) ||
        !q->StartDevice(QX_DEVTYPE_WAVE, QX_DEVDIR_IN, nIn)) {
        const std::string why = Session::LastReport();
        return Fail(cmd, "cannot record from wave input " + std::to_string(nIn) + " (" + inName + ")" +
                             (why.empty() ? "" : ": " + why));
    }
    std::string formatText;
    CQXDevice::FillFormatString(reinterpret_cast<WAVEFORMATEX*>(&format), formatText);
    if (!args.Quiet())
        std::printf("Recording wave input %d (%s), %s backend, %s, to %s; %s\n", nIn, inName.c_str(),
                    session.BackendText().c_str(), formatText.c_str(), path.c_str(),
                    seconds > 0 ? (FormatTime(seconds * 1000) + " long").c_str() : "Ctrl-C stops");
    std::fflush(stdout);

    const int64_t startNs = qxplat::NowNs();
    Progress progress(args.Quiet());
    bool bInterrupted = false, bServerLost = false, bStalled = false;
    double elapsed = 0;
    std::string publishError;
    while (!take.Full() && !take.WriteFailed() && publishError.empty()) {
        if (take.Bytes() > 0 && out.CanPublishEarly()) out.Publish(publishError);
        if (!SleepUnlessInterrupted(100)) {
            (Interrupted() ? bInterrupted : bServerLost) = true;
            break;
        }
        elapsed = static_cast<double>(qxplat::NowNs() - startNs) / 1e6;
        float peak[2];
        take.TakePeaks(peak);
        const double recorded = static_cast<double>(take.Bytes()) * 1000.0 / format.nAvgBytesPerSec;
        progress.Update(FormatTime(recorded) + (seconds > 0 ? " / " + FormatTime(seconds * 1000) + " " +
                                                                  Bar(recorded / (seconds * 1000), 30)
                                                            : std::string()) +
                        "  L " + DbText(peak[0]) + " R " + DbText(peak[1]) + " dBFS  " + FormatBytes(take.Bytes()));
        // Buffers come every half second; none for several seconds means no sound comes.
        if (elapsed > recorded + 5000) {
            bStalled = true;
            break;
        }
    }
    q->CloseDevice(QX_DEVTYPE_WAVE, QX_DEVDIR_IN, nIn); // no callback runs after this
    q->StopRecording(nTag);
    progress.Finish();
    const bool bClosed = file.Close() != 0;
    const uint64_t bytes = take.Bytes();
    const double recorded = static_cast<double>(bytes) / format.nAvgBytesPerSec;
    if (take.WriteFailed() || !bClosed) {
        const std::string why = Session::LastReport();
        // Kept only where it was put in place already; the file that was there otherwise.
        std::string ignored;
        if (bytes > 0) out.Publish(ignored);
        return Fail(cmd, "cannot write " + path + (why.empty() ? "" : " (" + why + ")") + "; " +
                             (bytes > 0 ? FormatTime(recorded * 1000) + " kept" : "nothing recorded, the file left as it was"));
    }
    if (!publishError.empty() || !out.Finish(publishError)) return Fail(cmd, publishError);
    char what[200];
    std::snprintf(what, sizeof what, "%.1f s (%s) recorded to %s", recorded, FormatBytes(bytes).c_str(), path.c_str());
    if (bServerLost) return FailServerLost(cmd, std::string("recording stopped; ") + what);
    if (bStalled) return Fail(cmd, std::string("no sound came from the wave input for 5 s; ") + what);
    std::printf("%s %s\n", bInterrupted ? "Stopped (interrupted):" : "Done:", what);
    std::printf("  peak      L %s dBFS, R %s dBFS\n", DbText(take.Max(0)).c_str(), DbText(take.Max(1)).c_str());
    std::fflush(stdout);
    return bInterrupted ? InterruptedStatus() : kExitOk;
}

} // namespace qxcli
