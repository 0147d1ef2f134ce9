// Rendering a MIDI file to a WAV file, as fast as the CPU allows: `quavix render` beside
// FluidSynth's own file renderer (`fluidsynth -F`), with the same SoundFont at 48 kHz,
// on the demo piece and on a dense 16-channel file. Each program runs as a child, in
// turns, five times; the median wall time from start to exit (SoundFont loading included)
// and the times real time it makes are printed.
//
// Usage: render_speed [SOUNDFONT]   (default /usr/share/sounds/sf2/default-GM.sf2)
#include "Smf.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

// 16 channels of another program each, a note every 100 ms on each, over 60 s.
qxsmf::File DenseFile()
{
    qxsmf::File file;
    file.format = 1;
    file.division = 480; // 120 bpm: a tick is 1.04 ms
    for (uint8_t ch = 0; ch < 16; ++ch) {
        qxsmf::Track track;
        if (ch != 9) track.events.push_back({0, qxsmf::Kind::Channel, 0, {uint8_t(0xC0 | ch), uint8_t(ch * 7)}});
        for (uint64_t i = 0, tick = ch; tick < 57'600; ++i, tick += 96) {
            const auto note = static_cast<uint8_t>(40 + (i * 5 + ch) % 40);
            track.events.push_back({tick, qxsmf::Kind::Channel, 0, {uint8_t(0x90 | ch), note, 90}});
            track.events.push_back({tick + 180, qxsmf::Kind::Channel, 0, {uint8_t(0x80 | ch), note, 0}});
        }
        std::stable_sort(track.events.begin(), track.events.end(),
                         [](const qxsmf::Event& a, const qxsmf::Event& b) { return a.tick < b.tick; });
        file.tracks.push_back(std::move(track));
    }
    return file;
}

// Wall seconds from start to exit, or a negative number when it failed.
double Run(const std::vector<std::string>& argv, const std::string& soundFont)
{
    const auto start = std::chrono::steady_clock::now();
    const pid_t pid = fork();
    if (pid == 0) {
        setenv("QUAVIX_SOUNDFONT", soundFont.c_str(), 1);
        const int null = open("/dev/null", O_WRONLY);
        if (null >= 0) dup2(null, STDOUT_FILENO);
        std::vector<char*> args;
        for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
        args.push_back(nullptr);
        execvp(args[0], args.data());
        _exit(127);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    const double wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    return WIFEXITED(status) && WEXITSTATUS(status) == 0 ? wall : -1;
}

double Median(std::vector<double> v)
{
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

} // namespace

int main(int argc, char** argv)
{
    const std::string font = argc > 1 ? argv[1] : "/usr/share/sounds/sf2/default-GM.sf2";
    const std::string dense = "/tmp/quavix-render-speed-" + std::to_string(getpid()) + ".mid";
    const std::string out = "/tmp/quavix-render-speed-" + std::to_string(getpid()) + ".wav";
    std::string error;
    if (!qxsmf::Write(dense, DenseFile(), error)) {
        std::fprintf(stderr, "render_speed: %s\n", error.c_str());
        return 1;
    }
    struct Piece {
        const char* name;
        std::string path;
    } pieces[] = {{"demo piece", QUAVIX_SOURCE_DIR "/examples/quavix-demo.mid"}, {"dense, 16 channels", dense}};
    std::printf("SoundFont %s, 48 kHz, median of 5 runs each, wall time including the SoundFont's loading\n",
                font.c_str());
    std::printf("%-20s %8s %14s %14s %10s\n", "file", "music s", "quavix render", "fluidsynth -F", "ratio");
    int failed = 0;
    for (const Piece& p : pieces) {
        qxsmf::Song song;
        if (!song.Load(p.path, 1.0, error)) {
            std::fprintf(stderr, "render_speed: %s\n", error.c_str());
            ++failed;
            continue;
        }
        const double seconds = std::max(song.Info().lengthMs, song.LastMs()) / 1000.0;
        std::vector<double> ours, theirs;
        for (int i = 0; i < 5; ++i) {
            ours.push_back(Run({QUAVIX_CLI, "render", p.path, out, "--quiet"}, font));
            theirs.push_back(Run({"fluidsynth", "-n", "-i", "-q", "-r", "48000", "-F", out, font, p.path}, font));
        }
        if (*std::min_element(ours.begin(), ours.end()) < 0 || *std::min_element(theirs.begin(), theirs.end()) < 0) {
            std::fprintf(stderr, "render_speed: a render of %s failed\n", p.path.c_str());
            ++failed;
            continue;
        }
        const double a = Median(ours), b = Median(theirs);
        std::printf("%-20s %8.1f %7.2f s %4.0fx %7.2f s %4.0fx %9.2f\n", p.name, seconds, a, seconds / a, b, seconds / b,
                    a / b);
    }
    std::printf("ratio: quavix's time over fluidsynth's (below 1: quavix is faster)\n");
    unlink(dense.c_str());
    unlink(out.c_str());
    return failed == 0 ? 0 : 1;
}
