// DirectSound on the virtual backend's real-time output: its capture, and where starts
// land.
#include "DSTestUtil.h"

#include "integration/analysis.h"
#include "platform/backends/virtual/QXVirtual.h"
#include "unit/wavefile/WaveTestUtil.h"

#include <unistd.h>

#include <random>
#include <thread>

using namespace dstest;
using wavetest::Eventually;


// Clicks played at random moments, each timed by the steady clock around its Play, must
// sound a constant number of frames after it, whatever the ring's fill and the sink's
// ticks were at that moment: the output's latency. Every other click is handed a start
// time still to come, which must count the same. The capture's first frame is the one
// the output consumed when the primary buffer started it.
TEST(DSoundRealtime, EachStartSoundsTheOutputsLatencyAfterItsPlay)
{
    constexpr double kRate = 48000;
    // The second output, by its driver's GUID: its capture is the one numbered 1.
    const std::string base = "/tmp/qx-dsound-start-" + std::to_string(getpid()), path = base + "-1.wav";
    setenv("QUAVIX_VIRTUAL_WAVE_OUT_CAPTURE", (base + "-%d.wav").c_str(), 1);
    qxplat::QXVirtualSetDevices(1, 1, 1, 2);
    std::vector<Driver> drivers;
    ASSERT_EQ(DirectSoundEnumerateA(Collect, &drivers), DS_OK);
    ASSERT_EQ(drivers.size(), 3u);
    LPDIRECTSOUND ds = nullptr;
    ASSERT_EQ(DirectSoundCreate(&drivers[2].guid, &ds, nullptr), DS_OK);
    unsetenv("QUAVIX_VIRTUAL_WAVE_OUT_CAPTURE");
    qxplat::QXVirtualSetDevices(1, 1, 1, 1);
    DWORD rate = 0;
    EXPECT_EQ(qxplat::DirectSoundOutputLatencyFrames(ds, &rate), 1200u); // 20 ms queued, one 5 ms block
    ASSERT_EQ(rate, 48000u);
    const int64_t latency = 1200;

    DSBUFFERDESC primaryDesc = Desc(DSBCAPS_PRIMARYBUFFER);
    LPDIRECTSOUNDBUFFER primary = nullptr;
    ASSERT_EQ(ds->CreateSoundBuffer(&primaryDesc, &primary, nullptr), DS_OK);
    // 1 ms at half scale, then the buffer ends.
    LPDIRECTSOUNDBUFFER click = MakeBuffer(ds, Pcm(48000, 1, 16), 96);
    Fill(click, [](BYTE* p, DWORD n) {
        for (DWORD i = 0; i + 1 < n; i += 2) p[i] = 0x00, p[i + 1] = 0x40;
    });
    const int64_t primaryStart = qxplat::NowNs();
    ASSERT_EQ(primary->Play(0, 0, DSBPLAY_LOOPING), DS_OK);
    const int64_t primaryStarted = qxplat::NowNs();
    std::this_thread::sleep_for(std::chrono::milliseconds(100));

    std::mt19937 rng(42);
    std::vector<std::pair<int64_t, int64_t>> plays; // steady clock before and after Play
    for (int i = 0; i < 20; ++i) {
        ASSERT_TRUE(Eventually([&] {
            DWORD status = 0;
            return click->GetStatus(&status) == DS_OK && !(status & DSBSTATUS_PLAYING);
        }));
        const int64_t wait = std::uniform_int_distribution<int>(0, 30000)(rng) * int64_t{1000};
        if (i % 2 == 1) {
            const int64_t start = qxplat::NowNs() + wait;
            ASSERT_EQ(qxplat::DirectSoundPlayBufferAt(click, 0, start), DS_OK);
            plays.emplace_back(start, start);
            continue;
        }
        std::this_thread::sleep_for(std::chrono::nanoseconds(wait));
        const int64_t before = qxplat::NowNs();
        ASSERT_EQ(click->Play(0, 0, 0), DS_OK);
        plays.emplace_back(before, qxplat::NowNs());
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    // The header is brought up to date while the output runs.
    EXPECT_TRUE(Eventually([&] { return analysis::ReadWav(path).dataLength >= 48000u * 4; }));
    click->Release();
    primary->Release();
    EXPECT_EQ(ds->Release(), 0u);

    const analysis::Wav wav = analysis::ReadWav(path);
    std::remove(path.c_str());
    EXPECT_EQ(std::tuple(wav.riffLength, wav.dataOffset, wav.x.size() * 2), std::tuple(36 + wav.dataLength, 44u, size_t{wav.dataLength}))
        << "the header's lengths are the file's, its format chunk 16 bytes";
    EXPECT_EQ(std::tuple(wav.channels, wav.bits, wav.rate), std::tuple(2u, 16u, 48000u));
    std::vector<size_t> onsets;
    size_t quiet = 1000;
    for (size_t i = 0; i < wav.x.size() / 2; ++i) {
        if (wav.x[2 * i] != 0) {
            if (quiet >= 100) onsets.push_back(i);
            quiet = 0;
        } else {
            ++quiet;
        }
    }
    ASSERT_EQ(onsets.size(), plays.size());
    // Each onset less its Play's time from the primary's start, in frames: a range, as
    // Play happened somewhere between the two readings of the clock. One constant must
    // lie in every range.
    double atLeast = -1e18, atMost = 1e18;
    for (size_t i = 0; i < onsets.size(); ++i) {
        const double at = static_cast<double>(onsets[i]);
        atLeast = std::max(atLeast, at - (plays[i].second - primaryStart) * kRate / 1e9);
        atMost = std::min(atMost, at - (plays[i].first - primaryStart) * kRate / 1e9);
    }
    EXPECT_LE(atLeast - atMost, 3.0) << "the starts lie at offsets that differ by more than a few frames";
    // The constant is the latency, less where the capture began within the primary's Play.
    EXPECT_LE(atLeast, latency + 3.0);
    EXPECT_GE(atMost, latency - (primaryStarted - primaryStart) * kRate / 1e9 - 3.0);
}
