// Audio output on a real JACK server (dummy driver), played through the DirectSound calls
// and recorded from our own ports by jack_rec: the tone that comes out is checked for
// frequency, level and an unbroken phase. Also the output's port contract and a server
// that goes away while the output plays.
//
// Environment (set by CTest): JACK_DEFAULT_SERVER names the fixture's server,
// QUAVIX_BACKEND=jack.
#include "platform/backends/QXBackend.h"
#include "platform/backends/jack/QXJack.h"
#include "platform/dsound/QXDSound.h"
#include "platform/dsound/QXMixer.h"
#include "analysis.h"
#include "audio_out.h"
#include "harness.h"
#include "jack_clients.h"

#include <gtest/gtest.h>
#include <jack/jack.h>

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
using harness::Child;
using harness::Temp;
using jackclients::Probe;

// The device's primary buffer, playing: what an application does before its sounds.
LPDIRECTSOUNDBUFFER PlayPrimary(LPDIRECTSOUND ds)
{
    DSBUFFERDESC pd{};
    pd.dwSize = sizeof pd;
    pd.dwFlags = DSBCAPS_PRIMARYBUFFER;
    LPDIRECTSOUNDBUFFER primary = nullptr;
    if (ds->CreateSoundBuffer(&pd, &primary, nullptr) != DS_OK) return nullptr;
    if (primary->Play(0, 0, DSBPLAY_LOOPING) != DS_OK) {
        primary->Release();
        return nullptr;
    }
    return primary;
}

TEST(JackAudio, TheServerIsOneOutputWhosePortsGoToThePlaybackPorts)
{
    Probe probe;
    ASSERT_NE(probe.Client(), nullptr) << "the fixture's server does not answer";
    qxplat::Backend& b = qxplat::CurrentBackend();
    ASSERT_STREQ(b.Name(), "jack");
    const std::string server = std::getenv("JACK_DEFAULT_SERVER");
    ASSERT_EQ(b.Count(qxplat::DeviceKind::WaveOut), 1);
    EXPECT_EQ(b.DeviceName(qxplat::DeviceKind::WaveOut, 0), "JACK (" + server + ")");
    EXPECT_EQ(b.DeviceName(qxplat::DeviceKind::WaveOut, 1), "");
    EXPECT_EQ(b.DeviceName(qxplat::DeviceKind::WaveOut, -1), "");

    const std::vector<audioout::Driver> ds = audioout::Drivers();
    ASSERT_EQ(ds.size(), 2u);
    EXPECT_FALSE(ds[0].hasGuid);
    EXPECT_TRUE(ds[1].hasGuid);
    EXPECT_EQ(ds[1].description, "JACK (" + server + ")");
    EXPECT_EQ(ds[1].module, "jack");

    std::unique_ptr<qxplat::AudioOutPort> port;
    EXPECT_EQ(b.OpenAudioOut(1, port), MMSYSERR_BADDEVICEID);
    EXPECT_EQ(b.OpenAudioOut(-1, port), MMSYSERR_BADDEVICEID);
    EXPECT_EQ(port, nullptr);
    ASSERT_EQ(b.OpenAudioOut(0, port), MMSYSERR_NOERROR);
    const jack_nframes_t period = jack_get_buffer_size(probe.Client());
    EXPECT_EQ(port->Rate(), jack_get_sample_rate(probe.Client()));
    EXPECT_GE(port->TargetFrames(), period) << "less than a period queued runs dry every cycle";
    EXPECT_LT(port->TargetFrames(), port->Ring().Capacity());

    const std::string client = qxplat::JackClientName();
    ASSERT_FALSE(client.empty());
    EXPECT_EQ(probe.Connections(client + ":out_1"), std::vector<std::string>{"system:playback_1"});
    EXPECT_EQ(probe.Connections(client + ":out_2"), std::vector<std::string>{"system:playback_2"});

    std::unique_ptr<qxplat::AudioOutPort> second;
    ASSERT_EQ(b.OpenAudioOut(0, second), MMSYSERR_NOERROR);
    jackclients::ExpectPortsOfTheirOwn(probe, client + ":out", port, second);
}

// A 1 kHz tone from a 22050 Hz 16-bit buffer at -6 dB, recorded from our ports by jack_rec.
TEST(JackAudio, ToneIsRecordedWholeAtItsFrequencyAndLevel)
{
    Probe probe;
    ASSERT_NE(probe.Client(), nullptr);
    LPDIRECTSOUND ds = nullptr;
    ASSERT_EQ(DirectSoundCreate(nullptr, &ds, nullptr), DS_OK);
    LPDIRECTSOUNDBUFFER primary = PlayPrimary(ds);
    ASSERT_NE(primary, nullptr);
    LPDIRECTSOUNDBUFFER b = audioout::ToneBuffer(ds, 22050, 1000.0, 0.5);
    ASSERT_NE(b, nullptr);
    ASSERT_EQ(b->SetVolume(-600), DS_OK);
    const double expected = 0.5 * 32767.0 / 32768.0 * std::pow(10.0, -600.0 / 2000.0);
    ASSERT_EQ(b->Play(0, 0, DSBPLAY_LOOPING), DS_OK);
    ASSERT_TRUE(audioout::AwaitPlaying(b));

    const std::string client = qxplat::JackClientName();
    const std::string wav = Temp("tone.wav");
    const int xrunsBefore = probe.Xruns();
    const uint64_t underrunsBefore = qxplat::JackAudioUnderrunFramesAll();
    Child rec({"jack_rec", "-f", wav, "-d", "3", "-b", "32", client + ":out_1", client + ":out_2"});
    ASSERT_TRUE(rec.Started()) << "jack_rec does not start (package jackd2)";
    EXPECT_EQ(rec.Wait(30s), 0) << "jack_rec failed or hangs";
    const int xruns = probe.Xruns() - xrunsBefore;
    const uint64_t underruns = qxplat::JackAudioUnderrunFramesAll() - underrunsBefore;
    b->Stop();
    b->Release();
    primary->Release();
    ds->Release();
    EXPECT_EQ(qxplat::LiveDirectSoundObjects(), 0u);

    unsigned rate = 0;
    std::vector<float> st;
    ASSERT_TRUE(analysis::ReadWav(wav, rate, st)) << "jack_rec wrote no readable file";
    std::remove(wav.c_str());
    ASSERT_EQ(rate, jack_get_sample_rate(probe.Client()));
    const analysis::Report r = analysis::Analyse(st, 2, rate, 1000.0, 2.0);
    std::printf("tone at %u Hz: %.3f Hz, amplitude %.5f (expected %.5f), right/left %.5f, worst step %.5f, longest "
                "quiet run %zu frames, %d jumps (%d beside padding); %d xruns, %llu underrun frames\n",
                rate, r.frequency, r.amplitude, expected, r.rightToLeft, r.worstStep, r.longestQuiet, r.jumps,
                r.jumpsBesidePadding, xruns, static_cast<unsigned long long>(underruns));
    ASSERT_TRUE(r.found) << "no tone reached jack_rec";
    EXPECT_GE(r.steadySeconds, 0.1) << "not a tenth of a second of the tone came unbroken";
    EXPECT_NEAR(r.frequency, 1000.0, 0.5);
    EXPECT_NEAR(20 * std::log10(r.amplitude / expected), 0.0, 0.1) << "level off by more than 0.1 dB";
    EXPECT_NEAR(r.rightToLeft, 1.0, 0.01);
    // A server that fell behind may lose a cycle of what jack_rec hears; then the tone's
    // pitch and level are all that can be asked. An output that ran dry pads with silence
    // and loses nothing, so even then the sine may only break where padding begins or ends.
    if (xruns != 0) {
        std::printf("the server fell behind while recording: continuity not checked\n");
    } else if (underruns != 0) {
        EXPECT_EQ(r.jumps, r.jumpsBesidePadding) << "the phase jumps away from any padding: a lost or repeated frame";
    } else {
        EXPECT_LT(r.longestQuiet, 3u) << "a run of silence in the steady tone";
        EXPECT_EQ(r.jumps, 0) << "the phase jumps, with no xrun and no underrun: a gap or a repeat";
    }
}

TEST(JackAudio, UnderrunsAreCountedOnlyWhileTheRingRunsDryAndStopKeepsTheRing)
{
    qxplat::Backend& b = qxplat::CurrentBackend();
    ASSERT_EQ(b.Count(qxplat::DeviceKind::WaveOut), 1);
    std::unique_ptr<qxplat::AudioOutPort> port;
    ASSERT_EQ(b.OpenAudioOut(0, port), MMSYSERR_NOERROR);
    audioout::ExpectAFedPortKeepsPlaying(*port);
    audioout::ExpectStopKeepsTheRingAndRunningDryIsCounted(*port);
}

TEST(JackAudioGone, AServerThatGoesAwayWhileTheOutputPlaysIsReportedAndNothingHangs)
{
    // A server of this test's own, so that the fixture's stays up for the others.
    harness::JackServer server("quavix-ctest-audiogone-" + std::to_string(getpid()));
    ASSERT_TRUE(server.Ready()) << "private server did not start";
    setenv("JACK_DEFAULT_SERVER", server.Name().c_str(), 1);
    audioout::CountLostServers();
    qxplat::Backend& backend = qxplat::CurrentBackend();
    ASSERT_EQ(backend.Count(qxplat::DeviceKind::WaveOut), 1);
    LPDIRECTSOUND ds = nullptr;
    LPDIRECTSOUNDBUFFER b = audioout::PlayTone(&ds);
    ASSERT_NE(b, nullptr);

    server.Stop(); // the server goes away while the output plays
    harness::Await([] { return audioout::g_serversLost.load() > 0; });
    EXPECT_EQ(audioout::g_serversLost.load(), 1);
    EXPECT_EQ(audioout::g_lastServerLost, "JACK");

    // The output stops consuming: once the ring is full, the play cursor stands still.
    auto done = std::async(std::launch::async, [&] {
        DWORD play1 = 0, play2 = 0, write = 0;
        std::this_thread::sleep_for(200ms);
        EXPECT_EQ(b->GetCurrentPosition(&play1, &write), DS_OK);
        std::this_thread::sleep_for(300ms);
        EXPECT_EQ(b->GetCurrentPosition(&play2, &write), DS_OK);
        EXPECT_EQ(play1, play2) << "the mix goes on with nothing to take it";
        // The application's calls still return.
        EXPECT_EQ(b->Stop(), DS_OK);
        EXPECT_EQ(b->Play(0, 0, DSBPLAY_LOOPING), DS_OK);
        b->Stop();
        b->Release();
        ds->Release();
    });
    ASSERT_EQ(done.wait_for(10s), std::future_status::ready) << "an output of a lost server hangs";

    EXPECT_EQ(backend.Count(qxplat::DeviceKind::WaveOut), 0);
    EXPECT_EQ(backend.DeviceName(qxplat::DeviceKind::WaveOut, 0), "");
    std::unique_ptr<qxplat::AudioOutPort> port;
    EXPECT_EQ(backend.OpenAudioOut(0, port), MMSYSERR_NODRIVER);
    LPDIRECTSOUND again = nullptr;
    EXPECT_EQ(DirectSoundCreate(nullptr, &again, nullptr), DSERR_NODRIVER);
    EXPECT_EQ(again, nullptr);
    EXPECT_EQ(qxplat::LiveDirectSoundObjects(), 0u);
}

// A sequence of notes with two harmonics each, after half a second of silence (jack_rec
// needs a moment to start once our ports exist), as a mono 16-bit WAV; the samples are
// returned as float.
std::vector<float> WriteMusic(const std::string& path, unsigned rate)
{
    const double notes[] = {261.63, 329.63, 392.00, 523.25, 493.88, 440.00, 349.23, 293.66, 311.13, 415.30, 466.16, 587.33};
    const size_t lead = rate / 2, noteFrames = rate / 4, attack = rate / 200, release = rate / 50;
    std::vector<float> x(lead, 0.0f);
    for (double hz : notes)
        for (size_t i = 0; i < noteFrames; ++i) {
            const double env = std::min({1.0, static_cast<double>(i) / attack, static_cast<double>(noteFrames - i) / release});
            const double w = 2 * analysis::kPi * hz * static_cast<double>(i) / rate;
            const double v = 0.3 * std::sin(w) + 0.12 * std::sin(2 * w) + 0.05 * std::sin(3 * w);
            x.push_back(static_cast<float>(std::lround(env * v * 32767) / 32767.0));
        }
    return analysis::WriteWav(path, rate, 1, x) ? x : std::vector<float>{};
}

// `quavix perform` with a wave event at 0: what reaches our ports is the file, sample for
// sample (same rate, no resampling), at one offset once any padding is left out.
TEST(JackAudio, PerformWithAWaveEventPlaysTheFileIntoOurPorts)
{
    Probe probe;
    ASSERT_NE(probe.Client(), nullptr) << "the fixture's server does not answer";
    // The performance's MIDI needs an output: an input port of a client of ours.
    jack_client_t* sink = jack_client_open("qxperformsink", JackNoStartServer, nullptr);
    ASSERT_NE(sink, nullptr);
    ASSERT_NE(jack_port_register(sink, "in", JACK_DEFAULT_MIDI_TYPE, JackPortIsInput, 0), nullptr);
    ASSERT_EQ(jack_activate(sink), 0);

    const unsigned rate = jack_get_sample_rate(probe.Client());
    const std::string music = Temp("music.wav"), wav = Temp("perform.wav");
    const std::vector<float> src = WriteMusic(music, rate);
    ASSERT_FALSE(src.empty()) << "cannot write " << music;

    const std::string cliLog = Temp("perform.txt");
    Child cli({QUAVIX_CLI_PATH, "perform", QUAVIX_SOURCE_DIR "/examples/quavix-demo.mid", "--tempo-scale", "8",
               "--audio", music + "@0"},
              cliLog);
    ASSERT_TRUE(cli.Started());
    ASSERT_TRUE(probe.WaitExists("quavix:out_1")) << "the program's audio ports do not appear";
    const int xrunsBefore = probe.Xruns();
    Child rec({"jack_rec", "-f", wav, "-d", "5", "-b", "32", "quavix:out_1", "quavix:out_2"});
    ASSERT_TRUE(rec.Started()) << "jack_rec does not start (package jackd2)";
    EXPECT_EQ(rec.Wait(30s), 0) << "jack_rec failed or hangs";
    const int xruns = probe.Xruns() - xrunsBefore;
    const int status = cli.Wait(60s);
    jack_client_close(sink);
    EXPECT_EQ(status, 0) << harness::Slurp(cliLog);
    std::remove(cliLog.c_str());
    std::remove(music.c_str());

    unsigned recRate = 0;
    std::vector<float> st;
    ASSERT_TRUE(analysis::ReadWav(wav, recRate, st)) << "jack_rec wrote no readable file";
    std::remove(wav.c_str());
    ASSERT_EQ(recRate, rate);
    size_t padding = 0;
    const std::vector<float> left = analysis::LeftWithoutPadding(st, &padding);
    long lag = 0;
    const double c = analysis::BestCorrelation(left, src, rate, lag);
    std::printf("correlation %.5f at a lag of %ld frames; %zu frames of padding left out; %d xruns while recording\n",
                c, lag, padding, xruns);
    // A server that fell behind drops a cycle of what jack_rec hears: then only the sound's
    // presence is asked for.
    if (xruns != 0) EXPECT_GT(c, 0.5);
    else EXPECT_GE(c, 0.99) << "what came out is not the file";
    if (c < 0.99) {
        // Where it went wrong: each note's own best lag near the overall one.
        const size_t lead = rate / 2, note = rate / 4;
        for (size_t k = 0; k < 12; ++k) {
            double best = 0;
            long at = 0;
            for (long d = -static_cast<long>(rate / 20); d <= static_cast<long>(rate / 20); ++d)
                if (const double cc = analysis::Correlation(left, src, lag + d, lead + k * note, lead + (k + 1) * note);
                    cc > best)
                    best = cc, at = d;
            std::printf("note %zu: correlation %.4f at %+ld frames from the overall lag\n", k, best, at);
        }
    }
}

} // namespace
