// Wave output and input on a real PulseAudio (or PipeWire) server without hardware: tones
// played through our outputs are recorded by parec from the null sinks' monitors, tones
// paplay plays are recorded through our inputs; also raw ALSA PCM through the pulse ALSA
// plugin into the same server, and a server that dies.
#include "devices.h"
#include "platform/backends/alsa/QXAlsa.h"
#include "platform/backends/pulse/QXPulse.h"

#include <future>

namespace {

using namespace std::chrono_literals;
using harness::SinkRate;

// parec recording a sink's monitor as float32 stereo at the sink's rate.
class Recorder {
public:
    explicit Recorder(const std::string& sink)
        : m_rate(SinkRate(sink)), m_parec({"parec", "-d", sink + ".monitor", "--raw", "--format=float32le", "--channels=2",
                                           "--rate=" + std::to_string(m_rate), "--latency-msec=10"}, m_file, "/dev/null")
    {
        EXPECT_GT(m_rate, 0u) << "pactl does not list " << sink;
    }
    // What it recorded, once it holds `seconds`.
    analysis::Wav Take(double seconds = 0)
    {
        EXPECT_TRUE(harness::Await([&] {
            return std::ifstream(m_file.path, std::ios::ate).tellg() >= std::streamoff(seconds * m_rate * 8);
        }, 30s)) << "parec records nothing";
        m_parec.Stop();
        const std::string raw = harness::Slurp(m_file);
        analysis::Wav w{m_rate, 2, 32, 0, 0, 0, std::vector<float>(raw.size() / sizeof(float))};
        std::memcpy(w.x.data(), raw.data(), w.x.size() * sizeof(float));
        return w;
    }

private:
    const unsigned m_rate;
    const harness::TempFile m_file{"parec.raw"};
    harness::Child m_parec;
};

// A tone of 1 kHz at `amplitude` on both channels, unbroken for a tenth of a second at least.
void ExpectTone(const analysis::Report& r, double amplitude, double hzTolerance)
{
    ASSERT_TRUE(r.found) << "no tone came";
    EXPECT_GE(r.steadySeconds, 0.1) << "not a tenth of a second of the tone came unbroken";
    EXPECT_NEAR(r.frequency, 1000.0, hzTolerance);
    EXPECT_NEAR(r.amplitude, amplitude, 0.04 * amplitude);
    EXPECT_NEAR(r.rightToLeft, 1.0, 0.02);
}

// A Tone through a driver (null: the default), recorded from `sink`: it comes at its
// pitch and level on both channels and, unless the output counted an underrun
// (`underruns`: the process-wide count of the kind played), whole: the sine steps off by
// less than it does resampled (when the sink is not at 48 kHz) or rounded to 16 bits.
void ExpectToneHeard(const GUID* guid, const std::string& sink, double amplitude, uint64_t (*underruns)())
{
    auto tone = std::make_unique<dev::Tone>(guid, amplitude);
    ASSERT_TRUE(tone->playing) << "the output takes nothing";
    const uint64_t before = underruns();
    const analysis::Wav w = Recorder(sink).Take(2.5); // the tone plays from its first frame
    const bool whole = underruns() == before;
    tone.reset();
    EXPECT_EQ(qxplat::LiveDirectSoundObjects(), 0u);
    const double expected = amplitude * 32767 / 32768;
    const analysis::Report r = analysis::Analyse(w.x, 2, w.rate, 1000.0, 2.0, static_cast<float>(expected / 5));
    std::printf("tone: %.3f Hz, amplitude %.5f (%.5f expected), worst step %.4f%s\n", r.frequency, r.amplitude,
                expected, r.worstStep, whole ? "" : "; it ran dry");
    ExpectTone(r, expected, 1.0);
    if (whole) {
        EXPECT_LT(r.worstStep, underruns == qxplat::PulseUnderrunFramesAll && w.rate == 48000 ? 0.01 : 0.05)
            << "the phase jumps, and no underrun was counted: a gap or a repeat";
    }
}

// paplay playing 8 s of a 1 kHz tone at 0.5 into a sink.
harness::Child Paplay(const std::string& sink)
{
    static const harness::TempFile wav("tone.wav");
    static const bool written = analysis::WriteWav(wav, 48000, 2, analysis::Sine(48000, 2, 1000.0, 0.5, 8.0));
    EXPECT_TRUE(written);
    return harness::Child({"paplay", "-d", sink, wav});
}

// The tone paplay plays, recorded through wave input `device` as 16-bit stereo at
// `rate`, comes at its pitch and level on both channels.
void ExpectToneRecorded(int device, const std::string& sink, unsigned rate, double hzTolerance = 0.5)
{
    dev::Take take({4.0});
    EXPECT_EQ(take.Open(static_cast<UINT>(device), rate, 2), MMSYSERR_NOERROR);
    EXPECT_EQ(take.Start(), MMSYSERR_NOERROR);
    {
        harness::Child player = Paplay(sink);
        EXPECT_TRUE(take.Collect(30s)) << "the recording does not fill";
    }
    take.Close();
    EXPECT_EQ(take.ended[2], MMSYSERR_NOERROR);
    ExpectTone(analysis::Analyse(take.Samples(), 2, rate, 1000.0, 2.0, 0.05f), 0.5, hzTolerance);
}

// Outputs: the default, then each sink by description; inputs: the default, then each
// source, monitors included. Each opens at its own rate, and the default follows the
// server's.
TEST(Pulse, DevicesAreTheDefaultThenEachSinkAndSourceAtItsRate)
{
    // A sink another test played 48 kHz on has moved there: a stream at 44.1 kHz takes
    // quavix_b back to the rate of its own, which nothing else has.
    const harness::TempFile wav("44k.wav");
    ASSERT_TRUE(analysis::WriteWav(wav, 44100, 2, analysis::Sine(44100, 2, 1000.0, 0.1, 0.1)));
    ASSERT_EQ(harness::Command({"paplay", "-d", "quavix_b", wav}), 0);
    ASSERT_EQ(SinkRate("quavix_b"), 44100u);
    qxplat::Backend& b = qxplat::CurrentBackend();
    ASSERT_GE(waveInGetNumDevs(), 3u);
    dev::ExpectDevices({"Default output (Quavix_A)", "Quavix_A", "Quavix_B"}, "pulse", waveInGetNumDevs());
    std::unique_ptr<qxplat::AudioOutPort> port;
    ASSERT_EQ(b.OpenAudioOut(2, port), MMSYSERR_NOERROR);
    EXPECT_EQ(port->Rate(), 44100u);
    EXPECT_GT(port->TargetFrames(), 0u);
    EXPECT_EQ(dev::InputName(0).rfind("Default input (", 0), 0u) << dev::InputName(0);
    const int inb = dev::FindInput("Monitor of Quavix_B");
    EXPECT_GT(dev::FindInput("Monitor of Quavix_A"), 0);
    ASSERT_GT(inb, 0);
    std::unique_ptr<qxplat::AudioInPort> in;
    ASSERT_EQ(b.OpenAudioIn(inb, in), MMSYSERR_NOERROR);
    EXPECT_EQ(in->Rate(), 44100u) << "a stream at another rate would have moved the sink";
    in.reset();

    ASSERT_EQ(harness::Pactl("set-default-sink", "quavix_b"), 0);
    ASSERT_EQ(harness::Pactl("set-default-source", "quavix_b.monitor"), 0);
    EXPECT_EQ(b.Count(qxplat::DeviceKind::WaveOut), 3);
    EXPECT_EQ(b.DeviceName(qxplat::DeviceKind::WaveOut, 0), "Default output (Quavix_B)");
    waveInGetNumDevs();
    EXPECT_EQ(b.DeviceName(qxplat::DeviceKind::WaveIn, 0), "Default input (Monitor of Quavix_B)");
    EXPECT_EQ(dev::InputName(0), std::string("Default input (Monitor of Quavix_B)").substr(0, MAXPNAMELEN - 1));
    harness::Pactl("set-default-sink", "quavix_a");
    harness::Pactl("set-default-source", "quavix_a.monitor");
}

// With no setting beyond the default, a machine without JACK plays through the sound
// server (CTest names no JACK server that exists).
TEST(Pulse, AutoChoosesTheSoundServerWhenNoJackServerAnswers)
{
    setenv("QUAVIX_BACKEND", "auto", 1);
    qxplat::Backend& b = qxplat::CurrentBackend();
    EXPECT_STREQ(b.Name(), "pulse");
    EXPECT_EQ(b.Count(qxplat::DeviceKind::WaveOut), 3);
}

// Through the default driver on the default sink, through a named one there only.
TEST(Pulse, ToneThroughADriverIsHeardWholeOnItsSinkOnly)
{
    const std::vector<dev::Driver> ds = dev::Drivers();
    ASSERT_EQ(ds.size(), 4u);
    const GUID* none = nullptr;
    for (const auto& [guid, sink, other] : {std::tuple{none, "quavix_a", "quavix_b"}, {&ds[3].guid, "quavix_b", "quavix_a"}}) {
        Recorder elsewhere(other);
        ExpectToneHeard(guid, sink, guid == nullptr ? 0.5 : 0.25, qxplat::PulseUnderrunFramesAll);
        EXPECT_LT(analysis::Peak(elsewhere.Take().x), 0.01f) << "the tone leaked to " << other;
    }
}

// At the monitor's own rate nothing is converted but the sample format; a 44.1 kHz
// monitor recorded at 48 kHz is converted (a rate taken wrongly puts the tone at 1088 Hz).
TEST(PulseCapture, ToneOnANullSinkIsRecordedFromItsMonitorAtItsOwnRateOrAnother)
{
    const int a = dev::FindInput("Monitor of Quavix_A"), b = dev::FindInput("Monitor of Quavix_B");
    ASSERT_GE(a, 0);
    ASSERT_GE(b, 0);
    ExpectToneRecorded(a, "quavix_a", SinkRate("quavix_a"));
    ExpectToneRecorded(b, "quavix_b", 48000);
}

TEST(Pulse, PortsCountUnderrunsAndMoveOnlyBetweenStartAndStop)
{
    qxplat::Backend& b = qxplat::CurrentBackend();
    ASSERT_EQ(b.Count(qxplat::DeviceKind::WaveOut), 3); // the list is read here
    std::unique_ptr<qxplat::AudioOutPort> port;
    ASSERT_EQ(b.OpenAudioOut(1, port), MMSYSERR_NOERROR);
    dev::ExpectUnderrunsOnlyWhileRunningDry(*port, [] { return false; });
    int64_t latencyUs = -1;
    uint32_t underflows = 0;
    EXPECT_TRUE(qxplat::PulseOutputLatency(port.get(), &latencyUs, &underflows));
    EXPECT_GE(latencyUs, 0);
    EXPECT_LT(latencyUs, 1'000'000);

    harness::Child player = Paplay("quavix_a"); // so that the monitor has something to send
    std::unique_ptr<qxplat::AudioInPort> in;
    ASSERT_EQ(b.OpenAudioIn(dev::FindInput("Monitor of Quavix_A"), in), MMSYSERR_NOERROR);
    dev::ExpectStopEndsDeliveryAndStartResumesIt(*in);
}

// On a server of its own, so that the fixture's stays up for the others.
TEST(Pulse, AServerThatGoesAwayIsReportedAndNothingHangs)
{
    const std::string dir = harness::PulseDir() + "/lost";
    harness::Server pulse(QUAVIX_PULSE_SCRIPT, {dir}, dir + "/pid");
    ASSERT_TRUE(pulse.Ready());
    setenv("PULSE_SERVER", ("unix:" + dir + "/native").c_str(), 1);
    dev::CountLostServers();
    qxplat::Backend& backend = qxplat::CurrentBackend();
    ASSERT_EQ(backend.Count(qxplat::DeviceKind::WaveOut), 3);
    dev::Tone tone;
    ASSERT_TRUE(tone.playing);

    pulse.Kill();
    harness::Await([] { return dev::g_serversLost.load() > 0; });
    EXPECT_EQ(dev::g_serversLost.load(), 1);
    EXPECT_EQ(dev::g_lastServerLost, "PulseAudio");
    auto done = std::async(std::launch::async, [&] { tone.Release(); });
    ASSERT_EQ(done.wait_for(10s), std::future_status::ready) << "releasing an output of a lost server hangs";
    EXPECT_EQ(backend.Count(qxplat::DeviceKind::WaveOut), 0);
    LPDIRECTSOUND again = nullptr;
    EXPECT_EQ(DirectSoundCreate(nullptr, &again, nullptr), DSERR_NODRIVER);
    EXPECT_EQ(qxplat::LiveDirectSoundObjects(), 0u);

    // A server that comes back is found again, and its end is reported as well.
    ASSERT_TRUE(pulse.Start());
    EXPECT_EQ(backend.Count(qxplat::DeviceKind::WaveOut), 3);
    EXPECT_EQ(DirectSoundCreate(nullptr, &again, nullptr), DS_OK);
    if (again != nullptr) again->Release();
    pulse.Stop();
    harness::Await([] { return dev::g_serversLost.load() >= 2; });
    EXPECT_EQ(dev::g_serversLost.load(), 2);
}

// Raw ALSA PCM, the alsa backend: "default" is the pulse ALSA plugin, pointed at the
// fixture's server by an ALSA configuration of the test's own; handle_underrun reports
// the server's underruns as ALSA's. The plugin resamples when the sink is not at 48 kHz.
TEST(AlsaPcm, ToneThroughRawPcmIsHeardWhole)
{
    setenv("QUAVIX_BACKEND", "alsa", 1);
    const std::string server = std::getenv("PULSE_SERVER");
    harness::UseAlsaDefault("alsa-test", "{ type pulse; server \"" + server + "\"; device \"quavix_b\"; handle_underrun true }");
    qxplat::Backend& backend = qxplat::CurrentBackend();
    const int count = backend.Count(qxplat::DeviceKind::WaveOut);
    ASSERT_GE(count, 1);
    EXPECT_EQ(backend.DeviceName(qxplat::DeviceKind::WaveOut, 0), "Default ALSA output");
    for (int n = 1; n < count; ++n) EXPECT_NE(backend.DeviceName(qxplat::DeviceKind::WaveOut, n), "");
    setenv("PULSE_SERVER", server.c_str(), 1); // for parec and pactl
    ExpectToneHeard(nullptr, "quavix_b", 0.5, qxplat::AlsaPcmUnderrunFramesAll);
}

// Raw ALSA capture: "default" captures the monitor of quavix_a through the pulse plugin;
// a capture device that is not there is a clear error.
TEST(AlsaCapture, RawPcmRecordsTheDefaultCaptureDeviceAndAMissingOneFailsToOpen)
{
    setenv("QUAVIX_BACKEND", "alsa", 1);
    const std::string server = std::getenv("PULSE_SERVER");
    harness::UseAlsaDefault("alsa-missing-test", "{ type asym; playback.pcm \"null\"; capture.pcm \"hw:97,0\" }");
    ASSERT_GE(waveInGetNumDevs(), 1u);
    dev::Take missing;
    EXPECT_EQ(missing.Open(0, 48000, 2), MMSYSERR_NODRIVER);
    EXPECT_EQ(missing.Handle(), nullptr);

    harness::UseAlsaDefault("alsa-capture-test", "{ type asym;\n"
                            "  playback.pcm { type pulse; server \"" + server + "\"; device \"quavix_a\" }\n"
                            "  capture.pcm { type pulse; server \"" + server + "\"; device \"quavix_a.monitor\" } }");
    ASSERT_GE(waveInGetNumDevs(), 1u);
    EXPECT_EQ(dev::InputName(0), "Default ALSA input");
    setenv("PULSE_SERVER", server.c_str(), 1); // for paplay
    ExpectToneRecorded(0, "quavix_a", 48000, 1.0);
}

// quavix devices on the pulse backend: each device's system, and an input's whole name
// where the device caps keep 31 characters.
TEST(PulseCapture, DevicesShowsTheSystemAndWholeNames)
{
    ASSERT_GE(qxplat::CurrentBackend().Count(qxplat::DeviceKind::WaveIn), 1);
    const std::string name = qxplat::CurrentBackend().DeviceName(qxplat::DeviceKind::WaveIn, 0);
    ASSERT_GT(name.size(), 31u) << name << ": a name the caps would cut";
    const harness::TempFile out("devices.txt");
    harness::Child cli({QUAVIX_CLI_PATH, "devices", "--backend", "pulse"}, out);
    EXPECT_EQ(cli.Wait(30s), 0) << harness::Slurp(out);
    const std::string text = harness::Slurp(out);
    EXPECT_EQ(text.rfind("Backend: pulse\n", 0), 0u) << text;
    EXPECT_NE(text.find("wave  in     0  PulseAudio     " + name + " "), std::string::npos) << text;
    EXPECT_NE(text.find("wave  out    0  PulseAudio     "), std::string::npos) << text;
    EXPECT_NE(text.find("MIDI  out"), std::string::npos) << text;
    EXPECT_EQ(text.find("MIDI  out    0  PulseAudio"), std::string::npos) << "MIDI is the ALSA sequencer's\n" << text;
}

} // namespace
