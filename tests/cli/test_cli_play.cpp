// quavix play and perform --audio on the virtual backend, heard through --render: which
// tones the output mixed, how loud on each side, and from when.
#include "CliRunner.h"

#include <gtest/gtest.h>

#include <cmath>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr double kRate = 48000.0; // the virtual outputs' rate

void Put16(std::vector<uint8_t>& b, unsigned v)
{
    b.push_back(static_cast<uint8_t>(v));
    b.push_back(static_cast<uint8_t>(v >> 8));
}

void Put32(std::vector<uint8_t>& b, uint32_t v)
{
    Put16(b, v & 0xFFFF);
    Put16(b, v >> 16);
}

// A 16-bit mono sine of the given amplitude (1.0 is full scale).
std::string WriteTone(const std::string& name, double hz, double seconds, double amplitude, unsigned rate = 48000)
{
    const auto frames = static_cast<uint32_t>(seconds * rate);
    std::vector<uint8_t> b{'R', 'I', 'F', 'F'};
    Put32(b, 36 + frames * 2);
    for (char c : std::string("WAVEfmt ")) b.push_back(static_cast<uint8_t>(c));
    Put32(b, 16);
    Put16(b, 1);
    Put16(b, 1);
    Put32(b, rate);
    Put32(b, rate * 2);
    Put16(b, 2);
    Put16(b, 16);
    for (char c : std::string("data")) b.push_back(static_cast<uint8_t>(c));
    Put32(b, frames * 2);
    for (uint32_t i = 0; i < frames; ++i)
        Put16(b, static_cast<uint16_t>(static_cast<int16_t>(std::lround(amplitude * 32767 * std::sin(2 * M_PI * hz * i / rate)))));
    const std::string path = TempPath(name);
    EXPECT_TRUE(WriteBytes(path, b));
    return path;
}

struct Render {
    std::vector<float> ch[2];
    double Seconds() const { return static_cast<double>(ch[0].size()) / kRate; }

    // The amplitude of a tone in [fromMs, toMs) of one side.
    double Level(int side, double hz, double fromMs, double toMs) const
    {
        const auto a = static_cast<size_t>(fromMs * kRate / 1000), b = static_cast<size_t>(toMs * kRate / 1000);
        const double w = 2 * M_PI * hz / kRate;
        double re = 0, im = 0;
        for (size_t i = a; i < b && i < ch[side].size(); ++i) {
            re += ch[side][i] * std::cos(w * static_cast<double>(i));
            im -= ch[side][i] * std::sin(w * static_cast<double>(i));
        }
        return 2 * std::hypot(re, im) / static_cast<double>(b - a);
    }

    // Where the tone first reaches half the level it has at steadyMs (10 ms windows).
    double OnsetMs(double hz, double steadyMs) const
    {
        const double half = Level(0, hz, steadyMs, steadyMs + 100) / 2;
        for (double t = 0; t + 10 < Seconds() * 1000; t += 1)
            if (Level(0, hz, t, t + 10) > half) return t + 5;
        return -1;
    }
};

// The render as the virtual output writes it: 16-bit stereo at 48 kHz, 44-byte header.
Render ReadRender(const std::string& path)
{
    const std::vector<uint8_t> b = ReadBytes(path);
    Render r;
    EXPECT_GT(b.size(), 44u) << path;
    if (b.size() <= 44) return r;
    EXPECT_EQ(std::memcmp(b.data(), "RIFF", 4), 0);
    EXPECT_EQ(std::memcmp(b.data() + 36, "data", 4), 0);
    for (size_t i = 44; i + 3 < b.size(); i += 4)
        for (int c = 0; c < 2; ++c) {
            const auto s = static_cast<int16_t>(b[i + 2 * c] | (b[i + 2 * c + 1] << 8));
            r.ch[c].push_back(static_cast<float>(s) / 32768.0f);
        }
    return r;
}

double Db(double ratio)
{
    return 20 * std::log10(ratio);
}

// "peak      L -6.0 dBFS, R -6.0 dBFS" of a summary.
bool SummaryPeak(const std::string& out, double& left, double& right)
{
    const size_t at = out.find("peak      L ");
    return at != std::string::npos && std::sscanf(out.c_str() + at, "peak      L %lf dBFS, R %lf dBFS", &left, &right) == 2;
}

TEST(CliPlay, FilesSoundTogetherWithTheirVolumePanAndRate)
{
    const std::string a = WriteTone("a.wav", 400, 1.0, 0.4), b = WriteTone("b.wav", 1000, 1.0, 0.4);
    const std::string c = WriteTone("c.wav", 600, 1.2, 0.2), out = TempPath("mix.wav");
    const CliResult r = RunCli({"play", a, "--volume", "-6", b, "--pan=0.2", c, "--rate", "1.5", "--render", out});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_TRUE(r.err.empty()) << r.err;
    EXPECT_NE(r.out.find("files     3 of 3 played"), std::string::npos) << r.out;
    const Render mix = ReadRender(out);
    // Every file starts at once; the longest ends after 1 s, the rate-changed one after 0.8 s.
    EXPECT_GT(mix.Seconds(), 1.0);
    EXPECT_LT(mix.Seconds(), 2.5) << "the command ends once every file has played";
    for (int side = 0; side < 2; ++side) {
        EXPECT_NEAR(Db(mix.Level(side, 400, 200, 600) / 0.4), -6.0, 0.3) << "side " << side;
        EXPECT_NEAR(Db(mix.Level(side, 900, 200, 600) / 0.2), 0.0, 0.3) << "1.5 times 600 Hz, side " << side;
        EXPECT_LT(mix.Level(side, 600, 200, 600), 0.002) << "nothing at the file's own pitch";
    }
    // Pan 0.2 takes 20 dB off the left and leaves the right.
    EXPECT_NEAR(Db(mix.Level(0, 1000, 200, 600) / 0.4), -20.0, 0.3);
    EXPECT_NEAR(Db(mix.Level(1, 1000, 200, 600) / 0.4), 0.0, 0.3);
    // 1.2 s at 1.5 times the rate is over by 0.8 s (plus the output's latency).
    EXPECT_NEAR(mix.Level(0, 900, 700, 780) / 0.2, 1.0, 0.1);
    EXPECT_LT(mix.Level(0, 900, 900, 1000), 0.01);
}

TEST(CliPlay, AtStartsEachFileAtItsTimeOnATrackOfItsOwn)
{
    const std::string now = WriteTone("now.wav", 400, 0.3, 0.5), late = WriteTone("late.wav", 1000, 0.5, 0.5);
    const std::string early = WriteTone("early.wav", 1500, 1.0, 0.3), out = TempPath("at.wav");
    // With one time given, every file is on the one timeline: a file without --at (or
    // with --at 0) starts at 0 of it, as exactly as the others (a file that started at
    // once instead would be 25 ms, the output's latency, closer to the others).
    for (const std::string first : {"", "0"}) {
        std::vector<std::string> args{"play", now};
        if (!first.empty()) args.insert(args.end(), {"--at", first});
        args.insert(args.end(), {late, "--at", "700", early, "--at", "250", "--render", out});
        const CliResult r = RunCli(args);
        ASSERT_EQ(r.status, 0) << r.err;
        const Render mix = ReadRender(out);
        // Judged against each tone's level well inside it: the timeline starts a little
        // after the render (by a lead of no more than 250 ms).
        const double onNow = mix.OnsetMs(400, 350), onEarly = mix.OnsetMs(1500, 800), onLate = mix.OnsetMs(1000, 1200);
        ASSERT_GE(onNow, 0) << "--at '" << first << "'";
        ASSERT_LT(onNow, 300) << "--at '" << first << "'";
        EXPECT_NEAR(onEarly - onNow, 250, 15) << "--at '" << first << "'";
        EXPECT_NEAR(onLate - onNow, 700, 15) << "--at '" << first << "'";
        // The two timed files overlap, neither cut short by the other.
        EXPECT_NEAR(mix.Level(0, 1500, onLate + 100, onLate + 400) / 0.3, 1.0, 0.05);
        EXPECT_NEAR(mix.Level(0, 1000, onLate + 100, onLate + 400) / 0.5, 1.0, 0.05);
        EXPECT_GT(mix.Seconds(), (onNow + 1250) / 1000) << "it ends after the last file";
    }
}

// A file cut short plays what is there, and the command says how much that is.
TEST(CliPlay, AFileShorterThanItsHeaderSaysHowMuchIsThere)
{
    const std::string whole = WriteTone("whole-tone.wav", 1000, 1.0, 0.5), cut = TempPath("cut.wav");
    std::vector<uint8_t> b = ReadBytes(whole);
    b.resize(44 + 48000); // half a second of 16-bit mono
    ASSERT_TRUE(WriteBytes(cut, b));
    const CliResult r = RunCli({"play", cut, "-q"});
    EXPECT_EQ(r.status, 0) << r.err;
    ASSERT_EQ(r.ErrLines().size(), 1u) << r.err;
    EXPECT_NE(r.err.find(cut + ": the file ends early: its header says 1.00 s, 0.50 s is there"), std::string::npos)
        << r.err;
    EXPECT_NE(r.out.find("0.5 s of sound"), std::string::npos) << r.out;
}

// What sox writes by default, and 24-bit and multichannel files (all in a
// WAVE_FORMAT_EXTENSIBLE header), play as other files do.
TEST(CliPlay, EverydayFilesFromSoxPlay)
{
    if (std::system("command -v sox >/dev/null 2>&1") != 0) GTEST_SKIP() << "sox not installed (apt-get install -y sox)";
    const struct {
        const char* name;
        const char* options; // sox's output options
    } cases[] = {{"sox-default.wav", "-r 48000 -c 2"}, {"sox-24.wav", "-r 44100 -c 2 -b 24"},
                 {"sox-6ch.wav", "-r 48000 -c 6 -b 16"}, {"sox-float.wav", "-r 48000 -c 1 -e floating-point -b 32"}};
    for (const auto& c : cases) {
        const std::string wav = TempPath(c.name), out = TempPath(std::string("heard-") + c.name);
        const std::string make = std::string("sox -n ") + c.options + " " + wav + " synth 0.5 sine 1000 vol 0.5";
        ASSERT_EQ(std::system(make.c_str()), 0) << make;
        const CliResult r = RunCli({"play", wav, "-q", "--render", out});
        EXPECT_EQ(r.status, 0) << c.name << ": " << r.err;
        if (r.status != 0) continue;
        const Render mix = ReadRender(out);
        for (int side = 0; side < 2; ++side)
            EXPECT_GT(mix.Level(side, 1000, 150, 400), 0.1) << c.name << ", side " << side;
    }
}

TEST(CliPlay, ABadFileIsNamedWithItsReasonAndTheOthersStillPlay)
{
    const std::string good = WriteTone("good.wav", 1000, 0.6, 0.5), out = TempPath("bad.wav");
    const std::string text = TempPath("text.wav"), adpcm = TempPath("adpcm.wav"), missing = TempPath("missing.wav");
    ASSERT_TRUE(WriteBytes(text, {'n', 'o', 't', ' ', 'a', ' ', 'w', 'a', 'v', 'e', ' ', 'f', 'i', 'l', 'e', '\n'}));
    // A well-formed file in a format the mixer does not take (IMA ADPCM, 4-bit).
    std::vector<uint8_t> b{'R', 'I', 'F', 'F'};
    Put32(b, 36 + 256);
    for (char c : std::string("WAVEfmt ")) b.push_back(static_cast<uint8_t>(c));
    Put32(b, 16);
    Put16(b, 0x11);
    Put16(b, 1);
    Put32(b, 22050);
    Put32(b, 11025);
    Put16(b, 256);
    Put16(b, 4);
    for (char c : std::string("data")) b.push_back(static_cast<uint8_t>(c));
    Put32(b, 256);
    b.resize(b.size() + 256);
    ASSERT_TRUE(WriteBytes(adpcm, b));

    const CliResult r = RunCli({"play", text, good, adpcm, "--at", "100", missing, "--render", out});
    EXPECT_EQ(r.status, 1);
    const auto lines = r.ErrLines();
    ASSERT_EQ(lines.size(), 3u) << r.err;
    EXPECT_EQ(lines[0], "quavix play: " + text + ": not a RIFF WAVE file");
    EXPECT_EQ(lines[1].rfind("quavix play: " + adpcm + ": the mixer cannot play its format (tag 17, 22050 Hz, 4-bit", 0), 0u)
        << lines[1];
    EXPECT_NE(lines[1].find("DSERR_BADFORMAT"), std::string::npos) << lines[1];
    EXPECT_EQ(lines[2], "quavix play: " + missing + ": No such file or directory");
    EXPECT_NE(r.out.find("files     1 of 4 played"), std::string::npos) << r.out;
    EXPECT_NEAR(Db(ReadRender(out).Level(1, 1000, 300, 700) / 0.5), 0.0, 0.3);
    // The meter saw the one tone, at -6 dBFS on both sides.
    double left = 0, right = 0;
    ASSERT_TRUE(SummaryPeak(r.out, left, right)) << r.out;
    EXPECT_NEAR(left, -6.0, 0.2);
    EXPECT_NEAR(right, -6.0, 0.2);

    // Nothing playable at all: the same lines, and nothing is played.
    const CliResult none = RunCli({"play", text, missing});
    EXPECT_EQ(none.status, 1);
    EXPECT_EQ(none.ErrLines().size(), 2u) << none.err;
    EXPECT_TRUE(none.out.empty()) << none.out;
}

TEST(CliPlay, CtrlCStopsTheSoundAndKeepsTheRender)
{
    const std::string tone = WriteTone("long.wav", 500, 1.5, 0.5), out = TempPath("stopped.wav");
    // A quarter of the rate makes it last 6 s.
    const CliResult r = RunCli({"play", tone, "--rate", "0.25", "--render", out}, {}, 1000);
    ASSERT_EQ(r.status, 130) << r.err;
    EXPECT_NE(r.out.find("Stopped (interrupted)"), std::string::npos) << r.out;
    const Render mix = ReadRender(out);
    EXPECT_GT(mix.Seconds(), 0.5);
    EXPECT_LT(mix.Seconds(), 4.0) << "the sound stopped long before its end";
    EXPECT_NEAR(mix.Level(0, 125, 200, 600) / 0.5, 1.0, 0.05);
}

TEST(CliPlay, PerformAudioPlaysTheWaveAtItsTimeBesideTheMidi)
{
    std::vector<std::pair<uint64_t, std::vector<uint8_t>>> notes;
    for (uint64_t t = 0; t < 1200; t += 100) {
        notes.push_back({t, {0x90, 60, 100}});
        notes.push_back({t + 50, {0x80, 60, 0}});
    }
    const std::string song = TempPath("song.mid");
    std::string error;
    ASSERT_TRUE(qxsmf::Write(song, qxsmf::FromMilliseconds(notes), error)) << error;
    const std::string tone = WriteTone("cue.wav", 1000, 0.8, 0.5), out = TempPath("perform.wav");
    const CliResult r = RunCli({"perform", song, "--audio", tone + "@600", "--render", out});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.out.find("events    24 of 24 sent"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("audio     1 of 1 wave file played"), std::string::npos) << r.out;
    const Render mix = ReadRender(out);
    const double on = mix.OnsetMs(1000, 900);
    EXPECT_GE(on, 550); // early by as much as the output started after the performance
    EXPECT_LT(on, 700);
    EXPECT_GT(mix.Seconds(), 1.4) << "the performance lasts until the wave has played";
    EXPECT_NEAR(mix.Level(0, 1000, 800, 1300) / 0.5, 1.0, 0.05);

    // A wave file it cannot play is named; the MIDI plays all the same.
    const CliResult bad = RunCli({"perform", song, "--audio", TempPath("gone.wav") + "@100"});
    EXPECT_EQ(bad.status, 1);
    ASSERT_EQ(bad.ErrLines().size(), 1u) << bad.err;
    EXPECT_NE(bad.err.find("gone.wav: No such file or directory"), std::string::npos) << bad.err;
    EXPECT_NE(bad.out.find("events    24 of 24 sent"), std::string::npos) << bad.out;
}

TEST(CliPlay, BadUsageIsRefusedBeforeAnythingPlays)
{
    const std::string tone = WriteTone("usage.wav", 1000, 0.2, 0.5);
    const struct {
        std::vector<std::string> args;
        int status;
        std::string says;
    } cases[] = {
        {{"play"}, 2, "needs a FILE.wav"},
        {{"play", "--volume", "-6", tone}, 2, "--volume applies to the FILE.wav before it"},
        {{"play", tone, "--pan", "0.5", "--pan", "0.1"}, 2, "--pan is given twice for " + tone},
        {{"play", tone, "--volume", "6"}, 2, "--volume takes a number from -100 to 0, not '6'"},
        {{"play", tone, "--pan", "-2"}, 2, "--pan takes a number from -1 to 1"},
        {{"play", tone, "--at", "1.5"}, 2, "--at takes a whole number"},
        {{"play", tone, "--at"}, 2, "--at needs a value"},
        {{"play", tone, "--rate", "0.001"}, 2, "--rate takes a number"},
        {{"play", tone, "--rate", "50"}, 1, tone + ": --rate 50 would play it at 2400000 Hz"},
        {{"play", tone, "--out", "3"}, 1, "no wave output 3 on the virtual backend: there is only wave output 0"},
        {{"play", tone, "--render", "/nonexistent-dir/x.wav"}, 1, "cannot write /nonexistent-dir/x.wav"},
        {{"perform", tone, "--audio", tone + "@99999999999"}, 2, "--audio takes a whole number"},
        {{"perform", tone, "--wave-out", "x"}, 2, "--wave-out takes a whole number"},
        {{"perform", tone, "--audio", tone + "@abc"}, 2, "--audio takes FILE.wav or FILE.wav@MS"},
        {{"play", tone, "--volume", "-6", "--render", tone}, 2, "will not write " + tone + ": it is one of the files"},
        {{"perform", tone, "--audio", tone + "@5", "--render", tone}, 2, "one of the files it reads"},
    };
    for (const auto& c : cases) {
        const CliResult r = RunCli(c.args);
        std::string line;
        for (const auto& a : c.args) line += a + " ";
        EXPECT_EQ(r.status, c.status) << line << "\n" << r.err;
        const auto lines = r.ErrLines();
        ASSERT_EQ(lines.size(), 1u) << line << "\n" << r.err;
        EXPECT_NE(lines[0].find(c.says), std::string::npos) << line << "\n" << lines[0];
        EXPECT_TRUE(r.out.empty()) << line << ": nothing played\n" << r.out;
    }
}

TEST(CliPlay, RenderReplacesTheFileWholeAndLeavesNothingBeside)
{
    const std::string tone = WriteTone("whole.wav", 1000, 0.3, 0.5);
    const std::string dir = TempPath("render-dir");
    ASSERT_EQ(mkdir(dir.c_str(), 0755), 0);
    const std::string target = dir + "/out.wav", link = dir + "/link.wav";
    ASSERT_TRUE(WriteBytes(target, {'o', 'l', 'd'}));
    ASSERT_EQ(symlink("out.wav", link.c_str()), 0);
    const CliResult r = RunCli({"play", tone, "-q", "--render", link});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_NEAR(ReadRender(target).Level(0, 1000, 50, 250) / 0.5, 1.0, 0.05) << "the link's file was replaced";
    struct stat st {};
    ASSERT_EQ(lstat(link.c_str(), &st), 0);
    EXPECT_TRUE(S_ISLNK(st.st_mode));
    std::vector<std::string> names;
    if (DIR* d = opendir(dir.c_str())) {
        while (const dirent* e = readdir(d)) names.push_back(e->d_name);
        closedir(d);
    }
    EXPECT_EQ(names.size(), 4u) << "., .., out.wav and link.wav only";
}

} // namespace
