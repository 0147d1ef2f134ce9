// quavix play and perform --audio on the virtual backend, heard through --render (16-bit
// stereo at 48 kHz): which tones the output mixed, how loud on each side, and from when.
#include "CliRunner.h"

#include <cmath>

namespace {

double Db(double ratio) { return 20 * std::log10(ratio); }

// Where the tone first reaches half its amplitude in the file (10 ms windows).
double OnsetMs(const Wav& w, double hz, double amplitude)
{
    for (double t = 0; t + 10 < w.Seconds() * 1000; t += 1)
        if (Level(w, 0, hz, t, t + 10) > amplitude / 2) return t + 5;
    return -1;
}

TEST(CliPlay, FilesSoundTogetherWithTheirVolumePanAndRate)
{
    const std::string a = WriteTone("a.wav", 400, 1.0, 0.4), b = WriteTone("b.wav", 1000, 1.0, 0.4);
    const std::string c = WriteTone("c.wav", 600, 1.2, 0.2), out = TempPath("mix.wav");
    const CliResult r = RunCli({"play", a, "--volume", "-6", b, "--pan=0.2", c, "--rate", "1.5", "--render", out});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_TRUE(r.err.empty()) << r.err;
    EXPECT_NE(r.out.find("files     3 of 3 played"), std::string::npos) << r.out;
    const Wav mix = ReadWav(out);
    size_t padding = 0; // silence an output that ran dry on a loaded machine put in
    analysis::WithoutPadding(mix.x, 2, &padding);
    EXPECT_GT(mix.Seconds(), 1.0);
    for (unsigned side = 0; side < 2; ++side) {
        SCOPED_TRACE(side);
        EXPECT_NEAR(Db(Level(mix, side, 400, 200, 600) / 0.4), -6.0, 0.3);
        EXPECT_NEAR(Db(Level(mix, side, 900, 200, 600) / 0.2), 0.0, 0.3) << "1.5 times 600 Hz";
        EXPECT_LT(Level(mix, side, 600, 200, 600), 0.002) << "nothing at the file's own pitch";
    }
    // Pan 0.2 takes 20 dB off the left and leaves the right.
    EXPECT_NEAR(Db(Level(mix, 0, 1000, 200, 600) / 0.4), -20.0, 0.3);
    EXPECT_NEAR(Db(Level(mix, 1, 1000, 200, 600) / 0.4), 0.0, 0.3);
    // 1.2 s at 1.5 times the rate is over by 0.8 s (plus the output's latency), and the
    // command ends once every file has played.
    if (padding == 0) {
        EXPECT_NEAR(Level(mix, 0, 900, 700, 780) / 0.2, 1.0, 0.1);
        EXPECT_LT(Level(mix, 0, 900, 900, 1000), 0.01);
        EXPECT_LT(mix.Seconds(), 2.5);
    }
}

// With one time given, every file is on one timeline: a file without --at (or with
// --at 0) starts at its 0 as exactly as the others; one started at once instead would
// be the output's latency (25 ms) closer to them.
TEST(CliPlay, AtStartsEachFileAtItsTimeOnATrackOfItsOwn)
{
    const std::string now = WriteTone("now.wav", 400, 0.3, 0.5), late = WriteTone("late.wav", 1000, 0.5, 0.5);
    const std::string early = WriteTone("early.wav", 1500, 1.0, 0.3), out = TempPath("at.wav");
    for (const std::string first : {"", "0"}) {
        SCOPED_TRACE("--at '" + first + "'");
        std::vector<std::string> args{"play", now};
        if (!first.empty()) args.insert(args.end(), {"--at", first});
        args.insert(args.end(), {late, "--at", "700", early, "--at", "250", "--render", out});
        const CliResult r = RunCli(args);
        ASSERT_EQ(r.status, 0) << r.err;
        const Wav mix = ReadWav(out);
        // Silence the output padded with when it ran dry on a loaded machine is left out.
        Wav left = mix;
        size_t padding = 0;
        left.channels = 1;
        left.x = analysis::WithoutPadding(mix.x, 2, &padding);
        const double onNow = OnsetMs(left, 400, 0.5), onEarly = OnsetMs(left, 1500, 0.3), onLate = OnsetMs(left, 1000, 0.5);
        ASSERT_GE(onNow, 0);
        // Its lead is 200 ms; a busy machine may start the timeline later, never seconds late.
        ASSERT_LT(onNow, 1000) << "the timeline starts long after the render";
        // An output that ran dry was stalled for longer than the timeline's lead can cover.
        if (padding == 0) {
            EXPECT_NEAR(onEarly - onNow, 250, 15);
            EXPECT_NEAR(onLate - onNow, 700, 15);
        }
        // The two timed files overlap, neither cut short by the other.
        EXPECT_NEAR(Level(left, 0, 1500, onLate + 100, onLate + 400) / 0.3, 1.0, 0.05);
        EXPECT_NEAR(Level(left, 0, 1000, onLate + 100, onLate + 400) / 0.5, 1.0, 0.05);
        EXPECT_GT(mix.Seconds(), (onNow + 1250) / 1000) << "it ends after the last file";
    }
}

// A file that cannot play is named with its reason and the others play; one shorter
// than its header says plays what is there, and a line says how much.
TEST(CliPlay, ABadFileIsNamedWithItsReasonAndTheOthersStillPlay)
{
    const std::string good = WriteTone("good.wav", 1000, 0.6, 0.5), out = TempPath("bad.wav"), cut = TempPath("cut.wav");
    const std::string text = TempPath("text.wav"), adpcm = TempPath("adpcm.wav"), missing = TempPath("missing.wav");
    ASSERT_TRUE(WriteBytes(text, {'n', 'o', 't', ' ', 'w', 'a', 'v', 'e', '\n'}));
    Bytes b = ReadBytes(WriteTone("whole-tone.wav", 400, 1.0, 0.25));
    b.resize(44 + 48000);
    ASSERT_TRUE(WriteBytes(cut, b));
    // A well-formed file in a format the mixer does not take: IMA ADPCM, 22050 Hz, 4-bit.
    b = ReadBytes(WriteTone("adpcm-base.wav", 1000, 0.01, 0.5, 22050));
    b[20] = 0x11;
    b[34] = 4;
    ASSERT_TRUE(WriteBytes(adpcm, b));

    const CliResult r = RunCli({"play", text, good, adpcm, "--at", "100", missing, cut, "--render", out});
    EXPECT_EQ(r.status, 1);
    const auto lines = r.ErrLines();
    ASSERT_EQ(lines.size(), 4u) << r.err;
    EXPECT_EQ(lines[0], "quavix play: " + text + ": not a RIFF WAVE file");
    EXPECT_EQ(lines[1].rfind("quavix play: " + adpcm + ": the mixer cannot play its format (tag 17, 22050 Hz, 4-bit", 0), 0u)
        << lines[1];
    EXPECT_NE(lines[1].find("DSERR_BADFORMAT"), std::string::npos) << lines[1];
    EXPECT_EQ(lines[2], "quavix play: " + missing + ": No such file or directory");
    EXPECT_NE(lines[3].find(cut + ": the file ends early: its header says 1.00 s, 0.50 s is there"), std::string::npos);
    EXPECT_NE(r.out.find("files     2 of 5 played"), std::string::npos) << r.out;
    const Wav mix = ReadWav(out);
    EXPECT_NEAR(Db(Level(mix, 1, 1000, 300, 600) / 0.5), 0.0, 0.3);
    EXPECT_NEAR(Db(Level(mix, 1, 400, 300, 600) / 0.25), 0.0, 0.3) << "the half second that is there";
    EXPECT_LT(Level(mix, 1, 400, 800, 900), 0.01) << "and nothing after";
    EXPECT_NE(r.out.find("peak      L -2.6 dBFS, R -2.6 dBFS"), std::string::npos) << "the meter saw both\n" << r.out;

    const CliResult none = RunCli({"play", text, missing});
    EXPECT_EQ(none.status, 1);
    EXPECT_EQ(none.ErrLines().size(), 2u) << none.err;
    EXPECT_TRUE(none.out.empty()) << "nothing playable, nothing played\n" << none.out;
}

TEST(CliPlay, PerformAudioPlaysTheWaveAtItsTimeBesideTheMidi)
{
    std::vector<std::pair<uint64_t, Bytes>> notes;
    for (uint64_t t = 0; t < 1200; t += 100) {
        notes.push_back({t, {0x90, 60, 100}});
        notes.push_back({t + 50, {0x80, 60, 0}});
    }
    const std::string song = WriteSong(qxsmf::FromMilliseconds(notes), "song.mid");
    const std::string tone = WriteTone("cue.wav", 1000, 0.8, 0.5), out = TempPath("perform.wav");
    const CliResult r = RunCli({"perform", song, "--audio", tone + "@600", "--render", out});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.out.find("events    24 of 24 sent"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("audio     1 of 1 wave file played"), std::string::npos) << r.out;
    const Wav mix = ReadWav(out);
    const double on = OnsetMs(mix, 1000, 0.5);
    EXPECT_GE(on, 550) << "early by as much as the output started after the performance";
    EXPECT_LT(on, 700);
    EXPECT_GT(mix.Seconds(), 1.4) << "the performance lasts until the wave has played";
    EXPECT_NEAR(Level(mix, 0, 1000, 800, 1300) / 0.5, 1.0, 0.05);

    // A wave file it cannot play is named; the MIDI plays all the same.
    const CliResult bad = RunCli({"perform", song, "--audio", TempPath("gone.wav") + "@100"});
    EXPECT_EQ(bad.status, 1);
    ASSERT_EQ(bad.ErrLines().size(), 1u) << bad.err;
    EXPECT_NE(bad.err.find("gone.wav: No such file or directory"), std::string::npos) << bad.err;
    EXPECT_NE(bad.out.find("events    24 of 24 sent"), std::string::npos) << bad.out;
}

} // namespace
