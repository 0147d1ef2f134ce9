// Audio outputs against a real PulseAudio server without hardware (null sinks, started
// by tests/integration/pulse-server), recorded by parec from the sinks' monitors: the
// tone that comes out is checked for frequency, level and an unbroken phase. Also raw
// ALSA PCM, through the pulse ALSA plugin into the same server, and a server that dies.
//
// Environment (set by CTest): PULSE_SERVER names the fixture's server,
// QUAVIX_PULSE_DIR its directory, QUAVIX_BACKEND=pulse.
#include "platform/backends/QXBackend.h"
#include "platform/dsound/QXDSound.h"
#include "platform/dsound/QXMixer.h"
#include "platform/backends/alsa/QXAlsa.h"
#include "platform/backends/pulse/QXPulse.h"
#include "audio_out.h"
#include "tone.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cctype>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

extern char** environ;

namespace {

using namespace std::chrono_literals;


std::string FixtureDir()
{
    const char* d = std::getenv("QUAVIX_PULSE_DIR");
    return d != nullptr ? d : "";
}

// Runs a command, returns its exit status (-1 when it cannot start).
int Command(std::vector<std::string> args)
{
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    pid_t pid;
    if (posix_spawnp(&pid, argv[0], nullptr, nullptr, argv.data(), environ) != 0) return -1;
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// The rate a sink of the fixture's server runs at now (the server may switch a sink
// between its default and alternate rates while nothing plays on it).
unsigned SinkRate(const std::string& sink)
{
    const std::string cmd = "pactl list short sinks 2>/dev/null";
    FILE* f = popen(cmd.c_str(), "r");
    if (f == nullptr) return 0;
    char line[512];
    unsigned rate = 0;
    while (std::fgets(line, sizeof line, f) != nullptr) {
        const std::string l = line;
        if (l.find("\t" + sink + "\t") == std::string::npos) continue;
        const size_t hz = l.find("Hz");
        size_t at = hz;
        while (at > 0 && std::isdigit(static_cast<unsigned char>(l[at - 1]))) --at;
        if (hz != std::string::npos) rate = static_cast<unsigned>(std::stoul(l.substr(at, hz - at)));
    }
    pclose(f);
    return rate;
}

// parec recording a sink's monitor as float32 stereo, read by a thread of its own.
class Recorder {
public:
    Recorder(const std::string& sink, unsigned rate) : m_rate(rate)
    {
        int fds[2];
        if (pipe(fds) != 0) return;
        posix_spawn_file_actions_t fa;
        posix_spawn_file_actions_init(&fa);
        posix_spawn_file_actions_adddup2(&fa, fds[1], 1);
        posix_spawn_file_actions_addclose(&fa, fds[0]);
        std::vector<std::string> args{"parec",         "-d",     sink + ".monitor", "--raw", "--format=float32le",
                                      "--channels=2", "--rate=" + std::to_string(rate), "--latency-msec=10"};
        std::vector<char*> argv;
        for (auto& a : args) argv.push_back(a.data());
        argv.push_back(nullptr);
        if (posix_spawnp(&m_pid, "parec", &fa, nullptr, argv.data(), environ) != 0) m_pid = -1;
        posix_spawn_file_actions_destroy(&fa);
        close(fds[1]);
        m_fd = fds[0];
        m_thread = std::thread([this] { Read(); });
    }

    ~Recorder() { Stop(); }

    // Frames recorded so far (stereo float).
    std::vector<float> Take()
    {
        std::lock_guard<std::mutex> lock(m_lock);
        return m_data;
    }

    bool WaitFrames(size_t frames, std::chrono::seconds limit)
    {
        const auto end = std::chrono::steady_clock::now() + limit;
        while (std::chrono::steady_clock::now() < end) {
            {
                std::lock_guard<std::mutex> lock(m_lock);
                if (m_data.size() >= 2 * frames) return true;
            }
            std::this_thread::sleep_for(20ms);
        }
        return false;
    }

    void Stop()
    {
        if (m_pid > 0) {
            kill(m_pid, SIGTERM);
            waitpid(m_pid, nullptr, 0);
            m_pid = -1;
        }
        if (m_thread.joinable()) m_thread.join();
        if (m_fd >= 0) close(m_fd);
        m_fd = -1;
    }

private:
    void Read()
    {
        std::vector<char> partial;
        char buf[8192];
        for (;;) {
            const ssize_t n = read(m_fd, buf, sizeof buf);
            if (n <= 0) return;
            partial.insert(partial.end(), buf, buf + n);
            const size_t whole = partial.size() / sizeof(float) * sizeof(float);
            std::lock_guard<std::mutex> lock(m_lock);
            const size_t at = m_data.size();
            m_data.resize(at + whole / sizeof(float));
            std::memcpy(m_data.data() + at, partial.data(), whole);
            partial.erase(partial.begin(), partial.begin() + static_cast<ptrdiff_t>(whole));
        }
    }

    unsigned m_rate;
    pid_t m_pid = -1;
    int m_fd = -1;
    std::thread m_thread;
    std::mutex m_lock;
    std::vector<float> m_data;
};

struct Driver {
    bool hasGuid;
    GUID guid;
    std::string description, module;
};

std::vector<Driver> Drivers()
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

const Driver* Find(const std::vector<Driver>& ds, const std::string& description)
{
    for (const Driver& d : ds)
        if (d.description == description) return &d;
    return nullptr;
}

// Plays a tone through a driver (null: the default) and records it from a sink.
// underruns: a process-wide count of underrun frames of the kind of output played.
tone::Report PlayAndRecord(const GUID* guid, const std::string& sink, double hz, double amplitude,
                         uint64_t (*underruns)(), uint64_t* pUnderrunFrames)
{
    const unsigned sinkRate = SinkRate(sink);
    EXPECT_GT(sinkRate, 0u) << "pactl does not list " << sink;
    if (sinkRate == 0) return {};
    LPDIRECTSOUND ds = nullptr;
    EXPECT_EQ(DirectSoundCreate(guid, &ds, nullptr), DS_OK);
    if (ds == nullptr) return {};
    LPDIRECTSOUNDBUFFER b = audioout::ToneBuffer(ds, 48000, hz, amplitude);
    EXPECT_NE(b, nullptr);
    tone::Report r;
    if (b != nullptr) {
        Recorder rec(sink, sinkRate);
        std::this_thread::sleep_for(200ms); // parec connected
        const uint64_t before = underruns();
        EXPECT_EQ(b->Play(0, 0, DSBPLAY_LOOPING), DS_OK);
        EXPECT_TRUE(rec.WaitFrames(sinkRate * 3, 30s));
        rec.Stop();
        *pUnderrunFrames = underruns() - before;
        b->Stop();
        b->Release();
        r = tone::Analyse(rec.Take(), 2, sinkRate, hz, 2.0, 0.05f);
        std::printf("tone on %s at %u Hz: %.3f Hz, amplitude %.4f, right/left %.4f, worst step %.5f, %llu underrun "
                    "frames\n",
                    sink.c_str(), sinkRate, r.frequency, r.amplitude, r.rightToLeft, r.worstStep,
                    static_cast<unsigned long long>(*pUnderrunFrames));
    }
    ds->Release();
    return r;
}

// A gap in what the sink heard must have been counted as an underrun: without one the
// sine is whole. A machine loaded so that the output did run dry only lets the tone's
// pitch be checked, on its longest unbroken stretch (the count says why).
void ExpectWholeUnlessCounted(const tone::Report& r, uint64_t underrunFrames, double maxStep)
{
    EXPECT_GE(r.steadySeconds, 0.1) << "not a tenth of a second of the tone came unbroken";
    EXPECT_NEAR(r.frequency, 1000.0, 1.0);
    if (underrunFrames == 0)
        EXPECT_LT(r.worstStep, maxStep) << "the phase jumps, and no underrun was counted: a gap or a repeat";
    else
        std::printf("the output ran dry for %llu frames (a loaded machine): continuity not checked\n",
                    static_cast<unsigned long long>(underrunFrames));
}

TEST(Pulse, OutputsAreTheDefaultThenEachSinkByDescription)
{
    qxplat::Backend& b = qxplat::CurrentBackend();
    ASSERT_EQ(b.Count(qxplat::DeviceKind::WaveOut), 3);
    EXPECT_EQ(b.DeviceName(qxplat::DeviceKind::WaveOut, 0), "Default output (Quavix_A)");
    EXPECT_EQ(b.DeviceName(qxplat::DeviceKind::WaveOut, 1), "Quavix_A");
    EXPECT_EQ(b.DeviceName(qxplat::DeviceKind::WaveOut, 2), "Quavix_B");
    EXPECT_EQ(b.DeviceName(qxplat::DeviceKind::WaveOut, 3), "");
    EXPECT_EQ(b.DeviceName(qxplat::DeviceKind::WaveOut, -1), "");

    const std::vector<Driver> ds = Drivers();
    ASSERT_EQ(ds.size(), 4u);
    EXPECT_FALSE(ds[0].hasGuid); // the platform's own default entry
    EXPECT_TRUE(ds[1].hasGuid);
    EXPECT_EQ(ds[1].description, "Default output (Quavix_A)");
    EXPECT_EQ(ds[3].description, "Quavix_B");

    // Each output opens at its sink's rate; a number past the list does not open.
    std::unique_ptr<qxplat::AudioOutPort> port;
    ASSERT_EQ(b.OpenAudioOut(2, port), MMSYSERR_NOERROR);
    EXPECT_EQ(port->Rate(), SinkRate("quavix_b"));
    EXPECT_GT(port->TargetFrames(), 0u);
    port.reset();
    EXPECT_EQ(b.OpenAudioOut(3, port), MMSYSERR_BADDEVICEID);
    EXPECT_EQ(b.OpenAudioOut(-1, port), MMSYSERR_BADDEVICEID);
    EXPECT_EQ(port, nullptr);

    // The default follows the server: after a change it names the other sink.
    const std::string server = std::getenv("PULSE_SERVER");
    ASSERT_EQ(Command({"pactl", "-s", server, "set-default-sink", "quavix_b"}), 0);
    EXPECT_EQ(b.Count(qxplat::DeviceKind::WaveOut), 3);
    EXPECT_EQ(b.DeviceName(qxplat::DeviceKind::WaveOut, 0), "Default output (Quavix_B)");
    Command({"pactl", "-s", server, "set-default-sink", "quavix_a"});
}

// With no setting beyond the default, a machine without JACK plays through the sound
// server: the pulse backend.
TEST(Pulse, AutoChoosesTheSoundServerWhenNoJackServerAnswers)
{
    setenv("QUAVIX_BACKEND", "auto", 1); // CTest names no JACK server that exists
    qxplat::Backend& b = qxplat::CurrentBackend();
    EXPECT_STREQ(b.Name(), "pulse");
    EXPECT_EQ(b.Count(qxplat::DeviceKind::WaveOut), 3);
    EXPECT_EQ(b.DeviceName(qxplat::DeviceKind::WaveOut, 2), "Quavix_B");
    const std::vector<Driver> ds = Drivers();
    ASSERT_EQ(ds.size(), 4u);
    EXPECT_EQ(ds[2].module, "pulse");
}

TEST(Pulse, ToneThroughTheDefaultDriverIsHeardWholeOnTheDefaultSink)
{
    uint64_t underruns = 0;
    const tone::Report r = PlayAndRecord(nullptr, "quavix_a", 1000.0, 0.5, qxplat::PulseUnderrunFramesAll, &underruns);
    ASSERT_TRUE(r.found) << "no tone reached the default sink";
    EXPECT_NEAR(r.amplitude, 0.5, 0.02);
    EXPECT_NEAR(r.rightToLeft, 1.0, 0.02);
    // At the sink's own rate only 16-bit rounding remains; resampled, a little more.
    ExpectWholeUnlessCounted(r, underruns, SinkRate("quavix_a") == 48000 ? 0.01 : 0.05);
}

TEST(Pulse, ToneOnANamedSinkComesOutThereOnly)
{
    const std::vector<Driver> ds = Drivers();
    const Driver* b = Find(ds, "Quavix_B");
    ASSERT_NE(b, nullptr);
    Recorder other("quavix_a", SinkRate("quavix_a"));
    uint64_t underruns = 0;
    const tone::Report r = PlayAndRecord(&b->guid, "quavix_b", 1000.0, 0.25, qxplat::PulseUnderrunFramesAll, &underruns);
    other.Stop();
    ASSERT_TRUE(r.found) << "no tone reached quavix_b";
    EXPECT_NEAR(r.amplitude, 0.25, 0.01);
    ExpectWholeUnlessCounted(r, underruns, SinkRate("quavix_b") == 48000 ? 0.01 : 0.05);
    float loudest = 0;
    for (float x : other.Take()) loudest = std::max(loudest, std::fabs(x));
    EXPECT_LT(loudest, 0.01f) << "the tone leaked to the default sink";
}

TEST(Pulse, UnderrunsAreCountedOnlyWhileTheRingRunsDryAndStopKeepsTheRing)
{
    qxplat::Backend& b = qxplat::CurrentBackend();
    ASSERT_EQ(b.Count(qxplat::DeviceKind::WaveOut), 3);
    std::unique_ptr<qxplat::AudioOutPort> port;
    ASSERT_EQ(b.OpenAudioOut(1, port), MMSYSERR_NOERROR);
    audioout::ExpectAFedPortKeepsPlaying(*port);
#ifdef QUAVIX_HAVE_PULSE
    int64_t latencyUs = -1;
    uint32_t underflows = 0;
    EXPECT_TRUE(qxplat::PulseOutputLatency(port.get(), &latencyUs, &underflows));
    std::printf("stream latency %lld us, %u underflows\n", static_cast<long long>(latencyUs), underflows);
    EXPECT_GE(latencyUs, 0);
    EXPECT_LT(latencyUs, 1'000'000);
#endif

    audioout::ExpectStopKeepsTheRingAndRunningDryIsCounted(*port);
}

std::atomic<int> g_lost{0};
std::string g_lostServer;

TEST(Pulse, AServerThatGoesAwayIsReportedAndNothingHangs)
{
    // A server of this test's own, so that the fixture's stays up for the others.
    const std::string dir = FixtureDir() + "/lost";
    ASSERT_EQ(Command({QUAVIX_PULSE_SCRIPT, "start", dir}), 0);
    setenv("PULSE_SERVER", ("unix:" + dir + "/native").c_str(), 1);
    qxplat::SetBackendEventProc([](qxplat::BackendEvent e, int, const char* server) {
        if (e != qxplat::BackendEvent::ServerLost) return;
        g_lostServer = server;
        g_lost.fetch_add(1);
    });
    qxplat::Backend& backend = qxplat::CurrentBackend();
    ASSERT_EQ(backend.Count(qxplat::DeviceKind::WaveOut), 3);

    LPDIRECTSOUND ds = nullptr;
    ASSERT_EQ(DirectSoundCreate(nullptr, &ds, nullptr), DS_OK);
    LPDIRECTSOUNDBUFFER b = audioout::ToneBuffer(ds, 48000, 1000.0, 0.5);
    ASSERT_NE(b, nullptr);
    ASSERT_EQ(b->Play(0, 0, DSBPLAY_LOOPING), DS_OK);
    std::this_thread::sleep_for(300ms);

    std::ifstream pidFile(dir + "/pid");
    pid_t pid = 0;
    pidFile >> pid;
    ASSERT_GT(pid, 0);
    kill(pid, SIGKILL);
    const auto end = std::chrono::steady_clock::now() + 10s;
    while (g_lost.load() == 0 && std::chrono::steady_clock::now() < end) std::this_thread::sleep_for(20ms);
    EXPECT_EQ(g_lost.load(), 1);
    EXPECT_EQ(g_lostServer, "PulseAudio");

    // The application's calls still return; the output is gone from the list.
    auto done = std::async(std::launch::async, [&] {
        b->Stop();
        b->Release();
        ds->Release();
    });
    ASSERT_EQ(done.wait_for(10s), std::future_status::ready) << "releasing an output of a lost server hangs";
    EXPECT_EQ(backend.Count(qxplat::DeviceKind::WaveOut), 0);
    LPDIRECTSOUND again = nullptr;
    EXPECT_EQ(DirectSoundCreate(nullptr, &again, nullptr), DSERR_NODRIVER);
    EXPECT_EQ(again, nullptr);
    EXPECT_EQ(qxplat::LiveDirectSoundObjects(), 0u);

    // A server that comes back is found again.
    ASSERT_EQ(Command({QUAVIX_PULSE_SCRIPT, "start", dir}), 0);
    EXPECT_EQ(backend.Count(qxplat::DeviceKind::WaveOut), 3);
    EXPECT_EQ(DirectSoundCreate(nullptr, &again, nullptr), DS_OK);
    if (again != nullptr) again->Release();
    Command({QUAVIX_PULSE_SCRIPT, "stop", dir});
    const auto end2 = std::chrono::steady_clock::now() + 10s;
    while (g_lost.load() < 2 && std::chrono::steady_clock::now() < end2) std::this_thread::sleep_for(20ms);
    EXPECT_EQ(g_lost.load(), 2) << "the second server's end is reported as well";
}

// Raw ALSA PCM, the alsa backend: "default" is the pulse ALSA plugin, pointed at the
// fixture's server by an ALSA configuration of the test's own.
TEST(AlsaPcm, ToneThroughRawPcmIsHeardWhole)
{
    setenv("QUAVIX_BACKEND", "alsa", 1);
    const std::string server = std::getenv("PULSE_SERVER");
    const std::string conf = FixtureDir() + "/alsa-test.conf";
    {
        std::ofstream f(conf);
        // handle_underrun: the plugin reports the server's underruns as ALSA's.
        f << "pcm.!default { type pulse; server \"" << server << "\"; device \"quavix_b\"; handle_underrun true }\n";
    }
    setenv("ALSA_CONFIG_PATH", ("/usr/share/alsa/alsa.conf:" + conf).c_str(), 1);
    setenv("PULSE_SERVER", "unix:/nonexistent/quavix", 1); // libpulse itself finds no server
    qxplat::Backend& backend = qxplat::CurrentBackend();
    const int count = backend.Count(qxplat::DeviceKind::WaveOut);
    ASSERT_GE(count, 1);
    EXPECT_EQ(backend.DeviceName(qxplat::DeviceKind::WaveOut, 0), "Default ALSA output");
    for (int n = 1; n < count; ++n) EXPECT_NE(backend.DeviceName(qxplat::DeviceKind::WaveOut, n), "");

    setenv("PULSE_SERVER", server.c_str(), 1); // for parec and pactl
    uint64_t underruns = 0;
    const tone::Report r = PlayAndRecord(nullptr, "quavix_b", 1000.0, 0.5, qxplat::AlsaPcmUnderrunFramesAll, &underruns);
    ASSERT_TRUE(r.found) << "no tone came through raw ALSA";
    EXPECT_NEAR(r.amplitude, 0.5, 0.02);
    // The plugin's server resamples to the sink's rate when it is not 48000.
    ExpectWholeUnlessCounted(r, underruns, 0.05);
}

} // namespace
