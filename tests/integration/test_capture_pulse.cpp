// Wave input on a real PulseAudio (or PipeWire) server without hardware, through the
// platform's waveIn calls: a tone paplay plays into a null sink is recorded from that
// sink's monitor and checked for frequency and level. Also raw ALSA capture, through the
// pulse ALSA plugin from the same server, and a capture device that is not there.
//
// Environment (set by CTest): PULSE_SERVER names the fixture's server,
// QUAVIX_PULSE_DIR its directory, QUAVIX_BACKEND=pulse.
#include "analysis.h"
#include "capture_take.h"
#include "harness.h"

#include "platform/QXPlatform.h"
#include "platform/backends/QXBackend.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

using namespace std::chrono_literals;
using harness::SinkRate;

std::string ToneFile(unsigned rate)
{
    const std::string path = harness::Temp("tone.wav");
    return analysis::WriteWav(path, rate, 2, analysis::Sine(rate, 2, 1000.0, 0.5, 8.0)) ? path : std::string();
}

// Plays a 1 kHz tone at 0.5 into a sink, records it through wave input `device` as 16-bit
// stereo at `rate`, and expects the tone at its pitch and level on both channels.
void ExpectToneRecorded(int device, const std::string& sink, unsigned rate, double hzTolerance = 0.5)
{
    const std::string wav = ToneFile(48000);
    EXPECT_FALSE(wav.empty());
    capture::Take take;
    EXPECT_EQ(take.Open(static_cast<UINT>(device), rate, 2), MMSYSERR_NOERROR);
    EXPECT_EQ(take.Start(), MMSYSERR_NOERROR);
    {
        harness::Child player({"paplay", "-d", sink, wav});
        EXPECT_TRUE(player.Started()) << "paplay does not start (package pulseaudio-utils)";
        EXPECT_TRUE(take.Collect(4 * rate, 30s)) << "the recording does not fill";
    }
    take.Close();
    std::remove(wav.c_str());
    EXPECT_EQ(take.CloseResult(), MMSYSERR_NOERROR);
    const analysis::Report t = analysis::Analyse(take.Samples(), 2, rate, 1000.0, 2.0, 0.05f);
    std::printf("input %d (%s) recording %s at %u Hz: %zu frames, tone %.3f Hz, amplitude %.4f, right/left %.4f, "
                "unbroken for %.2f s\n",
                device, capture::InputName(static_cast<UINT>(device)).c_str(), sink.c_str(), rate, take.Frames(),
                t.frequency, t.amplitude, t.rightToLeft, t.steadySeconds);
    ASSERT_TRUE(t.found) << "no tone came in";
    EXPECT_GE(t.steadySeconds, 0.1) << "not a tenth of a second of the tone came unbroken";
    EXPECT_NEAR(t.frequency, 1000.0, hzTolerance);
    EXPECT_NEAR(t.amplitude, 0.5, 0.02);
    EXPECT_NEAR(t.rightToLeft, 1.0, 0.02);
}

TEST(PulseCapture, InputsAreTheDefaultThenEachSourceMonitorsIncluded)
{
    ASSERT_GE(waveInGetNumDevs(), 3u);
    EXPECT_EQ(capture::InputName(0).rfind("Default input (", 0), 0u) << capture::InputName(0);
    const int a = capture::FindInput("Monitor of Quavix_A"), b = capture::FindInput("Monitor of Quavix_B");
    EXPECT_GT(a, 0);
    ASSERT_GT(b, 0);
    WAVEINCAPSA caps{};
    EXPECT_EQ(waveInGetDevCapsA(waveInGetNumDevs(), &caps, sizeof caps), MMSYSERR_BADDEVICEID);

    // Each input opens at its source's own rate; a number past the list does not open.
    qxplat::Backend& backend = qxplat::CurrentBackend();
    std::unique_ptr<qxplat::AudioInPort> port;
    ASSERT_EQ(backend.OpenAudioIn(b, port), MMSYSERR_NOERROR);
    EXPECT_EQ(port->Rate(), SinkRate("quavix_b"));
    port.reset();
    EXPECT_EQ(backend.OpenAudioIn(static_cast<int>(waveInGetNumDevs()), port), MMSYSERR_BADDEVICEID);
    EXPECT_EQ(backend.OpenAudioIn(-1, port), MMSYSERR_BADDEVICEID);
    capture::Take bad;
    EXPECT_EQ(bad.Open(waveInGetNumDevs(), 48000, 2), MMSYSERR_BADDEVICEID);

    // The default follows the server (the capabilities' name holds 31 characters of it).
    ASSERT_EQ(harness::Pactl("set-default-source", "quavix_b.monitor"), 0);
    waveInGetNumDevs();
    EXPECT_EQ(backend.DeviceName(qxplat::DeviceKind::WaveIn, 0), "Default input (Monitor of Quavix_B)");
    EXPECT_EQ(capture::InputName(0), std::string("Default input (Monitor of Quavix_B)").substr(0, MAXPNAMELEN - 1));
    harness::Pactl("set-default-source", "quavix_a.monitor");
}

// At the monitor's own rate nothing is converted but the sample format.
TEST(PulseCapture, ToneOnANullSinkIsRecordedFromItsMonitor)
{
    const int a = capture::FindInput("Monitor of Quavix_A");
    ASSERT_GE(a, 0);
    ExpectToneRecorded(a, "quavix_a", SinkRate("quavix_a"));
}

// A 44.1 kHz monitor recorded at 48 kHz: a source whose rate were taken wrongly would put
// the tone at 1088 Hz.
TEST(PulseCapture, ToneFromAMonitorAtAnotherRateIsConvertedToTheInputsRate)
{
    const int b = capture::FindInput("Monitor of Quavix_B");
    ASSERT_GE(b, 0);
    ExpectToneRecorded(b, "quavix_b", 48000);
}

// The port's own contract, with a tone playing so that the monitor has something to send.
TEST(PulseCapture, StopEndsDeliveryAndStartResumesIt)
{
    const int a = capture::FindInput("Monitor of Quavix_A");
    ASSERT_GE(a, 0);
    const std::string wav = ToneFile(48000);
    ASSERT_FALSE(wav.empty());
    harness::Child player({"paplay", "-d", "quavix_a", wav});
    qxplat::Backend& backend = qxplat::CurrentBackend();
    std::unique_ptr<qxplat::AudioInPort> port;
    ASSERT_EQ(backend.OpenAudioIn(a, port), MMSYSERR_NOERROR);
    capture::ExpectStopEndsDeliveryAndStartResumesIt(*port);
    std::remove(wav.c_str());
}

// Raw ALSA capture, the alsa backend: "default" is the pulse ALSA plugin, its capture
// side the monitor of quavix_a, by an ALSA configuration of the test's own.
TEST(AlsaCapture, RawPcmRecordsTheDefaultCaptureDevice)
{
    setenv("QUAVIX_BACKEND", "alsa", 1);
    const std::string server = std::getenv("PULSE_SERVER");
    harness::UseAlsaDefault("alsa-capture-test", "{ type asym;\n"
                            "  playback.pcm { type pulse; server \"" + server + "\"; device \"quavix_a\" }\n"
                            "  capture.pcm { type pulse; server \"" + server + "\"; device \"quavix_a.monitor\" } }");
    ASSERT_GE(waveInGetNumDevs(), 1u);
    EXPECT_EQ(capture::InputName(0), "Default ALSA input");

    setenv("PULSE_SERVER", server.c_str(), 1); // for paplay
    ExpectToneRecorded(0, "quavix_a", 48000, 1.0);
}

TEST(AlsaCapture, ACaptureDeviceThatIsNotThereIsAClearError)
{
    setenv("QUAVIX_BACKEND", "alsa", 1);
    harness::UseAlsaDefault("alsa-missing-test", "{ type asym; playback.pcm \"null\"; capture.pcm \"hw:97,0\" }");
    ASSERT_GE(waveInGetNumDevs(), 1u);
    capture::Take take;
    EXPECT_EQ(take.Open(0, 48000, 2), MMSYSERR_NODRIVER);
    EXPECT_EQ(take.Handle(), nullptr);
}

// quavix devices on the pulse backend: each device's system, and an input's whole name
// where the device caps keep 31 characters.
TEST(PulseCapture, DevicesShowsTheSystemAndWholeNames)
{
    qxplat::Backend& backend = qxplat::CurrentBackend();
    ASSERT_GE(backend.Count(qxplat::DeviceKind::WaveIn), 1);
    const std::string name = backend.DeviceName(qxplat::DeviceKind::WaveIn, 0);
    ASSERT_GT(name.size(), 31u) << name << ": a name the caps would cut";
    FILE* p = popen(QUAVIX_CLI_PATH " devices --backend pulse 2>&1", "r");
    ASSERT_NE(p, nullptr);
    std::string out;
    char b[512];
    while (std::fgets(b, sizeof b, p) != nullptr) out += b;
    EXPECT_EQ(pclose(p), 0) << out;
    EXPECT_EQ(out.rfind("Backend: pulse\n", 0), 0u) << out;
    EXPECT_NE(out.find("wave  in     0  PulseAudio     " + name + " "), std::string::npos) << out;
    EXPECT_NE(out.find("wave  out    0  PulseAudio     "), std::string::npos) << out;
    EXPECT_NE(out.find("MIDI  out"), std::string::npos) << out;
    EXPECT_EQ(out.find("MIDI  out    0  PulseAudio"), std::string::npos) << "MIDI is the ALSA sequencer's\n" << out;
}

} // namespace
