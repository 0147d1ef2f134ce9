// CPU share of real-time playback through the built-in GM synth: `quavix perform --output
// <synth>` beside FluidSynth's own program (`fluidsynth`) playing the same file with the
// same SoundFont, each in turn to one private JACK server on the dummy driver, which paces
// both and makes no sound. The file holds organ notes that keep V voices sounding for S
// seconds; V is what FluidSynth itself counts (fluid_synth_get_active_voice_count, the
// notes played into a synth of the library beforehand). For each V and program: the CPU
// time (user + sys, from wait4) over the wall time, and ours over FluidSynth's; and, as
// the programs' starts and ends differ (fluidsynth waits on a while after the file), the
// share while the notes are held (from 1.5 s after the start to 0.5 s before their end,
// from /proc/PID/stat), beside the xruns the server had meanwhile.
//
//   synth_cpu [--seconds S, default 10] [--voices 64,256] [--soundfont PATH]
//             [--sink file]   ours on the virtual backend, fluidsynth's file driver to /dev/null
//                             (its timer paces it in real time, as the virtual output is paced)
#include "Smf.h"

#include <fcntl.h>
#include <fluidsynth.h>
#include <jack/jack.h>
#include <signal.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

extern char** environ;

namespace {

using Clock = std::chrono::steady_clock;
using Song = std::vector<std::pair<uint64_t, std::vector<uint8_t>>>;
constexpr int kProgram = 16; // drawbar organ: its voices sustain for as long as the key is down

struct Run {
    bool ok = false;
    int status = -1;
    double wall = 0, cpu = 0;
    double held = 0; // CPU seconds within the window
};

// User + sys CPU seconds a live process has used so far, from /proc.
double CpuSoFar(pid_t pid)
{
    FILE* f = std::fopen(("/proc/" + std::to_string(pid) + "/stat").c_str(), "r");
    char buf[1024] = {};
    const size_t n = f != nullptr ? std::fread(buf, 1, sizeof buf - 1, f) : 0;
    if (f != nullptr) std::fclose(f);
    const char* p = std::strrchr(buf, ')');
    if (n == 0 || p == nullptr) return 0;
    std::stringstream s(p + 2);
    std::string field;
    unsigned long long ticks = 0;
    for (int i = 0; i < 13 && s >> field; ++i)
        if (i >= 11) ticks += std::stoull(field); // utime, stime
    return double(ticks) / double(sysconf(_SC_CLK_TCK));
}

// Runs argv to its end, its output to /dev/null (or to `out`); with a window of seconds
// from its start, also the CPU time it used within.
Run Measure(const std::vector<std::string>& argv, const std::string& out = "/dev/null", double from = 0, double to = 0)
{
    std::vector<char*> args;
    for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    posix_spawn_file_actions_addopen(&fa, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&fa, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_adddup2(&fa, 1, 2);
    Run r;
    pid_t pid = -1;
    const auto start = Clock::now();
    const int spawned = posix_spawnp(&pid, args[0], &fa, nullptr, args.data(), environ);
    posix_spawn_file_actions_destroy(&fa);
    if (spawned != 0) return r;
    int status = 0;
    rusage ru{};
    double atFrom = -1;
    for (pid_t done = 0; done == 0;) {
        const double t = std::chrono::duration<double>(Clock::now() - start).count();
        if (atFrom < 0 && t >= from && to > from) atFrom = CpuSoFar(pid);
        if (atFrom >= 0 && r.held == 0 && t >= to) r.held = CpuSoFar(pid) - atFrom;
        done = wait4(pid, &status, WNOHANG, &ru);
        if (done < 0) return r;
        if (done == 0) std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    r.wall = std::chrono::duration<double>(Clock::now() - start).count();
    r.cpu = double(ru.ru_utime.tv_sec + ru.ru_stime.tv_sec) + double(ru.ru_utime.tv_usec + ru.ru_stime.tv_usec) / 1e6;
    r.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    r.ok = r.status == 0;
    return r;
}

// Organ notes, a key at a time over the channels but the drums', until FluidSynth counts
// `voices` sounding; the count it reaches is in *pCounted.
Song NotesFor(const std::string& font, int voices, double seconds, int* pCounted)
{
    fluid_settings_t* settings = new_fluid_settings();
    fluid_settings_setnum(settings, "synth.sample-rate", 48000.0);
    fluid_synth_t* synth = new_fluid_synth(settings);
    Song song;
    *pCounted = 0;
    if (fluid_synth_sfload(synth, font.c_str(), 1) != FLUID_FAILED) {
        for (int ch = 0; ch < 16; ++ch) {
            fluid_synth_program_change(synth, ch, kProgram);
            song.push_back({0, {uint8_t(0xC0 | ch), uint8_t(kProgram)}});
        }
        std::vector<float> block(2 * 4800);
        for (int n = 0; *pCounted < voices && n < 15 * 80; ++n) {
            const int ch = n % 15 < 9 ? n % 15 : n % 15 + 1, key = 28 + n / 15;
            fluid_synth_noteon(synth, ch, key, 100);
            fluid_synth_write_float(synth, 4800, block.data(), 0, 2, block.data(), 1, 2);
            *pCounted = fluid_synth_get_active_voice_count(synth);
            song.push_back({100, {uint8_t(0x90 | ch), uint8_t(key), 100}});
            song.push_back({100 + uint64_t(seconds * 1000), {uint8_t(0x80 | ch), uint8_t(key), 0}});
        }
        // Still sounding a second on: held, not decaying.
        for (int i = 0; i < 10; ++i) fluid_synth_write_float(synth, 4800, block.data(), 0, 2, block.data(), 1, 2);
        *pCounted = std::min(*pCounted, fluid_synth_get_active_voice_count(synth));
    }
    delete_fluid_synth(synth);
    delete_fluid_settings(settings);
    return song;
}

// The synth's number as `quavix devices` lists it, -1 when it is not there.
int SynthOutput()
{
    const std::string list = "/tmp/qx-synth-cpu-" + std::to_string(getpid()) + ".txt";
    Measure({QUAVIX_CLI_PATH, "devices"}, list);
    FILE* f = std::fopen(list.c_str(), "r");
    int n = -1;
    char line[512];
    while (f != nullptr && std::fgets(line, sizeof line, f) != nullptr)
        if (std::strncmp(line, "MIDI  out", 9) == 0 && std::strstr(line, "Quavix GM Synth") != nullptr)
            n = std::atoi(line + 9);
    if (f != nullptr) std::fclose(f);
    std::remove(list.c_str());
    return n;
}

// A private JACK server on the dummy driver for the length of the program, and a client
// of ours on it that counts its xruns.
class DummyJack {
public:
    DummyJack()
    {
        const std::string name = "quavix-synth-cpu-" + std::to_string(getpid());
        setenv("JACK_DEFAULT_SERVER", name.c_str(), 1);
        const char* argv[] = {"jackd", "-n", name.c_str(), "-d", "dummy", "-r", "48000", "-p", "256", nullptr};
        posix_spawn_file_actions_t fa;
        posix_spawn_file_actions_init(&fa);
        posix_spawn_file_actions_addopen(&fa, 1, "/dev/null", O_WRONLY, 0);
        posix_spawn_file_actions_adddup2(&fa, 1, 2);
        if (posix_spawnp(&m_pid, "jackd", &fa, nullptr, const_cast<char**>(argv), environ) != 0) m_pid = -1;
        posix_spawn_file_actions_destroy(&fa);
        jack_set_error_function([](const char*) {}); // "not running" while it starts
        jack_set_info_function([](const char*) {});
        for (int i = 0; i < 100 && m_pid > 0 && m_client == nullptr; ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
            m_client = jack_client_open("qxsynthcpu", JackNoStartServer, nullptr);
        }
        if (m_client == nullptr) return;
        jack_set_xrun_callback(m_client, [](void* a) { return static_cast<DummyJack*>(a)->m_xruns.fetch_add(1), 0; }, this);
        jack_activate(m_client);
    }
    ~DummyJack()
    {
        if (m_client != nullptr) jack_client_close(m_client);
        if (m_pid > 0) {
            kill(m_pid, SIGTERM);
            waitpid(m_pid, nullptr, 0);
        }
    }
    bool Up() const { return m_client != nullptr; }
    int Xruns() const { return m_xruns.load(); }

private:
    pid_t m_pid = -1;
    jack_client_t* m_client = nullptr;
    std::atomic<int> m_xruns{0};
};

} // namespace

int main(int argc, char** argv)
{
    double seconds = 10;
    std::vector<int> counts{64, 256};
    std::string font = "/usr/share/sounds/sf2/TimGM6mb.sf2";
    bool jack = true;
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string opt = argv[i], val = argv[i + 1];
        if (opt == "--seconds") seconds = std::max(3.0, std::atof(val.c_str()));
        if (opt == "--soundfont") font = val;
        if (opt == "--sink") jack = val != "file";
        if (opt == "--voices") {
            counts.clear();
            std::stringstream s(val);
            for (std::string v; std::getline(s, v, ',');) counts.push_back(std::atoi(v.c_str()));
        }
    }
    setenv("QUAVIX_SOUNDFONT", font.c_str(), 1);
    setenv("QUAVIX_BACKEND", jack ? "jack" : "virtual", 1);
    std::unique_ptr<DummyJack> server;
    if (jack) {
        server = std::make_unique<DummyJack>();
        if (!server->Up()) {
            std::fprintf(stderr, "synth_cpu: cannot start jackd with the dummy driver (package jackd2)\n");
            return 1;
        }
    }
    const int output = SynthOutput();
    if (output < 0) {
        std::fprintf(stderr, "synth_cpu: quavix lists no GM synth with the SoundFont %s\n", font.c_str());
        return 1;
    }
    std::printf("SoundFont %s, %.0f s held per run, 48 kHz; sink: %s\n", font.c_str(), seconds,
                jack ? "a private JACK server, dummy driver, 256-frame periods (both programs)"
                     : "ours the virtual backend, fluidsynth its file driver to /dev/null");
    std::printf("%-7s %-11s %9s %8s %8s %9s %6s\n", "voices", "program", "CPU share", "wall s", "CPU s", "held", "xruns");
    const std::string file = "/tmp/qx-synth-cpu-" + std::to_string(getpid()) + ".mid";
    for (int want : counts) {
        int counted = 0;
        const Song song = NotesFor(font, want, seconds, &counted);
        std::string error;
        if (counted == 0 || !qxsmf::Write(file, qxsmf::FromMilliseconds(song), error)) {
            std::fprintf(stderr, "synth_cpu: cannot make the file: %s\n",
                         error.empty() ? "the SoundFont does not load" : error.c_str());
            return 1;
        }
        const std::vector<std::string> ours{QUAVIX_CLI_PATH, "perform", file, "--output", std::to_string(output), "-q"};
        const std::vector<std::string> theirs{"fluidsynth", "-n", "-i", "-q", "-r", "48000", "-a", jack ? "jack" : "file",
                                              "-o", "audio.file.name=/dev/null", "-o", "audio.file.type=raw", font, file};
        double share[2] = {0, 0}, held[2] = {0, 0};
        int row = 0;
        for (const auto* argv2 : {&ours, &theirs}) {
            const int xruns = server ? server->Xruns() : 0;
            const Run r = Measure(*argv2, "/dev/null", 1.5, seconds - 0.5);
            const char* name = row == 0 ? "quavix" : "fluidsynth";
            if (!r.ok) {
                std::printf("%-7d %-11s failed (exit status %d)\n", counted, name, r.status);
                return 1;
            }
            share[row] = r.cpu / r.wall;
            held[row] = r.held / (seconds - 2);
            std::printf("%-7d %-11s %8.2f%% %8.2f %8.3f %8.2f%% %6d\n", counted, name, 100 * share[row], r.wall, r.cpu,
                        100 * held[row], server ? server->Xruns() - xruns : 0);
            ++row;
        }
        std::printf("%-7d ours/fluidsynth %.2f, held %.2f (%zu notes)\n", counted, share[0] / share[1], held[0] / held[1],
                    (song.size() - 16) / 2);
    }
    std::remove(file.c_str());
    return 0;
}
