// The streaming wave player. Streaming, parameters and pitch are driven on an offline
// DirectSound device, rendered segment by segment on the test's thread, so that every
// segment-end notification is counted; start, stop, timers, ownership and the reports
// run on a manager with the virtual backend's real-time outputs.
#include <quavix/Quavix.h>
#include <quavix/QXPlayerRegistry.h>

#include "platform/QXFaults.h"
#include "platform/QXPlatform.h"
#include "platform/backends/virtual/QXVirtual.h"
#include "platform/dsound/QXDSound.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <string>
#include <tuple>
#include <vector>

namespace {

const int kVirtual = setenv("QUAVIX_BACKEND", "virtual", 1);

constexpr DWORD kSegment = 8192;

// ---- Wave files ----

std::string Le16(unsigned v) { return {char(v & 0xFF), char((v >> 8) & 0xFF)}; }
std::string Le32(DWORD v) { return Le16(v & 0xFFFF) + Le16(v >> 16); }

std::string WaveBytes(WORD tag, WORD channels, DWORD rate, WORD bits, const std::string& data)
{
    const WORD align = static_cast<WORD>(channels * bits / 8);
    std::string fmt = Le16(tag) + Le16(channels) + Le32(rate) + Le32(rate * align) + Le16(align) + Le16(bits);
    if (tag != WAVE_FORMAT_PCM) fmt += Le16(0);
    std::string chunks = "fmt " + Le32(static_cast<DWORD>(fmt.size())) + fmt;
    chunks += "data" + Le32(static_cast<DWORD>(data.size())) + data + std::string(data.size() & 1, '\0');
    return "RIFF" + Le32(static_cast<DWORD>(4 + chunks.size())) + "WAVE" + chunks;
}

// 16-bit stereo whose segment s holds the constant (s + 1) * 1000 in both channels;
// the last segment is cut to make nBytes.
std::string SegmentRamp(size_t nBytes)
{
    std::string s(nBytes, '\0');
    for (size_t i = 0; i + 1 < nBytes; i += 2) {
        const auto v = static_cast<int16_t>((i / kSegment + 1) * 1000);
        std::memcpy(&s[i], &v, 2);
    }
    return s;
}

// A sine of freq Hz, amplitude 0.5, in each channel, in one of the sample formats.
enum class Sample { U8, S16, S24, S32, F32 };

std::string Sine(Sample kind, DWORD rate, double freq, size_t frames, WORD channels = 2)
{
    std::string s;
    for (size_t i = 0; i < frames; ++i) {
        const double x = 0.5 * std::sin(2 * M_PI * freq * double(i) / rate);
        for (WORD c = 0; c < channels; ++c) {
            switch (kind) {
            case Sample::U8:
                s += char(static_cast<uint8_t>(std::lround(128 + 127 * x)));
                break;
            case Sample::S16: {
                const auto v = static_cast<int16_t>(std::lround(32767 * x));
                s.append(reinterpret_cast<const char*>(&v), 2);
                break;
            }
            case Sample::S24: {
                const auto v = static_cast<int32_t>(std::lround(8388607 * x));
                s.append(reinterpret_cast<const char*>(&v), 3); // little-endian low three bytes
                break;
            }
            case Sample::S32: {
                const auto v = static_cast<int32_t>(std::lround(2147483647.0 * x));
                s.append(reinterpret_cast<const char*>(&v), 4);
                break;
            }
            case Sample::F32: {
                const auto v = static_cast<float>(x);
                s.append(reinterpret_cast<const char*>(&v), 4);
                break;
            }
            }
        }
    }
    return s;
}

class Scratch {
public:
    Scratch()
    {
        char tmpl[] = "/tmp/qx-waveplay-XXXXXX";
        if (mkdtemp(tmpl) != nullptr) m_dir = tmpl;
    }
    ~Scratch() { std::filesystem::remove_all(m_dir); }
    Scratch(const Scratch&) = delete;
    Scratch& operator=(const Scratch&) = delete;
    std::string Write(const std::string& name, const std::string& bytes) const
    {
        const std::string path = m_dir + "/" + name;
        std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
        return path;
    }
    // 16-bit stereo at 48000 Hz: 2048 frames per segment.
    std::string Ramp(const std::string& name, size_t nBytes) const
    {
        return Write(name, WaveBytes(WAVE_FORMAT_PCM, 2, 48000, 16, SegmentRamp(nBytes)));
    }

private:
    std::string m_dir;
};

// ---- Reports and the done callback ----

using Report = std::tuple<DWORD, DWORD, DWORD_PTR>; // code, value, device
std::mutex g_mutex;
std::vector<Report> g_reports;
std::vector<std::pair<DWORD_PTR, DWORD>> g_done;

void Collect(DWORD dwCode, DWORD dwValue, DWORD_PTR dwDevice)
{
    std::lock_guard<std::mutex> lock(g_mutex);
    g_reports.emplace_back(dwCode, dwValue, dwDevice);
}

std::vector<Report> TakeReports()
{
    std::lock_guard<std::mutex> lock(g_mutex);
    return std::exchange(g_reports, {});
}

[[maybe_unused]] bool Reported(DWORD dwCode, DWORD dwValue, DWORD_PTR dwDevice)
{
    std::lock_guard<std::mutex> lock(g_mutex);
    for (const Report& r : g_reports)
        if (r == Report{dwCode, dwValue, dwDevice}) return true;
    return false;
}

void Done(DWORD_PTR dwUser, DWORD dwPlayer)
{
    std::lock_guard<std::mutex> lock(g_mutex);
    g_done.emplace_back(dwUser, dwPlayer);
}

std::vector<std::pair<DWORD_PTR, DWORD>> DoneCalls()
{
    std::lock_guard<std::mutex> lock(g_mutex);
    return g_done;
}

template <class Pred>
bool Eventually(Pred pred, int ms = 10000)
{
    for (int i = 0; i < ms; ++i) {
        if (pred()) return true;
        Sleep(1);
    }
    return pred();
}

// ---- A player that can be looked into and prepared without an output ----

class TestPlayer : public CWavePlay {
public:
    // What the prepare thread does once it has the device object, on this thread, with
    // the given device object and output number.
    int PrepareOn(IDirectSound* pDS, const char* pszPath, int nDevice = 0, QX_DSParams params = {})
    {
        m_pDirectSound = pDS; // the player's own reference, as the prepare thread takes it
        if (pDS != nullptr) pDS->AddRef();
        m_nDevice = nDevice;
        m_WaveParams.dsParams = params;
        m_WaveParams.dsParams.lpszFileName = pszPath;
        return _PrepareBuffer();
    }
    int OpenOn(IDirectSound* pDS, const char* pszPath)
    {
        m_pDirectSound = pDS;
        if (pDS != nullptr) pDS->AddRef();
        return _OpenSoundFile(pszPath);
    }
    int CreateBuffer() { return _CreateSoundBuffer(m_WaveParams.dsParams); }
    void OnDone(DWORD_PTR dwUser)
    {
        m_pfnDone = Done;
        m_dwDoneUser = dwUser;
    }
    int SegmentEnds() const { return m_nSegmentEnds.load(); }
    // Read only once SegmentEnds() has shown the notification that wrote them.
    DWORD WritePos() const { return m_dwWritePos; }
    int Pending() const { return m_nPendingSegments; }
    int EndOfData() const { return m_bEndOfData; }
    int Prepared() const { return m_bPrepared.load(); }
    IDirectSoundBuffer* Buffer() const { return m_pDSBuffer; }
    int WriteBuffer() { return _WriteBuffer(); }
    void SetFrequency(int v) { _SetFrequency(v); }
    bool StartSignalled() const
    {
        HANDLE h = m_hStartEvent.load();
        return h != nullptr && WaitForSingleObject(h, 0) == WAIT_OBJECT_0;
    }
    bool Playing() const
    {
        DWORD dwStatus = 0;
        return m_pDSBuffer != nullptr && m_pDSBuffer->GetStatus(&dwStatus) == DS_OK && (dwStatus & DSBSTATUS_PLAYING);
    }
    LONG BufferVolume() const
    {
        LONG v = 1;
        m_pDSBuffer->GetVolume(&v);
        return v;
    }
    LONG BufferPan() const
    {
        LONG v = 1;
        m_pDSBuffer->GetPan(&v);
        return v;
    }
    DWORD BufferFrequency() const
    {
        DWORD v = 1;
        m_pDSBuffer->GetFrequency(&v);
        return v;
    }
};

class Offline : public ::testing::Test {
protected:
    void SetUp() override
    {
        (void)kVirtual;
        ASSERT_EQ(CQuavix::GetQuavix(), nullptr) << "these players play on no output";
        QXFaultClear();
        ASSERT_EQ(qxplat::DirectSoundCreateOffline(48000, qxplat::Resampler::Linear, &ds), DS_OK);
        QXGetSharedNotify()->SetNotificationCallback(Collect, 0);
        TakeReports();
        std::lock_guard<std::mutex> lock(g_mutex);
        g_done.clear();
    }
    void TearDown() override
    {
        QXFaultClear();
        QXGetSharedNotify()->SetNotificationCallback(nullptr, 0);
        if (ds != nullptr) ds->Release();
        EXPECT_EQ(qxplat::LiveDirectSoundObjects(), 0u) << "every buffer released";
    }
    // Renders one segment of a 48000 Hz 16-bit stereo buffer (2048 frames).
    std::vector<float> RenderSegment(DWORD nFrames = 2048)
    {
        std::vector<float> out(size_t{nFrames} * 2);
        EXPECT_TRUE(qxplat::DirectSoundRenderOffline(ds, out.data(), nFrames));
        return out;
    }

    IDirectSound* ds = nullptr;
    Scratch dir;
};

} // namespace

// ---- Streaming ----

// The player stops at segment-end notification K + 1, K being the segments with data,
// after K data segments and one of silence, with the data in order through the ring.
TEST_F(Offline, StopsAtTheSegmentEndAfterTheLastDataSegment)
{
    struct Case {
        size_t nBytes;
        int nStopAt;
    };
    for (const Case c : {Case{0, 1}, Case{1000, 2}, Case{3 * kSegment, 4}, Case{20 * kSegment, 21}}) {
        SCOPED_TRACE("data bytes " + std::to_string(c.nBytes));
        const std::string path = dir.Ramp("ramp.wav", c.nBytes);
        auto* p = new TestPlayer;
        p->OnDone(77);
        ASSERT_EQ(p->PrepareOn(ds, path.c_str()), 1);
        EXPECT_EQ(p->Pending(), std::min<int>(c.nStopAt - 1, 7)) << "after the seven first refills";
        p->Start();
        ASSERT_TRUE(p->Playing());
        for (int i = 1; i <= c.nStopAt; ++i) {
            const std::vector<float> out = RenderSegment();
            // The middle of the segment: segment i - 1 of the file, or silence after it.
            const float want = i - 1 < c.nStopAt - 1 ? float(i * 1000) / 32768.0f : 0.0f;
            const bool bPartial = c.nBytes % kSegment != 0 && i == c.nStopAt - 1;
            if (!bPartial) {
                EXPECT_NEAR(out[1024 * 2], want, 1e-3) << "segment " << i;
            }
            ASSERT_TRUE(Eventually([&] { return p->SegmentEnds() == i; })) << "notification " << i;
            if (i < c.nStopAt) {
                EXPECT_EQ(p->Pending(), std::min(c.nStopAt - 1, 7 + i) - i);
                EXPECT_TRUE(DoneCalls().empty()) << "still playing after notification " << i;
            }
        }
        ASSERT_TRUE(Eventually([] { return !DoneCalls().empty(); }));
        EXPECT_EQ(DoneCalls(), (std::vector<std::pair<DWORD_PTR, DWORD>>{{77, p->GetHandle()}}));
        EXPECT_EQ(p->Buffer(), nullptr) << "stopping released the buffer";
        EXPECT_EQ(p->Prepared(), 0);
        {
            std::lock_guard<std::mutex> lock(g_mutex);
            g_done.clear();
        }
        delete p;
    }
    EXPECT_EQ(TakeReports(), std::vector<Report>{});
}

TEST_F(Offline, ThePartialLastSegmentIsPaddedWithSilence)
{
    const std::string path = dir.Ramp("short.wav", 1000);
    TestPlayer p;
    ASSERT_EQ(p.PrepareOn(ds, path.c_str()), 1);
    EXPECT_EQ(p.EndOfData(), 1) << "the second refill read nothing";
    p.Start();
    const std::vector<float> out = RenderSegment();
    // 1000 bytes are 250 frames; the linear resampler looks one frame ahead.
    EXPECT_NEAR(out[100 * 2], 1000 / 32768.0f, 1e-3);
    EXPECT_NEAR(out[100 * 2 + 1], 1000 / 32768.0f, 1e-3);
    for (size_t f = 260; f < 2048; ++f) ASSERT_EQ(out[f * 2], 0.0f) << "frame " << f;
}

// A refill that cannot read leaves the write position; the next notification writes
// the same segment, and the data goes on where it stopped.
TEST_F(Offline, AReadErrorLeavesTheSegmentForTheNextRefill)
{
    const std::string path = dir.Ramp("long.wav", 20 * kSegment);
    TestPlayer p;
    ASSERT_EQ(p.PrepareOn(ds, path.c_str()), 1);
    EXPECT_EQ(p.WritePos(), 7 * kSegment);
    p.Start();
    RenderSegment();
    ASSERT_TRUE(Eventually([&] { return p.SegmentEnds() == 1; }));
    EXPECT_EQ(p.WritePos(), 0u) << "the eighth segment was written, the ring wraps";

    QXFaultInject("mmioGetInfo", MMSYSERR_ERROR);
    RenderSegment();
    ASSERT_TRUE(Eventually([&] { return p.SegmentEnds() == 2; }));
    EXPECT_EQ(p.WritePos(), 0u) << "nothing was written";
    EXPECT_EQ(p.Pending(), 6) << "the failed refill added no data";
    EXPECT_EQ(p.EndOfData(), 0);
    EXPECT_FALSE(TakeReports().empty()) << "the reader reported its failure";

    RenderSegment();
    ASSERT_TRUE(Eventually([&] { return p.SegmentEnds() == 3; }));
    EXPECT_EQ(p.WritePos(), kSegment) << "segment 0 written now";
    EXPECT_EQ(p.Pending(), 6);
    // Segment 0 of the ring now holds file segment 8 (value 9000): it plays after the
    // seven segments before it.
    for (int i = 4; i <= 8; ++i) {
        RenderSegment();
        ASSERT_TRUE(Eventually([&] { return p.SegmentEnds() == i; }));
    }
    const std::vector<float> out = RenderSegment();
    EXPECT_NEAR(out[1024 * 2], 9000 / 32768.0f, 1e-3);
    p.Stop();
}

TEST_F(Offline, RefillFailuresAreReportedAndChangeNothing)
{
    const std::string path = dir.Ramp("long.wav", 20 * kSegment);
    TestPlayer p;
    ASSERT_EQ(p.PrepareOn(ds, path.c_str(), 3), 1);
    const DWORD dwPos = p.WritePos();
    const int nPending = p.Pending();
    QXFaultInject("IDirectSoundBuffer::Lock", static_cast<DWORD>(DSERR_INVALIDCALL));
    EXPECT_EQ(p.WriteBuffer(), 0);
    QXFaultInject("IDirectSoundBuffer::Unlock", static_cast<DWORD>(DSERR_INVALIDPARAM));
    EXPECT_EQ(p.WriteBuffer(), 0);
    EXPECT_EQ(TakeReports(), (std::vector<Report>{{QXN_DS_LOCK, static_cast<DWORD>(DSERR_INVALIDCALL), 3},
                                                  {QXN_DS_UNLOCK, static_cast<DWORD>(DSERR_INVALIDPARAM), 3}}));
    EXPECT_EQ(p.WritePos(), dwPos);
    EXPECT_EQ(p.Pending(), nPending);
}

// Every step of making the buffer reports its own code with the output's number, and
// a player whose making failed releases what was made.
TEST_F(Offline, BufferCreationFailuresAreReported)
{
    const std::string path = dir.Ramp("a.wav", kSegment);
    const struct {
        const char* op;
        DWORD code;
    } steps[] = {{"IDirectSound::CreateSoundBuffer", QXN_DS_CREATEBUFFER},
                 {"IDirectSoundBuffer::QueryInterface", QXN_DS_QUERYNOTIFY},
                 {"IDirectSoundNotify::SetNotificationPositions", QXN_DS_SETNOTIFYPOSITIONS}};
    for (const auto& s : steps) {
        SCOPED_TRACE(s.op);
        TestPlayer p;
        QXFaultInject(s.op, static_cast<DWORD>(DSERR_OUTOFMEMORY));
        EXPECT_EQ(p.PrepareOn(ds, path.c_str(), 2), 0);
        EXPECT_EQ(p.Prepared(), 0);
        EXPECT_EQ(TakeReports(), (std::vector<Report>{{s.code, static_cast<DWORD>(DSERR_OUTOFMEMORY), 2}}));
        QXFaultClear();
    }
    // Without events or without the thread: no report. (The file is opened first: the
    // reader makes a thread and events of its own.)
    for (const char* op : {"CreateEventA", "CreateThread"}) {
        SCOPED_TRACE(op);
        for (int nth = 1; nth <= 3; ++nth) {
            TestPlayer p;
            ASSERT_EQ(p.OpenOn(ds, path.c_str()), 1);
            QXFaultInject(op, ERROR_NOT_ENOUGH_MEMORY, nth);
            EXPECT_EQ(p.CreateBuffer(), 0);
            EXPECT_EQ(TakeReports(), std::vector<Report>{});
            QXFaultClear();
            if (std::string(op) == "CreateThread") break;
        }
    }
    TestPlayer p;
    ASSERT_EQ(p.OpenOn(ds, path.c_str()), 1);
    ASSERT_EQ(p.CreateBuffer(), 1);
    EXPECT_EQ(p.CreateBuffer(), 0) << "a second buffer is refused";
}

// ---- Parameters ----

TEST_F(Offline, ParametersAreClampedAndOnlyChangesAreApplied)
{
    const std::string path = dir.Write("22k.wav", WaveBytes(WAVE_FORMAT_PCM, 2, 22050, 16, SegmentRamp(kSegment)));
    TestPlayer p;
    QX_DSParams params{};
    params.lVolume = -600;
    params.lPan = 300;
    p.SetBufferParameters(params);
    EXPECT_EQ(p.GetBufferParameters().lVolume, 0) << "no buffer yet: nothing stored";
    EXPECT_EQ(p.GetBufferParameters().lPan, 0);

    ASSERT_EQ(p.PrepareOn(ds, path.c_str(), 0, params), 1);
    EXPECT_EQ(p.BufferVolume(), -600) << "all three applied while preparing";
    EXPECT_EQ(p.BufferPan(), 300);
    EXPECT_EQ(p.BufferFrequency(), 22050u);

    params.lVolume = 500;
    params.lPan = -20000;
    params.lFrequency = 20000;
    p.SetBufferParameters(params);
    EXPECT_EQ(p.BufferVolume(), 0);
    EXPECT_EQ(p.BufferPan(), -10000);
    EXPECT_EQ(p.BufferFrequency(), 100000u);
    EXPECT_EQ(p.GetBufferParameters().lVolume, 0) << "the clamped value is stored";
    EXPECT_EQ(p.GetBufferParameters().lPan, -10000);
    EXPECT_EQ(p.GetBufferParameters().lFrequency, 20000) << "the rate stores the value given";

    // Changed behind the player's back: the same rate is not applied again, the same
    // out-of-range volume and pan are (they differ from the stored, clamped values).
    ASSERT_EQ(p.Buffer()->SetFrequency(30000), DS_OK);
    ASSERT_EQ(p.Buffer()->SetVolume(-100), DS_OK);
    ASSERT_EQ(p.Buffer()->SetPan(100), DS_OK);
    p.SetBufferParameters(params);
    EXPECT_EQ(p.BufferFrequency(), 30000u);
    EXPECT_EQ(p.BufferVolume(), 0);
    EXPECT_EQ(p.BufferPan(), -10000);

    // In range and unchanged: nothing is applied.
    params.lVolume = -100;
    params.lPan = 100;
    p.SetBufferParameters(params);
    ASSERT_EQ(p.Buffer()->SetVolume(-2000), DS_OK);
    ASSERT_EQ(p.Buffer()->SetPan(2000), DS_OK);
    p.SetBufferParameters(params);
    EXPECT_EQ(p.BufferVolume(), -2000);
    EXPECT_EQ(p.BufferPan(), 2000);
}

TEST_F(Offline, RateControlMapsOntoTheFilesOwnRate)
{
    const struct {
        DWORD rate;
        int value;
        DWORD hz;
    } cases[] = {{22050, 5000, 61025}, {22050, -5000, 11075}, {22050, 1, 22057},      {22050, -1, 22048},
                 {22050, 10000, 100000}, {22050, 20000, 100000}, {22050, -10000, 100}, {22050, -20000, 100},
                 {22050, 0, 22050},     {44100, 5000, 72050},   {44100, -5000, 22100}};
    for (const auto& c : cases) {
        SCOPED_TRACE(std::to_string(c.rate) + " Hz, " + std::to_string(c.value));
        const std::string path =
            dir.Write("r.wav", WaveBytes(WAVE_FORMAT_PCM, 2, c.rate, 16, SegmentRamp(kSegment)));
        TestPlayer p;
        ASSERT_EQ(p.PrepareOn(ds, path.c_str()), 1);
        ASSERT_EQ(p.Buffer()->SetFrequency(12345), DS_OK);
        p.SetFrequency(c.value);
        EXPECT_EQ(p.BufferFrequency(), c.hz);
        EXPECT_EQ(p.GetBufferParameters().lFrequency, c.value);
    }
}

TEST_F(Offline, RefusedParametersAreReportedAndStoredAllTheSame)
{
    const std::string path = dir.Ramp("a.wav", kSegment);
    TestPlayer p;
    ASSERT_EQ(p.PrepareOn(ds, path.c_str(), 1), 1);
    QX_DSParams params{};
    params.lFrequency = 100;
    params.lVolume = -300;
    params.lPan = 400;
    QXFaultInject("IDirectSoundBuffer::SetFrequency", static_cast<DWORD>(DSERR_CONTROLUNAVAIL));
    QXFaultInject("IDirectSoundBuffer::SetVolume", static_cast<DWORD>(DSERR_PRIOLEVELNEEDED));
    QXFaultInject("IDirectSoundBuffer::SetPan", static_cast<DWORD>(DSERR_INVALIDPARAM));
    p.SetBufferParameters(params);
    EXPECT_EQ(TakeReports(), (std::vector<Report>{{QXN_DS_SETFREQUENCY, static_cast<DWORD>(DSERR_CONTROLUNAVAIL), 1},
                                                  {QXN_DS_SETVOLUME, static_cast<DWORD>(DSERR_PRIOLEVELNEEDED), 1},
                                                  {QXN_DS_SETPAN, static_cast<DWORD>(DSERR_INVALIDPARAM), 1}}));
    EXPECT_EQ(p.GetBufferParameters().lFrequency, 100);
    EXPECT_EQ(p.GetBufferParameters().lVolume, -300);
    EXPECT_EQ(p.GetBufferParameters().lPan, 400);
}

// ---- Start, stop, signal ----

TEST_F(Offline, StartAndStopOfThePlayer)
{
    const std::string path = dir.Ramp("a.wav", 20 * kSegment);
    TestPlayer p;
    p.Start(); // not prepared: nothing
    p.SignalStart();
    EXPECT_FALSE(p.StartSignalled());
    ASSERT_EQ(p.PrepareOn(ds, path.c_str(), 4), 1);

    QXFaultInject("IDirectSoundBuffer::Play", static_cast<DWORD>(DSERR_BUFFERLOST));
    p.OnDone(5);
    p.Start();
    EXPECT_EQ(TakeReports(), (std::vector<Report>{{QXN_DS_START, static_cast<DWORD>(DSERR_BUFFERLOST), 4}}));
    EXPECT_EQ(p.Buffer(), nullptr) << "a failed start stops the player";
    EXPECT_EQ(DoneCalls().size(), 1u);
    p.Start(); // stopped: nothing
    p.SignalStart();
    EXPECT_FALSE(p.StartSignalled());

    ASSERT_EQ(p.PrepareOn(ds, path.c_str(), 4), 1);
    p.Start();
    RenderSegment();
    ASSERT_TRUE(Eventually([&] { return p.SegmentEnds() == 1; }));
    QXFaultInject("IDirectSoundBuffer::Stop", static_cast<DWORD>(DSERR_GENERIC));
    p.Stop();
    EXPECT_EQ(TakeReports(), (std::vector<Report>{{QXN_DS_STOP, static_cast<DWORD>(DSERR_GENERIC), 4}}));
    EXPECT_EQ(p.Buffer(), nullptr) << "closed all the same";
    p.Stop(); // twice: nothing more
    EXPECT_EQ(TakeReports(), std::vector<Report>{});
}

// ---- Pitch in every sample format ----

TEST_F(Offline, EverySampleFormatPlaysAtItsPitch)
{
    const struct {
        Sample kind;
        WORD tag;
        WORD bits;
    } formats[] = {{Sample::U8, WAVE_FORMAT_PCM, 8},
                   {Sample::S16, WAVE_FORMAT_PCM, 16},
                   {Sample::S24, WAVE_FORMAT_PCM, 24},
                   {Sample::S32, WAVE_FORMAT_PCM, 32},
                   {Sample::F32, WAVE_FORMAT_IEEE_FLOAT, 32}};
    for (const auto& f : formats) {
        SCOPED_TRACE(std::to_string(f.bits) + " bits, tag " + std::to_string(f.tag));
        constexpr DWORD kRate = 44100;
        constexpr double kFreq = 441.0;
        const std::string path = dir.Write("tone.wav", WaveBytes(f.tag, 2, kRate, f.bits, Sine(f.kind, kRate, kFreq, kRate)));
        TestPlayer p;
        ASSERT_EQ(p.PrepareOn(ds, path.c_str()), 1);
        p.Start();
        // A third of a second, well inside the file, rendered a part of a segment at a
        // time so that the refills keep up.
        std::vector<float> left;
        const double bytesPerOutFrame = double(kRate) / 48000.0 * (2 * f.bits / 8);
        for (int i = 1; i <= 32; ++i) {
            const std::vector<float> out = RenderSegment(512);
            for (size_t k = 0; k < out.size(); k += 2) left.push_back(out[k]);
            const DWORD dwSegment = kSegment - kSegment % (2 * f.bits / 8); // whole frames
            const int nPassed = static_cast<int>(i * 512 * bytesPerOutFrame / dwSegment);
            ASSERT_TRUE(Eventually([&] { return p.SegmentEnds() >= nPassed - 1; }));
        }
        // Skip the resampler's start.
        left.erase(left.begin(), left.begin() + 256);
        double first = -1, last = -1;
        int crossings = 0;
        float peak = 0;
        for (size_t i = 1; i < left.size(); ++i) {
            peak = std::max(peak, std::fabs(left[i]));
            if (left[i - 1] < 0 && left[i] >= 0) {
                const double t = double(i - 1) + left[i - 1] / (left[i - 1] - left[i]);
                if (first < 0) first = t;
                last = t;
                ++crossings;
            }
        }
        ASSERT_GE(crossings, 2);
        EXPECT_NEAR((crossings - 1) / (last - first) * 48000.0, kFreq, kFreq * 0.005);
        EXPECT_NEAR(peak, 0.5, 0.02) << "full scale of each format";
        p.Stop();
    }
}

// ---- On a wave output of a manager ----

namespace {

class OnOutput : public ::testing::Test {
protected:
    void SetUp() override
    {
        (void)kVirtual;
        QXFaultClear();
        qxplat::QXVirtualSetDevices(1, 1, 1, 2);
        q = CQuavix::InitQuavix();
        q->SetNotificationCallback(Collect, 0);
        q->Initialize(QX_INIT_WAVE);
        ASSERT_EQ(q->OpenDevices(), 1);
        ASSERT_EQ(q->StartDevices(), 1);
        TakeReports();
        std::lock_guard<std::mutex> lock(g_mutex);
        g_done.clear();
    }
    void TearDown() override
    {
        QXFaultClear();
        CQuavix::ExitQuavix();
        qxplat::QXVirtualSetDevices(1, 1, 1, 1);
        EXPECT_EQ(qxplat::LiveDirectSoundObjects(), 0u) << "every player released its buffer";
    }
    CWaveOut* Out(int n) { return dynamic_cast<CWaveOut*>(q->GetDevice(QX_DEVTYPE_WAVE, QX_DEVDIR_OUT, n)); }
    DWORD Now() const { return timeGetTime() - q->GetPlayStartTime(); }
    static QX_WaveParams Params(int nPerformance, int nTrack, const std::string& path)
    {
        QX_WaveParams params{};
        params.nPerformance = nPerformance;
        params.nTrack = nTrack;
        params.dsParams.lpszFileName = path.c_str();
        return params;
    }
    static bool Gone(DWORD dwHandle)
    {
        void* p = QXAcquirePlayer(dwHandle);
        if (p != nullptr) QXReleasePlayer(dwHandle);
        return p == nullptr;
    }
    static size_t DoneCount() { return DoneCalls().size(); }

    CQuavix* q = nullptr;
    Scratch dir;
};

} // namespace

// A player of PlayWaveFile: at the end of the file the callback gets the user value and
// the player's handle, its performance is gone from the output, and so is the player.
TEST_F(OnOutput, PlayWaveFileEndsByItselfAndIsGone)
{
    const std::string path = dir.Ramp("short.wav", 1000);
    const int nTag = q->PlayWaveFile(path.c_str(), 1, Done, 42);
    ASSERT_GT(nTag, 0);
    ASSERT_TRUE(Eventually([] { return DoneCount() == 1; }));
    const auto [dwUser, dwHandle] = DoneCalls()[0];
    EXPECT_EQ(dwUser, 42u);
    EXPECT_NE(dwHandle, 0u);
    EXPECT_TRUE(Eventually([&] { return Gone(dwHandle); }));
    EXPECT_EQ(Out(1)->IsActive(), 0) << "its performance record went with it";
    EXPECT_EQ(TakeReports(), std::vector<Report>{});
}

// The immediate start fails inside Play: the player is stopped, reports, calls back
// once and is freed once, after Play is done with it; PlayWaveFile has succeeded.
TEST_F(OnOutput, ASelfDeletingPlayerWhoseStartFailsIsReleasedOnce)
{
    const std::string path = dir.Ramp("long.wav", 40 * kSegment);
    QXFaultInject("IDirectSoundBuffer::Play", static_cast<DWORD>(DSERR_BUFFERLOST));
    EXPECT_GT(q->PlayWaveFile(path.c_str(), 1, Done, 5), 0);
    EXPECT_EQ(TakeReports(), (std::vector<Report>{{QXN_DS_START, static_cast<DWORD>(DSERR_BUFFERLOST), 1}}));
    ASSERT_EQ(DoneCount(), 1u) << "called back before PlayWaveFile returned";
    EXPECT_TRUE(Gone(DoneCalls()[0].second));
    EXPECT_EQ(Out(1)->IsActive(), 0);
}

TEST_F(OnOutput, AStartTimeAheadArmsTheTimerAndTheManagerStartsIt)
{
    const std::string path = dir.Ramp("long.wav", 200 * kSegment);
    auto* p = new TestPlayer; // the output's once Play succeeds
    p->SignalStart();
    EXPECT_FALSE(p->StartSignalled()) << "not prepared: no start event";
    QX_WaveParams params = Params(7, 2, path);
    ASSERT_EQ(p->Play(&params, 0, Now() + 1500, Done, 9, 0), 1);
    EXPECT_FALSE(p->Playing()) << "prepared, waiting for its time";
    EXPECT_TRUE(QXSignalPlayer(p->GetHandle()));
    EXPECT_TRUE(p->StartSignalled()) << "signalled, and nothing else happens";
    EXPECT_FALSE(p->Playing());
    ASSERT_TRUE(Eventually([&] { return p->Playing(); }));
    p->Stop();
    EXPECT_FALSE(p->Playing());
    EXPECT_EQ(DoneCalls(), (std::vector<std::pair<DWORD_PTR, DWORD>>{{9, p->GetHandle()}}));
    p->SignalStart();
    EXPECT_FALSE(p->StartSignalled()) << "stopped: no start event";

    // A start time already passed starts before Play returns.
    auto* p2 = new TestPlayer;
    QX_WaveParams params2 = Params(7, 3, path);
    ASSERT_EQ(p2->Play(&params2, 0, 1, nullptr, 0, 0), 1);
    EXPECT_TRUE(p2->Playing());
    EXPECT_EQ(TakeReports(), std::vector<Report>{});
}

// Destroyed while its timer is armed: the timer is killed; a start message that was
// already on its way finds the handle gone.
TEST_F(OnOutput, APlayerDestroyedBeforeItsTimerFiresDoesNothing)
{
    const std::string path = dir.Ramp("long.wav", 200 * kSegment);
    auto* p = new TestPlayer;
    QX_WaveParams params = Params(7, 2, path);
    ASSERT_EQ(p->Play(&params, 0, Now() + 300, Done, 3, 0), 1);
    const DWORD dwHandle = p->GetHandle();
    Out(0)->DeletePerformance(7, 1);
    EXPECT_TRUE(Gone(dwHandle));
    EXPECT_EQ(DoneCount(), 1u) << "destroying it stopped it";
    PostMessageA(q->GetHWnd(), QXM_WAVEPLAY, dwHandle, 0);
    Sleep(600); // past its start time
    EXPECT_EQ(DoneCount(), 1u);
    EXPECT_EQ(Out(0)->IsActive(), 0);
}

// Started by the manager's thread, which holds it pinned, a self-deleting player whose
// start fails deletes itself there without waiting for its own pin.
TEST_F(OnOutput, ASelfDeletingPlayerWhoseTimedStartFailsIsReleasedOnce)
{
    const std::string path = dir.Ramp("long.wav", 200 * kSegment);
    auto* p = new TestPlayer;
    QX_WaveParams params = Params(12, 0, path);
    ASSERT_EQ(p->Play(&params, 1, Now() + 200, Done, 11, 1), 1);
    const DWORD dwHandle = p->GetHandle();
    QXFaultInject("IDirectSoundBuffer::Play", static_cast<DWORD>(DSERR_BUFFERLOST));
    ASSERT_TRUE(Eventually([] { return DoneCount() == 1; }));
    EXPECT_EQ(DoneCalls()[0], (std::pair<DWORD_PTR, DWORD>{11, dwHandle}));
    EXPECT_TRUE(Eventually([&] { return Gone(dwHandle); }));
    EXPECT_EQ(TakeReports(), (std::vector<Report>{{QXN_DS_START, static_cast<DWORD>(DSERR_BUFFERLOST), 1}}));
    EXPECT_EQ(Out(1)->IsActive(), 0);
}

TEST_F(OnOutput, ASecondPlayerOnTheTrackDestroysTheFirst)
{
    const std::string path = dir.Ramp("long.wav", 200 * kSegment);
    auto* p1 = new TestPlayer;
    auto* p2 = new TestPlayer;
    QX_WaveParams params = Params(7, 2, path);
    ASSERT_EQ(p1->Play(&params, 0, 0, Done, 1, 0), 1);
    ASSERT_TRUE(p1->Playing());
    const DWORD dwFirst = p1->GetHandle();
    ASSERT_EQ(p2->Play(&params, 0, 0, Done, 2, 0), 1);
    EXPECT_TRUE(Gone(dwFirst));
    EXPECT_EQ(DoneCalls(), (std::vector<std::pair<DWORD_PTR, DWORD>>{{1, dwFirst}}));
    EXPECT_TRUE(p2->Playing());
    // Parameters for the track reach the player that sounds there now.
    QX_WaveParams change = Params(7, 2, path);
    change.dsParams.lpszFileName = nullptr;
    change.dsParams.lVolume = -1200;
    Out(0)->SetWaveParams(&change);
    EXPECT_EQ(p2->BufferVolume(), -1200);
}

// A player played again after it stopped streams its second run from the start and
// stops by itself again.
TEST_F(OnOutput, APlayerPlaysAgainAfterItStopped)
{
    const std::string path = dir.Ramp("short.wav", 3 * kSegment);
    auto* p = new TestPlayer;
    QX_WaveParams params = Params(4, 1, path);
    for (size_t nRun = 1; nRun <= 3; ++nRun) {
        SCOPED_TRACE("run " + std::to_string(nRun));
        ASSERT_EQ(p->Play(&params, 1, 0, Done, nRun, 0), 1);
        ASSERT_TRUE(Eventually([&] { return DoneCount() == nRun; }));
        EXPECT_EQ(DoneCalls().back(), (std::pair<DWORD_PTR, DWORD>{nRun, p->GetHandle()}));
        EXPECT_EQ(p->SegmentEnds(), 4) << "three data segments and one of silence";
    }
}

// The player's reports name the output it plays on.
TEST_F(OnOutput, ThePlayersReportsNameItsOutput)
{
    const std::string path = dir.Ramp("long.wav", 200 * kSegment);
    const HRESULT hr = DSERR_OUTOFMEMORY;
    for (const auto& [op, code] : std::vector<std::pair<const char*, DWORD>>{
             {"IDirectSound::CreateSoundBuffer", QXN_DS_CREATEBUFFER},
             {"IDirectSoundBuffer::QueryInterface", QXN_DS_QUERYNOTIFY},
             {"IDirectSoundNotify::SetNotificationPositions", QXN_DS_SETNOTIFYPOSITIONS}}) {
        SCOPED_TRACE(op);
        QXFaultInject(op, static_cast<DWORD>(hr));
        EXPECT_EQ(q->PlayWaveFile(path.c_str(), 1, nullptr, 0), 0) << "the buffer is not made";
        EXPECT_EQ(TakeReports(), (std::vector<Report>{{code, static_cast<DWORD>(hr), 1}}));
        QXFaultClear();
    }
    EXPECT_EQ(Out(1)->IsActive(), 0);

    // Refills and parameters that fail while preparing do not keep the sound from
    // starting.
    for (const auto& [op, code] : std::vector<std::pair<const char*, DWORD>>{
             {"IDirectSoundBuffer::Lock", QXN_DS_LOCK},
             {"IDirectSoundBuffer::Unlock", QXN_DS_UNLOCK},
             {"IDirectSoundBuffer::SetFrequency", QXN_DS_SETFREQUENCY},
             {"IDirectSoundBuffer::SetVolume", QXN_DS_SETVOLUME},
             {"IDirectSoundBuffer::SetPan", QXN_DS_SETPAN}}) {
        SCOPED_TRACE(op);
        auto* p = new TestPlayer;
        QX_WaveParams params = Params(8, 1, path);
        QXFaultInject(op, static_cast<DWORD>(hr));
        ASSERT_EQ(p->Play(&params, 1, 0, nullptr, 0, 0), 1);
        EXPECT_TRUE(p->Playing());
        EXPECT_EQ(TakeReports(), (std::vector<Report>{{code, static_cast<DWORD>(hr), 1}}));
        QXFaultClear();
    }

    auto* p = new TestPlayer;
    QX_WaveParams params = Params(8, 2, path);
    ASSERT_EQ(p->Play(&params, 1, 0, nullptr, 0, 0), 1);
    QXFaultInject("IDirectSoundBuffer::Stop", static_cast<DWORD>(DSERR_GENERIC));
    p->Stop();
    EXPECT_EQ(TakeReports(), (std::vector<Report>{{QXN_DS_STOP, static_cast<DWORD>(DSERR_GENERIC), 1}}));

    // No timer for a start ahead: Play fails, and the caller destroys the player.
    auto* pLate = new TestPlayer;
    QX_WaveParams late = Params(8, 3, path);
    QXFaultInject("timeSetEvent", 0);
    EXPECT_EQ(pLate->Play(&late, 1, Now() + 5000, nullptr, 0, 0), 0);
    EXPECT_EQ(TakeReports(), (std::vector<Report>{{QXN_TIMER_CREATE, 0, 0}}));
    delete pLate;
}
