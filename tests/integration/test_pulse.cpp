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
#include "analysis.h"
#include "audio_out.h"
#include "harness.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <future>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace std::chrono_literals;
using audioout::Driver;
using harness::SinkRate;

// parec recording a sink's monitor as float32 stereo into a file.
class Recorder {
public:
    Recorder(const std::string& sink, unsigned rate)
        : m_file(harness::Temp("parec.raw")),
          m_parec({"parec", "-d", sink + ".monitor", "--raw", "--format=float32le", "--channels=2",
                   "--rate=" + std::to_string(rate), "--latency-msec=10"},
                  m_file, "/dev/null")
    {
    }
    ~Recorder()
    {
        Stop();
        std::remove(m_file.c_str());
    }
    std::vector<float> Take() const
    {
        const std::string raw = harness::Slurp(m_file);
        std::vector<float> x(raw.size() / sizeof(float));
        std::memcpy(x.data(), raw.data(), x.size() * sizeof(float));
        return x;
    }
    bool WaitFrames(size_t frames, std::chrono::seconds limit) const
    {
        return harness::Await([&] {
            struct stat st{};
            return stat(m_file.c_str(), &st) == 0 && static_cast<size_t>(st.st_size) >= frames * 2 * sizeof(float);
        }, limit);
    }
    void Stop() { m_parec.Stop(); }

private:
    std::string m_file;
    harness::Child m_parec;
};

const Driver* Find(const std::vector<Driver>& ds, const std::string& description)
{
    for (const Driver& d : ds)
        if (d.description == description) return &d;
    return nullptr;
}

// Plays a 1 kHz tone through a driver (null: the default) and records it from a sink: the
// tone comes at its pitch and level on both channels, and a gap in it must have been
// counted as an underrun (`underruns`: a process-wide count of the kind of output
// played). A machine loaded so that the output did run dry only lets the pitch be
// checked, on the longest unbroken stretch. Resampled, the sine is less exact than with
// only 16-bit rounding: `maxStep` says by how much.
void ExpectToneHeard(const GUID* guid, const std::string& sink, double amplitude, uint64_t (*underruns)(),
                     double maxStep)
{
    const unsigned sinkRate = SinkRate(sink);
    ASSERT_GT(sinkRate, 0u) << "pactl does not list " << sink;
    LPDIRECTSOUND ds = nullptr;
    ASSERT_EQ(DirectSoundCreate(guid, &ds, nullptr), DS_OK);
    LPDIRECTSOUNDBUFFER b = audioout::ToneBuffer(ds, 48000, 1000.0, amplitude);
    EXPECT_NE(b, nullptr);
    analysis::Report r;
    uint64_t underrunFrames = 0;
    if (b != nullptr) {
        Recorder rec(sink, sinkRate);
        EXPECT_TRUE(rec.WaitFrames(1, 10s)) << "parec records nothing";
        const uint64_t before = underruns();
        EXPECT_EQ(b->Play(0, 0, DSBPLAY_LOOPING), DS_OK);
        EXPECT_TRUE(rec.WaitFrames(sinkRate * 3, 30s));
        rec.Stop();
        underrunFrames = underruns() - before;
        b->Stop();
        b->Release();
        r = analysis::Analyse(rec.Take(), 2, sinkRate, 1000.0, 2.0, 0.05f);
        std::printf("tone on %s at %u Hz: %.3f Hz, amplitude %.4f, right/left %.4f, worst step %.5f, %llu underrun "
                    "frames\n",
                    sink.c_str(), sinkRate, r.frequency, r.amplitude, r.rightToLeft, r.worstStep,
                    static_cast<unsigned long long>(underrunFrames));
    }
    ds->Release();
    ASSERT_TRUE(r.found) << "no tone reached " << sink;
    EXPECT_NEAR(r.amplitude, amplitude, 0.04 * amplitude);
    EXPECT_NEAR(r.rightToLeft, 1.0, 0.02);
    EXPECT_GE(r.steadySeconds, 0.1) << "not a tenth of a second of the tone came unbroken";
    EXPECT_NEAR(r.frequency, 1000.0, 1.0);
    if (underrunFrames == 0)
        EXPECT_LT(r.worstStep, maxStep) << "the phase jumps, and no underrun was counted: a gap or a repeat";
    else
        std::printf("the output ran dry (a loaded machine): continuity not checked\n");
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

    const std::vector<Driver> ds = audioout::Drivers();
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
    ASSERT_EQ(harness::Pactl("set-default-sink", "quavix_b"), 0);
    EXPECT_EQ(b.Count(qxplat::DeviceKind::WaveOut), 3);
    EXPECT_EQ(b.DeviceName(qxplat::DeviceKind::WaveOut, 0), "Default output (Quavix_B)");
    harness::Pactl("set-default-sink", "quavix_a");
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
    const std::vector<Driver> ds = audioout::Drivers();
    ASSERT_EQ(ds.size(), 4u);
    EXPECT_EQ(ds[2].module, "pulse");
}

TEST(Pulse, ToneThroughTheDefaultDriverIsHeardWholeOnTheDefaultSink)
{
    ExpectToneHeard(nullptr, "quavix_a", 0.5, qxplat::PulseUnderrunFramesAll, SinkRate("quavix_a") == 48000 ? 0.01 : 0.05);
}

TEST(Pulse, ToneOnANamedSinkComesOutThereOnly)
{
    const std::vector<Driver> ds = audioout::Drivers();
    const Driver* b = Find(ds, "Quavix_B");
    ASSERT_NE(b, nullptr);
    Recorder other("quavix_a", SinkRate("quavix_a"));
    ExpectToneHeard(&b->guid, "quavix_b", 0.25, qxplat::PulseUnderrunFramesAll, SinkRate("quavix_b") == 48000 ? 0.01 : 0.05);
    other.Stop();
    EXPECT_LT(analysis::Peak(other.Take()), 0.01f) << "the tone leaked to the default sink";
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

TEST(Pulse, AServerThatGoesAwayIsReportedAndNothingHangs)
{
    // A server of this test's own, so that the fixture's stays up for the others.
    const std::string dir = harness::PulseDir() + "/lost";
    harness::Server pulse(QUAVIX_PULSE_SCRIPT, {dir}, dir + "/pid");
    ASSERT_TRUE(pulse.Ready());
    setenv("PULSE_SERVER", ("unix:" + dir + "/native").c_str(), 1);
    audioout::CountLostServers();
    qxplat::Backend& backend = qxplat::CurrentBackend();
    ASSERT_EQ(backend.Count(qxplat::DeviceKind::WaveOut), 3);
    LPDIRECTSOUND ds = nullptr;
    LPDIRECTSOUNDBUFFER b = audioout::PlayTone(&ds);
    ASSERT_NE(b, nullptr);

    pulse.Kill();
    harness::Await([] { return audioout::g_serversLost.load() > 0; });
    EXPECT_EQ(audioout::g_serversLost.load(), 1);
    EXPECT_EQ(audioout::g_lastServerLost, "PulseAudio");

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
    ASSERT_TRUE(pulse.Start());
    EXPECT_EQ(backend.Count(qxplat::DeviceKind::WaveOut), 3);
    EXPECT_EQ(DirectSoundCreate(nullptr, &again, nullptr), DS_OK);
    if (again != nullptr) again->Release();
    pulse.Stop();
    harness::Await([] { return audioout::g_serversLost.load() >= 2; });
    EXPECT_EQ(audioout::g_serversLost.load(), 2) << "the second server's end is reported as well";
}

// Raw ALSA PCM, the alsa backend: "default" is the pulse ALSA plugin, pointed at the
// fixture's server by an ALSA configuration of the test's own.
TEST(AlsaPcm, ToneThroughRawPcmIsHeardWhole)
{
    setenv("QUAVIX_BACKEND", "alsa", 1);
    const std::string server = std::getenv("PULSE_SERVER");
    // handle_underrun: the plugin reports the server's underruns as ALSA's.
    harness::UseAlsaDefault("alsa-test", "{ type pulse; server \"" + server + "\"; device \"quavix_b\"; handle_underrun true }");
    qxplat::Backend& backend = qxplat::CurrentBackend();
    const int count = backend.Count(qxplat::DeviceKind::WaveOut);
    ASSERT_GE(count, 1);
    EXPECT_EQ(backend.DeviceName(qxplat::DeviceKind::WaveOut, 0), "Default ALSA output");
    for (int n = 1; n < count; ++n) EXPECT_NE(backend.DeviceName(qxplat::DeviceKind::WaveOut, n), "");

    setenv("PULSE_SERVER", server.c_str(), 1); // for parec and pactl
    // The plugin's server resamples to the sink's rate when it is not 48000.
    ExpectToneHeard(nullptr, "quavix_b", 0.5, qxplat::AlsaPcmUnderrunFramesAll, 0.05);
}

} // namespace
