// What the tests of audio outputs on real servers share: the drivers listed, a tone to
// play, and the contract every output port keeps with the mixer that feeds it.
#ifndef QUAVIX_TESTS_INTEGRATION_AUDIO_OUT_H
#define QUAVIX_TESTS_INTEGRATION_AUDIO_OUT_H

#include "platform/backends/QXBackend.h"
#include "platform/dsound/QXDSound.h"
#include "platform/dsound/QXMixer.h"

#include "harness.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

namespace audioout {

struct Driver {
    bool hasGuid;
    GUID guid;
    std::string description, module;
};

inline std::vector<Driver> Drivers()
{
    std::vector<Driver> out;
    DirectSoundEnumerateA(
        [](LPGUID g, LPCSTR d, LPCSTR m, LPVOID ctx) -> BOOL {
            static_cast<std::vector<Driver>*>(ctx)->push_back({g != nullptr, g != nullptr ? *g : GUID{}, d, m});
            return TRUE;
        },
        &out);
    return out;
}

// A looping secondary buffer of one second of a 16-bit stereo sine.
inline LPDIRECTSOUNDBUFFER ToneBuffer(LPDIRECTSOUND ds, unsigned rate, double hz, double amplitude)
{
    WAVEFORMATEX wfx{};
    wfx.wFormatTag = WAVE_FORMAT_PCM;
    wfx.nChannels = 2;
    wfx.nSamplesPerSec = rate;
    wfx.wBitsPerSample = 16;
    wfx.nBlockAlign = 4;
    wfx.nAvgBytesPerSec = rate * 4;
    DSBUFFERDESC desc{};
    desc.dwSize = sizeof desc;
    desc.dwFlags = DSBCAPS_CTRLVOLUME | DSBCAPS_GETCURRENTPOSITION2;
    desc.dwBufferBytes = rate * 4;
    desc.lpwfxFormat = &wfx;
    LPDIRECTSOUNDBUFFER b = nullptr;
    if (ds->CreateSoundBuffer(&desc, &b, nullptr) != DS_OK) return nullptr;
    void* p1 = nullptr;
    void* p2 = nullptr;
    DWORD n1 = 0, n2 = 0;
    if (b->Lock(0, desc.dwBufferBytes, &p1, &n1, &p2, &n2, 0) != DS_OK) {
        b->Release();
        return nullptr;
    }
    auto* s = static_cast<int16_t*>(p1);
    for (unsigned i = 0; i < rate; ++i) {
        const auto v = static_cast<int16_t>(std::lround(amplitude * 32767 * std::sin(2 * 3.14159265358979323846 * hz * i / rate)));
        s[2 * i] = v;
        s[2 * i + 1] = v;
    }
    b->Unlock(p1, n1, p2, n2);
    return b;
}

// True once the buffer's play cursor moves: the output takes what the mixer makes.
inline bool AwaitPlaying(LPDIRECTSOUNDBUFFER b)
{
    DWORD first = 0, play = 0, write = 0;
    b->GetCurrentPosition(&first, &write);
    return harness::Await([&] { return b->GetCurrentPosition(&play, &write) == DS_OK && play != first; });
}

// Servers lost so far, and the name the last one was reported by.
inline std::atomic<int> g_serversLost{0};
inline std::string g_lastServerLost; // written before the count, read after it

inline void CountLostServers()
{
    qxplat::SetBackendEventProc([](qxplat::BackendEvent e, int, const char* server) {
        if (e != qxplat::BackendEvent::ServerLost) return;
        g_lastServerLost = server;
        g_serversLost.fetch_add(1);
    });
}

// A looping 1 kHz tone through the default driver that the output takes; null when not.
inline LPDIRECTSOUNDBUFFER PlayTone(LPDIRECTSOUND* pds)
{
    LPDIRECTSOUNDBUFFER b = nullptr;
    EXPECT_EQ(DirectSoundCreate(nullptr, pds, nullptr), DS_OK);
    if (*pds != nullptr) b = ToneBuffer(*pds, 48000, 1000.0, 0.5);
    EXPECT_NE(b, nullptr);
    if (b == nullptr) return nullptr;
    EXPECT_EQ(b->Play(0, 0, DSBPLAY_LOOPING), DS_OK);
    EXPECT_TRUE(AwaitPlaying(b)) << "the output takes nothing";
    return b;
}

// Fed by a mixer for two seconds, the port's ring never runs dry for long on an idle
// machine; the bound is generous so that a busy build machine does not fail it.
inline void ExpectAFedPortKeepsPlaying(qxplat::AudioOutPort& port)
{
    qxplat::ds::Mixer mixer(port.Rate(), qxplat::Resampler::Cubic);
    port.Start();
    mixer.StartThread(&port);
    std::this_thread::sleep_for(std::chrono::seconds(2));
    mixer.StopThread();
    port.Stop();
    std::printf("fed for 2 s: %llu frames of underrun\n", static_cast<unsigned long long>(port.UnderrunFrames()));
    EXPECT_LT(port.UnderrunFrames(), port.Rate() / 5) << "a fed output ran dry";
}

// Stopped, what is in the ring stays there and silence is no underrun; running with
// nothing more coming, those frames go, then every frame is an underrun.
inline void ExpectStopKeepsTheRingAndRunningDryIsCounted(qxplat::AudioOutPort& port)
{
    const uint32_t rate = port.Rate();
    const uint64_t before = port.UnderrunFrames();
    qxplat::AudioRing& ring = port.Ring();
    ring.Skip(ring.Readable());
    std::vector<float> frames(2 * 1000, 0.1f);
    ASSERT_EQ(ring.Write(frames.data(), 1000), 1000u);
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_EQ(ring.Readable(), 1000u);
    EXPECT_EQ(port.UnderrunFrames(), before);

    port.Start();
    harness::Await([&] { return port.UnderrunFrames() >= before + rate / 10; });
    EXPECT_EQ(ring.Readable(), 0u);
    EXPECT_GE(port.UnderrunFrames(), before + rate / 10);
    port.Stop();
}

} // namespace audioout

#endif // QUAVIX_TESTS_INTEGRATION_AUDIO_OUT_H
