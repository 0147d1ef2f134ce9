// Start lateness of wave events handed by a performance: each period, one click at a
// random moment of it goes to the manager as a time-stamped wave data event; the
// virtual wave output's capture (which starts with the primary buffer, at StartDevices)
// is then searched for each click's onset. Prints onset - time stamp and the jitter
// alone: the same less its median. The player starts each click early by the output's
// declared latency, which the virtual output keeps exactly, so the median is only where
// the capture began against the performance's start (under a tick); the jitter is what
// the start's way down to DirectSound adds (the player's timer, the manager's thread).
//
// On a sound server's or ALSA's output the sound is recorded from the default sink's
// monitor with parec instead, which starts at a moment of its own: there only the jitter
// counts (each click against the others), and the sink's clock is what it tests.
//
//   wave_start [--seconds N, default 20] [--backend virtual|pulse|alsa]
//   (pulse, alsa: PULSE_SERVER=unix:DIR/native, e.g. from tests/integration/pulse-server)
#include <quavix/Quavix.h>

#include "platform/QXPlatform.h"
#include "platform/backends/virtual/QXVirtual.h"

#include "BenchStats.h"
#include "BenchWave.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

extern char** environ;

namespace {

constexpr DWORD kRate = 48000;
constexpr int kTracks = 8; // a click's player is displaced by the one kTracks periods later

// 4 ms at half scale, then 6 ms of silence: 16-bit mono at the output's own rate, so
// that the onset is not smeared by resampling.
void WriteClick(const std::string& path)
{
    std::string data;
    for (DWORD i = 0; i < kRate / 100; ++i) data += Le(i < kRate / 250 ? 16384u : 0u, 2);
    std::string fmt = Le(1, 2) + Le(1, 2) + Le(kRate, 4) + Le(kRate * 2, 4) + Le(2, 2) + Le(16, 2);
    std::string body = "WAVE" + std::string("fmt ") + Le(16, 4) + fmt + "data" +
                       Le(static_cast<DWORD>(data.size()), 4) + data;
    std::ofstream(path, std::ios::binary | std::ios::trunc) << "RIFF" << Le(static_cast<DWORD>(body.size()), 4) << body;
}

struct Script {
    std::string click;
    std::mt19937 random{12345};
    int periods = 0; // clicks to hand
    std::atomic<int> handed{0};
    std::mutex mutex;
    std::vector<DWORD> stamps; // performance milliseconds
};

int ClickPerformance(DWORD_PTR dwUser, int nTag, DWORD dwStart, DWORD dwEnd)
{
    auto* s = reinterpret_cast<Script*>(dwUser);
    if (nTag < 0) return 1;
    const int n = s->handed.load();
    if (n >= s->periods) return 1; // ending would take the last players with it
    // Leaves 40 ms at the period's end, so that every click follows a quiet stretch.
    const DWORD span = dwEnd - dwStart > 50 ? dwEnd - dwStart - 40 : 1;
    const DWORD stamp = dwStart + std::uniform_int_distribution<DWORD>(0, span - 1)(s->random);
    auto* params = new QX_WaveParams{};
    params->nPerformance = nTag;
    params->nTrack = n % kTracks;
    params->dsParams.lpszFileName = s->click.c_str();
    auto* e = new CQXEventData;
    e->SetWaveData(params);
    e->SetTimeStamp(stamp);
    e->SetDevice(0);
    CQXEventList events;
    events.AddTail(e);
    {
        std::lock_guard<std::mutex> lock(s->mutex);
        s->stamps.push_back(stamp);
    }
    CQuavix::GetQuavix()->PlayBuffer(events);
    s->handed.store(n + 1);
    return 1;
}

// The capture's left channel: 16-bit stereo, data found by walking the chunks (or all
// of a raw recording).
std::vector<int16_t> ReadCapture(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    std::vector<int16_t> left;
    if (path.size() > 4 && path.compare(path.size() - 4, 4, ".raw") == 0) {
        for (size_t i = 0; i + 4 <= bytes.size(); i += 4) {
            int16_t v = 0;
            std::memcpy(&v, &bytes[i], 2);
            left.push_back(v);
        }
        return left;
    }
    for (size_t at = 12; at + 8 <= bytes.size();) {
        uint32_t size = 0;
        std::memcpy(&size, &bytes[at + 4], 4);
        if (bytes.compare(at, 4, "data") == 0) {
            const size_t end = std::min(bytes.size(), at + 8 + size);
            for (size_t i = at + 8; i + 4 <= end; i += 4) {
                int16_t v = 0;
                std::memcpy(&v, &bytes[i], 2);
                left.push_back(v);
            }
            break;
        }
        at += 8 + size + (size & 1);
    }
    return left;
}

} // namespace

int main(int argc, char** argv)
{
    int seconds = 20;
    std::string backend = "virtual";
    for (int i = 1; i < argc; i += 2) {
        if (i + 1 < argc && std::strcmp(argv[i], "--seconds") == 0)
            seconds = std::max(2, std::atoi(argv[i + 1]));
        else if (i + 1 < argc && std::strcmp(argv[i], "--backend") == 0)
            backend = argv[i + 1];
        else {
            std::fprintf(stderr, "usage: %s [--seconds N] [--backend virtual|pulse|alsa]\n", argv[0]);
            return 2;
        }
    }
    const bool virtualOut = backend == "virtual";
    const std::string base = "/tmp/qx-wave-start-" + std::to_string(getpid());
    setenv("QUAVIX_BACKEND", backend.c_str(), 1);
    pid_t parec = 0;
    if (virtualOut) {
        setenv("QUAVIX_VIRTUAL_WAVE_OUT_CAPTURE", (base + "-%d.wav").c_str(), 1);
        setenv("QUAVIX_VIRTUAL_AUDIO_RATE", std::to_string(kRate).c_str(), 1);
        qxplat::QXVirtualSetDevices(1, 1, 1, 1);
    } else {
        const std::string file = base + "-0.raw";
        const char* args[] = {"parec",        "--device=@DEFAULT_MONITOR@", "--format=s16le", "--rate=48000",
                              "--channels=2", "--latency-msec=10",          nullptr};
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, 1, file.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        const int spawned = posix_spawnp(&parec, "parec", &actions, nullptr, const_cast<char**>(args), environ);
        posix_spawn_file_actions_destroy(&actions);
        if (spawned != 0) {
            std::fprintf(stderr, "parec (pulseaudio-utils) does not start\n");
            return 1;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
    }

    Script script;
    script.click = base + "-click.wav";
    script.periods = seconds * 10;
    WriteClick(script.click);

    CQuavix* q = CQuavix::InitQuavix();
    q->Initialize(QX_INIT_WAVE);
    // Wave outputs only: no MIDI output gives the engine its clock, so periods run on
    // the manager's own timer.
    if (q->StartPerformance(ClickPerformance, reinterpret_cast<DWORD_PTR>(&script), 1, 0) == 0 ||
        q->OpenDevices() != 1 || q->StartDevices() != 1) {
        std::fprintf(stderr, "the performance or the virtual wave output does not start\n");
        return 1;
    }
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds + 10);
    while (script.handed.load() < script.periods && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    std::this_thread::sleep_for(std::chrono::milliseconds(1000)); // the last clicks sound
    q->StopDevices();
    q->CloseDevices();
    CQuavix::ExitQuavix();
    if (parec != 0) {
        kill(parec, SIGINT);
        waitpid(parec, nullptr, 0);
    }

    std::string capture;
    for (int n = 0; n <= 2 && capture.empty(); ++n) {
        const std::string path = base + "-" + std::to_string(n) + (virtualOut ? ".wav" : ".raw");
        if (std::ifstream(path).good()) capture = path;
    }
    const std::vector<int16_t> left = capture.empty() ? std::vector<int16_t>{} : ReadCapture(capture);
    // Onsets: the first loud sample after at least 20 ms of quiet.
    std::vector<double> onsetsMs;
    size_t quiet = kRate;
    for (size_t i = 0; i < left.size(); ++i) {
        if (std::abs(left[i]) > 2000) {
            if (quiet >= kRate / 50) onsetsMs.push_back(1000.0 * double(i) / kRate);
            quiet = 0;
        } else {
            ++quiet;
        }
    }
    std::vector<DWORD> stamps;
    {
        std::lock_guard<std::mutex> lock(script.mutex);
        stamps = script.stamps;
    }
    std::printf("capture %s: %.1f s; %zu clicks handed, %zu onsets found\n", capture.c_str(),
                double(left.size()) / kRate, stamps.size(), onsetsMs.size());
    // A recording that began at a moment of its own is put on the performance's time by
    // the first click.
    const double shift = !virtualOut && !onsetsMs.empty() && !stamps.empty() ? onsetsMs[0] - stamps[0] - 1.0 : 0.0;
    // Each stamp takes the first onset at or after it (less a margin for an early sound).
    std::vector<double> lateUs;
    size_t o = 0;
    for (DWORD stamp : stamps) {
        while (o < onsetsMs.size() && onsetsMs[o] - shift < double(stamp) - 5) ++o;
        if (o == onsetsMs.size()) break;
        if (onsetsMs[o] - shift - stamp < 90)
            lateUs.push_back(1000.0 * (onsetsMs[o++] - shift - stamp));
        else
            std::printf("no onset for the click at %u ms (next onset at %.1f ms)\n", static_cast<unsigned>(stamp),
                        onsetsMs[o]);
    }
    if (lateUs.size() != stamps.size()) std::printf("%zu clicks matched no onset\n", stamps.size() - lateUs.size());
    PrintStats("onset - time stamp", lateUs);
    if (!lateUs.empty()) {
        std::vector<double> sorted = lateUs;
        std::sort(sorted.begin(), sorted.end());
        const double median = sorted[sorted.size() / 2];
        std::vector<double> jitter;
        for (double v : lateUs) jitter.push_back(v - median);
        PrintStats("jitter (less the median, the sink's constant latency)", jitter);
        std::vector<double> absJitter;
        for (double v : jitter) absJitter.push_back(std::fabs(v));
        PrintStats("|jitter|", absJitter);
    }
    std::remove(script.click.c_str());
    if (!capture.empty()) std::remove(capture.c_str());
    return lateUs.empty() ? 1 : 0;
}
