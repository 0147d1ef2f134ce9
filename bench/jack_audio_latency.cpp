// Output latency on JACK: from Play of a secondary buffer holding a click to the first
// non-silent frame that a receiving JACK client, connected to our output port, sees.
//
//   jack_audio_latency [ROUNDS]     (default 50)
//
// Runs against the server JACK_DEFAULT_SERVER names (for a private one without hardware:
// tests/integration/jack-server start NAME PIDFILE). Both ends are placed on the server's
// frame clock: Play's moment by jack_time_to_frames, the click by the receiver's cycle
// start (jack_last_frame_time) plus its offset in the buffer. The target is at most two
// periods plus 1 ms.
#include "platform/backends/QXBackend.h"
#include "platform/backends/jack/QXJack.h"
#include "platform/dsound/QXDSound.h"

#include "BenchStats.h"

#include <jack/jack.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace std::chrono_literals;

// Notes the frame of the first non-silent sample after it is armed. The process callback
// reads and writes atomics only.
class Receiver {
public:
    Receiver()
    {
        m_client = jack_client_open("qxlatency", JackNoStartServer, nullptr);
        if (m_client == nullptr) return;
        m_port = jack_port_register(m_client, "in", JACK_DEFAULT_AUDIO_TYPE, JackPortIsInput, 0);
        jack_set_process_callback(m_client, Process, this);
        jack_set_xrun_callback(
            m_client, [](void* a) { return static_cast<Receiver*>(a)->m_xruns.fetch_add(1), 0; }, this);
        if (m_port == nullptr || jack_activate(m_client) != 0) {
            jack_client_close(m_client);
            m_client = nullptr;
        }
    }
    ~Receiver()
    {
        if (m_client != nullptr) jack_client_close(m_client);
    }
    Receiver(const Receiver&) = delete;
    Receiver& operator=(const Receiver&) = delete;

    jack_client_t* Client() const { return m_client; }
    bool Connect(const std::string& from) { return jack_connect(m_client, from.c_str(), jack_port_name(m_port)) == 0; }
    void Arm()
    {
        m_found.store(false);
        m_armed.store(true);
    }
    // The click's frame, once seen.
    bool Wait(std::chrono::milliseconds limit, jack_nframes_t& frame)
    {
        const auto end = std::chrono::steady_clock::now() + limit;
        while (!m_found.load() && std::chrono::steady_clock::now() < end) std::this_thread::sleep_for(200us);
        m_armed.store(false);
        frame = m_frame.load();
        return m_found.load();
    }
    int Xruns() const { return m_xruns.load(); }

private:
    // JACK hands our output's buffer over through its own semaphores, which
    // ThreadSanitizer cannot see.
    __attribute__((no_sanitize("thread"))) static int Process(jack_nframes_t nframes, void* arg)
    {
        auto* self = static_cast<Receiver*>(arg);
        if (!self->m_armed.load() || self->m_found.load()) return 0;
        const auto* in = static_cast<const float*>(jack_port_get_buffer(self->m_port, nframes));
        for (jack_nframes_t i = 0; i < nframes; ++i) {
            if (std::fabs(in[i]) > 0.01f) {
                self->m_frame.store(jack_last_frame_time(self->m_client) + i);
                self->m_found.store(true);
                break;
            }
        }
        return 0;
    }

    jack_client_t* m_client = nullptr;
    jack_port_t* m_port = nullptr;
    std::atomic<bool> m_armed{false};
    std::atomic<bool> m_found{false};
    std::atomic<jack_nframes_t> m_frame{0};
    std::atomic<int> m_xruns{0};
};

// A buffer at the output's rate (no resampling to smear the edge): a click of 1 ms at
// half scale at its start, then silence, played once.
LPDIRECTSOUNDBUFFER ClickBuffer(LPDIRECTSOUND ds, DWORD rate)
{
    WAVEFORMATEX wfx{};
    wfx.wFormatTag = WAVE_FORMAT_PCM;
    wfx.nChannels = 1;
    wfx.nSamplesPerSec = rate;
    wfx.wBitsPerSample = 16;
    wfx.nBlockAlign = 2;
    wfx.nAvgBytesPerSec = rate * 2;
    DSBUFFERDESC desc{};
    desc.dwSize = sizeof desc;
    desc.dwFlags = DSBCAPS_GETCURRENTPOSITION2;
    desc.dwBufferBytes = rate / 10 * 2;
    desc.lpwfxFormat = &wfx;
    LPDIRECTSOUNDBUFFER b = nullptr;
    if (ds->CreateSoundBuffer(&desc, &b, nullptr) != DS_OK) return nullptr;
    void* p1 = nullptr;
    void* p2 = nullptr;
    DWORD n1 = 0, n2 = 0;
    if (b->Lock(0, desc.dwBufferBytes, &p1, &n1, &p2, &n2, 0) != DS_OK) return b;
    auto* s = static_cast<int16_t*>(p1);
    std::fill(s, s + n1 / 2, int16_t{0});
    std::fill(s, s + rate / 1000, int16_t{16384});
    b->Unlock(p1, n1, p2, n2);
    return b;
}

} // namespace

int main(int argc, char** argv)
{
    const int rounds = argc > 1 ? std::max(1, std::atoi(argv[1])) : 50;
    setenv("QUAVIX_BACKEND", "jack", 1);
    Receiver recv;
    if (recv.Client() == nullptr) {
        std::fprintf(stderr, "jack_audio_latency: no JACK server answers (JACK_DEFAULT_SERVER)\n");
        return 1;
    }
    jack_client_t* c = recv.Client();
    const jack_nframes_t rate = jack_get_sample_rate(c), period = jack_get_buffer_size(c);

    qxplat::Backend& backend = qxplat::CurrentBackend();
    if (backend.Count(qxplat::DeviceKind::WaveOut) < 1) {
        std::fprintf(stderr, "jack_audio_latency: the JACK backend has no audio output\n");
        return 1;
    }
    uint32_t target = 0;
    {
        std::unique_ptr<qxplat::AudioOutPort> port;
        if (backend.OpenAudioOut(0, port) == MMSYSERR_NOERROR) target = port->TargetFrames();
    }
    LPDIRECTSOUND ds = nullptr;
    if (DirectSoundCreate(nullptr, &ds, nullptr) != DS_OK) {
        std::fprintf(stderr, "jack_audio_latency: DirectSoundCreate failed\n");
        return 1;
    }
    DSBUFFERDESC pd{};
    pd.dwSize = sizeof pd;
    pd.dwFlags = DSBCAPS_PRIMARYBUFFER;
    LPDIRECTSOUNDBUFFER primary = nullptr;
    if (ds->CreateSoundBuffer(&pd, &primary, nullptr) != DS_OK || primary->Play(0, 0, DSBPLAY_LOOPING) != DS_OK) {
        std::fprintf(stderr, "jack_audio_latency: the primary buffer does not play\n");
        return 1;
    }
    LPDIRECTSOUNDBUFFER click = ClickBuffer(ds, rate);
    if (click == nullptr || !recv.Connect(qxplat::JackClientName() + ":out_1")) {
        std::fprintf(stderr, "jack_audio_latency: no click buffer, or the receiver cannot connect\n");
        return 1;
    }
    std::this_thread::sleep_for(300ms); // the connection holds, the mixer runs

    std::printf("server: %u Hz, period %u frames (%.2f ms); ring target %u frames (%.2f ms)\n", rate, period,
                period * 1000.0 / rate, target, target * 1000.0 / rate);
    std::mt19937 random(12345);
    std::uniform_int_distribution<int> pause(30, 70);
    std::vector<double> us, frames;
    int missed = 0;
    const int xrunsBefore = recv.Xruns();
    const uint64_t underrunsBefore = qxplat::JackAudioUnderrunFramesAll();
    for (int i = 0; i < rounds; ++i) {
        click->Stop();
        click->SetCurrentPosition(0);
        // A pause of its own each round: Play falls anywhere within the cycle.
        std::this_thread::sleep_for(std::chrono::milliseconds(pause(random)));
        recv.Arm();
        const jack_nframes_t played = jack_time_to_frames(c, jack_get_time());
        click->Play(0, 0, 0);
        jack_nframes_t heard = 0;
        if (!recv.Wait(1000ms, heard)) {
            ++missed;
            continue;
        }
        const auto delta = static_cast<int32_t>(heard - played); // frame times wrap
        frames.push_back(delta);
        us.push_back(delta * 1e6 / rate);
    }
    const int xruns = recv.Xruns() - xrunsBefore;
    const uint64_t underruns = qxplat::JackAudioUnderrunFramesAll() - underrunsBefore;
    click->Release();
    primary->Release();
    ds->Release();

    PrintStats("Play to first frame heard", us);
    if (!frames.empty()) {
        std::vector<double> f = frames;
        std::sort(f.begin(), f.end());
        auto at = [&](double p) { return f[std::min(f.size() - 1, static_cast<size_t>(p * (f.size() - 1) + 0.5))]; };
        std::printf("in frames: median=%.0f p99=%.0f max=%.0f\n", at(0.5), at(0.99), f.back());
        const double limit = 2.0 * period + rate / 1000.0;
        std::printf("target: at most two periods plus 1 ms = %.0f frames (%.2f ms): median %s, p99 %s, max %s\n", limit,
                    limit * 1000.0 / rate, at(0.5) <= limit ? "met" : "MISSED", at(0.99) <= limit ? "met" : "MISSED",
                    f.back() <= limit ? "met" : "MISSED");
    }
    std::printf("rounds %d, clicks not heard %d, xruns %d, underrun frames %llu\n", rounds, missed, xruns,
                static_cast<unsigned long long>(underruns));
    return missed == 0 ? 0 : 1;
}
