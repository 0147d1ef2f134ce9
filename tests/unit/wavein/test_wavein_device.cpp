// The wave input device under the manager: buffer sizes, the order buffers are handed
// on and queued, the transport (also from inside a recording callback), a format
// change, a sine recorded without a gap, and a played file heard through the loopback.
#include "manager/QXDeviceFactory.h"
#include "unit/waveout/WaveOutHarness.h"

#include <atomic>
#include <cstdio>
#include <functional>
#include <numbers>

using namespace wotest;

namespace {

// Lets the tests see the device's buffers and counts; they read them only where the
// device's thread is not changing them (a quiet device, or inside its own callback).
class Probe : public CWaveIn {
public:
    // The input's thread ends before this class's part goes: no message may find the
    // object half destroyed.
    ~Probe() override
    {
        Close();
        ThreadStop();
    }
    using CWaveIn::AddState;
    using CWaveIn::DevStart;
    using CWaveIn::m_nNextBuffer;
    using CWaveIn::m_nQueuedBuffers;
    using CWaveIn::m_pBlock;
    using CWaveIn::m_pHeaders;
};

// Frames each input lost to an overrun (a loaded machine), as reported so far.
DWORD Overrun(int nDevice)
{
    DWORD n = 0;
    for (const auto& [code, value, device] : ReportLog::Peek())
        if (code == QXN_WAVEIN_OVERRUN && int(device) == nDevice) n += value;
    return n;
}

struct Seen {
    const WAVEHDR* header;
    int queued; // the device's prepared buffers while the callback runs
    int device;
    DWORD lost; // the device's overrun frames reported before this buffer
    std::vector<BYTE> data;
};

// What the recording callbacks saw, with a hook the test may set to act from inside.
struct Recorder {
    std::mutex mutex;
    std::vector<Seen> seen;
    size_t perDevice[2] = {0, 0};
    Probe* probes[2] = {nullptr, nullptr};
    std::function<void(size_t)> inside; // called with the count so far, on the device's thread

    static int Proc(DWORD_PTR dwUser, int, CQXEventData* pEvent)
    {
        auto* self = reinterpret_cast<Recorder*>(dwUser);
        if (pEvent->m_nType != QX_EVENT_WAVEHEADER) return 1;
        const auto* h = reinterpret_cast<const WAVEHDR*>(pEvent->m_dwData);
        const int nDevice = pEvent->m_nDevice;
        Probe* p = self->probes[nDevice];
        const auto* data = reinterpret_cast<const BYTE*>(h->lpData);
        size_t n;
        {
            std::lock_guard<std::mutex> lock(self->mutex);
            self->seen.push_back({h, p != nullptr ? p->m_nQueuedBuffers : -1, nDevice, Overrun(nDevice),
                                  std::vector<BYTE>(data, data + h->dwBytesRecorded)});
            n = self->seen.size();
            ++self->perDevice[nDevice & 1];
        }
        if (self->inside) self->inside(n);
        return 1;
    }

    bool WaitFor(size_t n, int seconds = 10, bool bEach = false)
    {
        return Eventually([&] {
            std::lock_guard<std::mutex> lock(mutex);
            return bEach ? perDevice[0] >= n && perDevice[1] >= n : seen.size() >= n;
        }, std::chrono::seconds(seconds));
    }
    std::vector<Seen> Snapshot()
    {
        std::lock_guard<std::mutex> lock(mutex);
        return seen;
    }
};

void Append(std::vector<int16_t>& samples, const Seen& buffer)
{
    const auto* p = reinterpret_cast<const int16_t*>(buffer.data.data());
    samples.insert(samples.end(), p, p + buffer.data.size() / 2);
}

// Fits a 1 kHz sine to s[from, from + fit) and counts the samples of s[from, to) that
// stray from the sine that fit continues by more than tol (full scale 1).
size_t OffTheSine(const std::vector<int16_t>& s, size_t from, size_t fit, size_t to, double rate, double tol,
                  double* pAmp, size_t* pFirstOff)
{
    const double w = 2 * std::numbers::pi * 1000.0 / rate;
    double c = 0, q = 0;
    for (size_t i = from; i < from + fit; ++i) {
        c += s[i] * std::cos(w * static_cast<double>(i));
        q += s[i] * std::sin(w * static_cast<double>(i));
    }
    const double phase = std::atan2(c, q);
    *pAmp = 2 * std::hypot(c, q) / static_cast<double>(fit) / 32768.0;
    size_t off = 0;
    for (size_t i = from; i < to; ++i)
        if (std::abs(s[i] / 32768.0 - *pAmp * std::sin(w * static_cast<double>(i) + phase)) > tol && off++ == 0)
            *pFirstOff = i;
    return off;
}

CQXDevice* MakeProbes(int nType, int nDir)
{
    if (nType == QX_DEVTYPE_WAVE && nDir == QX_DEVDIR_IN) return new Probe;
    if (nType == QX_DEVTYPE_WAVE && nDir == QX_DEVDIR_OUT) return new CWaveOut;
    return nullptr;
}

// A manager of wave inputs whose devices are Probes, recording into rec.
class WaveInDevice : public ManagerTest {
protected:
    void SetUp() override
    {
        ManagerTest::SetUp();
        Start(0);
    }
    void Start(int nWaveOut)
    {
        QXSetDeviceFactory(MakeProbes);
        Init(nWaveOut, QX_INIT_WAVE, false, nWaveOut == 0 ? 2 : 1);
        for (int n = 0; n < 2; ++n) rec.probes[n] = static_cast<Probe*>(q->GetDevice(QX_DEVTYPE_WAVE, QX_DEVDIR_IN, n));
        q->StartRecording(Recorder::Proc, reinterpret_cast<DWORD_PTR>(&rec), 1);
    }
    void TearDown() override
    {
        CQuavix::ExitQuavix();
        QXSetDeviceFactory(nullptr);
        unsetenv("QUAVIX_VIRTUAL_WAVE_IN_SOURCE");
        for (const auto& [code, value, device] : ReportLog::Take())
            EXPECT_EQ(code, QXN_WAVEIN_OVERRUN) << "device " << device << ", value " << value;
        ManagerTest::TearDown();
    }
    Probe* In(int n) { return rec.probes[n]; }
    UINT State(int n) { return q->GetDeviceState(QX_DEVTYPE_WAVE, QX_DEVDIR_IN, n); }

    Recorder rec;
};

double Seconds(std::chrono::steady_clock::time_point since)
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - since).count();
}

} // namespace

// Each buffer holds half a second of the format, whatever its block alignment, and both
// share one block; a device without a format gets the default one when it opens. A new
// format on a recording input leaves it open and stopped; a null format leaves none.
TEST_F(WaveInDevice, BuffersHoldHalfASecondOfTheFormat)
{
    ASSERT_NE(In(0), nullptr);
    EXPECT_EQ(CWaveIn::GetDefaultFormat(), 8);
    ASSERT_EQ(q->OpenDevice(QX_DEVTYPE_WAVE, QX_DEVDIR_IN, 0), 1);
    const QX_DevFormat* f = In(0)->GetFormat();
    ASSERT_NE(f, nullptr);
    EXPECT_EQ(std::tuple(f->nSamplesPerSec, f->nChannels, f->wBitsPerSample), std::tuple(22050u, 1, 16));
    EXPECT_EQ(In(0)->m_nQueuedBuffers, 1) << "opening queues buffer 0";
    EXPECT_EQ(In(0)->m_nNextBuffer, 1);

    // Header 1 at the 8-byte boundary after buffer 0.
    struct Case { QX_DevFormat f; DWORD length; };
    for (Case c : {Case{Pcm(22050, 1, 16), 22050}, {Pcm(44100, 2, 16), 88200}, {Pcm(22050, 1, 8), 11025}}) {
        SCOPED_TRACE(c.length);
        ASSERT_EQ(q->SetDeviceFormat(QX_DEVTYPE_WAVE, QX_DEVDIR_IN, 0, &c.f), 1);
        EXPECT_TRUE(State(0) & QX_STATE_OPEN) << "reopened with the new format";
        EXPECT_EQ(In(0)->m_pHeaders[1]->dwBufferLength, c.length);
        EXPECT_EQ(reinterpret_cast<BYTE*>(In(0)->m_pHeaders[1]),
                  In(0)->m_pBlock + sizeof(WAVEHDR) + (c.length + 7) / 8 * 8);
    }
    EXPECT_EQ(q->CloseDevice(QX_DEVTYPE_WAVE, QX_DEVDIR_IN, 0), 1);
    EXPECT_EQ(In(0)->m_pBlock, nullptr);

    ASSERT_EQ(q->StartDevice(QX_DEVTYPE_WAVE, QX_DEVDIR_IN, 0), 1);
    QX_DevFormat f48 = Pcm(48000, 2, 16);
    ASSERT_EQ(In(0)->SetFormat(&f48), 1);
    EXPECT_EQ(State(0) & (QX_STATE_OPEN | QX_STATE_STARTED), QX_STATE_OPEN);
    ASSERT_EQ(q->StartDevice(QX_DEVTYPE_WAVE, QX_DEVDIR_IN, 0), 1);
    ASSERT_TRUE(rec.WaitFor(1));
    EXPECT_EQ(rec.Snapshot()[0].data.size(), 96000u);
    EXPECT_EQ(In(0)->SetFormat(nullptr), 0);
}

// Buffers 0, 1, 0 are handed on in that order, each full while the other is queued; a
// stop takes both back at once (the partly filled one is not handed on). An input
// records again after a stop or a pause; a close after a pause (nothing queued) returns
// at once; a start while a stop is under way is refused.
TEST_F(WaveInDevice, BuffersAreHandedOnInTurnAndNoneWhileStoppedOrPaused)
{
    ASSERT_EQ(q->OpenDevice(QX_DEVTYPE_WAVE, QX_DEVDIR_IN, 0), 1);
    ASSERT_EQ(q->StartDevice(QX_DEVTYPE_WAVE, QX_DEVDIR_IN, 0), 1);
    ASSERT_TRUE(rec.WaitFor(3));
    auto t0 = std::chrono::steady_clock::now();
    ASSERT_EQ(q->StopDevice(QX_DEVTYPE_WAVE, QX_DEVDIR_IN, 0), 1);
    EXPECT_LT(Seconds(t0), 2.5) << "the stop waited out its limit";
    size_t n = rec.Snapshot().size();
    EXPECT_LE(n, 4u);
    const std::vector<Seen> seen = rec.Snapshot();
    for (size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(seen[i].header, In(0)->m_pHeaders[i % 2]) << i;
        EXPECT_EQ(seen[i].data.size(), 22050u) << "handed on full";
        EXPECT_EQ(seen[i].queued, 2) << "the other buffer is queued while one is handed on";
        EXPECT_EQ(seen[i].device, 0);
    }
    EXPECT_EQ(In(0)->m_nQueuedBuffers, 0);
    EXPECT_FALSE(State(0) & QX_STATE_STOPPING);
    std::this_thread::sleep_for(std::chrono::milliseconds(700)); // longer than a buffer lasts
    EXPECT_EQ(rec.Snapshot().size(), n) << "nothing after the stop";

    ASSERT_EQ(q->StartDevice(QX_DEVTYPE_WAVE, QX_DEVDIR_IN, 0), 1);
    ASSERT_TRUE(rec.WaitFor(n + 2)) << "a restarted input records";
    ASSERT_EQ(q->PauseDevice(QX_DEVTYPE_WAVE, QX_DEVDIR_IN, 0), 1);
    EXPECT_TRUE(State(0) & QX_STATE_PAUSED);
    EXPECT_EQ(In(0)->m_nQueuedBuffers, 0) << "a pause is a stop";
    n = rec.Snapshot().size();
    std::this_thread::sleep_for(std::chrono::milliseconds(700));
    EXPECT_EQ(rec.Snapshot().size(), n) << "a paused input records nothing";
    ASSERT_EQ(q->StartDevice(QX_DEVTYPE_WAVE, QX_DEVDIR_IN, 0), 1);
    ASSERT_TRUE(rec.WaitFor(n + 1)) << "and records again when started";
    ASSERT_EQ(q->PauseDevice(QX_DEVTYPE_WAVE, QX_DEVDIR_IN, 0), 1);
    t0 = std::chrono::steady_clock::now();
    EXPECT_EQ(q->CloseDevice(QX_DEVTYPE_WAVE, QX_DEVDIR_IN, 0), 1);
    EXPECT_LT(Seconds(t0), 2.5) << "nothing was queued to wait for";

    ASSERT_EQ(q->OpenDevice(QX_DEVTYPE_WAVE, QX_DEVDIR_IN, 0), 1);
    In(0)->AddState(QX_STATE_STOPPING);
    EXPECT_EQ(In(0)->DevStart(), 0);
}

// A recording callback that stops or closes its own input does not wait for itself, and
// its buffer stays readable until it returns (AddressSanitizer watches).
TEST_F(WaveInDevice, StopAndCloseFromTheRecordingCallback)
{
    std::atomic<double> longest{0};
    std::atomic<long> sum{0};
    rec.inside = [&](size_t n) {
        const auto t0 = std::chrono::steady_clock::now();
        if (n == 1) q->StopDevice(QX_DEVTYPE_WAVE, QX_DEVDIR_IN, 0);
        if (n == 3) q->CloseDevices();
        longest = std::max(longest.load(), Seconds(t0));
        long s = 0;
        std::lock_guard<std::mutex> lock(rec.mutex);
        const WAVEHDR* h = rec.seen[n - 1].header;
        for (DWORD i = 0; i < h->dwBytesRecorded; ++i) s += reinterpret_cast<const BYTE*>(h->lpData)[i];
        sum += s;
    };
    ASSERT_EQ(q->StartDevice(QX_DEVTYPE_WAVE, QX_DEVDIR_IN, 0), 1);
    ASSERT_TRUE(rec.WaitFor(1));
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_EQ(rec.Snapshot().size(), 1u) << "stopped from its own callback";
    EXPECT_FALSE(State(0) & QX_STATE_STARTED);
    ASSERT_EQ(q->StartDevice(QX_DEVTYPE_WAVE, QX_DEVDIR_IN, 0), 1);
    ASSERT_TRUE(rec.WaitFor(3)) << "started again";
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_EQ(State(0), QX_STATE_CLOSED) << "closed from its own callback";
    EXPECT_EQ(rec.Snapshot().size(), 3u);
    EXPECT_LT(longest.load(), 2.5) << "the callback's own stop did not wait for itself";
    EXPECT_NE(sum.load(), 0);
    rec.inside = nullptr;
    ASSERT_EQ(q->StartDevice(QX_DEVTYPE_WAVE, QX_DEVDIR_IN, 0), 1);
    EXPECT_TRUE(rec.WaitFor(4));
}

// A buffer that cannot be queued again is reported with no lock of the input held: the
// notification callback may stop or close the devices.
TEST_F(WaveInDevice, ANotificationCallbackMayStopOrCloseTheDevices)
{
    static std::atomic<int> reaction{0}; // 1 stop, 2 close; taken by the first report
    static std::atomic<DWORD> reported{0};
    static std::atomic<bool> reacted{false};
    struct {
        const char* call;
        DWORD code;
        int reaction;
        UINT state; // of input 0 afterwards
    } cases[] = {
        {"waveInAddBuffer", QXN_WAVEIN_ADDBUFFER, 1, QX_STATE_OPEN | QX_STATE_STOPPED},
        {"waveInAddBuffer", QXN_WAVEIN_ADDBUFFER, 2, QX_STATE_CLOSED},
        {"waveInPrepareHeader", QXN_WAVEIN_PREPARE, 2, QX_STATE_CLOSED},
    };
    q->SetNotificationCallback(
        [](DWORD code, DWORD, DWORD_PTR) {
            const int r = reaction.exchange(0);
            if (r == 0) return;
            reported = code;
            CQuavix* m = CQuavix::GetQuavix();
            if (r == 1) m->StopDevices();
            if (r == 2) m->CloseDevices();
            reacted = true;
        },
        0);
    for (const auto& c : cases) {
        const std::string what = std::string(c.call) + (c.reaction == 1 ? " / StopDevices" : " / CloseDevices");
        reacted = false;
        ASSERT_EQ(q->OpenDevice(QX_DEVTYPE_WAVE, QX_DEVDIR_IN, 0), 1) << what;
        ASSERT_EQ(q->StartDevice(QX_DEVTYPE_WAVE, QX_DEVDIR_IN, 0), 1) << what;
        ASSERT_TRUE(rec.WaitFor(rec.Snapshot().size() + 1)) << what;
        reaction = c.reaction;
        QXFaultInject(c.call, MMSYSERR_NOMEM);
        ASSERT_TRUE(Eventually([] { return reacted.load(); })) << what << ": the reaction to the report did not return";
        EXPECT_EQ(reported.load(), c.code) << what;
        EXPECT_EQ(State(0), c.state) << what;
        q->CloseDevices();
    }
    QXFaultClear();
}

// An input whose thread is held up for longer than the other buffer and the platform's
// own buffer last loses samples, and says so, with its number.
TEST_F(WaveInDevice, AnInputHeldUpTooLongReportsTheLoss)
{
    rec.inside = [](size_t n) {
        if (n == 1) std::this_thread::sleep_for(std::chrono::milliseconds(2500)); // past a buffer and the ring
    };
    ASSERT_EQ(q->StartDevice(QX_DEVTYPE_WAVE, QX_DEVDIR_IN, 0), 1);
    ASSERT_TRUE(rec.WaitFor(3, 20));
    // Told once the input runs again, ahead of the buffers after the loss or with them.
    EXPECT_TRUE(Eventually([] { return Overrun(0) > 0; }));
    ASSERT_EQ(q->StopDevice(QX_DEVTYPE_WAVE, QX_DEVDIR_IN, 0), 1);
    EXPECT_EQ(Overrun(1), 0u);
}

// A continuous 1 kHz sine recorded by two inputs at once, one at the source's own rate
// (every sample exact) and one converted to 22,050 Hz: not one sample is missing or
// repeated across the buffer boundaries, though a recording callback holds both inputs'
// threads up for longer than a buffer lasts. Samples are judged only up to the buffer
// before the first overrun an input reported (a loaded machine loses samples, and says so).
TEST_F(WaveInDevice, ASineIsRecordedWithoutAGapAcrossAHeldUpCallback)
{
    setenv("QUAVIX_VIRTUAL_WAVE_IN_SOURCE", "sine:1000", 1);
    const DWORD rates[2] = {48000, 22050};
    for (int dev = 0; dev < 2; ++dev) {
        QX_DevFormat f = Pcm(rates[dev], 1, 16);
        ASSERT_EQ(q->SetDeviceFormat(QX_DEVTYPE_WAVE, QX_DEVDIR_IN, dev, &f), 1);
    }
    rec.inside = [](size_t n) {
        if (n == 7) std::this_thread::sleep_for(std::chrono::milliseconds(900));
    };
    ASSERT_EQ(q->OpenDevices(), 1);
    ASSERT_EQ(q->StartDevices(), 1);
    ASSERT_TRUE(rec.WaitFor(10, 60, true));
    ASSERT_EQ(q->StopDevices(), 1);
    const std::vector<Seen> seen = rec.Snapshot();
    for (int dev = 0; dev < 2; ++dev) {
        SCOPED_TRACE("input " + std::to_string(dev));
        const double rate = rates[dev];
        std::vector<int16_t> s;
        size_t buffers = 0, total = 0;
        for (const Seen& b : seen) {
            total += b.device == dev;
            if (b.device == dev && b.lost == 0 && buffers + 1 == total) {
                Append(s, b);
                ++buffers;
            }
        }
        // The phase of half a second (whole cycles at either rate) past the converter's
        // start, then every sample against the sine that phase continues.
        const size_t skip = 2048, fit = static_cast<size_t>(rate / 2);
        if (buffers < total) { // the buffer before an overrun report may miss samples too
            s.resize(buffers > 1 ? s.size() - fit : 0);
            std::printf("note: input %d overran (machine load): %zu of %zu buffers judged\n", dev,
                        buffers > 1 ? buffers - 1 : 0, total);
            if (s.size() < skip + fit) continue;
        }
        double amp = 0;
        size_t first = 0;
        const size_t off = OffTheSine(s, skip, fit, s.size(), rate, dev == 0 ? 3.0 / 32768 : 0.01, &amp, &first);
        EXPECT_NEAR(amp, 0.5, 0.01); // rounding; the converter's own error
        EXPECT_EQ(off, 0u) << "first off at sample " << first << " (buffer " << first / size_t(rate / 2) << ")";
    }
}

// The file PlayWaveFile plays on output 0, a second of a 1 kHz sine, is found whole in
// what input 0 records of it. Silence before and after the sound, and any the output
// padded it with when it ran dry (a loaded machine), is left out of both.
TEST_F(WaveInDevice, APlayedFileIsFoundInTheLoopbackRecording)
{
    CQuavix::ExitQuavix();
    setenv("QUAVIX_VIRTUAL_WAVE_IN_SOURCE", "loopback", 1);
    Start(1);
    const std::string tone = Sine(16, 48000, 1000, 48000, 1, 0.4);
    const std::string path = Make("sine.wav", Wave(WAVE_FORMAT_PCM, 1, 48000, 16, tone));
    QX_DevFormat mono = Pcm(48000, 1, 16);
    ASSERT_EQ(q->SetDeviceFormat(QX_DEVTYPE_WAVE, QX_DEVDIR_IN, 0, &mono), 1);
    ASSERT_EQ(q->OpenDevices(), 1);
    ASSERT_EQ(q->StartDevices(), 1);
    ASSERT_NE(q->PlayWaveFile(path.c_str(), 0, nullptr, 0), 0);
    ASSERT_TRUE(rec.WaitFor(4));
    q->StopDevices();
    std::vector<int16_t> take;
    for (const Seen& b : rec.Snapshot()) Append(take, b);
    auto sounding = [](const int16_t* p, size_t n) {
        std::vector<int16_t> v;
        std::copy_if(p, p + n, std::back_inserter(v), [](int16_t x) { return x != 0; });
        return v;
    };
    const std::vector<int16_t> want = sounding(reinterpret_cast<const int16_t*>(tone.data()), tone.size() / 2);
    const std::vector<int16_t> got = sounding(take.data(), take.size());
    ASSERT_GE(got.size(), want.size()) << "the sine was not heard whole";
    size_t off = 0, first = 0;
    for (size_t i = 0; i < want.size(); ++i)
        if (std::abs(got[i] - want[i]) > 2 && off++ == 0) first = i;
    EXPECT_EQ(off, 0u) << "the recording is the file; first off at " << first;
}
