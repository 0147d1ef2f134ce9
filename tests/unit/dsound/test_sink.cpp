// The lock-free ring between a mixer and its sink, where the mixer starts a sound in
// it, the virtual outputs' settings, and their DirectSound drivers.
#include "DSTestUtil.h"
#include "platform/backends/QXBackend.h"
#include "platform/backends/virtual/QXVirtual.h"
#include "platform/backends/virtual/QXVirtualAudio.h"
#include "platform/dsound/QXMixer.h"
#include "unit/wavefile/WaveTestUtil.h"

#include <memory>

using qxplat::AudioRing;
using wavetest::Eventually;

namespace {

// A port the test consumes by hand. With a clock, the ring position consumed at time t
// is t itself, so a start time names the frame a sound must begin at.
class HandPort final : public qxplat::AudioOutPort {
public:
    explicit HandPort(bool clocked) : m_clocked(clocked) {}
    DWORD Rate() const override { return 48000; }
    uint32_t TargetFrames() const override { return 960; }
    AudioRing& Ring() override { return m_ring; }
    void Start() override {}
    void Stop() override {}
    uint32_t LatencyFrames() const override { return kLatency; }
    bool RingPositionAt(int64_t ns, int64_t* pFrame) const override
    {
        if (m_clocked) *pFrame = ns;
        return m_clocked;
    }

    static constexpr int64_t kLatency = 1200;

    // The left channel of the next n frames, as the mixer refills what is taken.
    std::vector<float> Take(uint32_t n)
    {
        std::vector<float> left, chunk(2 * 100);
        Eventually([&] {
            const uint32_t got = m_ring.Read(chunk.data(), std::min<uint32_t>(100, n - static_cast<uint32_t>(left.size())));
            for (uint32_t i = 0; i < got; ++i) left.push_back(chunk[2 * i]);
            return left.size() >= n;
        });
        return left;
    }
    bool WaitFull()
    {
        return Eventually([&] { return m_ring.Readable() >= TargetFrames(); }) && m_ring.Readable() == TargetFrames();
    }

private:
    AudioRing m_ring{4096};
    const bool m_clocked;
};

// A mono 16-bit voice at 48 kHz holding a constant level.
std::unique_ptr<qxplat::ds::Voice> ConstantVoice(int16_t level, DWORD frames)
{
    const WAVEFORMATEX f = dstest::Pcm(48000, 1, 16);
    qxplat::ds::SourceFormat fmt;
    EXPECT_TRUE(qxplat::ds::ParseFormat(&f, fmt));
    auto v = std::make_unique<qxplat::ds::Voice>(fmt, frames * 2);
    for (DWORD i = 0; i < frames; ++i) std::memcpy(v->Data() + 2 * i, &level, 2);
    return v;
}

// The frames from a level's first appearance to one past its last.
std::pair<size_t, size_t> Span(const std::vector<float>& x, float level)
{
    size_t first = x.size(), last = 0;
    for (size_t i = 0; i < x.size(); ++i)
        if (std::fabs(x[i] - level) < 1e-6f) {
            first = std::min(first, i);
            last = i;
        }
    return {first, last + 1};
}

// Two voices started while the ring stands full at its 960 frames: one whose start lies
// 1077 frames into the future, one whose start has long passed.
struct TwoStarts {
    HandPort port;
    std::unique_ptr<qxplat::ds::Voice> later = ConstantVoice(16384, 500), past = ConstantVoice(8192, 100);
    qxplat::ds::Mixer mixer{48000, qxplat::Resampler::Cubic}; // stops its thread before they go
    explicit TwoStarts(bool clocked) : port(clocked)
    {
        EXPECT_TRUE(mixer.AddVoice(later.get()) && mixer.AddVoice(past.get()));
        mixer.StartThread(&port);
        EXPECT_TRUE(port.WaitFull());
        later->Play(false, 2037 - HandPort::kLatency);
        past->Play(false, -100000);
    }
};

} // namespace

// A clocked port starts each voice on its own frame, also inside a mixer block; a port
// without a clock starts every voice with the next frame mixed.
TEST(DSoundSink, VoicesStartOnTheirFrameWithAClockAndAtOnceWithout)
{
    {
        TwoStarts t(true);
        std::vector<float> left = t.port.Take(1000);
        // Mixed up to frame 1960 now: the later voice waits, its cursor where it was.
        DWORD cursor = 1;
        t.later->GetPositions(0, &cursor, nullptr);
        EXPECT_EQ(cursor, 0u);
        EXPECT_TRUE(t.later->Playing());
        const std::vector<float> rest = t.port.Take(2000);
        left.insert(left.end(), rest.begin(), rest.end());
        t.mixer.StopThread();
        ASSERT_EQ(left.size(), 3000u);
        EXPECT_EQ(Span(left, 0.5f), std::make_pair(size_t{2037}, size_t{2537}));
        EXPECT_EQ(Span(left, 0.25f), std::make_pair(size_t{960}, size_t{1060})) << "a start already past";
        for (size_t i : {0, 959, 1060, 2036, 2537, 2999})
            EXPECT_EQ(left[i], 0.0f) << i;
        EXPECT_FALSE(t.later->Playing());
    }
    TwoStarts t(false);
    const std::vector<float> left = t.port.Take(3000);
    t.mixer.StopThread();
    ASSERT_EQ(left.size(), 3000u);
    EXPECT_EQ(Span(left, 0.75f), std::make_pair(size_t{960}, size_t{1060}));
    EXPECT_EQ(Span(left, 0.5f), std::make_pair(size_t{1060}, size_t{1460}));
    EXPECT_EQ(left[959], 0.0f);
    EXPECT_EQ(left[1460], 0.0f);
}

TEST(DSoundSink, RingKeepsOrderAcrossItsWrapAndRefusesWhatDoesNotFit)
{
    AudioRing ring(100); // rounded up to 128 frames
    ASSERT_EQ(ring.Capacity(), 128u);
    std::vector<float> in(2 * 400), out(2 * 200);
    for (size_t i = 0; i < in.size(); ++i) in[i] = static_cast<float>(i);
    EXPECT_EQ(ring.Write(in.data(), 100), 100u);
    EXPECT_EQ(ring.Read(out.data(), 90), 90u);
    EXPECT_EQ(out[179], 179.0f);
    // 10 frames left; the next 118 wrap around the end of the storage.
    EXPECT_EQ(ring.Write(in.data() + 200, 200), 118u);
    EXPECT_EQ(ring.Readable(), 128u);
    EXPECT_EQ(ring.Writable(), 0u);
    EXPECT_EQ(ring.Write(in.data(), 1), 0u);
    EXPECT_EQ(ring.Read(out.data(), 200), 128u);
    for (size_t i = 0; i < 2 * 128; ++i) ASSERT_EQ(out[i], static_cast<float>(180 + i)) << i;
    EXPECT_EQ(ring.Read(out.data(), 1), 0u);
    ring.Write(in.data(), 5);
    ring.Skip(10);
    EXPECT_EQ(ring.Readable(), 0u);
}

TEST(DSoundSink, VirtualOutputSettingsAreParsedAndItsClockRunsOnlyWhileStarted)
{
    EXPECT_EQ(qxplat::VirtualCapturePath("/tmp/a%db%d%x.wav", 12), "/tmp/a12b12%x.wav");
    EXPECT_EQ(qxplat::VirtualCapturePath(nullptr, 1), "");

    for (const char* bad : {"44100Hz", "100", "1000000"}) {
        setenv("QUAVIX_VIRTUAL_AUDIO_RATE", bad, 1);
        EXPECT_EQ(qxplat::VirtualAudioRate(), 48000u) << bad;
    }
    std::unique_ptr<qxplat::AudioOutPort> port;
    setenv("QUAVIX_VIRTUAL_AUDIO_RATE", "44100", 1);
    ASSERT_EQ(qxplat::OpenVirtualAudioOut(0, port), MMSYSERR_NOERROR);
    EXPECT_EQ(port->Rate(), 44100u) << "an output takes the rate asked for";
    unsetenv("QUAVIX_VIRTUAL_AUDIO_RATE");
    ASSERT_EQ(qxplat::OpenVirtualAudioOut(0, port), MMSYSERR_NOERROR);
    EXPECT_EQ(port->Rate(), 48000u);
    EXPECT_GE(port->Ring().Capacity(), port->TargetFrames() + 240);
    // Its clock starts with it: 20 ms queued and one 5 ms block make its latency.
    int64_t frame = 0;
    EXPECT_FALSE(port->RingPositionAt(qxplat::NowNs(), &frame));
    EXPECT_EQ(port->LatencyFrames(), 1200u);
    // Started with nothing queued, it plays silence and counts what it missed.
    port->Start();
    const int64_t now = qxplat::NowNs();
    int64_t later = 0;
    ASSERT_TRUE(port->RingPositionAt(now, &frame) && port->RingPositionAt(now + 1'000'000'000, &later));
    EXPECT_EQ(later - frame, 48000) << "the ring's frames follow at the rate";
    EXPECT_TRUE(Eventually([&] { return port->UnderrunFrames() > 0; }));
    port->Stop();
    EXPECT_FALSE(port->RingPositionAt(qxplat::NowNs(), &frame)) << "a stopped port has no clock";
}

// The DirectSound drivers: the default, then one per output, each opening its own.
TEST(DSoundApi, DriversAreTheDefaultThenOnePerOutput)
{
    ASSERT_EQ(dstest::kVirtualBackendSet, 0);
    int counts[4] = {1, 1, 1, 1};
    ASSERT_TRUE(qxplat::QXVirtualParseDevices("wave-out=3", counts));
    EXPECT_FALSE(qxplat::QXVirtualParseDevices("wave-out=x", counts));
    qxplat::QXVirtualSetDevices(1, 1, 1, counts[3]);

    std::vector<dstest::Driver> drivers;
    ASSERT_EQ(DirectSoundEnumerateA(dstest::Collect, &drivers), DS_OK);
    ASSERT_EQ(drivers.size(), 4u);
    EXPECT_FALSE(drivers[0].hasGuid);
    for (int n = 1; n <= 3; ++n) {
        EXPECT_EQ(drivers[n].description + drivers[n].module, "Quavix Virtual Wave Out " + std::to_string(n) + "virtual");
        for (int m = 1; m < n; ++m) EXPECT_FALSE(IsEqualGUID(drivers[n].guid, drivers[m].guid));
    }

    // Each GUID opens its output, no GUID the first; others are no driver.
    LPDIRECTSOUND ds = nullptr;
    for (int n = 1; n <= 3; ++n) {
        ASSERT_EQ(DirectSoundCreate(&drivers[n].guid, &ds, nullptr), DS_OK);
        EXPECT_EQ(ds->Release(), 0u);
    }
    ASSERT_EQ(DirectSoundCreate(nullptr, &ds, nullptr), DS_OK);
    ds->Release();
    GUID bogus = drivers[3].guid;
    bogus.Data1 += 1;
    EXPECT_EQ(DirectSoundCreate(&bogus, &ds, nullptr), DSERR_NODRIVER);
    EXPECT_EQ(ds, nullptr);

    // Without outputs only the default entry is reported, and it cannot be opened.
    qxplat::QXVirtualSetDevices(1, 1, 1, 0);
    drivers.clear();
    ASSERT_EQ(DirectSoundEnumerateA(dstest::Collect, &drivers), DS_OK);
    EXPECT_EQ(drivers.size(), 1u);
    EXPECT_EQ(DirectSoundCreate(nullptr, &ds, nullptr), DSERR_NODRIVER);
    qxplat::QXVirtualSetDevices(1, 1, 1, 1);
    EXPECT_EQ(qxplat::LiveDirectSoundObjects(), 0u);
}
