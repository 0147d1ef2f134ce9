// The mixer, driven offline: gain and pan law, resampling, notifications, once and
// looping play, Lock regions and sample formats.
#include "DSTestUtil.h"

using namespace dstest;
using qxplat::Resampler;

namespace {

double Db(double ratio) { return 20.0 * std::log10(ratio); }

// The last frame of a constant source, once any gain glide is over.
std::pair<float, float> Steady(Offline& off)
{
    const std::vector<float> out = off.Render(480);
    return {out[out.size() - 2], out[out.size() - 1]};
}

} // namespace

TEST(DSoundMixer, VolumeAndPanFollowTheDecibelLawAndGlideWithoutAClick)
{
    Offline off;
    LPDIRECTSOUNDBUFFER mono = MakeBuffer(off.ds, Pcm(48000, 1, 16), 960);
    Fill(mono, [](BYTE* p, DWORD n) { Level16(p, n, 16384); });
    ASSERT_EQ(mono->Play(0, 0, DSBPLAY_LOOPING), DS_OK);
    struct Case { LONG volume, pan; };
    for (const Case& c : {Case{0, 0}, {-600, 0}, {0, -2173}, {0, 870}, {-1000, 3000}, {-2500, -7000}, {-37, 9000}}) {
        SCOPED_TRACE(testing::Message() << "volume " << c.volume << " pan " << c.pan);
        ASSERT_EQ(mono->SetVolume(c.volume), DS_OK);
        ASSERT_EQ(mono->SetPan(c.pan), DS_OK);
        const auto [l, r] = Steady(off);
        EXPECT_NEAR(Db(l / 0.5), (c.volume - std::max<LONG>(c.pan, 0)) / 100.0, 0.01);
        EXPECT_NEAR(Db(r / 0.5), (c.volume + std::min<LONG>(c.pan, 0)) / 100.0, 0.01);
    }
    // A total attenuation of 100 dB is silence.
    ASSERT_EQ(mono->SetVolume(-5000), DS_OK);
    ASSERT_EQ(mono->SetPan(-6000), DS_OK);
    auto [l, r] = Steady(off);
    EXPECT_NEAR(Db(l / 0.5), -50.0, 0.01);
    EXPECT_EQ(r, 0.0f);

    // A change while playing glides over one block rather than stepping.
    ASSERT_EQ(mono->SetVolume(0), DS_OK);
    off.Render(480);
    ASSERT_EQ(mono->SetVolume(-2000), DS_OK);
    const std::vector<float> glide = Channel(off.Render(480), 0);
    const size_t block = 240;
    EXPECT_NEAR(glide[0], 0.5f, 0.5f * 0.9f / block + 1e-6f);
    for (size_t i = 1; i < block; ++i) EXPECT_LT(glide[i], glide[i - 1]);
    for (size_t i = block - 1; i < glide.size(); ++i) EXPECT_NEAR(glide[i], 0.05f, 1e-6f);
    mono->Release();

    // A stereo source keeps its channels apart; pan attenuates one of them.
    LPDIRECTSOUNDBUFFER stereo = MakeBuffer(off.ds, Pcm(48000, 2, 16), 960 * 2);
    Fill(stereo, [](BYTE* p, DWORD n) {
        for (DWORD i = 0; i < n; i += 4) {
            Level16(p + i, 2, 16384);
            Level16(p + i + 2, 2, -8192);
        }
    });
    ASSERT_EQ(stereo->Play(0, 0, DSBPLAY_LOOPING), DS_OK);
    ASSERT_EQ(stereo->SetVolume(-300), DS_OK);
    ASSERT_EQ(stereo->SetPan(-1500), DS_OK);
    std::tie(l, r) = Steady(off);
    EXPECT_NEAR(Db(l / 0.5), -3.0, 0.01);
    EXPECT_NEAR(Db(r / -0.25), -18.0, 0.01);
    stereo->Release();
}

// Each resampler keeps the pitch across rates and rate changes, and the better ones make
// cleaner tones at 1 and 8 kHz.
TEST(DSoundMixer, ResamplersKeepThePitchAndBetterOnesMakeCleanerTones)
{
    double snr[3][2];
    for (Resampler mode : {Resampler::Linear, Resampler::Cubic, Resampler::Sinc}) {
        const int m = static_cast<int>(mode);
        SCOPED_TRACE(m);
        for (int t = 0; t < 2; ++t) {
            const double tone = t == 0 ? 1000.0 : 8000.0;
            Offline off(48000, mode);
            // One second at 22050 Hz holds whole cycles, so the loop is seamless.
            LPDIRECTSOUNDBUFFER b = MakeBuffer(off.ds, Pcm(22050, 1, 16), 22050 * 2);
            Fill(b, [&](BYTE* p, DWORD n) {
                for (DWORD i = 0; i < n / 2; ++i)
                    Level16(p + 2 * i, 2, static_cast<int16_t>(std::lround(0.5 * 32767.0 * std::sin(2 * M_PI * tone * i / 22050.0))));
            });
            ASSERT_EQ(b->Play(0, 0, DSBPLAY_LOOPING), DS_OK);
            std::vector<float> out = off.Render(48000);
            snr[m][t] = ToneSnr(Channel(out, 0, 200), tone, 48000);
            if (t == 1) {
                b->Release();
                continue;
            }
            EXPECT_NEAR(MeasureFrequency(Channel(out, 0), 48000), 1000.0, 0.5);
            EXPECT_NEAR(MeasureFrequency(Channel(out, 1), 48000), 1000.0, 0.5);
            EXPECT_GT(ToneSnr(Channel(out, 0, 100), 1000.0, 48000), 40.0);
            // The cursor moved by one second of the buffer: back where it began.
            DWORD play = 1, before = 0, after = 0, f = 0;
            ASSERT_EQ(b->GetCurrentPosition(&play, nullptr), DS_OK);
            EXPECT_LE(std::min(play, 44100 - play), 4u);

            // Twice the rate, mid-play: twice the pitch, and the cursor moves twice as fast.
            ASSERT_EQ(b->SetFrequency(44100), DS_OK);
            b->GetCurrentPosition(&before, nullptr);
            off.Render(4800);
            b->GetCurrentPosition(&after, nullptr);
            EXPECT_NEAR(static_cast<double>((after + 44100 - before) % 44100), 4410.0 * 2, 4.0);
            EXPECT_NEAR(MeasureFrequency(Channel(off.Render(24000), 0), 48000), 2000.0, 1.0);
            // A rate that does not divide evenly, then back to the buffer's own.
            ASSERT_EQ(b->SetFrequency(15000), DS_OK);
            EXPECT_NEAR(MeasureFrequency(Channel(off.Render(24000), 0, 200), 48000), 1000.0 * 15000 / 22050, 1.0);
            ASSERT_EQ(b->SetFrequency(DSBFREQUENCY_ORIGINAL), DS_OK);
            ASSERT_EQ(b->GetFrequency(&f), DS_OK);
            EXPECT_EQ(f, 22050u);
            EXPECT_NEAR(MeasureFrequency(Channel(off.Render(24000), 0, 200), 48000), 1000.0, 0.5);
            b->Release();
        }
    }
    for (int t = 0; t < 2; ++t) {
        EXPECT_GT(snr[1][t], snr[0][t]);
        EXPECT_GT(snr[2][t], snr[1][t] + 10.0);
    }
    EXPECT_GT(snr[2][0], 75.0); // near the 16-bit source's own floor
}

TEST(DSoundMixer, NotificationsFireWhereTheCursorPasses)
{
    Offline off;
    // 1000 frames of 16-bit mono at the output rate: the cursor moves one frame per frame.
    LPDIRECTSOUNDBUFFER b = MakeBuffer(off.ds, Pcm(48000, 1, 16), 2000);
    LPDIRECTSOUNDNOTIFY notify = nullptr;
    ASSERT_EQ(b->QueryInterface(IID_IDirectSoundNotify, reinterpret_cast<LPVOID*>(&notify)), DS_OK);
    HANDLE ev[4];
    for (HANDLE& h : ev) h = CreateEventA(nullptr, FALSE, FALSE, nullptr);
    // Given out of order; the last byte and offset 0 both sit at the wrap.
    DSBPOSITIONNOTIFY pos[4] = {{998, ev[1]}, {0, ev[0]}, {1999, ev[2]}, {DSBPN_OFFSETSTOP, ev[3]}};
    ASSERT_EQ(notify->SetNotificationPositions(4, pos), DS_OK);
    ASSERT_EQ(b->Play(0, 0, DSBPLAY_LOOPING), DS_OK);

    // Which events fired since the last look, one digit each.
    auto fired = [&] {
        std::string s;
        for (HANDLE h : ev) s += Signalled(h) ? '1' : '0';
        return s;
    };
    struct Step { DWORD frames; const char* fired; };
    // To byte 996, to 998, to 1998, across the wrap, then more than the whole buffer.
    for (const Step& s : {Step{498, "0000"}, {1, "0100"}, {500, "0000"}, {1, "1010"}, {1500, "1110"}}) {
        off.Render(s.frames);
        EXPECT_EQ(fired(), s.fired) << "after " << s.frames << " more frames";
    }

    // Positions change only while stopped; Stop fires the stop entry, once.
    EXPECT_EQ(notify->SetNotificationPositions(1, pos), DSERR_INVALIDCALL);
    ASSERT_EQ(b->Stop(), DS_OK);
    EXPECT_EQ(fired(), "0001");
    ASSERT_EQ(b->Stop(), DS_OK);
    EXPECT_EQ(fired(), "0000");
    EXPECT_EQ(notify->SetNotificationPositions(0, nullptr), DS_OK); // clears them
    ASSERT_EQ(b->Play(0, 0, DSBPLAY_LOOPING), DS_OK);
    off.Render(3000);
    b->Stop();
    EXPECT_EQ(fired(), "0000");

    // The notification interface shares the buffer's reference count.
    EXPECT_EQ(notify->Release(), 1u);
    EXPECT_EQ(b->Release(), 0u);
    for (HANDLE h : ev) CloseHandle(h);
}

TEST(DSoundMixer, OnceStopsAtTheEndAndLoopingGoesOn)
{
    Offline off;
    LPDIRECTSOUNDBUFFER b = MakeBuffer(off.ds, Pcm(48000, 1, 16), 2000);
    Fill(b, [](BYTE* p, DWORD n) { Level16(p, n, 16384); });
    HANDLE last = CreateEventA(nullptr, FALSE, FALSE, nullptr), stop = CreateEventA(nullptr, FALSE, FALSE, nullptr);
    ASSERT_EQ(Notify(b, {{1999, last}, {DSBPN_OFFSETSTOP, stop}}), DS_OK);
    auto fired = [&] { return std::string{Signalled(last) ? 'L' : '-', Signalled(stop) ? 'S' : '-'}; };
    DWORD status = 0, play = 1, write = 1;
    auto positions = [&] {
        EXPECT_EQ(b->GetCurrentPosition(&play, &write), DS_OK);
        return std::make_pair(play, write);
    };

    ASSERT_EQ(b->Play(0, 0, 0), DS_OK);
    ASSERT_EQ(b->GetStatus(&status), DS_OK);
    EXPECT_EQ(status & (DSBSTATUS_PLAYING | DSBSTATUS_LOOPING), DSBSTATUS_PLAYING);
    off.Render(999);
    EXPECT_EQ(fired(), "--");
    std::vector<float> tail = off.Render(10);
    EXPECT_EQ(fired(), "LS");
    EXPECT_NEAR(tail[0], 0.5f, 1e-6f); // the last frame, then silence
    for (size_t i = 2; i < tail.size(); ++i) EXPECT_EQ(tail[i], 0.0f);
    ASSERT_EQ(b->GetStatus(&status), DS_OK);
    EXPECT_EQ(status & DSBSTATUS_PLAYING, 0u);
    EXPECT_EQ(positions(), std::make_pair(0u, 0u)) << "played once, it starts over";

    // Looping, it passes its end without stopping.
    ASSERT_EQ(b->Play(0, 0, DSBPLAY_LOOPING), DS_OK);
    ASSERT_EQ(b->GetStatus(&status), DS_OK);
    EXPECT_EQ(status & (DSBSTATUS_PLAYING | DSBSTATUS_LOOPING), DSBSTATUS_PLAYING | DSBSTATUS_LOOPING);
    tail = off.Render(2500);
    EXPECT_EQ(fired(), "L-");
    for (size_t i = 0; i < tail.size(); ++i) ASSERT_NEAR(tail[i], 0.5f, 1e-6f) << i;

    // Stop leaves the cursor after the last frame played; Play goes on from there.
    EXPECT_EQ(positions().first, 1000u); // 2500 frames into a 1000-frame loop
    ASSERT_EQ(b->Stop(), DS_OK);
    EXPECT_EQ(fired(), "-S");
    for (float s : off.Render(100)) EXPECT_EQ(s, 0.0f);
    EXPECT_EQ(positions(), std::make_pair(1000u, 1000u));
    ASSERT_EQ(b->Play(0, 0, 0), DS_OK);
    off.Render(250);
    EXPECT_EQ(positions().first, 1500u);
    EXPECT_NE(write, play) << "the write cursor leads while playing";
    off.Render(250); // reaches the end, played once
    EXPECT_EQ(fired(), "LS");

    b->Release();
    CloseHandle(last);
    CloseHandle(stop);
}

TEST(DSoundMixer, LockGivesTheSecondRegionOnAWrap)
{
    Offline off;
    LPDIRECTSOUNDBUFFER b = MakeBuffer(off.ds, Pcm(48000, 1, 16), 96000); // one second
    LPVOID p1 = nullptr, p2 = nullptr;
    DWORD b1 = 0, b2 = 0, play = 0, write = 0;
    ASSERT_EQ(b->Lock(0, 96000, &p1, &b1, &p2, &b2, 0), DS_OK);
    BYTE* base = static_cast<BYTE*>(p1);
    EXPECT_EQ(std::tuple(b1, p2, b2), std::tuple(96000u, nullptr, 0u));
    ASSERT_EQ(b->Unlock(p1, b1, p2, b2), DS_OK);

    ASSERT_EQ(b->Lock(95000, 3000, &p1, &b1, &p2, &b2, 0), DS_OK);
    EXPECT_EQ(std::tuple(p1, b1, p2, b2), std::tuple(static_cast<LPVOID>(base + 95000), 1000u, static_cast<LPVOID>(base), 2000u));
    // What goes into both regions is what plays across the wrap.
    Level16(p1, b1, 8192);
    Level16(p2, b2, -8192);
    ASSERT_EQ(b->Unlock(p1, b1, p2, b2), DS_OK);
    ASSERT_EQ(b->SetCurrentPosition(95000), DS_OK);
    ASSERT_EQ(b->Play(0, 0, DSBPLAY_LOOPING), DS_OK);
    const std::vector<float> out = Channel(off.Render(1500), 0);
    for (size_t i : {0, 499})
        EXPECT_NEAR(out[i], 0.25f, 1e-6f) << i;
    for (size_t i : {501, 1499})
        EXPECT_NEAR(out[i], -0.25f, 1e-6f) << i;

    // Without room for a second region the caller gets only the first.
    ASSERT_EQ(b->Lock(95000, 3000, &p1, &b1, nullptr, nullptr, 0), DS_OK);
    EXPECT_EQ(b1, 1000u);
    ASSERT_EQ(b->Unlock(p1, b1, nullptr, 0), DS_OK);

    // From the write cursor: 10 to 20 ms ahead of the play cursor while playing.
    ASSERT_EQ(b->GetCurrentPosition(&play, &write), DS_OK);
    ASSERT_EQ(b->Lock(0, 100, &p1, &b1, &p2, &b2, DSBLOCK_FROMWRITECURSOR), DS_OK);
    EXPECT_EQ(p1, base + write);
    const DWORD lead = (write + 96000 - play) % 96000 / 2;
    EXPECT_GE(lead, 480u);
    EXPECT_LE(lead, 960u);
    ASSERT_EQ(b->Unlock(p1, b1, p2, b2), DS_OK);
    b->Release();
}

TEST(DSoundMixer, EverySampleFormatConvertsToTheSameLevelAndOthersAreRefused)
{
    struct Case {
        const char* name;
        WAVEFORMATEX wfx;
        std::vector<double> ch; // channel values written
        float wantL, wantR;
    };
    constexpr double h = 0.70710678;
    const Case cases[] = {
        {"u8 mono", Pcm(48000, 1, 8), {0.5}, 0.5f, 0.5f},
        {"s16 stereo", Pcm(48000, 2, 16), {0.5, -0.25}, 0.5f, -0.25f},
        {"s24 mono", Pcm(48000, 1, 24), {-0.5}, -0.5f, -0.5f},
        {"s24 stereo", Pcm(48000, 2, 24), {0.5, -0.25}, 0.5f, -0.25f},
        {"s32 stereo", Pcm(48000, 2, 32), {0.5, -0.25}, 0.5f, -0.25f},
        {"u8 stereo", Pcm(48000, 2, 8), {-0.5, 0.25}, -0.5f, 0.25f},
        {"float mono", Pcm(48000, 1, 32, WAVE_FORMAT_IEEE_FLOAT), {0.375}, 0.375f, 0.375f},
        {"5.1 folded", Pcm(48000, 6, 16), {0.5, 0.0, 0.25, 0.75, 0.125, -0.25},
         static_cast<float>(0.5 + 0.25 * h + 0.125 * h), static_cast<float>(0.25 * h - 0.25 * h)},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Offline off;
        LPDIRECTSOUNDBUFFER b = MakeBuffer(off.ds, c.wfx, 480 * c.wfx.nBlockAlign);
        ASSERT_NE(b, nullptr);
        const int bits = c.wfx.wBitsPerSample;
        Fill(b, [&](BYTE* p, DWORD n) {
            for (DWORD at = 0; at < n;) {
                for (double v : c.ch) {
                    const float f = static_cast<float>(v);
                    const int64_t s = bits == 8 ? 128 + std::lround(v * 128) : std::llround(v * std::ldexp(1.0, bits - 1));
                    for (int k = 0; k < bits / 8; ++k)
                        p[at + k] = c.wfx.wFormatTag == WAVE_FORMAT_IEEE_FLOAT ? reinterpret_cast<const BYTE*>(&f)[k]
                                                                               : static_cast<BYTE>(s >> (8 * k));
                    at += bits / 8;
                }
            }
        });
        ASSERT_EQ(b->Play(0, 0, DSBPLAY_LOOPING), DS_OK);
        const std::vector<float> out = off.Render(240);
        EXPECT_NEAR(out[2 * 100], c.wantL, 1e-5f);
        EXPECT_NEAR(out[2 * 100 + 1], c.wantR, 1e-5f);
        b->Release();
    }

    Offline off;
    DSBUFFERDESC d = Desc(0, 1000);
    LPDIRECTSOUNDBUFFER b = nullptr;
    // What the mixer cannot play is refused, and so are impossible sizes.
    WAVEFORMATEX align = Pcm(22050, 2, 16), ok = Pcm(22050, 2, 16);
    align.nBlockAlign = 2;
    for (WAVEFORMATEX f : {Pcm(22050, 1, 12), Pcm(22050, 1, 16, 2), Pcm(22050, 1, 64, WAVE_FORMAT_IEEE_FLOAT),
                           Pcm(22050, 0, 16), Pcm(22050, 9, 16), Pcm(99, 1, 16), Pcm(100001, 1, 16), align}) {
        d.lpwfxFormat = &f;
        EXPECT_EQ(off.ds->CreateSoundBuffer(&d, &b, nullptr), DSERR_BADFORMAT) << f.wBitsPerSample << " " << f.nChannels;
    }
    d.lpwfxFormat = &ok;
    d.dwBufferBytes = 1002; // not whole frames
    EXPECT_EQ(off.ds->CreateSoundBuffer(&d, &b, nullptr), DSERR_INVALIDPARAM);
}
