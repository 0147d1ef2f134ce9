// Wave input on a real JACK server (dummy driver), through the platform's waveIn calls:
// our input ports and their connections, jack_metro's clicks recorded at their spacing,
// and a server that goes away while an input records.
//
// Environment (set by CTest): JACK_DEFAULT_SERVER names the fixture's server,
// QUAVIX_BACKEND=jack.
#include "analysis.h"
#include "capture_take.h"
#include "harness.h"
#include "jack_clients.h"

#include "platform/QXPlatform.h"
#include "platform/backends/QXBackend.h"
#include "platform/backends/jack/QXJack.h"

#include <gtest/gtest.h>
#include <jack/jack.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <string>
#include <vector>

namespace {

using namespace std::chrono_literals;
using harness::Child;
using jackclients::Probe;

TEST(JackCapture, TheServerIsOneInputWhosePortsComeFromTheCapturePorts)
{
    Probe probe;
    ASSERT_NE(probe.Client(), nullptr) << "the fixture's server does not answer";
    ASSERT_STREQ(qxplat::SelectedBackendName(), "jack");
    const std::string server = std::getenv("JACK_DEFAULT_SERVER");
    ASSERT_EQ(waveInGetNumDevs(), 1u);
    EXPECT_EQ(capture::InputName(0), "JACK (" + server + ")");
    WAVEINCAPSA caps{};
    EXPECT_EQ(waveInGetDevCapsA(1, &caps, sizeof caps), MMSYSERR_BADDEVICEID);

    const std::string client = qxplat::JackClientName();
    ASSERT_FALSE(client.empty());
    capture::Take bad;
    EXPECT_EQ(bad.Open(1, 48000, 2), MMSYSERR_BADDEVICEID);

    // A query opens nothing that stays.
    const WAVEFORMATEX fmt = capture::Pcm16(48000, 2);
    EXPECT_EQ(waveInOpen(nullptr, 0, &fmt, 0, 0, WAVE_FORMAT_QUERY), MMSYSERR_NOERROR);
    EXPECT_FALSE(probe.Exists(client + ":in_1"));

    auto first = std::make_unique<capture::Take>();
    ASSERT_EQ(first->Open(0, 48000, 2), MMSYSERR_NOERROR);
    EXPECT_EQ(probe.Connections(client + ":in_1"), std::vector<std::string>{"system:capture_1"});
    EXPECT_EQ(probe.Connections(client + ":in_2"), std::vector<std::string>{"system:capture_2"});

    auto second = std::make_unique<capture::Take>();
    ASSERT_EQ(second->Open(0, 44100, 1), MMSYSERR_NOERROR);
    jackclients::ExpectPortsOfTheirOwn(probe, client + ":in", first, second);
}

// The port's own contract: frames flow only between Start and Stop, at the server's rate.
TEST(JackCapture, StopEndsDeliveryAndStartResumesIt)
{
    Probe probe;
    ASSERT_NE(probe.Client(), nullptr);
    qxplat::Backend& b = qxplat::CurrentBackend();
    std::unique_ptr<qxplat::AudioInPort> port;
    EXPECT_EQ(b.OpenAudioIn(-1, port), MMSYSERR_BADDEVICEID);
    ASSERT_EQ(b.OpenAudioIn(0, port), MMSYSERR_NOERROR);
    EXPECT_EQ(port->Rate(), jack_get_sample_rate(probe.Client()));
    capture::ExpectStopEndsDeliveryAndStartResumesIt(*port);

    // Nobody reading: the ring fills, and what finds it full is counted.
    qxplat::AudioRing& ring = port->Ring();
    port->Start();
    harness::Await([&] { return port->OverrunFrames() > 0; });
    port->Stop();
    EXPECT_EQ(ring.Readable(), ring.Capacity());
    EXPECT_GT(port->OverrunFrames(), 0u);
}

// jack_metro clicks every 60/bpm s, exactly in frames; fed into our in_1 and recorded as
// 16-bit at the server's rate, the clicks must come at that spacing. A lost or repeated
// cycle would move a click by a whole period.
TEST(JackCapture, MetronomeClicksAreRecordedAtTheirSpacing)
{
    Probe probe;
    ASSERT_NE(probe.Client(), nullptr);
    const unsigned rate = jack_get_sample_rate(probe.Client());
    const jack_nframes_t period = jack_get_buffer_size(probe.Client());
    constexpr int kBpm = 120;
    const std::string metro = "qxmetro" + std::to_string(getpid());
    Child clicks({"jack_metro", "-n", metro, "-b", std::to_string(kBpm), "-f", "1000", "-A", "0.5", "-D", "20"});
    ASSERT_TRUE(clicks.Started()) << "jack_metro does not start (package jackd2)";
    const std::string source = metro + ":" + std::to_string(kBpm) + "_bpm";
    ASSERT_TRUE(probe.WaitExists(source)) << "jack_metro's port does not appear";

    capture::Take take;
    ASSERT_EQ(take.Open(0, rate, 2), MMSYSERR_NOERROR);
    const std::string in1 = qxplat::JackClientName() + ":in_1";
    ASSERT_EQ(jack_connect(probe.Client(), source.c_str(), in1.c_str()), 0);
    const int xrunsBefore = probe.Xruns();
    ASSERT_EQ(take.Start(), MMSYSERR_NOERROR);
    EXPECT_TRUE(take.Collect(4 * rate, 30s)) << "the recording does not fill";
    take.Close();
    const int xruns = probe.Xruns() - xrunsBefore;
    clicks.Stop();
    EXPECT_EQ(take.StopResult(), MMSYSERR_NOERROR);
    EXPECT_EQ(take.CloseResult(), MMSYSERR_NOERROR);

    // A click begins where the left channel first passes 0.1 after 25 ms of quiet.
    const std::vector<float> left = take.Channel(0), right = take.Channel(1);
    const long spacing = 60L * rate / kBpm;
    const std::vector<long> onsets = analysis::Onsets(left, 0.1f, rate / 40);
    long worst = 0;
    for (size_t k = 1; k < onsets.size(); ++k) worst = std::max(worst, std::labs(onsets[k] - onsets[k - 1] - spacing));
    std::printf("%zu frames recorded, %zu clicks, spacing %ld frames expected, worst error %ld frames (period %u), "
                "click peak %.4f, right channel peak %.5f, %d xruns\n",
                take.Frames(), onsets.size(), spacing, worst, period, analysis::Peak(left), analysis::Peak(right),
                xruns);
    ASSERT_GE(onsets.size(), 6u) << "the clicks did not come through in_1";
    EXPECT_NEAR(analysis::Peak(left), 0.5, 0.02) << "the click's level changed on the way";
    EXPECT_LT(analysis::Peak(right), 0.001) << "the click leaked into the right channel";
    if (xruns != 0)
        std::printf("the server fell behind while recording: the spacing is not checked\n");
    else
        EXPECT_LE(worst, static_cast<long>(period)) << "a click is off its spacing by more than a period";
}

std::atomic<int> g_lost{0};

TEST(JackCaptureGone, AServerThatGoesAwayWhileRecordingHangsNeitherStopNorClose)
{
    // A server of this test's own, so that the fixture's stays up for the others.
    harness::JackServer server("quavix-ctest-capturegone-" + std::to_string(getpid()));
    ASSERT_TRUE(server.Ready()) << "private server did not start";
    setenv("JACK_DEFAULT_SERVER", server.Name().c_str(), 1);
    qxplat::SetBackendEventProc([](qxplat::BackendEvent e, int, const char*) {
        if (e == qxplat::BackendEvent::ServerLost) g_lost.fetch_add(1);
    });
    ASSERT_EQ(waveInGetNumDevs(), 1u);

    auto take = std::make_unique<capture::Take>();
    ASSERT_EQ(take->Open(0, 48000, 2), MMSYSERR_NOERROR);
    ASSERT_EQ(take->Start(), MMSYSERR_NOERROR);
    EXPECT_TRUE(take->Collect(48000 / 4, 10s)) << "nothing recorded while the server ran";

    server.Stop(); // the server goes away while the input records
    harness::Await([] { return g_lost.load() > 0; });
    EXPECT_EQ(g_lost.load(), 1);

    auto done = std::async(std::launch::async, [&] { take->Close(); });
    ASSERT_EQ(done.wait_for(10s), std::future_status::ready) << "waveInStop or waveInClose hangs";
    EXPECT_EQ(take->StopResult(), MMSYSERR_NOERROR);
    EXPECT_EQ(take->ResetResult(), MMSYSERR_NOERROR);
    EXPECT_EQ(take->CloseResult(), MMSYSERR_NOERROR);

    // The input is gone from the list and does not open again.
    EXPECT_EQ(waveInGetNumDevs(), 0u);
    capture::Take again;
    EXPECT_EQ(again.Open(0, 48000, 2), MMSYSERR_NODRIVER);
}

} // namespace
