// Output latency and underruns on PulseAudio (or PipeWire's pulse server).
//
//   pulse_latency [TRIES] [SOAK_SECONDS]     (defaults: 20 tries, a 60 s soak)
//
// Runs against the server libpulse finds (PULSE_SERVER, or the desktop's own); for a
// private one without hardware: tests/integration/pulse-server start DIR, then
// PULSE_SERVER=unix:DIR/native. It measures:
// - from Play of a secondary buffer on the default output to the first non-silent frame
//   that parec, recording the default sink's monitor, delivers, placed back in time by
//   the frames that followed it in the same read: an upper bound, since the monitor's
//   own fragment (10 ms asked) is included;
// - the latency the stream itself reports (pa_stream_get_latency), sampled every 100 ms
//   while a mixer feeds an output for the soak, and the underruns of that run.
#include "platform/backends/QXBackend.h"
#include "platform/backends/pulse/QXPulse.h"
#include "platform/dsound/QXDSound.h"
#include "platform/dsound/QXMixer.h"

#include "BenchStats.h"

#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

extern char** environ;

namespace {

using namespace std::chrono_literals;
constexpr unsigned kRecordRate = 48000;

// parec on the default monitor; every read is noted with the frame count after it and
// the time it returned.
class Monitor {
public:
    Monitor()
    {
        int fds[2];
        if (pipe(fds) != 0) return;
        posix_spawn_file_actions_t fa;
        posix_spawn_file_actions_init(&fa);
        posix_spawn_file_actions_adddup2(&fa, fds[1], 1);
        posix_spawn_file_actions_addclose(&fa, fds[0]);
        std::vector<std::string> args{"parec",          "-d",           "@DEFAULT_MONITOR@", "--raw",
                                      "--format=float32le", "--channels=1", "--rate=48000",      "--latency-msec=10"};
        std::vector<char*> argv;
        for (auto& a : args) argv.push_back(a.data());
        argv.push_back(nullptr);
        if (posix_spawnp(&m_pid, "parec", &fa, nullptr, argv.data(), environ) != 0) m_pid = -1;
        posix_spawn_file_actions_destroy(&fa);
        close(fds[1]);
        m_fd = fds[0];
        m_thread = std::thread([this] { Read(); });
    }
    ~Monitor()
    {
        if (m_pid > 0) {
            kill(m_pid, SIGTERM);
            waitpid(m_pid, nullptr, 0);
        }
        if (m_thread.joinable()) m_thread.join();
        if (m_fd >= 0) close(m_fd);
    }
    bool Running() const { return m_pid > 0; }

    size_t Frames()
    {
        std::lock_guard<std::mutex> lock(m_lock);
        return m_samples.size();
    }

    // Time (steady ns) of the first frame at or after `from` louder than the threshold;
    // -1 when none arrived yet.
    int64_t FirstLoud(size_t from)
    {
        std::lock_guard<std::mutex> lock(m_lock);
        for (size_t i = from; i < m_samples.size(); ++i) {
            if (std::fabs(m_samples[i]) < 0.05f) continue;
            for (const auto& [count, at] : m_reads)
                if (count > i) return at - static_cast<int64_t>(count - i) * 1'000'000'000 / kRecordRate;
        }
        return -1;
    }

private:
    void Read()
    {
        std::vector<char> partial;
        char buf[4096];
        for (;;) {
            const ssize_t n = read(m_fd, buf, sizeof buf);
            if (n <= 0) return;
            const int64_t now = qxplat::NowNs();
            partial.insert(partial.end(), buf, buf + n);
            const size_t whole = partial.size() / 4;
            std::lock_guard<std::mutex> lock(m_lock);
            const size_t at = m_samples.size();
            m_samples.resize(at + whole);
            std::memcpy(m_samples.data() + at, partial.data(), whole * 4);
            partial.erase(partial.begin(), partial.begin() + static_cast<ptrdiff_t>(whole * 4));
            m_reads.emplace_back(m_samples.size(), now);
        }
    }

    pid_t m_pid = -1;
    int m_fd = -1;
    std::thread m_thread;
    std::mutex m_lock;
    std::vector<float> m_samples;
    std::vector<std::pair<size_t, int64_t>> m_reads;
};

// 200 ms of a 1 kHz tone, then silence, in a one-second buffer played once.
LPDIRECTSOUNDBUFFER Burst(LPDIRECTSOUND ds)
{
    WAVEFORMATEX wfx{};
    wfx.wFormatTag = WAVE_FORMAT_PCM;
    wfx.nChannels = 2;
    wfx.nSamplesPerSec = 48000;
    wfx.wBitsPerSample = 16;
    wfx.nBlockAlign = 4;
    wfx.nAvgBytesPerSec = 48000 * 4;
    DSBUFFERDESC desc{};
    desc.dwSize = sizeof desc;
    desc.dwBufferBytes = 48000 * 4;
    desc.lpwfxFormat = &wfx;
    LPDIRECTSOUNDBUFFER b = nullptr;
    if (ds->CreateSoundBuffer(&desc, &b, nullptr) != DS_OK) return nullptr;
    void* p1 = nullptr;
    void* p2 = nullptr;
    DWORD n1 = 0, n2 = 0;
    if (b->Lock(0, desc.dwBufferBytes, &p1, &n1, &p2, &n2, 0) == DS_OK) {
        auto* s = static_cast<int16_t*>(p1);
        std::memset(s, 0, n1);
        for (int i = 0; i < 9600; ++i) {
            // Starts at its peak, so that the first frame already counts as sound.
            const auto v = static_cast<int16_t>(16000 * std::cos(2 * 3.14159265358979 * 1000.0 * i / 48000));
            s[2 * i] = s[2 * i + 1] = v;
        }
        b->Unlock(p1, n1, p2, n2);
    }
    return b;
}

} // namespace

int main(int argc, char** argv)
{
    const int tries = argc > 1 ? std::max(1, std::atoi(argv[1])) : 20;
    const int soak = argc > 2 ? std::max(1, std::atoi(argv[2])) : 60;
    setenv("QUAVIX_BACKEND", "pulse", 0); // PulseAudio's outputs (and the ALSA sequencer's MIDI)
    if (qxplat::PulseBackendIfServer() == nullptr) {
        std::printf("pulse_latency: no PulseAudio server answers (set PULSE_SERVER)\n");
        return 1;
    }
    qxplat::Backend& backend = qxplat::CurrentBackend();
    if (backend.Count(qxplat::DeviceKind::WaveOut) < 1) {
        std::printf("pulse_latency: the backend has no audio output\n");
        return 1;
    }
    std::printf("output 0: %s; server target %u ms, requests of %u ms\n",
                backend.DeviceName(qxplat::DeviceKind::WaveOut, 0).c_str(), qxplat::kPulseTargetMs,
                qxplat::kPulseRequestMs);

    {
        Monitor monitor;
        LPDIRECTSOUND ds = nullptr;
        if (!monitor.Running() || DirectSoundCreate(nullptr, &ds, nullptr) != DS_OK) {
            std::printf("pulse_latency: cannot record with parec or open the default output\n");
            return 1;
        }
        LPDIRECTSOUNDBUFFER b = Burst(ds);
        std::vector<double> latencies;
        std::this_thread::sleep_for(500ms);
        for (int t = 0; t < tries && b != nullptr; ++t) {
            const size_t from = monitor.Frames();
            const int64_t t0 = qxplat::NowNs();
            b->Play(0, 0, 0);
            int64_t heard = -1;
            while (heard < 0 && qxplat::NowNs() - t0 < 2'000'000'000) {
                std::this_thread::sleep_for(5ms);
                heard = monitor.FirstLoud(from);
            }
            if (heard >= 0) latencies.push_back(static_cast<double>(heard - t0) / 1000.0);
            std::this_thread::sleep_for(600ms); // the burst ends, silence follows
            b->Stop();
            b->SetCurrentPosition(0);
            std::this_thread::sleep_for(200ms);
        }
        PrintStats("Play to first frame on the sink's monitor (upper bound)", latencies);
        if (b != nullptr) b->Release();
        ds->Release();
    }

    std::unique_ptr<qxplat::AudioOutPort> port;
    if (backend.OpenAudioOut(0, port) != MMSYSERR_NOERROR) {
        std::printf("pulse_latency: cannot open output 0 for the soak\n");
        return 1;
    }
    std::vector<double> reported;
    uint32_t underflows = 0;
    {
        qxplat::ds::Mixer mixer(port->Rate(), qxplat::Resampler::Cubic);
        port->Start();
        mixer.StartThread(port.get());
        const int64_t end = qxplat::NowNs() + int64_t{soak} * 1'000'000'000;
        std::this_thread::sleep_for(500ms);
        while (qxplat::NowNs() < end) {
            int64_t us = 0;
            if (qxplat::PulseOutputLatency(port.get(), &us, &underflows)) reported.push_back(static_cast<double>(us));
            std::this_thread::sleep_for(100ms);
        }
        mixer.StopThread();
        port->Stop();
    }
    PrintStats("stream's reported latency", reported);
    std::printf("soak of %d s at %u Hz: %llu underrun frames, %u server underflows\n", soak, port->Rate(),
                static_cast<unsigned long long>(port->UnderrunFrames()), underflows);
    return 0;
}
