// The GM synth on JACK: `quavix perform --output <synth>` plays into wave output 0, our
// client's output ports, where jack_rec hears the note at its pitch.
#include "analysis.h"
#include "devices.h"

#include "Smf.h"

#include <gtest/gtest.h>

namespace {

using namespace std::chrono_literals;
using harness::Child;

const std::vector<std::string> kFont = {"QUAVIX_SOUNDFONT=/usr/share/sounds/sf2/TimGM6mb.sf2"};

// A tone's amplitude on the left channel over the whole recording.
double Level(const analysis::Wav& w, double hz)
{
    double re = 0, im = 0;
    const size_t frames = w.x.size() / w.channels;
    for (size_t i = 0; i < frames; ++i) {
        re += w.x[i * w.channels] * std::cos(2 * analysis::kPi * hz * double(i) / w.rate);
        im += w.x[i * w.channels] * std::sin(2 * analysis::kPi * hz * double(i) / w.rate);
    }
    return 2 * std::hypot(re, im) / double(frames);
}

} // namespace

TEST(SynthJack, JackRecHearsTheSynthsNoteInOurPorts)
{
    dev::Probe probe;
    ASSERT_NE(probe.Client(), nullptr);
    const harness::TempFile list("devices.txt"), log("perform.txt"), song("song.mid"), wav("synth.wav");
    Child devices({QUAVIX_CLI_PATH, "devices"}, list, "", kFont);
    ASSERT_EQ(devices.Wait(30s), 0) << harness::Slurp(list);
    std::string synth;
    for (const std::string& line : harness::Lines(harness::Slurp(list)))
        if (line.rfind("MIDI  out", 0) == 0 && line.find("Quavix GM Synth") != std::string::npos) synth = line.substr(9, 5);
    ASSERT_FALSE(synth.empty()) << "no synth listed:\n" << harness::Slurp(list);

    // A flute's middle A, dry, held for two seconds after half a second of silence (jack_rec
    // needs a moment once our ports exist).
    std::string error;
    ASSERT_TRUE(qxsmf::Write(song, qxsmf::FromMilliseconds({{0, {0xC0, 73}}, {0, {0xB0, 91, 0}}, {0, {0xB0, 93, 0}},
                                                             {500, {0x90, 69, 100}}, {2500, {0x80, 69, 0}}}),
                             error))
        << error;
    Child cli({QUAVIX_CLI_PATH, "perform", song, "--output", std::to_string(std::stoi(synth)), "-q"}, log, "", kFont);
    ASSERT_TRUE(probe.WaitExists("quavix:out_1")) << "the program's audio ports do not appear";
    Child rec({"jack_rec", "-f", wav, "-d", "2.5", "-b", "32", "quavix:out_1", "quavix:out_2"});
    EXPECT_EQ(rec.Wait(30s), 0) << "jack_rec failed or hangs";
    EXPECT_EQ(cli.Wait(60s), 0) << harness::Slurp(log);

    const analysis::Wav w = analysis::ReadWav(wav);
    ASSERT_EQ(w.channels, 2u) << "jack_rec wrote no readable file";
    const double a = Level(w, 440), below = Level(w, 415.3), above = Level(w, 466.16);
    std::printf("peak %.3f; 440 Hz %.4f, a semitone below %.4f, above %.4f\n", analysis::Peak(w.x), a, below, above);
    EXPECT_GT(a, 0.001) << "jack_rec heard no A";
    EXPECT_GT(a, 10 * std::max(below, above)) << "what jack_rec heard is not the note";
}
