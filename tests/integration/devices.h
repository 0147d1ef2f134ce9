// What the tests of audio outputs and inputs on real servers share: a JACK client of the
// test's own, the drivers listed, a tone to play, a recording made through the waveIn
// calls, and the contract every port keeps.
#ifndef QUAVIX_TESTS_INTEGRATION_DEVICES_H
#define QUAVIX_TESTS_INTEGRATION_DEVICES_H

#include "harness.h"
#include "platform/QXPlatform.h"
#include "platform/backends/QXBackend.h"
#include "platform/dsound/QXDSound.h"
#include "platform/dsound/QXMixer.h"

#include <gtest/gtest.h>
#include <jack/jack.h>
#include <jack/midiport.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <functional>
#include <mutex>

namespace dev {

using namespace std::chrono_literals;

// A JACK client of the test's own: counts the server's xruns, answers about ports, and
// with `midi` keeps every event on its MIDI inputs "sent" (0) and "thru" (1).
class Probe {
public:
    struct Event {
        int port;
        jack_nframes_t frame; // absolute
        size_t size;
        unsigned char bytes[3], last;
    };
    explicit Probe(const char* name = "qxprobe", bool midi = false) : m_events(midi ? 1 << 16 : 0)
    {
        // A server just started may not answer yet.
        if (!harness::Await([&] { return (m_client = jack_client_open(name, JackNoStartServer, nullptr)) != nullptr; }))
            return;
        for (int p = 0; midi && p < 2; ++p)
            m_midi[p] = jack_port_register(m_client, p == 0 ? "sent" : "thru", JACK_DEFAULT_MIDI_TYPE, JackPortIsInput, 0);
        if (midi) jack_set_process_callback(m_client, Process, this);
        jack_set_xrun_callback(m_client, [](void* a) { return static_cast<Probe*>(a)->m_xruns.fetch_add(1), 0; }, this);
        if (jack_activate(m_client) != 0 || (midi && (m_midi[0] == nullptr || m_midi[1] == nullptr))) {
            jack_client_close(m_client);
            m_client = nullptr;
        }
    }
    ~Probe()
    {
        if (m_client != nullptr) jack_client_close(m_client);
    }
    Probe(const Probe&) = delete;
    Probe& operator=(const Probe&) = delete;

    jack_client_t* Client() const { return m_client; }
    int Xruns() const { return m_xruns.load(); }
    bool Exists(const std::string& port) const { return jack_port_by_name(m_client, port.c_str()) != nullptr; }
    bool WaitExists(const std::string& port) const
    {
        return harness::Await([&] { return Exists(port); });
    }
    // What a port is connected to (a new connection shows from the next cycle).
    std::vector<std::string> Connections(const std::string& port) const
    {
        std::vector<std::string> out;
        jack_port_t* p = jack_port_by_name(m_client, port.c_str());
        harness::Await([&] {
            const char** names = p != nullptr ? jack_port_get_all_connections(m_client, p) : nullptr;
            for (const char** n = names; n != nullptr && *n != nullptr; ++n) out.emplace_back(*n);
            if (names != nullptr) jack_free(names);
            return p == nullptr || !out.empty();
        }, 2s);
        return out;
    }
    // The first audio port whose name matches the pattern, or "".
    std::string Find(const std::string& pattern, unsigned long flags) const
    {
        std::string name;
        if (const char** ports = jack_get_ports(m_client, pattern.c_str(), JACK_DEFAULT_AUDIO_TYPE, flags)) {
            if (ports[0] != nullptr) name = ports[0];
            jack_free(ports);
        }
        return name;
    }
    // Connects `out` to `in` (a MIDI input of ours when it is a number), after taking
    // whatever else fed `in` away from it.
    bool ConnectOnly(const std::string& out, const std::string& in) const
    {
        if (out.empty() || in.empty()) return false;
        if (const char** from = jack_port_get_all_connections(m_client, jack_port_by_name(m_client, in.c_str()))) {
            for (const char** p = from; *p != nullptr; ++p) jack_disconnect(m_client, *p, in.c_str());
            jack_free(from);
        }
        return jack_connect(m_client, out.c_str(), in.c_str()) == 0;
    }
    bool ConnectOnly(const std::string& out, int midiIn) const { return ConnectOnly(out, jack_port_name(m_midi[midiIn])); }
    std::vector<Event> Events(int port) const
    {
        std::vector<Event> out;
        for (size_t i = 0; i < m_count.load(); ++i)
            if (m_events[i].port == port) out.push_back(m_events[i]);
        return out;
    }

private:
    static int Process(jack_nframes_t nframes, void* arg)
    {
        auto* self = static_cast<Probe*>(arg);
        const jack_nframes_t start = jack_last_frame_time(self->m_client);
        for (int p = 0; p < 2; ++p) {
            void* buf = jack_port_get_buffer(self->m_midi[p], nframes);
            jack_midi_event_t ev;
            for (jack_nframes_t i = 0; i < jack_midi_get_event_count(buf); ++i) {
                const size_t n = self->m_count.load();
                if (jack_midi_event_get(&ev, buf, i) != 0 || n >= self->m_events.size()) continue;
                Event& e = self->m_events[n];
                e = {p, start + ev.time, ev.size, {0, 0, 0}, ev.buffer[ev.size - 1]};
                std::copy_n(ev.buffer, std::min<size_t>(3, ev.size), e.bytes);
                self->m_count.store(n + 1);
            }
        }
        return 0;
    }
    jack_client_t* m_client = nullptr;
    jack_port_t* m_midi[2] = {nullptr, nullptr};
    std::vector<Event> m_events;
    std::atomic<size_t> m_count{0};
    std::atomic<int> m_xruns{0};
};

// A second output or input beside a first has ports of its own (`port`2_1 ...); closing
// one takes its ports away and leaves the other's.
template <class First, class Second>
void ExpectPortsOfTheirOwn(const Probe& probe, const std::string& port, First& first, Second& second)
{
    EXPECT_TRUE(probe.Exists(port + "2_1"));
    EXPECT_TRUE(probe.Exists(port + "2_2"));
    first.reset();
    EXPECT_FALSE(probe.Exists(port + "_1"));
    EXPECT_FALSE(probe.Exists(port + "_2"));
    EXPECT_TRUE(probe.Exists(port + "2_1"));
    second.reset();
    EXPECT_FALSE(probe.Exists(port + "2_1"));
}

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

inline WAVEFORMATEX Pcm16(DWORD rate, WORD channels)
{
    return {WAVE_FORMAT_PCM, channels, rate, rate * channels * 2u, static_cast<WORD>(channels * 2), 16, 0};
}

// A looping secondary buffer of one second of a 16-bit stereo sine.
inline LPDIRECTSOUNDBUFFER ToneBuffer(LPDIRECTSOUND ds, unsigned rate, double hz, double amplitude)
{
    WAVEFORMATEX wfx = Pcm16(rate, 2);
    DSBUFFERDESC desc{sizeof desc, DSBCAPS_CTRLVOLUME | DSBCAPS_GETCURRENTPOSITION2, rate * 4, 0, &wfx, {}};
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
    for (unsigned i = 0; i < 2 * rate; ++i)
        s[i] = static_cast<int16_t>(std::lround(amplitude * 32767 * std::sin(2 * M_PI * hz * (i / 2) / rate)));
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

// A looping 1 kHz tone through the default driver that the output takes; null when not.
inline LPDIRECTSOUNDBUFFER PlayTone(LPDIRECTSOUND* pds)
{
    EXPECT_EQ(DirectSoundCreate(nullptr, pds, nullptr), DS_OK);
    LPDIRECTSOUNDBUFFER b = *pds != nullptr ? ToneBuffer(*pds, 48000, 1000.0, 0.5) : nullptr;
    if (b == nullptr) return nullptr;
    EXPECT_EQ(b->Play(0, 0, DSBPLAY_LOOPING), DS_OK);
    EXPECT_TRUE(AwaitPlaying(b)) << "the output takes nothing";
    return b;
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

// Fed by a mixer for two seconds, the port never runs dry for long, unless the server
// says it fell behind (`fellBehind`); stopped, what is in the ring stays and silence is
// no underrun; running with nothing coming, every frame is.
inline void ExpectUnderrunsOnlyWhileRunningDry(qxplat::AudioOutPort& port, const std::function<bool()>& fellBehind)
{
    qxplat::ds::Mixer mixer(port.Rate(), qxplat::Resampler::Cubic);
    port.Start();
    mixer.StartThread(&port);
    std::this_thread::sleep_for(2s);
    mixer.StopThread();
    port.Stop();
    if (!fellBehind()) {
        EXPECT_LT(port.UnderrunFrames(), port.Rate() / 5) << "a fed output ran dry";
    }

    const uint64_t before = port.UnderrunFrames();
    qxplat::AudioRing& ring = port.Ring();
    ring.Skip(ring.Readable());
    std::vector<float> frames(2 * 1000, 0.1f);
    ASSERT_EQ(ring.Write(frames.data(), 1000), 1000u);
    std::this_thread::sleep_for(300ms); // what a stopped port must not do can only be looked for later
    EXPECT_EQ(ring.Readable(), 1000u);
    EXPECT_EQ(port.UnderrunFrames(), before);
    port.Start();
    EXPECT_TRUE(harness::Await([&] { return port.UnderrunFrames() >= before + port.Rate() / 10; }));
    EXPECT_EQ(ring.Readable(), 0u);
    port.Stop();
}

// Frames flow only between Start and Stop.
inline void ExpectStopEndsDeliveryAndStartResumesIt(qxplat::AudioInPort& port)
{
    qxplat::AudioRing& ring = port.Ring();
    std::this_thread::sleep_for(200ms);
    EXPECT_EQ(ring.Readable(), 0u) << "frames before Start";
    for (int round = 0; round < 3; ++round) {
        SCOPED_TRACE(round);
        port.Start();
        EXPECT_TRUE(harness::Await([&] { return ring.Readable() >= port.Rate() / 10; })) << "nothing after Start";
        port.Stop();
        ring.Skip(ring.Readable());
        std::this_thread::sleep_for(200ms);
        EXPECT_EQ(ring.Readable(), 0u) << "frames after Stop";
    }
}

// A 16-bit wave input. Full buffers come back through WIM_DATA on the capture thread,
// which may not call waveIn functions: the test's thread copies them and adds them again.
class Take {
public:
    Take() = default;
    Take(const Take&) = delete;
    Take& operator=(const Take&) = delete;
    ~Take() { Close(); }

    MMRESULT Open(UINT device, DWORD rate, WORD channels)
    {
        m_fmt = Pcm16(rate, channels);
        MMRESULT r = waveInOpen(&m_h, device, &m_fmt, reinterpret_cast<DWORD_PTR>(&Take::Proc),
                                reinterpret_cast<DWORD_PTR>(this), CALLBACK_FUNCTION);
        if (r != MMSYSERR_NOERROR) {
            m_h = nullptr;
            return r;
        }
        for (auto& b : m_buffers) {
            b.data.resize(rate / 20 * m_fmt.nBlockAlign); // 50 ms
            b.hdr.lpData = b.data.data();
            b.hdr.dwBufferLength = static_cast<DWORD>(b.data.size());
            if ((r = waveInPrepareHeader(m_h, &b.hdr, sizeof(WAVEHDR))) != MMSYSERR_NOERROR ||
                (r = waveInAddBuffer(m_h, &b.hdr, sizeof(WAVEHDR))) != MMSYSERR_NOERROR)
                return r;
        }
        return MMSYSERR_NOERROR;
    }
    HWAVEIN Handle() const { return m_h; }
    MMRESULT Start() { return waveInStart(m_h); }

    // Collects until the take holds `frames` frames, or the limit passes.
    bool Collect(size_t frames, std::chrono::milliseconds limit)
    {
        return harness::Await([&] { return Drain(true) >= frames * m_fmt.nChannels; }, limit);
    }
    // Ends the recording: what the buffers hold joins the take; each result is kept.
    void Close()
    {
        if (m_h == nullptr) return;
        m_stopResult = waveInStop(m_h);
        m_resetResult = waveInReset(m_h);
        Drain(false);
        for (auto& b : m_buffers) waveInUnprepareHeader(m_h, &b.hdr, sizeof(WAVEHDR));
        m_closeResult = waveInClose(m_h);
        m_h = nullptr;
    }
    MMRESULT StopResult() const { return m_stopResult; }
    MMRESULT ResetResult() const { return m_resetResult; }
    MMRESULT CloseResult() const { return m_closeResult; }

    size_t Frames() const { return m_samples.size() / m_fmt.nChannels; }
    // Every channel, interleaved, as float.
    std::vector<float> Samples() const
    {
        std::vector<float> out(m_samples.size());
        for (size_t i = 0; i < out.size(); ++i) out[i] = m_samples[i] / 32768.0f;
        return out;
    }
    std::vector<float> Channel(int ch) const
    {
        std::vector<float> out(Frames());
        for (size_t i = 0; i < out.size(); ++i) out[i] = m_samples[i * m_fmt.nChannels + ch] / 32768.0f;
        return out;
    }

private:
    struct Buffer {
        std::vector<char> data;
        WAVEHDR hdr{};
    };
    static void CALLBACK Proc(HWAVEIN, UINT msg, DWORD_PTR inst, DWORD_PTR p1, DWORD_PTR)
    {
        auto* self = reinterpret_cast<Take*>(inst);
        std::lock_guard<std::mutex> lock(self->m_lock);
        if (msg == WIM_DATA) self->m_done.push_back(reinterpret_cast<WAVEHDR*>(p1));
    }
    // What came back joins the take (and goes back to the input): how much the take holds.
    size_t Drain(bool bRequeue)
    {
        std::vector<WAVEHDR*> done;
        {
            std::lock_guard<std::mutex> lock(m_lock);
            done.swap(m_done);
        }
        for (WAVEHDR* h : done) {
            const auto* s = reinterpret_cast<const int16_t*>(h->lpData);
            m_samples.insert(m_samples.end(), s, s + h->dwBytesRecorded / 2);
            if (bRequeue) waveInAddBuffer(m_h, h, sizeof(WAVEHDR));
        }
        return m_samples.size();
    }

    WAVEFORMATEX m_fmt{};
    HWAVEIN m_h = nullptr;
    Buffer m_buffers[8];
    std::vector<int16_t> m_samples;
    std::mutex m_lock;
    std::vector<WAVEHDR*> m_done; // under m_lock
    MMRESULT m_stopResult = MMSYSERR_NOERROR, m_resetResult = MMSYSERR_NOERROR, m_closeResult = MMSYSERR_NOERROR;
};

// The name of wave input n as waveInGetDevCapsA gives it; empty when there is none.
inline std::string InputName(UINT n)
{
    WAVEINCAPSA caps{};
    return waveInGetDevCapsA(n, &caps, sizeof caps) == MMSYSERR_NOERROR ? std::string(caps.szPname) : std::string();
}

// The first wave input whose name contains `part`; -1 when none does.
inline int FindInput(const std::string& part)
{
    for (UINT i = 0; i < waveInGetNumDevs(); ++i)
        if (InputName(i).find(part) != std::string::npos) return static_cast<int>(i);
    return -1;
}

} // namespace dev

#endif // QUAVIX_TESTS_INTEGRATION_DEVICES_H
