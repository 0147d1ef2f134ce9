// quavix perform's peak memory against the length of the file it plays: dense files of
// 1,000, 100,000 and 480,000 events (16 tracks of short notes), played 20 times as fast
// on the virtual backend's MIDI output 0, as a child whose peak resident size wait4
// reports.
#include "Smf.h"

#include <fcntl.h>
#include <malloc.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

qxsmf::File DenseFile(size_t events)
{
    qxsmf::File file;
    file.format = 1;
    file.division = 480;
    for (int ch = 0; ch < 16; ++ch) {
        qxsmf::Track track;
        uint64_t tick = 0;
        for (size_t i = 0; i < events / 32; ++i, tick += 12) {
            const auto note = static_cast<uint8_t>(36 + i % 48);
            track.events.push_back({tick, qxsmf::Kind::Channel, 0, {static_cast<uint8_t>(0x90 | ch), note, 90}});
            track.events.push_back({tick + 6, qxsmf::Kind::Channel, 0, {static_cast<uint8_t>(0x80 | ch), note, 0}});
        }
        file.tracks.push_back(std::move(track));
    }
    return file;
}

} // namespace

int main()
{
    // The files are written first and their memory given back: a child's peak counts
    // what it inherits at the fork, before it becomes quavix.
    const size_t sizes[] = {1000, 100000, 480000};
    std::string paths[3];
    size_t bytes[3];
    for (int i = 0; i < 3; ++i) {
        paths[i] = "/tmp/quavix-perform-memory-" + std::to_string(getpid()) + "-" + std::to_string(i) + ".mid";
        std::string error;
        const qxsmf::File file = DenseFile(sizes[i]);
        bytes[i] = qxsmf::Serialize(file).size();
        if (!qxsmf::Write(paths[i], file, error)) {
            std::fprintf(stderr, "perform_memory: %s\n", error.c_str());
            return 1;
        }
    }
    malloc_trim(0);
    std::printf("%10s %10s %12s %10s\n", "events", "file KB", "peak RSS MB", "wall s");
    int failed = 0;
    for (int i = 0; i < 3; ++i) {
        const auto start = std::chrono::steady_clock::now();
        const pid_t pid = fork();
        if (pid == 0) {
            setenv("QUAVIX_BACKEND", "virtual", 1);
            const int null = open("/dev/null", O_WRONLY);
            if (null >= 0) dup2(null, STDOUT_FILENO);
            execl(QUAVIX_CLI, QUAVIX_CLI, "perform", paths[i].c_str(), "--output", "0", "--tempo-scale", "20",
                  "--quiet", static_cast<char*>(nullptr));
            _exit(127);
        }
        int status = 0;
        rusage ru{};
        wait4(pid, &status, 0, &ru);
        const double wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        unlink(paths[i].c_str());
        if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
            std::fprintf(stderr, "perform_memory: quavix perform failed (status %d)\n", status);
            ++failed;
            continue;
        }
        std::printf("%10zu %10.0f %12.1f %10.1f\n", sizes[i], static_cast<double>(bytes[i]) / 1024.0,
                    static_cast<double>(ru.ru_maxrss) / 1024.0, wall);
    }
    return failed == 0 ? 0 : 1;
}
