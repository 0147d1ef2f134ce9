// The GM synth through `quavix perform --output <synth>` on the virtual backend, heard in
// the --render file and judged by tools not written here: aubio's onset detector says
// where notes and wave clicks start; the spectrum tells programs apart. And `quavix
// render`, which must be that performance frame for frame, and fail cleanly.
#include "CliRunner.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <sstream>

namespace {

using Song = std::vector<std::pair<uint64_t, std::vector<uint8_t>>>;
const std::vector<std::string> kFont = {"QUAVIX_SOUNDFONT=/usr/share/sounds/sf2/TimGM6mb.sf2"};
// No reverb or chorus on the channels played, so that notes end in silence. At 100 ms: a
// message due at the very start comes after its frame was mixed, and is counted late.
const Song kDry = {{100, {0xB9, 91, 0}}, {100, {0xB9, 93, 0}}, {100, {0xB0, 91, 0}}, {100, {0xB0, 93, 0}}};

// The synth's number as `quavix devices` lists it, -1 when it is not listed.
int SynthOutput(const std::vector<std::string>& env)
{
    std::stringstream s(RunCli({"devices"}, env).out);
    for (std::string line; std::getline(s, line);)
        if (line.rfind("MIDI  out", 0) == 0 && line.find("Quavix GM Synth") != std::string::npos)
            return std::stoi(line.substr(9, 5));
    return -1;
}

// The song (after kDry) played through the synth, with wave files as --audio FILE@MS;
// without --output, as the output perform chooses on the virtual backend. *pLate: what
// perform says of messages that came late.
Wav Render(Song song, const std::vector<std::string>& audio = {}, bool bChoose = true, std::string* pLate = nullptr)
{
    song.insert(song.begin(), kDry.begin(), kDry.end());
    const std::string out = TempPath("synth.wav");
    std::vector<std::string> args{"perform", WriteSong(qxsmf::FromMilliseconds(song), "synth.mid"), "-q", "--render", out};
    if (bChoose) args.insert(args.end(), {"--output", std::to_string(SynthOutput(kFont))});
    for (const std::string& a : audio) args.insert(args.end(), {"--audio", a});
    const CliResult r = RunCli(args, kFont);
    EXPECT_EQ(r.status, 0) << r.err;
    const size_t late = r.out.find("lateness  ");
    if (pLate != nullptr) *pLate = late == std::string::npos ? "" : r.out.substr(late, r.out.find('\n', late) - late);
    if (pLate != nullptr && r.out.find("underrun  ") != std::string::npos) *pLate += "; the output ran dry";
    if (pLate != nullptr && r.out.find("late      ") != std::string::npos) *pLate += "; a wave sound started late";
    return ReadWav(out);
}

// Frames where aubioonset finds onsets on one channel: high-frequency content over
// 256 frames, an 8-frame hop (a step of the synth's 64-frame grid), 100 ms apart at least.
// It prints whole frames through a float, one frame short at times.
std::vector<long> AubioOnsets(const Wav& w, unsigned channel)
{
    std::vector<float> x;
    for (size_t i = channel; i < w.x.size(); i += w.channels) x.push_back(w.x[i]);
    const std::string path = TempPath("channel.wav");
    EXPECT_TRUE(analysis::WriteWav(path, w.rate, 1, x));
    std::vector<long> at;
    if (FILE* p = popen(("aubioonset -i " + path + " -O hfc -H 8 -B 256 -M 0.1 -t 0.5 -s -50 -T samples").c_str(), "r")) {
        for (double v = 0; std::fscanf(p, "%lf", &v) == 1;) at.push_back(std::lround(v));
        EXPECT_EQ(pclose(p), 0);
    }
    std::remove(path.c_str());
    return at;
}

std::string Listed(const std::vector<long>& v)
{
    std::string s;
    for (long x : v) s += " " + std::to_string(x - v[0]);
    return s;
}

// Claves on the drum channel, panned right, at times that are not whole 64-frame blocks
// apart, and a click on the left as a wave event at each time. A wave event starts at its
// frame; FluidSynth starts a voice at its next 64-frame block. So the clicks are exactly
// the times' distances apart, the notes are where one phase of the grid puts them, and
// each note is after its click by its place in the grid (under 64 frames) and one attack.
// FluidSynth's first voice starts softer than those after it (in the fluidsynth program
// too), so the first note and click only lead in.
TEST(CliSynth, NotesStartOnTheSynthsGridBesideWaveClicksOfTheirTimes)
{
    if (std::system("command -v aubioonset >/dev/null") != 0) GTEST_SKIP() << "needs aubioonset (package aubio-tools)";
    const long times[] = {100, 401, 703, 1006, 1310, 1501, 1777};
    std::vector<float> burst(2000); // 3 kHz, fading, on the left
    for (size_t i = 0; i < burst.size(); i += 2)
        burst[i] = float(0.5 * std::sin(analysis::kPi * double(i) / 16) * std::exp(-double(i) / 400));
    const std::string click = TempPath("click.wav");
    ASSERT_TRUE(analysis::WriteWav(click, 48000, 2, burst));
    Song song{{0, {0xB9, 10, 127}}};
    std::vector<std::string> audio;
    for (long t : times) {
        song.insert(song.end(), {{uint64_t(t), {0x99, 75, 127}}, {uint64_t(t) + 100, {0x89, 75, 0}}});
        audio.push_back(click + "@" + std::to_string(t));
    }
    // perform tells of messages that came late, not of an output that ran dry: a failing
    // run is judged again, and only a fault seen in every run fails.
    std::string failed, late;
    for (int attempt = 0; attempt < 3; ++attempt) {
        const Wav w = Render(song, audio, true, &late);
        const std::vector<long> clicks = AubioOnsets(w, 0), notes = AubioOnsets(w, 1);
        const long perMs = long(w.rate / 1000);
        ASSERT_EQ(clicks.size(), std::size(times)) << Listed(clicks);
        ASSERT_EQ(notes.size(), std::size(times)) << Listed(notes);
        bool exact = true, grid = false;
        long spread[2] = {1 << 30, -(1 << 30)};
        for (size_t i = 1; i < notes.size(); ++i) {
            exact = exact && std::labs(clicks[i] - clicks[1] - (times[i] - times[1]) * perMs) <= 1;
            spread[0] = std::min(spread[0], notes[i] - clicks[i]);
            spread[1] = std::max(spread[1], notes[i] - clicks[i]);
        }
        // From the block where a voice due at frame p starts to where one due d frames later does.
        auto step = [](long p, long d) { return (p + d + 63) / 64 * 64 - (p + 63) / 64 * 64; };
        for (long p = 0; p < 64 && !grid; ++p) {
            grid = true;
            for (size_t i = 1; i < notes.size(); ++i)
                grid = grid && std::labs(notes[i] - notes[1] - step(p, (times[i] - times[1]) * perMs)) <= 1;
        }
        // The clave's attack, as the detector sees it against the click's, is about 2 ms.
        if (exact && grid && spread[1] - spread[0] < 64 && spread[0] >= 0 && spread[1] < 64 + 3 * perMs) return;
        failed += "\n  clicks" + Listed(clicks) + "; notes" + Listed(notes) + "; notes after clicks by " +
                  std::to_string(spread[0]) + " to " + std::to_string(spread[1]) + " frames; " + late;
    }
    ADD_FAILURE() << "in every run a click or note is off its frame:" << failed;
}

// The same middle A three times: piano, square lead after a program change, piano again
// after a GM reset. The first ten harmonics' shape tells them apart. No output is chosen:
// with nothing outside to play on, perform plays on the synth.
TEST(CliSynth, ProgramChangesAndGMResetAreHeard)
{
    Song song;
    for (uint64_t t : {100, 700, 1300}) {
        if (t == 700) song.push_back({t, {0xC0, 80}});
        if (t == 1300)
            song.insert(song.end(), {{t, {0xF0, 0x7E, 0x7F, 0x09, 0x01, 0xF7}}, {t, {0xB0, 91, 0}}, {t, {0xB0, 93, 0}}});
        song.insert(song.end(), {{t, {0x90, 69, 100}}, {t + 300, {0x80, 69, 0}}});
    }
    const Wav w = Render(song, {}, false);
    size_t first = 0;
    while (first < w.x.size() && std::fabs(w.x[first]) < 0.02f) ++first;
    ASSERT_LT(first, w.x.size()) << "nothing was heard";
    std::vector<double> h[3];
    for (int n = 0; n < 3; ++n) {
        const double from = double(first / w.channels) * 1000 / w.rate + 600 * n + 20;
        double norm = 0;
        for (int k = 1; k <= 10; ++k) norm += std::pow(h[n].emplace_back(Level(w, 0, 440.0 * k, from, from + 100)), 2);
        for (double& v : h[n]) v /= std::sqrt(norm);
    }
    auto distance = [&](int a, int b) {
        double s = 0;
        for (int k = 0; k < 10; ++k) s += std::pow(h[a][k] - h[b][k], 2);
        return std::sqrt(s);
    };
    // Piano against square lead: about 0.3 apart; the same piano: a thousandth.
    EXPECT_GT(distance(0, 1), 0.15) << "the program change was not heard";
    EXPECT_LT(distance(0, 2), 0.03) << "the GM reset did not bring the piano back";
}

TEST(CliSynth, WithoutASoundFontTheSynthIsMissingAndDevicesSaysWhy)
{
    const std::vector<std::string> none = {"QUAVIX_SOUNDFONT=/nonexistent/gm.sf2"};
    const CliResult devices = RunCli({"devices"}, none);
    ASSERT_EQ(devices.status, 0) << devices.err;
    EXPECT_EQ(devices.out.find("Quavix GM Synth"), std::string::npos);
    EXPECT_NE(devices.out.find("\nNo GM synth: no readable SoundFont at \"/nonexistent/gm.sf2\""), std::string::npos)
        << devices.out;
    // Where the synth would be: the output after the last one listed.
    const int n = SynthOutput(kFont);
    ASSERT_GT(n, 0);
    const std::string song = WriteSong(qxsmf::FromMilliseconds(kDry), "dry.mid");
    const CliResult r = RunCli({"perform", song, "--output", std::to_string(n)}, none);
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.ErrLines().size(), 1u) << r.err;
    EXPECT_NE(r.err.find("no MIDI output " + std::to_string(n)), std::string::npos) << r.err;
}

// The frames from the first sound on.
std::vector<float> FromFirstSound(const Wav& w)
{
    size_t first = 0;
    while (first < w.x.size() && w.x[first] == 0) ++first;
    return {w.x.begin() + std::ptrdiff_t(first / w.channels * w.channels), w.x.end()};
}

// Notes on two channels from 240 ms on (none within the synth's lead of the start, which
// could not be placed ahead), a click as a wave event at 300 and 2000 ms, and a 44.1 kHz
// mono tone that the mixer resamples, at 1000 ms. Real time starts the performance a
// few frames after the output, wherever the machine's start took it, and a render at
// the output's first frame: so the files are compared from their first sound on. The
// reverb (which the drum kit sends to by itself) is modulated from FluidSynth's own first
// frame, so where it sounds the two differ by a few steps of the 16-bit sample (3 seen);
// an event a frame off would differ by hundreds.
TEST(CliRender, IsThePerformanceOfRealTimeFrameForFrame)
{
    Song song;
    for (uint64_t t = 240, k = 0; t < 2600; t += 37 + 61 * (k % 4), ++k) {
        const uint8_t ch = k % 3 == 0 ? 9 : 0, key = uint8_t(k % 3 == 0 ? 42 + k % 5 : 55 + (k * 7) % 24);
        song.insert(song.end(), {{t, {uint8_t(0x90 | ch), key, 100}}, {t + 90 + 40 * (k % 5), {uint8_t(0x80 | ch), key, 0}}});
    }
    std::stable_sort(song.begin(), song.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
    std::vector<float> burst(4000);
    for (size_t i = 0; i < burst.size(); ++i) burst[i] = float(0.4 * std::sin(double(i) / 3) * std::exp(-double(i) / 900));
    const std::string click = TempPath("click.wav");
    ASSERT_TRUE(analysis::WriteWav(click, 48000, 2, burst));
    const std::vector<std::string> audio = {click + "@300", WriteTone("tone.wav", 330, 0.5, 0.3, 44100) + "@1000",
                                            click + "@2000"};
    // Real time is the reference only where the library says it kept time.
    std::string late;
    std::vector<float> played;
    auto kept = [&] { return late == "lateness  none: every message reached the synth before its frame was mixed"; };
    for (int attempt = 0; attempt < 4 && (attempt == 0 || !kept()); ++attempt)
        played = FromFirstSound(Render(song, audio, true, &late));
    if (!kept())
        GTEST_SKIP() << "real time never kept time on this machine: " << late;

    song.insert(song.begin(), kDry.begin(), kDry.end());
    const std::string out = TempPath("rendered.wav");
    std::vector<std::string> args{"render", WriteSong(qxsmf::FromMilliseconds(song), "render.mid"), out};
    for (const std::string& a : audio) args.insert(args.end(), {"--audio", a});
    const CliResult r = RunCli(args, kFont);
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.out.find("x real time)"), std::string::npos) << r.out;
    const Bytes first = ReadBytes(out);
    ASSERT_EQ(RunCli(args, kFont).status, 0);
    EXPECT_TRUE(ReadBytes(out) == first) << "two renders of one performance differ";
    const std::vector<float> rendered = FromFirstSound(ReadWav(out));
    ASSERT_GT(rendered.size(), 2u * 48000 * 2);
    const size_t n = std::min(played.size(), rendered.size());
    EXPECT_LT(std::max(played.size(), rendered.size()) - n, 2u * 48000 / 10) << "the files' lengths differ by more than the start";
    size_t differ = 0, firstDiff = n;
    for (size_t i = 0; i < n; ++i)
        if (std::fabs(played[i] - rendered[i]) > 8.0f / 32768) differ++, firstDiff = std::min(firstDiff, i);
    EXPECT_EQ(differ, 0u) << "of " << n / 2 << " frames; the first at frame " << firstDiff / 2 << " from the first sound ("
                          << late << ")";
}

// A render that cannot be made says why in one line, exits 1 and leaves nothing behind.
TEST(CliRender, FailsInOneLineAndLeavesNoFile)
{
    const std::string song = WriteSong(qxsmf::FromMilliseconds({{0, {0x90, 60, 100}}, {500, {0x80, 60, 0}}}), "ok.mid");
    const std::string broken = TempPath("broken.mid"), notADir = TempPath("plain");
    ASSERT_TRUE(WriteBytes(broken, {'M', 'T', 'h', 'd', 0, 0, 0, 6, 0, 1, 0, 9}));
    ASSERT_TRUE(WriteBytes(notADir, {1}));
    struct Case {
        const char* what;
        std::string mid, says;
        std::vector<std::string> env;
        bool bOutUnder = true; // the output goes in a folder of its own, which must stay empty
    } cases[] = {
        {"a broken file", broken, "broken.mid", kFont},
        {"no SoundFont", song, "GM synth", {"QUAVIX_SOUNDFONT=/nonexistent/gm.sf2"}},
        {"an unwritable output", song, "cannot write", kFont, false},
    };
    for (const Case& c : cases) {
        const std::string dir = TempPath("out");
        std::filesystem::create_directory(dir);
        const std::string out = c.bOutUnder ? dir + "/x.wav" : notADir + "/x.wav";
        const CliResult r = RunCli({"render", c.mid, out}, c.env);
        EXPECT_EQ(r.status, 1) << c.what << ": " << r.err;
        ASSERT_EQ(r.ErrLines().size(), 1u) << c.what << ": " << r.err;
        EXPECT_NE(r.err.find(c.says), std::string::npos) << c.what << ": " << r.err;
        EXPECT_TRUE(DirEntries(dir).empty()) << c.what << ": " << DirEntries(dir)[0];
    }
}

// --format sets the file's rate, sample size and channels; mono is both sides' mean.
TEST(CliRender, WritesTheFormatAskedFor)
{
    const std::string song = WriteSong(qxsmf::FromMilliseconds({{100, {0x90, 69, 100}}, {600, {0x80, 69, 0}}}), "a.mid");
    for (const char* format : {"44100:24:1", "96000:32:2"}) {
        const std::string out = TempPath("format.wav");
        const CliResult r = RunCli({"render", song, out, "--format", format}, kFont);
        ASSERT_EQ(r.status, 0) << format << ": " << r.err;
        const Wav w = ReadWav(out);
        unsigned rate = 0, bits = 0, channels = 0;
        std::sscanf(format, "%u:%u:%u", &rate, &bits, &channels);
        EXPECT_EQ(std::vector<unsigned>({w.rate, w.bits, w.channels}), std::vector<unsigned>({rate, bits, channels})) << format;
        EXPECT_GT(w.Seconds(), 0.6) << format;
        EXPECT_GT(Level(w, 0, 440, 200, 500), 10 * Level(w, 0, 466, 200, 500)) << format << ": no A4 in it";
    }
}

} // namespace
