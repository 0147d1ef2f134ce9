// What the tests of audio outputs and inputs on real servers share: a JACK client of the
// test's own, the drivers listed, a tone to play, a recording made through the waveIn
// calls, and the contract every port keeps.
#ifndef QUAVIX_TESTS_INTEGRATION_DEVICES_H
#define QUAVIX_TESTS_INTEGRATION_DEVICES_H

#include "analysis.h"
#include "harness.h"
#include "platform/QXPlatform.h"
#include "platform/backends/QXBackend.h"
#include "platform/dsound/QXDSound.h"
#include "platform/dsound/QXMixer.h"

#include <gtest/gtest.h>
#include <jack/jack.h>
#include <jack/midiport.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cmath>
#include <functional>

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
    bool WaitExists(const std::string& port) const { return harness::Await([&] { return Exists(port); }); }
    // PipeWire's JACK shows a port's coming and going to other clients a moment later.
    bool WaitGone(const std::string& port) const { return harness::Await([&] { return !Exists(port); }, 2s); }
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
    // Connects `out` ("": nothing) to `in` (a MIDI input of ours when it is a number),
    // after taking whatever else fed `in` away from it.
    bool ConnectOnly(const std::string& out, const std::string& in) const
    {
        if (in.empty()) return false;
        if (const char** from = jack_port_get_all_connections(m_client, jack_port_by_name(m_client, in.c_str()))) {
            for (const char** p = from; *p != nullptr; ++p) jack_disconnect(m_client, *p, in.c_str());
            jack_free(from);
        }
        return out.empty() || jack_connect(m_client, out.c_str(), in.c_str()) == 0;
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
    EXPECT_TRUE(probe.WaitExists(port + "2_1"));
    EXPECT_TRUE(probe.WaitExists(port + "2_2"));
    first.reset();
    EXPECT_TRUE(probe.WaitGone(port + "_1"));
    EXPECT_TRUE(probe.WaitGone(port + "_2"));
    EXPECT_TRUE(probe.Exists(port + "2_1"));
    second.reset();
    EXPECT_TRUE(probe.WaitGone(port + "2_1"));
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

// The backend's wave outputs are `outputs`, by name, and DirectSound lists the platform's
// own default and then each of them, of `module`; there are `inputs` wave inputs; no
// device past them or before them opens.
inline void ExpectDevices(const std::vector<std::string>& outputs, const char* module, UINT inputs)
{
    qxplat::Backend& b = qxplat::CurrentBackend();
    const int count = static_cast<int>(outputs.size());
    ASSERT_EQ(b.Count(qxplat::DeviceKind::WaveOut), count);
    for (int n = -1; n <= count; ++n)
        EXPECT_EQ(b.DeviceName(qxplat::DeviceKind::WaveOut, n), n >= 0 && n < count ? outputs[size_t(n)] : "") << n;
    const std::vector<Driver> ds = Drivers();
    ASSERT_EQ(ds.size(), outputs.size() + 1);
    EXPECT_FALSE(ds[0].hasGuid);
    for (size_t n = 0; n < outputs.size(); ++n) {
        EXPECT_TRUE(ds[n + 1].hasGuid);
        EXPECT_EQ(ds[n + 1].description, outputs[n]);
        EXPECT_EQ(ds[n + 1].module, module);
    }
    std::unique_ptr<qxplat::AudioOutPort> out;
    std::unique_ptr<qxplat::AudioInPort> in;
    WAVEINCAPSA caps{};
    const WAVEFORMATEX fmt = Pcm16(48000, 2);
    HWAVEIN h = nullptr;
    for (const int n : {-1, count}) EXPECT_EQ(b.OpenAudioOut(n, out), MMSYSERR_BADDEVICEID) << n;
    ASSERT_EQ(waveInGetNumDevs(), inputs);
    for (const int n : {-1, static_cast<int>(inputs)}) EXPECT_EQ(b.OpenAudioIn(n, in), MMSYSERR_BADDEVICEID) << n;
    EXPECT_EQ(waveInGetDevCapsA(inputs, &caps, sizeof caps), MMSYSERR_BADDEVICEID);
    EXPECT_EQ(waveInOpen(&h, inputs, &fmt, 0, 0, CALLBACK_NULL), MMSYSERR_BADDEVICEID);
    EXPECT_TRUE(out == nullptr && in == nullptr && h == nullptr);
}

// A looping 1 kHz tone at `amplitude` from a 16-bit stereo buffer at `rate` through a
// driver (null: the default) beside a playing primary buffer, as an application has it;
// `playing` once the output takes it.
struct Tone {
    LPDIRECTSOUND ds = nullptr;
    LPDIRECTSOUNDBUFFER primary = nullptr, buffer = nullptr;
    bool playing = false;

    explicit Tone(const GUID* guid = nullptr, double amplitude = 0.5, unsigned rate = 48000)
    {
        WAVEFORMATEX wfx = Pcm16(rate, 2);
        DSBUFFERDESC pd{sizeof pd, DSBCAPS_PRIMARYBUFFER, 0, 0, nullptr, {}};
        DSBUFFERDESC desc{sizeof desc, DSBCAPS_CTRLVOLUME | DSBCAPS_GETCURRENTPOSITION2, rate * 4, 0, &wfx, {}};
        void* p = nullptr;
        DWORD n = 0, first = 0, play = 0, write = 0;
        if (DirectSoundCreate(guid, &ds, nullptr) != DS_OK || ds->CreateSoundBuffer(&pd, &primary, nullptr) != DS_OK ||
            primary->Play(0, 0, DSBPLAY_LOOPING) != DS_OK || ds->CreateSoundBuffer(&desc, &buffer, nullptr) != DS_OK ||
            buffer->Lock(0, desc.dwBufferBytes, &p, &n, nullptr, nullptr, 0) != DS_OK)
            return;
        for (unsigned i = 0; i < 2 * rate; ++i)
            static_cast<int16_t*>(p)[i] =
                static_cast<int16_t>(std::lround(amplitude * 32767 * std::sin(2 * M_PI * 1000 * (i / 2) / rate)));
        buffer->GetCurrentPosition(&first, &write);
        playing = buffer->Unlock(p, n, nullptr, 0) == DS_OK && buffer->Play(0, 0, DSBPLAY_LOOPING) == DS_OK &&
                  harness::Await([&] { return buffer->GetCurrentPosition(&play, &write) == DS_OK && play != first; });
    }
    ~Tone() { Release(); }
    Tone(const Tone&) = delete;
    Tone& operator=(const Tone&) = delete;
    void Release()
    {
        if (buffer != nullptr) buffer->Release();
        if (primary != nullptr) primary->Release();
        if (ds != nullptr) ds->Release();
        buffer = primary = nullptr;
        ds = nullptr;
    }
};

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

// A 16-bit wave input recording into buffers of the given lengths, one after the other.
class Take {
public:
    explicit Take(std::vector<double> seconds = {1.0}) : m_seconds(std::move(seconds)), m_buffers(m_seconds.size()) {}
    Take(const Take&) = delete;
    Take& operator=(const Take&) = delete;
    ~Take() { Close(); }

    MMRESULT Open(UINT device, DWORD rate, WORD channels)
    {
        m_fmt = Pcm16(rate, channels);
        MMRESULT r = waveInOpen(&m_h, device, &m_fmt, reinterpret_cast<DWORD_PTR>(&Take::Proc),
                                reinterpret_cast<DWORD_PTR>(this), CALLBACK_FUNCTION);
        if (r != MMSYSERR_NOERROR) m_h = nullptr;
        for (size_t i = 0; r == MMSYSERR_NOERROR && i < m_buffers.size(); ++i) {
            Buffer& b = m_buffers[i];
            b.data.resize(static_cast<size_t>(m_seconds[i] * rate) * m_fmt.nBlockAlign);
            b.hdr.lpData = b.data.data();
            b.hdr.dwBufferLength = static_cast<DWORD>(b.data.size());
            if ((r = waveInPrepareHeader(m_h, &b.hdr, sizeof(WAVEHDR))) == MMSYSERR_NOERROR)
                r = waveInAddBuffer(m_h, &b.hdr, sizeof(WAVEHDR));
        }
        return r;
    }
    HWAVEIN Handle() const { return m_h; }
    MMRESULT Start() { return waveInStart(m_h); }
    // True once the first buffer is full, before the limit passes.
    bool Collect(std::chrono::milliseconds limit) { return harness::Await([&] { return m_full.load(); }, limit); }
    // Ends the recording; what waveInStop, waveInReset and waveInClose said is kept.
    void Close()
    {
        if (m_h == nullptr) return;
        ended[0] = waveInStop(m_h);
        ended[1] = waveInReset(m_h);
        for (auto& b : m_buffers) waveInUnprepareHeader(m_h, &b.hdr, sizeof(WAVEHDR));
        ended[2] = waveInClose(m_h);
        m_h = nullptr;
    }
    std::array<MMRESULT, 3> ended{};

    // Every channel interleaved (or only `channel`), as float: what the buffers took.
    std::vector<float> Samples(int channel = -1) const
    {
        std::vector<float> out;
        for (const Buffer& b : m_buffers) {
            const auto* s = reinterpret_cast<const int16_t*>(b.data.data());
            for (size_t i = 0; i < b.hdr.dwBytesRecorded / 2; ++i)
                if (channel < 0 || i % m_fmt.nChannels == size_t(channel)) out.push_back(s[i] / 32768.0f);
        }
        return out;
    }

private:
    struct Buffer {
        std::vector<char> data;
        WAVEHDR hdr{};
    };
    static void CALLBACK Proc(HWAVEIN, UINT msg, DWORD_PTR inst, DWORD_PTR, DWORD_PTR)
    {
        if (msg == WIM_DATA) reinterpret_cast<Take*>(inst)->m_full.store(true);
    }

    WAVEFORMATEX m_fmt{};
    HWAVEIN m_h = nullptr;
    std::vector<double> m_seconds;
    std::vector<Buffer> m_buffers;
    std::atomic<bool> m_full{false};
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
