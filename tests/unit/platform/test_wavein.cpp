#include "platform/QXFaults.h"
#include "platform/backends/virtual/QXVirtual.h"
#include "unit/dsound/DSTestUtil.h"
#include "unit/platform/PlatformTestUtil.h"
#include "unit/wavefile/WaveTestUtil.h"

#include <numbers>
#include <numeric>
#include <optional>
#include <random>

namespace {

using dstest::Pcm;
using plattest::Calls;
using plattest::P;

struct Buffer {
    explicit Buffer(DWORD bytes) : data(bytes) { hdr.lpData = data.data(), hdr.dwBufferLength = bytes; }
    std::vector<char> data;
    WAVEHDR hdr{};
};

DWORD PositionBytes(HWAVEIN h)
{
    MMTIME t{TIME_BYTES, {}};
    EXPECT_EQ(waveInGetPosition(h, &t, sizeof t), MMSYSERR_NOERROR);
    return t.u.cb;
}

bool WaitPosition(HWAVEIN h, DWORD bytes) { return wavetest::Eventually([&] { return PositionBytes(h) >= bytes; }); }

// The messages but the overruns a loaded machine may cause.
std::vector<std::pair<UINT, DWORD_PTR>> Delivered(Calls& calls)
{
    auto seen = calls.Seen();
    std::erase_if(seen, [](const auto& m) { return m.first == WIM_OVERRUN; });
    return seen;
}

class WaveInTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        unsetenv("QUAVIX_VIRTUAL_WAVE_IN_SOURCE");
        qxplat::QXVirtualSetDevices(1, 1, 1, 1);
    }
    void TearDown() override { QXFaultClear(), unsetenv("QUAVIX_VIRTUAL_WAVE_IN_SOURCE"); }

    // Opens input 0 reporting into calls, with buffers of the given sizes queued.
    HWAVEIN Open(const WAVEFORMATEX& f, std::initializer_list<DWORD> sizes)
    {
        HWAVEIN h = nullptr;
        EXPECT_EQ(waveInOpen(&h, 0, &f, P(Calls::Proc<HWAVEIN>), P(&calls), CALLBACK_FUNCTION), MMSYSERR_NOERROR);
        for (DWORD len : sizes) Queue(h, len);
        return h;
    }
    void Queue(HWAVEIN h, DWORD bytes)
    {
        bufs.push_back(std::make_unique<Buffer>(bytes));
        EXPECT_EQ(waveInPrepareHeader(h, &bufs.back()->hdr, sizeof(WAVEHDR)), MMSYSERR_NOERROR);
        EXPECT_EQ(waveInAddBuffer(h, &bufs.back()->hdr, sizeof(WAVEHDR)), MMSYSERR_NOERROR);
    }
    // The 16-bit samples the buffers recorded, in order.
    std::vector<int16_t> Recorded() const
    {
        std::vector<int16_t> out;
        for (auto& b : bufs) {
            const auto* p = reinterpret_cast<const int16_t*>(b->data.data());
            out.insert(out.end(), p, p + b->hdr.dwBytesRecorded / 2);
        }
        return out;
    }

    Calls calls;
    std::vector<std::unique_ptr<Buffer>> bufs;
};

// Bad arguments, flags, formats and devices are refused, and so are headers not prepared
// or still queued; a stop before the start returns nothing.
TEST_F(WaveInTest, OpenAndBufferCallsRefuseWhatIsWrongAndAStopBeforeStartReturnsNothing)
{
    HWAVEIN h = nullptr;
    const WAVEFORMATEX ok = Pcm(48000, 2, 16);
    EXPECT_EQ(waveInOpen(nullptr, 0, &ok, 0, 0, CALLBACK_NULL), MMSYSERR_INVALPARAM);
    EXPECT_EQ(waveInOpen(&h, 0, nullptr, 0, 0, CALLBACK_NULL), MMSYSERR_INVALPARAM);
    EXPECT_EQ(waveInOpen(&h, 0, &ok, 0, 0, 0x00070000u), MMSYSERR_INVALFLAG);
    EXPECT_EQ(waveInOpen(&h, 0, &ok, 0, 0, 0x00000100u), MMSYSERR_INVALFLAG);
    EXPECT_EQ(waveInOpen(&h, 5, &ok, 0, 0, CALLBACK_NULL), MMSYSERR_BADDEVICEID);
    WAVEFORMATEX badAlign = ok;
    badAlign.nBlockAlign = 2;
    const WAVEFORMATEX bad[] = {Pcm(44100, 3, 16),  Pcm(44100, 2, 12),    Pcm(999, 1, 16), Pcm(192001, 1, 16),
                                Pcm(44100, 1, 16, 2), Pcm(44100, 1, 16, WAVE_FORMAT_IEEE_FLOAT), badAlign};
    for (const WAVEFORMATEX& f : bad) EXPECT_EQ(waveInOpen(&h, 0, &f, 0, 0, CALLBACK_NULL), WAVERR_BADFORMAT);
    const WAVEFORMATEX good[] = {Pcm(1000, 1, 8), Pcm(192000, 2, 24), Pcm(48000, 2, 32),
                                 Pcm(48000, 1, 32, WAVE_FORMAT_IEEE_FLOAT)};
    for (const WAVEFORMATEX& f : good) EXPECT_EQ(waveInOpen(nullptr, 0, &f, 0, 0, WAVE_FORMAT_QUERY), MMSYSERR_NOERROR);

    ASSERT_EQ(waveInOpen(&h, 0, &ok, 0, 0, CALLBACK_NULL), MMSYSERR_NOERROR);
    Buffer b(4800), tiny(2);
    EXPECT_EQ(waveInAddBuffer(h, &b.hdr, sizeof b.hdr), WAVERR_UNPREPARED);
    EXPECT_EQ(waveInPrepareHeader(h, &b.hdr, sizeof b.hdr - 1), MMSYSERR_INVALPARAM);
    ASSERT_EQ(waveInPrepareHeader(h, &b.hdr, sizeof b.hdr), MMSYSERR_NOERROR);
    ASSERT_EQ(waveInPrepareHeader(h, &tiny.hdr, sizeof tiny.hdr), MMSYSERR_NOERROR);
    EXPECT_EQ(waveInAddBuffer(h, &tiny.hdr, sizeof tiny.hdr), MMSYSERR_INVALPARAM) << "less than one frame";
    ASSERT_EQ(waveInAddBuffer(h, &b.hdr, sizeof b.hdr), MMSYSERR_NOERROR);
    EXPECT_EQ(b.hdr.dwFlags & (WHDR_INQUEUE | WHDR_DONE | WHDR_PREPARED), WHDR_INQUEUE | WHDR_PREPARED);
    EXPECT_EQ(waveInAddBuffer(h, &b.hdr, sizeof b.hdr), WAVERR_STILLPLAYING);
    EXPECT_EQ(waveInUnprepareHeader(h, &b.hdr, sizeof b.hdr), WAVERR_STILLPLAYING);
    EXPECT_EQ(waveInClose(h), WAVERR_STILLPLAYING);

    EXPECT_EQ(waveInStop(h), MMSYSERR_NOERROR);
    EXPECT_TRUE(b.hdr.dwFlags & WHDR_INQUEUE) << "the buffer is empty";
    EXPECT_EQ(waveInReset(h), MMSYSERR_NOERROR);
    EXPECT_EQ(b.hdr.dwFlags & (WHDR_INQUEUE | WHDR_DONE), WHDR_DONE);
    EXPECT_EQ(waveInUnprepareHeader(h, &b.hdr, sizeof b.hdr), MMSYSERR_NOERROR);
    EXPECT_FALSE(b.hdr.dwFlags & WHDR_PREPARED);
    EXPECT_EQ(waveInClose(h), MMSYSERR_NOERROR);
    EXPECT_EQ(waveInClose(h), MMSYSERR_INVALHANDLE);
    EXPECT_EQ(waveInStart(h), MMSYSERR_INVALHANDLE);
    qxplat::QXVirtualSetDevices(1, 1, 0, 1);
    EXPECT_EQ(waveInOpen(&h, 0, &ok, 0, 0, CALLBACK_NULL), MMSYSERR_BADDEVICEID);
}

TEST_F(WaveInTest, BuffersFillInQueueOrderStopReturnsThePartialOneAndResetRewinds)
{
    // 25 ms each, one with a stray byte past its last frame, then two of ten seconds.
    HWAVEIN h = Open(Pcm(48000, 2, 16), {4800u, 4801u, 4800u, 1920000u, 1920000u});
    ASSERT_EQ(waveInStart(h), MMSYSERR_NOERROR);
    ASSERT_TRUE(calls.WaitFor(WIM_DATA, 3));
    ASSERT_TRUE(WaitPosition(h, 3 * 4800 + 4 * 100));
    ASSERT_EQ(waveInStop(h), MMSYSERR_NOERROR);
    auto seen = Delivered(calls);
    ASSERT_EQ(seen.size(), 5u) << "open, three full buffers, the partial one";
    EXPECT_EQ(seen[0].first, UINT{WIM_OPEN});
    for (size_t i = 0; i < 4; ++i) EXPECT_EQ(seen[i + 1], std::make_pair(UINT{WIM_DATA}, P(&bufs[i]->hdr))) << i;
    for (auto& t : calls.threads) EXPECT_TRUE(t == calls.threads[0] && t != std::this_thread::get_id());
    for (size_t i = 0; i < 3; ++i) EXPECT_EQ(bufs[i]->hdr.dwBytesRecorded, 4800u);
    const DWORD partial = bufs[3]->hdr.dwBytesRecorded;
    EXPECT_TRUE(partial > 0 && partial % 4 == 0) << partial;
    EXPECT_EQ(bufs[3]->hdr.dwFlags & (WHDR_DONE | WHDR_INQUEUE), WHDR_DONE);
    EXPECT_EQ(bufs[4]->hdr.dwFlags & (WHDR_DONE | WHDR_INQUEUE), WHDR_INQUEUE) << "empty ones stay queued";

    // Every frame since the start went into a buffer.
    const DWORD total = 3 * 4800 + partial;
    for (auto [type, value] : {std::pair{TIME_BYTES, total}, {TIME_SAMPLES, total / 4}, {TIME_MS, total / 4 / 48}}) {
        MMTIME t{type, {}};
        ASSERT_EQ(waveInGetPosition(h, &t, sizeof t), MMSYSERR_NOERROR);
        EXPECT_EQ(std::make_pair(t.wType, t.u.cb), std::make_pair(UINT(type), value));
    }

    ASSERT_EQ(waveInReset(h), MMSYSERR_NOERROR);
    EXPECT_EQ(PositionBytes(h), 0u);
    ASSERT_EQ(waveInClose(h), MMSYSERR_NOERROR);
    seen = Delivered(calls);
    ASSERT_EQ(seen.size(), 7u);
    EXPECT_EQ(seen[5], std::make_pair(UINT{WIM_DATA}, P(&bufs[4]->hdr)));
    EXPECT_EQ(seen[6], std::make_pair(UINT{WIM_CLOSE}, DWORD_PTR{0}));
}

// Frames that find no buffer queued wait in the source's ring: a buffer queued late
// takes up where the last one ended. What the ring could not hold is told with a
// WIM_OVERRUN before the buffer after the loss comes back.
TEST_F(WaveInTest, FramesWaitForALateBufferAndAnOverrunIsToldWithItsCount)
{
    HWAVEIN h = Open(Pcm(48000, 1, 16), {9600});
    ASSERT_EQ(waveInStart(h), MMSYSERR_NOERROR);
    ASSERT_TRUE(calls.WaitFor(WIM_DATA, 1));
    ASSERT_TRUE(calls.WaitFor(WIM_OVERRUN, 1)) << "the source's ring holds less than a second";
    Queue(h, 9600);
    ASSERT_TRUE(calls.WaitFor(WIM_DATA, 2));
    ASSERT_EQ(waveInReset(h), MMSYSERR_NOERROR);
    ASSERT_EQ(waveInClose(h), MMSYSERR_NOERROR);
    const auto seen = calls.Seen();
    ASSERT_GE(seen.size(), 4u);
    EXPECT_EQ(seen[1], std::make_pair(UINT{WIM_DATA}, P(&bufs[0]->hdr)));
    // The first loss at once, the rest when the next buffer came: told once or twice.
    size_t told = 0;
    while (2 + told < seen.size() && seen[2 + told].first == WIM_OVERRUN)
        EXPECT_GT(seen[2 + told++].second, 0u) << "frames lost";
    EXPECT_TRUE(told == 1 || told == 2) << told;
    ASSERT_LT(2 + told, seen.size());
    EXPECT_EQ(seen[2 + told], std::make_pair(UINT{WIM_DATA}, P(&bufs[1]->hdr)));
    EXPECT_EQ(seen.back(), std::make_pair(UINT{WIM_CLOSE}, DWORD_PTR{0}));
    const std::vector<int16_t> got = Recorded();
    const std::vector<float> tone(got.begin(), got.end());
    ASSERT_EQ(tone.size(), 9600u);
    EXPECT_GT(dstest::ToneSnr(tone, 440, 48000), 70) << "the second buffer does not go on from the first";
    EXPECT_NEAR(std::sqrt(2 * std::inner_product(tone.begin(), tone.end(), tone.begin(), 0.0) / 9600), 16384, 16) << "amplitude";
}

TEST_F(WaveInTest, FileSourceComesBackSampleExactInItsChannels)
{
    // A looped 16-bit stereo file of noise.
    const uint32_t n = 9001;
    std::vector<int16_t> pcm(2 * n);
    std::mt19937 rng(7);
    for (auto& s : pcm) s = static_cast<int16_t>(rng());
    const std::string path = ::testing::TempDir() + "qx_wavein_src.wav";
    std::ofstream(path, std::ios::binary) << wavetest::Riff(
        wavetest::Fmt(2, 48000, 16) + wavetest::Chunk("data", std::string(reinterpret_cast<char*>(pcm.data()), 4 * n)));
    setenv("QUAVIX_VIRTUAL_WAVE_IN_SOURCE", ("file:" + path).c_str(), 1);
    const WAVEFORMATEX f = Pcm(48000, 2, 16);
    HWAVEIN h = Open(f, {4 * 7000, 4 * 7000, 4 * 7000});
    ASSERT_EQ(waveInStart(h), MMSYSERR_NOERROR);
    ASSERT_TRUE(calls.WaitFor(WIM_DATA, 3));
    ASSERT_EQ(waveInReset(h), MMSYSERR_NOERROR);
    ASSERT_EQ(waveInClose(h), MMSYSERR_NOERROR);
    std::remove(path.c_str());
    setenv("QUAVIX_VIRTUAL_WAVE_IN_SOURCE", "file:/nonexistent/x.wav", 1);
    EXPECT_NE(waveInOpen(&h, 0, &f, 0, 0, CALLBACK_NULL), MMSYSERR_NOERROR);
    if (calls.Count(WIM_OVERRUN) > 0) GTEST_SKIP() << "frames were lost (a loaded machine): not judged";
    const std::vector<int16_t> got = Recorded();
    ASSERT_EQ(got.size(), 2u * 3 * 7000);
    // Where in the loop the capture began is the source's business; from there on, exact.
    size_t off = 0;
    while (off < n && std::memcmp(&pcm[2 * off], got.data(), 4 * 4) != 0) ++off;
    ASSERT_LT(off, n) << "the first frames are not in the file";
    size_t bad = 0;
    for (size_t i = 0; i < got.size(); ++i) bad += got[i] != pcm[(2 * off + i) % (2 * n)];
    EXPECT_EQ(bad, 0u) << "of " << got.size() << " samples (the file looped twice)";
}

// Output 0 through DirectSound with 997 Hz on the left at half scale and 1499 Hz on the
// right at a quarter.
struct Tone {
    LPDIRECTSOUND ds = nullptr;
    LPDIRECTSOUNDBUFFER buffer = nullptr;
    std::vector<int16_t> pcm;

    explicit Tone(DWORD frames) : pcm(2 * frames)
    {
        const double w = 2 * std::numbers::pi / 48000;
        for (DWORD i = 0; i < frames; ++i) {
            pcm[2 * i] = static_cast<int16_t>(std::lround(16384 * std::sin(w * 997 * i)));
            pcm[2 * i + 1] = static_cast<int16_t>(std::lround(8192 * std::sin(w * 1499 * i)));
        }
        EXPECT_EQ(DirectSoundCreate(nullptr, &ds, nullptr), DS_OK);
        if (ds != nullptr) buffer = dstest::MakeBuffer(ds, Pcm(48000, 2, 16), 4 * frames, 0);
        if (buffer != nullptr) dstest::Fill(buffer, [&](BYTE* p, DWORD n) { std::memcpy(p, pcm.data(), n); });
    }
    // The device goes with its last buffer, and its output with it.
    ~Tone() { if (buffer != nullptr) buffer->Release(); EXPECT_TRUE(ds == nullptr || ds->Release() == 0); }
    bool Playing()
    {
        DWORD status = 0;
        EXPECT_EQ(buffer->GetStatus(&status), DS_OK);
        return (status & DSBSTATUS_PLAYING) != 0;
    }
};

// Frames of [from, to) with any sound in them.
size_t Sounding(const std::vector<int16_t>& x, size_t from, size_t to)
{
    size_t n = 0;
    for (size_t i = from; i < to && 2 * i + 1 < x.size(); ++i) n += x[2 * i] != 0 || x[2 * i + 1] != 0;
    return n;
}

// Frames the outputs padded with silence because their mixer was held up (a loaded
// machine) since the last call; a loopback records them.
uint64_t Dry()
{
    static uint64_t last = 0;
    return qxplat::VirtualAudioUnderrunFramesAll() - std::exchange(last, qxplat::VirtualAudioUnderrunFramesAll());
}

// Silence while output 0 is not open or not playing; a tone played once, its output
// closed while the input records, is heard for no longer than the tone, then silence.
// Judged by the frames recorded and the underruns reported, not by the clock.
TEST_F(WaveInTest, LoopbackIsSilentWithoutAPlayingOutputAndAfterItCloses)
{
    setenv("QUAVIX_VIRTUAL_WAVE_IN_SOURCE", "loopback", 1);
    constexpr DWORD kTone = 19200;
    HWAVEIN h = Open(Pcm(48000, 2, 16), {4 * 9600, 4 * 9600, 4 * 48000 * 4});
    ASSERT_EQ(waveInStart(h), MMSYSERR_NOERROR);
    ASSERT_TRUE(calls.WaitFor(WIM_DATA, 1));
    std::optional<Tone> tone(std::in_place, kTone);
    ASSERT_TRUE(calls.WaitFor(WIM_DATA, 2));
    Dry();
    ASSERT_EQ(tone->buffer->Play(0, 0, 0), DS_OK);
    ASSERT_TRUE(wavetest::Eventually([&] { return !tone->Playing(); }));
    tone.reset();
    ASSERT_TRUE(WaitPosition(h, PositionBytes(h) + 4 * 48000 / 2));
    const uint64_t dry = Dry();
    ASSERT_EQ(waveInReset(h), MMSYSERR_NOERROR);
    ASSERT_EQ(waveInClose(h), MMSYSERR_NOERROR);

    const std::vector<int16_t> got = Recorded();
    const size_t n = got.size() / 2;
    EXPECT_EQ(Sounding(got, 0, 2 * 9600), 0u) << "no output, then one that does not play";
    size_t first = 2 * 9600, last = n;
    while (first < n && Sounding(got, first, first + 1) == 0) ++first;
    while (last > first && Sounding(got, last - 1, last) == 0) --last;
    EXPECT_GT(Sounding(got, first, last) + dry, kTone / 2) << "the tone was not heard";
    EXPECT_LE(last - first, kTone + dry) << "heard for longer than it played";
    EXPECT_GE(n - last, 48000u / 4) << "not silent once its output closed";
}

// The output plays first; an input comes and goes while it plays, and the next one
// hears it afresh.
TEST_F(WaveInTest, LoopbackInputsThatComeWhileTheOutputPlaysHearIt)
{
    setenv("QUAVIX_VIRTUAL_WAVE_IN_SOURCE", "loopback", 1);
    Tone tone(48000);
    ASSERT_EQ(tone.buffer->Play(0, 0, DSBPLAY_LOOPING), DS_OK);
    for (int round = 0; round < 2; ++round) {
        bufs.clear();
        Dry();
        HWAVEIN h = Open(Pcm(48000, 2, 16), {4 * 9600, 4 * 9600});
        ASSERT_EQ(waveInStart(h), MMSYSERR_NOERROR);
        ASSERT_TRUE(calls.WaitFor(WIM_DATA, 2 * round + 2));
        ASSERT_EQ(waveInClose(h), MMSYSERR_NOERROR);
        EXPECT_GT(Sounding(Recorded(), 9600, 2 * 9600) + Dry(), 9000u) << round;
    }
}

} // namespace
