// One-shot samples on one track for as long as an hour of use gives them: a performance
// hands several short files a period to track 0 of virtual wave output 0 (paced in real
// time), each displacing the one before. Prints, every 1000 files, the live players, the
// process's threads and its resident memory, which must stay flat.
//
//   player_soak [--files N, default 36000] [--per-period N, default 10]
#include <quavix/Quavix.h>

#include "platform/QXPlatform.h"
#include "platform/backends/virtual/QXVirtual.h"

#include "BenchWave.h"

#include <dirent.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>

namespace {

// 30 ms of a 16-bit stereo click at 48 kHz.
void WriteClick(const std::string& path)
{
    std::string data;
    for (int i = 0; i < 1440; ++i) {
        const auto v = static_cast<int16_t>(std::lround(8000 * std::exp(-i / 200.0) * std::sin(i * 0.3)));
        data += Le(static_cast<uint16_t>(v), 2) + Le(static_cast<uint16_t>(v), 2);
    }
    const std::string fmt = Le(1, 2) + Le(2, 2) + Le(48000, 4) + Le(192000, 4) + Le(4, 2) + Le(16, 2);
    const std::string body = "WAVEfmt " + Le(16, 4) + fmt + "data" + Le(DWORD(data.size()), 4) + data;
    std::ofstream(path, std::ios::binary) << "RIFF" << Le(DWORD(body.size()), 4) << body;
}

size_t Threads()
{
    size_t n = 0;
    if (DIR* d = opendir("/proc/self/task")) {
        while (dirent* e = readdir(d))
            if (e->d_name[0] != '.') ++n;
        closedir(d);
    }
    return n;
}

long ResidentKiB()
{
    long pages = 0, resident = 0;
    if (FILE* f = std::fopen("/proc/self/statm", "r")) {
        if (std::fscanf(f, "%ld %ld", &pages, &resident) != 2) resident = 0;
        std::fclose(f);
    }
    return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

struct Soak {
    std::string path;
    int nPerPeriod = 10;
    int nFiles = 36000;
    std::atomic<int> nHanded{0};
};

int Performance(DWORD_PTR dwUser, int nTag, DWORD dwStart, DWORD)
{
    auto* s = reinterpret_cast<Soak*>(dwUser);
    if (nTag < 0) return 1;
    CQXEventList events;
    for (int i = 0; i < s->nPerPeriod && s->nHanded < s->nFiles; ++i, ++s->nHanded) {
        auto* params = new QX_WaveParams{};
        params->nPerformance = nTag;
        params->nTrack = 0;
        params->dsParams.lpszFileName = s->path.c_str();
        auto* e = new CQXEventData;
        e->SetWaveData(params);
        e->SetTimeStamp(dwStart + DWORD(i * 100 / s->nPerPeriod));
        e->SetDevice(0);
        events.AddTail(e);
    }
    CQuavix::GetQuavix()->PlayBuffer(events);
    return s->nHanded < s->nFiles ? 1 : 0;
}

} // namespace

int main(int argc, char** argv)
{
    Soak soak;
    for (int i = 1; i + 1 < argc; i += 2) {
        if (std::strcmp(argv[i], "--files") == 0) soak.nFiles = std::atoi(argv[i + 1]);
        if (std::strcmp(argv[i], "--per-period") == 0) soak.nPerPeriod = std::atoi(argv[i + 1]);
    }
    setenv("QUAVIX_BACKEND", "virtual", 1);
    qxplat::QXVirtualSetDevices(0, 0, 0, 1);
    soak.path = "/tmp/quavix-soak-click-" + std::to_string(getpid()) + ".wav";
    WriteClick(soak.path);

    CQuavix* q = CQuavix::InitQuavix();
    q->Initialize(QX_INIT_WAVE);
    if (q->StartPerformance(Performance, reinterpret_cast<DWORD_PTR>(&soak), 1, 0) == 0 || !q->OpenDevices() ||
        !q->StartDevices()) {
        std::fprintf(stderr, "player_soak: the virtual wave output did not start\n");
        return 1;
    }
    std::printf("%d files of 30 ms on one track, %d a period\n", soak.nFiles, soak.nPerPeriod);
    std::printf("%8s %8s %8s %10s %12s\n", "files", "seconds", "threads", "players", "resident KiB");
    const auto t0 = std::chrono::steady_clock::now();
    size_t nMostThreads = 0, nMostPlayers = 0;
    long lFirstKiB = 0, lMostKiB = 0;
    for (int nNext = 1000; soak.nHanded < soak.nFiles;) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        nMostThreads = std::max(nMostThreads, Threads());
        nMostPlayers = std::max(nMostPlayers, QXLivePlayerCount());
        if (soak.nHanded < nNext) continue;
        const long lKiB = ResidentKiB();
        if (lFirstKiB == 0) lFirstKiB = lKiB;
        lMostKiB = std::max(lMostKiB, lKiB);
        std::printf("%8d %8.0f %8zu %10zu %12ld\n", soak.nHanded.load(),
                    std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count(), Threads(),
                    QXLivePlayerCount(), lKiB);
        std::fflush(stdout);
        nNext += 1000;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    std::printf("most threads %zu, most live players %zu, resident %ld KiB after 1000 files, at most %ld KiB\n",
                nMostThreads, nMostPlayers, lFirstKiB, lMostKiB);
    q->CloseDevices();
    CQuavix::ExitQuavix();
    std::remove(soak.path.c_str());
    return 0;
}
