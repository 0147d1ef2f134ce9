// The streaming wave player. Streaming, parameters and pitch are driven on an offline
// DirectSound device, rendered segment by segment on the test's thread, so that every
// segment-end notification is counted; start, stop, timers, ownership and the reports
// run on a manager with the virtual backend's real-time outputs.
#include "WaveOutHarness.h"

#include "platform/QXFaults.h"

#include <optional>

using namespace wotest;

namespace {

constexpr DWORD kSegment = 8192;
constexpr auto kOom = static_cast<DWORD>(DSERR_OUTOFMEMORY);
using DoneCall = DoneLog::Call;

// 16-bit stereo whose segment s holds the constant (s + 1) * 1000; the last is cut short.
std::string SegmentRamp(size_t nBytes)
{
    std::string s(nBytes, '\0');
    for (size_t i = 0; i + 1 < nBytes; i += 2) {
        const auto v = static_cast<int16_t>((i / kSegment + 1) * 1000);
        std::memcpy(&s[i], &v, 2);
    }
    return s;
}

// A player that can be looked into and prepared without an output.
class TestPlayer : public CWavePlay {
public:
    // What the prepare thread does once it has the device object, on this thread.
    int PrepareOn(IDirectSound* pDS, const char* pszPath, int nDevice = 0, QX_DSParams params = {})
    {
        m_nDevice = nDevice;
        m_WaveParams.dsParams = params;
        m_WaveParams.dsParams.lpszFileName = pszPath;
        Take(pDS);
        return _PrepareBuffer();
    }
    int OpenOn(IDirectSound* pDS, const char* pszPath)
    {
        Take(pDS);
        return _OpenSoundFile(pszPath);
    }
    int CreateBuffer() { return _CreateSoundBuffer(m_WaveParams.dsParams); }
    // Plays a file on a track of a performance; the done callback goes to DoneLog.
    int PlayTrack(int nPerformance, int nTrack, const std::string& path, int nDevice, DWORD dwStart,
                  DWORD_PTR dwUser = 0, int bSelfDeleting = 0)
    {
        QX_WaveParams params = WaveParams(nPerformance, nTrack, path);
        return Play(&params, nDevice, dwStart, DoneLog::Proc, dwUser, bSelfDeleting);
    }
    void OnDone(DWORD_PTR dwUser)
    {
        m_pfnDone = DoneLog::Proc;
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
    // Volume, pan and rate of the buffer.
    std::tuple<LONG, LONG, DWORD> Applied() const
    {
        LONG v = 1, p = 1;
        DWORD f = 1;
        m_pDSBuffer->GetVolume(&v);
        m_pDSBuffer->GetPan(&p);
        m_pDSBuffer->GetFrequency(&f);
        return {v, p, f};
    }

private:
    void Take(IDirectSound* pDS) // the player's own reference, as the prepare thread takes it
    {
        m_pDirectSound = pDS;
        if (pDS != nullptr) pDS->AddRef();
    }
};

class Offline : public ScratchTest {
protected:
    void SetUp() override
    {
        ScratchTest::SetUp();
        ASSERT_EQ(CQuavix::GetQuavix(), nullptr) << "these players play on no output";
        QXGetSharedNotify()->SetNotificationCallback(ReportLog::Proc, 0);
        ReportLog::Take();
        DoneLog::Take();
    }
    void TearDown() override
    {
        QXGetSharedNotify()->SetNotificationCallback(nullptr, 0);
        off.reset();
        EXPECT_EQ(qxplat::LiveDirectSoundObjects(), 0u) << "every buffer released";
        ScratchTest::TearDown();
    }
    // 16-bit stereo at 48000 Hz: 2048 frames per segment.
    std::string Ramp(size_t nBytes, DWORD rate = 48000)
    {
        return Make("ramp.wav", Wave(WAVE_FORMAT_PCM, 2, rate, 16, SegmentRamp(nBytes)));
    }
    std::vector<float> RenderSegment(DWORD nFrames = 2048) { return off->Render(nFrames); }
    // Renders segments until notification n.
    void RenderTo(TestPlayer& p, int n)
    {
        while (p.SegmentEnds() < n) {
            const int want = p.SegmentEnds() + 1;
            RenderSegment();
            ASSERT_TRUE(Eventually([&] { return p.SegmentEnds() >= want; })) << "notification " << want;
        }
    }

    std::optional<dstest::Offline> off{std::in_place, 48000, qxplat::Resampler::Linear};
    IDirectSound* ds = off->ds;
};

} // namespace

// The player stops at segment-end notification K + 1, K being the segments with data,
// after K data segments and one of silence, with the data in order through the ring and
// a partial last segment padded.
TEST_F(Offline, StopsAtTheSegmentEndAfterTheLastDataSegment)
{
    for (const auto& [nBytes, nStopAt] : {std::pair<size_t, int>{0, 1}, {1000, 2}, {3 * kSegment, 4}, {20 * kSegment, 21}}) {
        SCOPED_TRACE("data bytes " + std::to_string(nBytes));
        const std::string path = Ramp(nBytes);
        auto* p = new TestPlayer;
        p->OnDone(77);
        ASSERT_EQ(p->PrepareOn(ds, path.c_str()), 1);
        EXPECT_EQ(p->Pending(), std::min(nStopAt - 1, 7)) << "after the seven first refills";
        EXPECT_EQ(p->EndOfData(), nStopAt <= 8) << "a refill read nothing";
        p->Start();
        ASSERT_TRUE(p->Playing());
        for (int i = 1; i <= nStopAt; ++i) {
            const std::vector<float> out = RenderSegment();
            // The middle of the segment: segment i - 1 of the file, or silence after it.
            const float want = i < nStopAt ? float(i * 1000) / 32768.0f : 0.0f;
            if (nBytes % kSegment != 0 && i == nStopAt - 1) {
                // A partial segment is padded with silence; the linear resampler looks
                // one frame ahead.
                EXPECT_NEAR(out[100 * 2], want, 1e-3);
                EXPECT_NEAR(out[100 * 2 + 1], want, 1e-3);
                for (size_t f = nBytes % kSegment / 4 + 10; f < 2048; ++f) ASSERT_EQ(out[f * 2], 0.0f) << "frame " << f;
            } else {
                EXPECT_NEAR(out[1024 * 2], want, 1e-3) << "segment " << i;
            }
            ASSERT_TRUE(Eventually([&] { return p->SegmentEnds() == i; })) << "notification " << i;
            if (i < nStopAt) {
                EXPECT_EQ(p->Pending(), std::min(nStopAt - 1, 7 + i) - i);
                EXPECT_TRUE(DoneLog::Peek().empty()) << "still playing after notification " << i;
            }
        }
        ASSERT_TRUE(Eventually([] { return !DoneLog::Peek().empty(); }));
        EXPECT_EQ(DoneLog::Peek(), (std::vector<DoneCall>{{77, p->GetHandle()}}));
        EXPECT_EQ(p->Buffer(), nullptr) << "stopping released the buffer";
        EXPECT_EQ(p->Prepared(), 0);
        DoneLog::Take();
        delete p;
    }
    EXPECT_EQ(ReportLog::Take(), Log{});
}

// A refill that cannot read leaves the write position; the next notification writes
// the same segment, and the data goes on where it stopped.
TEST_F(Offline, AReadErrorLeavesTheSegmentForTheNextRefill)
{
    TestPlayer p;
    ASSERT_EQ(p.PrepareOn(ds, Ramp(20 * kSegment).c_str()), 1);
    EXPECT_EQ(p.WritePos(), 7 * kSegment);
    p.Start();
    RenderTo(p, 1);
    EXPECT_EQ(p.WritePos(), 0u) << "the eighth segment was written, the ring wraps";

    QXFaultInject("mmioGetInfo", MMSYSERR_ERROR);
    RenderTo(p, 2);
    EXPECT_EQ(p.WritePos(), 0u) << "nothing was written";
    EXPECT_EQ(p.Pending(), 6) << "the failed refill added no data";
    EXPECT_EQ(p.EndOfData(), 0);
    EXPECT_FALSE(ReportLog::Take().empty()) << "the reader reported its failure";

    RenderTo(p, 3);
    EXPECT_EQ(p.WritePos(), kSegment) << "segment 0 written now";
    EXPECT_EQ(p.Pending(), 6);
    // Segment 0 of the ring now holds file segment 8: it plays after the seven before it.
    RenderTo(p, 8);
    EXPECT_NEAR(RenderSegment()[1024 * 2], 9000 / 32768.0f, 1e-3);
    p.Stop();
}

// A refill the buffer refuses changes nothing; a refused parameter is stored all the same.
TEST_F(Offline, RefusedRefillsChangeNothingAndRefusedParametersAreStored)
{
    TestPlayer p;
    ASSERT_EQ(p.PrepareOn(ds, Ramp(20 * kSegment).c_str()), 1);
    const auto before = std::tuple(p.WritePos(), p.Pending());
    for (const char* op : {"IDirectSoundBuffer::Lock", "IDirectSoundBuffer::Unlock"}) {
        QXFaultInject(op, kOom);
        EXPECT_EQ(p.WriteBuffer(), 0) << op;
    }
    EXPECT_EQ(std::tuple(p.WritePos(), p.Pending()), before);
    QX_DSParams params{};
    params.lVolume = -300;
    QXFaultInject("IDirectSoundBuffer::SetVolume", kOom);
    p.SetBufferParameters(params);
    EXPECT_EQ(p.GetBufferParameters().lVolume, -300);
    EXPECT_EQ(ReportLog::Take().size(), 3u);
}

// Without events or without the thread the buffer is not made, and nothing is reported
// (the file is opened first: the reader makes a thread and events of its own); a second
// buffer is refused.
TEST_F(Offline, ABufferWithoutItsEventsOrThreadIsNotMade)
{
    const std::string path = Ramp(kSegment);
    for (const auto& [op, nCalls] : {std::pair{"CreateEventA", 3}, {"CreateThread", 1}}) {
        for (int nth = 1; nth <= nCalls; ++nth) {
            SCOPED_TRACE(std::string(op) + " call " + std::to_string(nth));
            TestPlayer p;
            ASSERT_EQ(p.OpenOn(ds, path.c_str()), 1);
            QXFaultInject(op, ERROR_NOT_ENOUGH_MEMORY, nth);
            EXPECT_EQ(p.CreateBuffer(), 0);
            EXPECT_EQ(ReportLog::Take(), Log{});
            QXFaultClear();
        }
    }
    TestPlayer p;
    ASSERT_EQ(p.OpenOn(ds, path.c_str()), 1);
    ASSERT_EQ(p.CreateBuffer(), 1);
    EXPECT_EQ(p.CreateBuffer(), 0);
}

TEST_F(Offline, ParametersAreClampedAndOnlyChangesAreApplied)
{
    using Applied = std::tuple<LONG, LONG, DWORD>;
    TestPlayer p;
    auto set = [&](LONG lVolume, LONG lPan, LONG lFrequency) {
        QX_DSParams params{};
        params.lVolume = lVolume, params.lPan = lPan, params.lFrequency = lFrequency;
        p.SetBufferParameters(params);
        return params;
    };
    set(-600, 300, 0);
    EXPECT_EQ(p.GetBufferParameters().lVolume, 0) << "no buffer yet: nothing stored";
    ASSERT_EQ(p.PrepareOn(ds, Ramp(kSegment, 22050).c_str(), 0, set(-600, 300, 0)), 1);
    EXPECT_EQ(p.Applied(), (Applied{-600, 300, 22050})) << "all three applied while preparing";

    set(500, -20000, 20000);
    EXPECT_EQ(p.Applied(), (Applied{0, -10000, 100000}));
    const QX_DSParams stored = p.GetBufferParameters();
    EXPECT_EQ(std::tuple(stored.lVolume, stored.lPan, stored.lFrequency), std::tuple(0, -10000, 20000))
        << "volume and pan stored clamped, the rate as given";

    // Changed behind the player's back: the same rate is not applied again, the same
    // out-of-range volume and pan are (they differ from the stored, clamped values).
    auto behind = [&](LONG lVolume, LONG lPan) {
        ASSERT_EQ(p.Buffer()->SetVolume(lVolume), DS_OK);
        ASSERT_EQ(p.Buffer()->SetPan(lPan), DS_OK);
    };
    ASSERT_EQ(p.Buffer()->SetFrequency(30000), DS_OK);
    behind(-100, 100);
    set(500, -20000, 20000);
    EXPECT_EQ(p.Applied(), (Applied{0, -10000, 30000}));
    // In range and unchanged: nothing is applied.
    set(-100, 100, 20000);
    behind(-2000, 2000);
    set(-100, 100, 20000);
    EXPECT_EQ(p.Applied(), (Applied{-2000, 2000, 30000}));
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
        TestPlayer p;
        ASSERT_EQ(p.PrepareOn(ds, Ramp(kSegment, c.rate).c_str()), 1);
        ASSERT_EQ(p.Buffer()->SetFrequency(12345), DS_OK);
        p.SetFrequency(c.value);
        EXPECT_EQ(std::get<2>(p.Applied()), c.hz);
        EXPECT_EQ(p.GetBufferParameters().lFrequency, c.value);
    }
}

TEST_F(Offline, AFailedStopIsReportedAndStillClosesThePlayer)
{
    TestPlayer p;
    p.Start(); // not prepared: nothing
    p.SignalStart();
    EXPECT_FALSE(p.StartSignalled());
    ASSERT_EQ(p.PrepareOn(ds, Ramp(20 * kSegment).c_str(), 4), 1);
    p.Start();
    RenderTo(p, 1);
    QXFaultInject("IDirectSoundBuffer::Stop", static_cast<DWORD>(DSERR_GENERIC));
    p.Stop();
    EXPECT_EQ(ReportLog::Take(), (Log{{QXN_DS_STOP, static_cast<DWORD>(DSERR_GENERIC), 4}}));
    EXPECT_EQ(p.Buffer(), nullptr) << "closed all the same";
    p.Stop(); // twice: nothing more
    p.Start(); // stopped: nothing
    EXPECT_EQ(ReportLog::Take(), Log{});
    EXPECT_EQ(p.Buffer(), nullptr);
}

TEST_F(Offline, EverySampleFormatPlaysAtItsPitch)
{
    for (const auto& [tag, bits] : {std::pair<WORD, WORD>{WAVE_FORMAT_PCM, 8}, {WAVE_FORMAT_PCM, 16},
                                   {WAVE_FORMAT_PCM, 24}, {WAVE_FORMAT_PCM, 32}, {WAVE_FORMAT_IEEE_FLOAT, 32}}) {
        SCOPED_TRACE(std::to_string(bits) + " bits, tag " + std::to_string(tag));
        constexpr DWORD kRate = 44100;
        constexpr double kFreq = 441.0;
        const std::string path = Make("tone.wav", Wave(tag, 2, kRate, bits,
                                                       Sine(bits, kRate, kFreq, kRate, 2, 0.5, tag != WAVE_FORMAT_PCM)));
        TestPlayer p;
        ASSERT_EQ(p.PrepareOn(ds, path.c_str()), 1);
        p.Start();
        // A third of a second, rendered a part of a segment at a time so that the
        // refills keep up.
        std::vector<float> left;
        const double bytesPerOutFrame = double(kRate) / 48000.0 * (2 * bits / 8);
        const DWORD dwSegment = kSegment - kSegment % (2 * bits / 8); // whole frames
        for (int i = 1; i <= 32; ++i) {
            const std::vector<float> out = RenderSegment(512);
            for (size_t k = 0; k < out.size(); k += 2) left.push_back(out[k]);
            const int nPassed = static_cast<int>(i * 512 * bytesPerOutFrame / dwSegment);
            ASSERT_TRUE(Eventually([&] { return p.SegmentEnds() >= nPassed - 1; }));
        }
        left.erase(left.begin(), left.begin() + 256); // the resampler's start
        EXPECT_NEAR(dstest::MeasureFrequency(left, 48000), kFreq, kFreq * 0.005);
        float peak = 0;
        for (float x : left) peak = std::max(peak, std::fabs(x));
        EXPECT_NEAR(peak, 0.5, 0.02) << "full scale of each format";
        p.Stop();
    }
}

namespace {

class OnOutput : public ManagerTest {
protected:
    void SetUp() override
    {
        ManagerTest::SetUp();
        Init(2);
        m_long = Make("long.wav", Wave(WAVE_FORMAT_PCM, 2, 48000, 16, SegmentRamp(200 * kSegment)));
    }

    std::string m_long;
};

} // namespace

// A player of PlayWaveFile: at the end of the file the callback gets the user value and
// the player's handle, its performance is gone from the output, and so is the player.
TEST_F(OnOutput, PlayWaveFileEndsByItselfAndIsGone)
{
    const std::string path = Make("short.wav", Wave(WAVE_FORMAT_PCM, 2, 48000, 16, SegmentRamp(1000)));
    ASSERT_GT(q->PlayWaveFile(path.c_str(), 1, DoneLog::Proc, 42), 0);
    ASSERT_TRUE(Eventually([] { return DoneLog::Peek().size() == 1; }));
    const auto [dwUser, dwHandle] = DoneLog::Peek()[0];
    EXPECT_EQ(dwUser, 42u);
    EXPECT_NE(dwHandle, 0u);
    EXPECT_TRUE(Eventually([&] { return Gone(dwHandle); }));
    EXPECT_EQ(Out(1)->IsActive(), 0) << "its performance record went with it";
    EXPECT_EQ(ReportLog::Take(), Log{});
}

// A self-deleting player whose start fails is stopped, reports, calls back once and is
// freed once: after Play is done with it when it starts at once (PlayWaveFile has
// succeeded), and on the manager's thread, which holds it pinned, when it starts later.
TEST_F(OnOutput, ASelfDeletingPlayerWhoseStartFailsIsReleasedOnce)
{
    for (const bool bTimed : {false, true}) {
        SCOPED_TRACE(bTimed ? "timed start" : "immediate start");
        DoneLog::Take();
        DWORD dwPlayer = 0;
        if (!bTimed) {
            QXFaultInject("IDirectSoundBuffer::Play", static_cast<DWORD>(DSERR_BUFFERLOST));
            EXPECT_GT(q->PlayWaveFile(m_long.c_str(), 1, DoneLog::Proc, 11), 0);
            ASSERT_EQ(DoneLog::Peek().size(), 1u) << "called back before PlayWaveFile returned";
        } else {
            auto* p = new TestPlayer;
            ASSERT_EQ(p->PlayTrack(12, 0, m_long, 1, Now() + 200, 11, 1), 1);
            dwPlayer = p->GetHandle();
            QXFaultInject("IDirectSoundBuffer::Play", static_cast<DWORD>(DSERR_BUFFERLOST));
            ASSERT_TRUE(Eventually([] { return DoneLog::Peek().size() == 1; }));
        }
        const auto [dwUser, dwHandle] = DoneLog::Peek()[0];
        EXPECT_EQ(dwUser, 11u);
        EXPECT_TRUE(!bTimed || dwHandle == dwPlayer) << "the handle of the player that failed";
        EXPECT_TRUE(Eventually([&] { return Gone(dwHandle); }));
        EXPECT_EQ(ReportLog::Take(), (Log{{QXN_DS_START, static_cast<DWORD>(DSERR_BUFFERLOST), 1}}));
        EXPECT_EQ(Out(1)->IsActive(), 0);
    }
}

TEST_F(OnOutput, AStartTimeAheadArmsTheTimerAndTheManagerStartsIt)
{
    auto* p = new TestPlayer; // the output's once Play succeeds
    p->SignalStart();
    EXPECT_FALSE(p->StartSignalled()) << "not prepared: no start event";
    ASSERT_EQ(p->PlayTrack(7, 2, m_long, 0, Now() + 1500, 9), 1);
    EXPECT_FALSE(p->Playing()) << "prepared, waiting for its time";
    EXPECT_TRUE(QXSignalPlayer(p->GetHandle()));
    EXPECT_TRUE(p->StartSignalled()) << "signalled, and nothing else happens";
    EXPECT_FALSE(p->Playing());
    ASSERT_TRUE(Eventually([&] { return p->Playing(); }));
    p->Stop();
    EXPECT_FALSE(p->Playing());
    EXPECT_EQ(DoneLog::Peek(), (std::vector<DoneCall>{{9, p->GetHandle()}}));
    p->SignalStart();
    EXPECT_FALSE(p->StartSignalled()) << "stopped: no start event";

    // A start time already passed starts before Play returns.
    auto* p2 = new TestPlayer;
    ASSERT_EQ(p2->PlayTrack(7, 3, m_long, 0, 1), 1);
    EXPECT_TRUE(p2->Playing());
    EXPECT_EQ(ReportLog::Take(), Log{});
}

// Destroyed while its timer is armed: the timer is killed; a start message that was
// already on its way finds the handle gone.
TEST_F(OnOutput, APlayerDestroyedBeforeItsTimerFiresDoesNothing)
{
    auto* p = new TestPlayer;
    ASSERT_EQ(p->PlayTrack(7, 2, m_long, 0, Now() + 300, 3), 1);
    const DWORD dwHandle = p->GetHandle();
    Out(0)->DeletePerformance(7, 1);
    EXPECT_TRUE(Gone(dwHandle));
    EXPECT_EQ(DoneLog::Peek().size(), 1u) << "destroying it stopped it";
    PostMessageA(q->GetHWnd(), QXM_WAVEPLAY, dwHandle, 0);
    Sleep(600); // past its start time
    EXPECT_EQ(DoneLog::Peek().size(), 1u);
    EXPECT_EQ(Out(0)->IsActive(), 0);
}

TEST_F(OnOutput, ASecondPlayerOnTheTrackDestroysTheFirst)
{
    auto* p1 = new TestPlayer;
    auto* p2 = new TestPlayer;
    ASSERT_EQ(p1->PlayTrack(7, 2, m_long, 0, 0, 1), 1);
    ASSERT_TRUE(p1->Playing());
    const DWORD dwFirst = p1->GetHandle();
    ASSERT_EQ(p2->PlayTrack(7, 2, m_long, 0, 0, 2), 1);
    EXPECT_TRUE(Gone(dwFirst));
    EXPECT_EQ(DoneLog::Peek(), (std::vector<DoneCall>{{1, dwFirst}}));
    EXPECT_TRUE(p2->Playing());
    // Parameters for the track reach the player that sounds there now.
    QX_WaveParams change = WaveParams(7, 2, m_long);
    change.dsParams.lpszFileName = nullptr;
    change.dsParams.lVolume = -1200;
    ASSERT_EQ(q->SetWaveParams(&change), 1);
    EXPECT_EQ(std::get<0>(p2->Applied()), -1200);
    QX_DSParams now{};
    EXPECT_EQ(Out(0)->GetTrackParameters(7, 2, &now), 1);
    EXPECT_EQ(std::tuple(now.lVolume, now.lPan), std::tuple(-1200, 0)) << "what the player there holds";
}

// A player played again after it stopped streams its second run from the start and
// stops by itself again.
TEST_F(OnOutput, APlayerPlaysAgainAfterItStopped)
{
    const std::string path = Make("short.wav", Wave(WAVE_FORMAT_PCM, 2, 48000, 16, SegmentRamp(3 * kSegment)));
    auto* p = new TestPlayer;
    for (size_t nRun = 1; nRun <= 3; ++nRun) {
        SCOPED_TRACE("run " + std::to_string(nRun));
        ASSERT_EQ(p->PlayTrack(4, 1, path, 1, 0, nRun), 1);
        ASSERT_TRUE(Eventually([&] { return DoneLog::Peek().size() == nRun; }));
        EXPECT_EQ(DoneLog::Peek().back(), (DoneCall{nRun, p->GetHandle()}));
        EXPECT_EQ(p->SegmentEnds(), 4) << "three data segments and one of silence";
    }
}

// The player's reports name the output it plays on. Without its buffer or notifications
// it cannot play; refills and parameters that fail while preparing do not keep the sound
// from starting; without a timer for a start ahead Play fails. The caller then destroys
// the player.
TEST_F(OnOutput, ThePlayersReportsNameItsOutput)
{
    struct Case { const char* op; DWORD code; bool plays; };
    for (const Case& c : {Case{"IDirectSound::CreateSoundBuffer", QXN_DS_CREATEBUFFER, false},
                          {"IDirectSoundBuffer::QueryInterface", QXN_DS_QUERYNOTIFY, false},
                          {"IDirectSoundNotify::SetNotificationPositions", QXN_DS_SETNOTIFYPOSITIONS, false},
                          {"IDirectSoundBuffer::Lock", QXN_DS_LOCK, true}, {"IDirectSoundBuffer::Unlock", QXN_DS_UNLOCK, true},
                          {"IDirectSoundBuffer::SetFrequency", QXN_DS_SETFREQUENCY, true},
                          {"IDirectSoundBuffer::SetVolume", QXN_DS_SETVOLUME, true},
                          {"IDirectSoundBuffer::SetPan", QXN_DS_SETPAN, true}, {"timeSetEvent", QXN_TIMER_CREATE, false}}) {
        SCOPED_TRACE(c.op);
        const bool timer = c.code == QXN_TIMER_CREATE; // reported as the manager's, with no value
        auto* p = new TestPlayer;
        QXFaultInject(c.op, timer ? 0 : kOom);
        EXPECT_EQ(p->PlayTrack(8, 1, m_long, 1, timer ? Now() + 5000 : 0), c.plays ? 1 : 0);
        EXPECT_EQ(p->Playing(), c.plays);
        if (!c.plays) delete p;
        EXPECT_EQ(ReportLog::Take(), (Log{{c.code, timer ? 0 : kOom, timer ? 0u : 1u}}));
        QXFaultClear();
    }
}
