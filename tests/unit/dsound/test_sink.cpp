// The lock-free ring between a mixer and its sink, and the virtual outputs' settings.
#include "platform/backends/QXBackend.h"
#include "platform/backends/virtual/QXVirtualAudio.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <thread>
#include <vector>

using qxplat::AudioRing;

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

TEST(DSoundSink, RingHandsEveryFrameFromOneThreadToAnother)
{
    AudioRing ring(256);
    constexpr uint32_t kFrames = 200000;
    std::thread producer([&] {
        std::vector<float> chunk(2 * 64);
        uint32_t next = 0;
        while (next < kFrames) {
            const uint32_t n = std::min<uint32_t>(64 - next % 7, kFrames - next);
            for (uint32_t i = 0; i < n; ++i) chunk[2 * i] = chunk[2 * i + 1] = static_cast<float>(next + i);
            uint32_t put = 0;
            while (put < n) {
                put += ring.Write(chunk.data() + 2 * put, n - put);
                if (put < n) std::this_thread::yield();
            }
            next += n;
        }
    });
    std::vector<float> got(2 * 50);
    uint32_t expect = 0;
    bool inOrder = true;
    while (expect < kFrames) {
        const uint32_t n = ring.Read(got.data(), 50);
        for (uint32_t i = 0; i < n; ++i, ++expect)
            inOrder = inOrder && got[2 * i] == static_cast<float>(expect) && got[2 * i + 1] == got[2 * i];
        if (n == 0) std::this_thread::yield();
    }
    producer.join();
    EXPECT_TRUE(inOrder);
    EXPECT_EQ(ring.Readable(), 0u);
}

TEST(DSoundSink, VirtualOutputSettings)
{
    EXPECT_EQ(qxplat::VirtualCapturePath("/tmp/out-%d.wav", 3), "/tmp/out-3.wav");
    EXPECT_EQ(qxplat::VirtualCapturePath("/tmp/a%db%d%x.wav", 12), "/tmp/a12b12%x.wav");
    EXPECT_EQ(qxplat::VirtualCapturePath("plain.wav", 1), "plain.wav");
    EXPECT_EQ(qxplat::VirtualCapturePath(nullptr, 1), "");

    unsetenv("QUAVIX_VIRTUAL_AUDIO_RATE");
    EXPECT_EQ(qxplat::VirtualAudioRate(), 48000u);
    setenv("QUAVIX_VIRTUAL_AUDIO_RATE", "44100", 1);
    EXPECT_EQ(qxplat::VirtualAudioRate(), 44100u);
    for (const char* bad : {"fast", "44100Hz", "100", "1000000", ""}) {
        setenv("QUAVIX_VIRTUAL_AUDIO_RATE", bad, 1);
        EXPECT_EQ(qxplat::VirtualAudioRate(), 48000u) << bad;
    }
    unsetenv("QUAVIX_VIRTUAL_AUDIO_RATE");

    std::unique_ptr<qxplat::AudioOutPort> port;
    ASSERT_EQ(qxplat::OpenVirtualAudioOut(0, port), MMSYSERR_NOERROR);
    EXPECT_EQ(port->Rate(), 48000u);
    EXPECT_GE(port->Ring().Capacity(), port->TargetFrames() + 240);
    // Started with nothing queued, it plays silence and counts what it missed.
    port->Start();
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    port->Stop();
    EXPECT_GT(port->UnderrunFrames(), 0u);
}
