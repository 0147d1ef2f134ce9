// How many streaming wave players one virtual wave output (paced in real time) carries
// with no late refill. Players stream files of several formats and rates; the count
// steps up, and each step prints the late refills (the play cursor had reached the
// segment being refilled), the process's CPU share, the slowest player's seconds of
// sound per second of time (under 1 the mixer falls behind and the sink plays gaps,
// which no refill sees as late), and how long after Play() returned each player's play
// cursor first moved (its first frame mixed).
//
//   player_voices [--seconds N per step, default 5] [--max N players, default 256]
#include <quavix/Quavix.h>

#include "platform/QXPlatform.h"
#include "platform/dsound/QXDSound.h"
#include "platform/backends/virtual/QXVirtual.h"
#include "platform/kernel/QXRealtime.h"

#include "BenchStats.h"
#include "BenchWave.h"

#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

struct Format {
    WORD tag, channels, bits;
    DWORD rate;
};

// A sine at amplitude 0.3 in every channel.
std::string WriteWave(const std::string& path, const Format& f, double seconds, double freq)
{
    const auto frames = static_cast<size_t>(seconds * f.rate);
    const WORD align = static_cast<WORD>(f.channels * f.bits / 8);
    std::string data;
    data.reserve(frames * align);
    for (size_t i = 0; i < frames; ++i) {
        const double x = 0.3 * std::sin(2 * M_PI * freq * double(i) / f.rate);
        for (WORD c = 0; c < f.channels; ++c) {
            if (f.tag == 3) {
                const auto v = static_cast<float>(x);
                data.append(reinterpret_cast<const char*>(&v), 4);
            } else if (f.bits == 8) {
                data += static_cast<char>(std::lround(128 + 127 * x));
            } else {
                const auto v = static_cast<int32_t>(std::lround(x * double((1u << (f.bits - 1)) - 1)));
                data += Le(static_cast<DWORD>(v), f.bits / 8);
            }
        }
    }
    std::string fmt = Le(f.tag, 2) + Le(f.channels, 2) + Le(f.rate, 4) + Le(f.rate * align, 4) + Le(align, 2) +
                      Le(f.bits, 2);
    if (f.tag != 1) fmt += Le(0, 2);
    std::string body = "WAVE" + std::string("fmt ") + Le(static_cast<DWORD>(fmt.size()), 4) + fmt + "data" +
                       Le(static_cast<DWORD>(data.size()), 4) + data + std::string(data.size() & 1, '\0');
    std::ofstream(path, std::ios::binary | std::ios::trunc) << "RIFF" << Le(static_cast<DWORD>(body.size()), 4) << body;
    return path;
}

// The buffer's play cursor, read by the benchmark once Play has returned.
class Player : public CWavePlay {
public:
    DWORD Cursor()
    {
        DWORD play = 0;
        if (m_pDSBuffer == nullptr || m_pDSBuffer->GetCurrentPosition(&play, nullptr) != DS_OK) return 0;
        return play;
    }
    int SegmentEnds() const { return m_nSegmentEnds.load(); }
};

// Seconds of sound in one of a player's segments: the part of 8192 bytes that holds
// whole frames.
DWORD SegmentBytes(const Format& f)
{
    const DWORD align = f.channels * f.bits / 8u;
    return 8192 - 8192 % align;
}

// Bytes played so far, to within a segment: whole segments counted by the notifications
// and the cursor's place in the current one.
double PlayedBytes(Player& p, const Format& f)
{
    const DWORD seg = SegmentBytes(f);
    return double(p.SegmentEnds()) * seg + double(p.Cursor() % seg);
}

double CpuSeconds()
{
    rusage ru{};
    getrusage(RUSAGE_SELF, &ru);
    return double(ru.ru_utime.tv_sec + ru.ru_stime.tv_sec) + double(ru.ru_utime.tv_usec + ru.ru_stime.tv_usec) / 1e6;
}

} // namespace

int main(int argc, char** argv)
{
    double seconds = 5;
    int maxPlayers = 256;
    for (int i = 1; i < argc; i += 2) {
        if (i + 1 < argc && std::strcmp(argv[i], "--seconds") == 0)
            seconds = std::max(1.0, std::atof(argv[i + 1]));
        else if (i + 1 < argc && std::strcmp(argv[i], "--max") == 0)
            maxPlayers = std::max(8, std::atoi(argv[i + 1]));
        else {
            std::fprintf(stderr, "usage: %s [--seconds N] [--max N]\n", argv[0]);
            return 2;
        }
    }
    setenv("QUAVIX_BACKEND", "virtual", 1);
    qxplat::QXVirtualSetDevices(1, 1, 1, 1);

    const Format formats[] = {{1, 2, 16, 44100}, {1, 1, 16, 22050}, {1, 1, 8, 11025},
                              {1, 2, 24, 48000}, {3, 2, 32, 48000}, {1, 2, 16, 32000}};
    const std::string dir = "/tmp/qx-player-voices-" + std::to_string(getpid());
    std::filesystem::create_directories(dir);
    std::vector<std::string> files;
    for (size_t k = 0; k < std::size(formats); ++k)
        files.push_back(WriteWave(dir + "/v" + std::to_string(k) + ".wav", formats[k], seconds + 3, 220.0 * double(k + 1)));

    CQuavix* q = CQuavix::InitQuavix();
    q->Initialize(QX_INIT_WAVE);
    if (q->OpenDevices() != 1 || q->StartDevices() != 1) {
        std::fprintf(stderr, "the virtual wave output does not start\n");
        return 1;
    }
    const int nDevice = 0;
    std::printf("virtual wave output %d (%s), %.0f s per step; files: 44.1k/16/2, 22.05k/16/1, 11.025k/8/1, "
                "48k/24/2, 48k/f32/2, 32k/16/2; CPU pollers: %d\n",
                nDevice, CWaveOut::DSGetDescription(nDevice), seconds, qxplat::CpuPollerCount());
    std::printf("%8s %12s %8s %9s  %s\n", "players", "late refills", "CPU", "realtime", "Play() to first frame mixed");

    double cpuAt64 = -1;
    int exitCode = 0;
    for (int n = 8; n <= maxPlayers; n *= 2) {
        const uint64_t lateBefore = CWavePlay::LateRefills();
        std::vector<std::unique_ptr<Player>> players;
        std::vector<Clock::time_point> started;
        std::vector<double> firstMixUs(static_cast<size_t>(n), -1);
        for (int i = 0; i < n; ++i) {
            auto p = std::make_unique<Player>();
            QX_WaveParams params{};
            params.nPerformance = 1;
            params.nTrack = i;
            params.dsParams.lpszFileName = files[static_cast<size_t>(i) % files.size()].c_str();
            // Owned here: Play hands it to the output's set, and deleting it takes it out.
            if (p->Play(&params, nDevice, 0, nullptr, 0, 0) != 1) {
                std::fprintf(stderr, "player %d does not play\n", i);
                exitCode = 1;
                break;
            }
            started.push_back(Clock::now());
            players.push_back(std::move(p));
        }
        // Watch the cursors for a while; the CPU share is taken after, without the watching.
        for (Clock::time_point until = Clock::now() + std::chrono::milliseconds(400); Clock::now() < until;) {
            for (size_t i = 0; i < players.size(); ++i) {
                if (firstMixUs[i] >= 0 || players[i]->Cursor() == 0) continue;
                firstMixUs[i] = std::chrono::duration<double, std::micro>(Clock::now() - started[i]).count();
            }
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
        std::vector<double> played0;
        for (size_t i = 0; i < players.size(); ++i)
            played0.push_back(PlayedBytes(*players[i], formats[i % std::size(formats)]));
        const double cpu0 = CpuSeconds();
        const Clock::time_point t0 = Clock::now();
        std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
        const double wall = std::chrono::duration<double>(Clock::now() - t0).count();
        const double cpuShare = (CpuSeconds() - cpu0) / wall;
        double slowest = 1e9;
        for (size_t i = 0; i < players.size(); ++i) {
            const Format& f = formats[i % std::size(formats)];
            const double played = (PlayedBytes(*players[i], f) - played0[i]) / (f.rate * f.channels * f.bits / 8.0);
            slowest = std::min(slowest, played / wall);
        }
        const uint64_t late = CWavePlay::LateRefills() - lateBefore;
        players.clear();

        std::vector<double> mixed;
        for (double v : firstMixUs)
            if (v >= 0) mixed.push_back(v);
        std::printf("%8d %12llu %7.1f%% %9.3f  ", n, static_cast<unsigned long long>(late), 100 * cpuShare, slowest);
        std::fflush(stdout);
        PrintStats("", mixed);
        if (mixed.size() < static_cast<size_t>(n)) std::printf("         (%zu players never moved)\n", n - mixed.size());
        if (n == 64) cpuAt64 = cpuShare;
        if (exitCode != 0) break;
    }
    if (cpuAt64 >= 0) std::printf("CPU share at 64 players: %.1f%% of one core\n", 100 * cpuAt64);
    CQuavix::ExitQuavix();
    std::filesystem::remove_all(dir);
    return exitCode;
}
