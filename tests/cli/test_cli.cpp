// The quavix program on the virtual backend, run as a user would run it. Timing is
// judged on due times, which the virtual backend records exactly, or on the time stamps
// of injected messages, which carry the injected times.
#include "CliRunner.h"
#include "Demo.h"

#include <algorithm>
#include <cmath>
#include <csignal>
#include <sys/stat.h>

using qxsmf::Kind;

namespace {

using Timed = std::vector<std::pair<uint64_t, Bytes>>;
const std::vector<std::string> kInOut{"QUAVIX_VIRTUAL_DEVICES=midi-in=1,midi-out=2"};

// Two tracks at 120 ppq with a tempo change after one second: notes off the 100 ms grid,
// a program change, controllers, pitch bend and a SysEx, about 2.6 s long.
qxsmf::File TestSong()
{
    qxsmf::Track conductor{{{0, Kind::Meta, 0x51, {0x07, 0xA1, 0x20}}, {240, Kind::Meta, 0x51, {0x09, 0x27, 0xC0}}}};
    qxsmf::Track music{{{0, Kind::Channel, 0, {0xC0, 11}}, {0, Kind::SysEx, 0, {0xF0, 0x7E, 0x7F, 0x09, 0x01, 0xF7}}}};
    for (uint8_t i = 0; i < 20; ++i) {
        const uint64_t at = i * 27u;
        music.events.push_back({at, Kind::Channel, 0, {0x90, static_cast<uint8_t>(60 + i), static_cast<uint8_t>(40 + i)}});
        music.events.push_back({at + 20, Kind::Channel, 0, {0x80, static_cast<uint8_t>(60 + i), 0}});
        if (i % 5 == 0) music.events.push_back({at + 5, Kind::Channel, 0, {0xB1, 7, i}});
    }
    music.events.push_back({300, Kind::Channel, 0, {0xE1, 0x00, 0x50}});
    std::stable_sort(music.events.begin(), music.events.end(),
                     [](const qxsmf::Event& a, const qxsmf::Event& b) { return a.tick < b.tick; });
    return {1, 120, {conductor, music}};
}

// Same messages at the same times, whatever the order among equal times: the engine
// sends note-offs first among events of one time.
void ExpectSameMessages(std::vector<qxsmf::Message> want, std::vector<qxsmf::Message> got, double toleranceMs)
{
    auto order = [](const qxsmf::Message& a, const qxsmf::Message& b) {
        const long ta = std::lround(a.ms), tb = std::lround(b.ms);
        return ta != tb ? ta < tb : a.bytes < b.bytes;
    };
    std::sort(want.begin(), want.end(), order);
    std::sort(got.begin(), got.end(), order);
    ASSERT_EQ(got.size(), want.size());
    for (size_t i = 0; i < want.size(); ++i) {
        EXPECT_EQ(got[i].bytes, want[i].bytes) << "message " << i;
        EXPECT_NEAR(got[i].ms, want[i].ms, toleranceMs) << "message " << i;
    }
}

std::vector<Bytes> BytesOf(const std::string& path)
{
    std::vector<Bytes> got;
    for (const auto& m : MessagesOf(path)) got.push_back(m.bytes);
    return got;
}

// What panic sends each output: note-offs of every key and two controllers on every
// channel, then a reset.
std::vector<Bytes> PanicBytes()
{
    std::vector<Bytes> all;
    for (uint8_t ch = 0; ch < 16; ++ch) {
        for (uint8_t key = 0; key < 128; ++key) all.push_back({static_cast<uint8_t>(0x90 | ch), key, 0});
        all.insert(all.end(), {{static_cast<uint8_t>(0xB0 | ch), 0x79, 0}, {static_cast<uint8_t>(0xB0 | ch), 0x7B, 0}});
    }
    all.push_back({0xFF});
    return all;
}

} // namespace

// What perform emits (at its due times, on the chosen output, at the tempo scale) and
// what record-midi keeps (from its first message on) are the file's messages at their
// times. The input takes short messages only: record-midi says what it passed over.
TEST(Cli, PerformAndRecordMidiKeepEveryMessageAtItsTime)
{
    const qxsmf::File song = TestSong();
    const std::string in = WriteSong(song, "song.mid"), out = TempPath("out.mid");
    Timed messages, feed;
    for (uint8_t i = 0; i < 12; ++i) {
        messages.push_back({i * 73u, {0x91, static_cast<uint8_t>(50 + i), 90}});
        messages.push_back({i * 73u + 40, {0x81, static_cast<uint8_t>(50 + i), 0}});
    }
    messages.push_back({900, {0xE2, 0x10, 0x40}});
    feed = messages;
    feed.insert(feed.end(), {{300, {0xF0, 0x7E, 0x7F, 0x09, 0x01, 0xF7}}, {310, {0xF0, 0x43, 0x10, 0x4C, 0xF7}}});
    std::stable_sort(feed.begin(), feed.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
    const std::vector<std::string> due{"--capture", out, "--capture-times", "due"};
    const struct {
        std::vector<std::string> args;
        std::vector<std::string> says;
        std::vector<qxsmf::Message> want;
    } cases[] = {
        {{"perform", in, "--output", "0", "--tempo-scale", "1"}, {"events    47 of 47 sent"}, MessagesOf(song, 1)},
        {{"perform", in, "--output", "0", "--tempo-scale", "2.5"}, {"lateness  worst"}, MessagesOf(song, 2.5)},
        {{"perform", kDemo, "--output", "1", "--tempo-scale", "4"}, {"\"Quavix demo\", format 1, 5 tracks"},
         MessagesOf(qxsmf::BuildDemo(), 4)},
        {{"record-midi", "--in", "0", out, "--inject", WriteSong(qxsmf::FromMilliseconds(feed), "feed.mid")},
         {"25 messages recorded", "2 SysEx messages not recorded"}, MessagesOf(qxsmf::FromMilliseconds(messages))},
    };
    for (const auto& c : cases) {
        std::vector<std::string> args = c.args;
        if (args[0] == "perform") args.insert(args.end(), due.begin(), due.end());
        SCOPED_TRACE(testing::PrintToString(args));
        const CliResult r = RunCli(args, kInOut);
        ASSERT_EQ(r.status, 0) << r.err;
        EXPECT_EQ(r.err, "");
        for (const std::string& s : c.says) EXPECT_NE(r.out.find(s), std::string::npos) << r.out;
        auto got = MessagesOf(out);
        ASSERT_FALSE(got.empty());
        for (double t0 = got.front().ms; auto& m : got) m.ms -= args[0] == "perform" ? 0 : t0;
        ExpectSameMessages(c.want, got, 2.0);
    }
}

// Every command says on stdout what it did (with --capture, what it emitted is checked),
// or refuses bad input before doing anything, with one line on stderr that says why.
// A "!" before a text means it must not be said.
TEST(Cli, EveryCommandSaysWhatItDidOrInOneLineWhyNot)
{
    const std::string missing = TempPath("missing.mid"), truncated = TempPath("truncated.mid");
    const std::string text = TempPath("text.mid"), tone = WriteTone("usage.wav", 1000, 0.2, 0.5);
    const std::string never = TempPath("never.wav"), folder = TempPath("folder");
    ASSERT_EQ(mkdir(folder.c_str(), 0755), 0);
    Bytes demo = qxsmf::Serialize(qxsmf::BuildDemo());
    demo.resize(demo.size() - 100);
    ASSERT_TRUE(WriteBytes(truncated, demo));
    ASSERT_TRUE(WriteBytes(text, {'h', 'e', 'l', 'l', 'o', '\n'}));
    const std::string oneTrack = TempPath("one-track.mid");
    ASSERT_TRUE(WriteBytes(oneTrack, {'M', 'T', 'h', 'd', 0, 0, 0, 6, 0, 0, 0, 1, 0, 96}));
    qxsmf::File f2 = TestSong();
    f2.format = 2;
    const std::string format2 = WriteSong(f2, "format2.mid");
    const qxsmf::File day{
        0, 1, {{{{0, Kind::Meta, 0x51, {0xFF, 0xFF, 0xFF}}, {qxsmf::kMaxVlq, Kind::Channel, 0, {0x90, 1, 1}}}}}};
    const std::string longer = WriteSong(day, "day.mid"), song = WriteSong(TestSong(), "song.mid");
    const std::string feed = WriteSong(
        qxsmf::FromMilliseconds({{0, {0x90, 60, 100}}, {50, {0xB3, 7, 80}}, {100, {0x80, 60, 0}}, {120, {0xC5, 4}},
                                 {150, {0xFE}}}),
        "feed.mid");
    const std::vector<std::string> devices{"QUAVIX_VIRTUAL_DEVICES=midi-in=2,midi-out=3,wave-in=0,wave-out=0"};
    struct Case {
        std::vector<std::string> args;
        int status;
        std::vector<std::string> says;
        std::vector<std::string> env = kInOut;
        std::vector<Bytes> emits = {}; // with --capture
    };
    std::vector<Case> cases{
        {{"devices"}, 0, {"Backend: virtual\n", "MIDI  in     1  virtual        Quavix Virtual MIDI In 2             yes",
                          "MIDI  out    2  virtual        Quavix Virtual MIDI Out 3            yes",
                          "wave  in     -  virtual        (none)", "!MIDI  in     2", "!MIDI  out    3"}, devices},
        {{"devices", "--backend", "auto"}, 0, {"Backend: ", " (chosen by auto)\n"}},
        {{"devices"}, 0, {"wave  in     1", "48000:16:2 (what quavix record uses"}, {"QUAVIX_VIRTUAL_DEVICES=wave-in=2"}},
        {{"send", "--out", "1", "90", "3C", "40", "0x3E", "0x41", "803C00", "F0", "7E", "7F", "09", "01", "F7"}, 0,
         {"Sent 4 messages (14 bytes) to MIDI output 1"}, kInOut,
         {{0x90, 0x3C, 0x40}, {0x90, 0x3E, 0x41}, {0x80, 0x3C, 0x00}, {0xF0, 0x7E, 0x7F, 0x09, 0x01, 0xF7}}},
        {{"send", "--out", "0", "FE"}, 0, {"Sent 1 message (1 byte)"}, kInOut, {{0xFE}}},
        {{"panic", "--out", "1"}, 0, {"Silenced 1 MIDI output"}, kInOut, PanicBytes()},
        {{"panic"}, 0, {"Silenced 2 MIDI outputs"}},
        {{"thru", "--in", "0", "--out", "1", "--channel", "10", "--inject", feed}, 0, {"4 messages passed through"},
         kInOut, {{0x99, 60, 100}, {0xB9, 7, 80}, {0x89, 60, 0}, {0xC9, 4}}},
        {{"--version"}, 0, {"quavix "}},
        {{"--help"}, 0, {"devices", "perform", "play", "record", "sync-slave", "thru", "record-midi", "send", "panic"}},
        {{}, 2, {""}},
        {{"dance"}, 2, {"unknown command 'dance'"}},
        {{"help", "dance"}, 2, {"unknown command"}},
        {{"devices"}, 2, {"QUAVIX_BACKEND takes virtual, jack, pulse, alsa or auto, not 'bogus'"}, {"QUAVIX_BACKEND=bogus"}},
        {{"devices", "--backend", "wasapi"}, 2, {"--backend takes virtual, jack, pulse, alsa or auto"}},
        {{"devices", "extra"}, 2, {"takes no arguments"}},
        {{"perform"}, 2, {"needs a FILE.mid"}},
        {{"perform", missing}, 1, {"cannot open"}},
        {{"perform", truncated}, 1, {"truncated"}},
        {{"perform", truncated, "--output", "3"}, 1, {"truncated"}},
        {{"perform", text}, 1, {"not a Standard MIDI File"}},
        {{"perform", format2}, 1, {format2 + ": it is a format 2 file"}},
        {{"perform", longer}, 1, {longer + ": it plays for longer than 24 hours"}},
        {{"perform", oneTrack}, 1, {"announces 1 track,"}},
        {{"perform", text, "--output", "0x1"}, 2, {"--output takes a whole number"}},
        {{"perform", text, "--output", " 1"}, 2, {"--output takes a whole number"}},
        {{"perform", text, "--loud"}, 2, {"unknown option '--loud'"}},
        {{"perform", text, "--output"}, 2, {"--output needs a value"}},
        {{"perform", truncated, "--capture", truncated}, 2, {"it is one of the files it reads"}},
        {{"perform", tone, "--audio", tone + "@99999999999"}, 2, {"--audio takes a whole number"}},
        {{"perform", tone, "--wave-out", "x"}, 2, {"--wave-out takes a whole number"}},
        {{"perform", tone, "--audio", tone + "@abc"}, 2, {"--audio takes FILE.wav or FILE.wav@MS"}},
        {{"perform", tone, "--audio", tone + "@5", "--render", tone}, 2, {"one of the files it reads"}},
        {{"send", "--out", "0"}, 2, {"no bytes"}},
        {{"send", "--out", "0", "9G"}, 2, {"not a hexadecimal byte"}},
        {{"send", "--out", "0", "3C", "40"}, 2, {"has no status byte"}},
        {{"send", "--out", "0", "90", "3C"}, 2, {"needs 2 data bytes"}},
        {{"send", "--out", "0", "90", "3C", "64", "64"}, 2, {"1 data byte too many: 64 (byte 4)"}},
        {{"send", "--out", "0", "F0", "01", "02"}, 2, {"has no F7"}},
        {{"send", "--out", "0", "F7"}, 2, {"not started"}},
        {{"send", "--out", "5", "90", "3C", "40"}, 1, {"no MIDI output 5"}},
        {{"thru", "--in", "0", "--out", "0"}, 2, {"feed back"}},
        {{"thru", "--in", "0"}, 2, {"needs --in N and --out M"}},
        {{"thru", "--in", "0", "--out", "1", "--channel", "17"}, 2, {"--channel takes a whole number from 1 to 16"}},
        {{"record-midi", "--in", "0"}, 2, {"needs the OUT.mid"}},
        {{"record-midi", "--in", "0", truncated, "--inject", truncated}, 2, {"one of the files it reads"}},
        {{"sync-slave", text}, 2, {"needs --in N"}},
        {{"sync-slave", "--in", "0", missing}, 1, {"cannot open"}},
        {{"play"}, 2, {"needs a FILE.wav"}},
        {{"play", "--volume", "-6", tone}, 2, {"--volume applies to the FILE.wav before it"}},
        {{"play", tone, "--pan", "0.5", "--pan", "0.1"}, 2, {"--pan is given twice for " + tone}},
        {{"play", tone, "--volume", "6"}, 2, {"--volume takes a number from -100 to 0, not '6'"}},
        {{"play", tone, "--pan", "-2"}, 2, {"--pan takes a number from -1 to 1"}},
        {{"play", tone, "--at", "1.5"}, 2, {"--at takes a whole number"}},
        {{"play", tone, "--at"}, 2, {"--at needs a value"}},
        {{"play", tone, "--rate", "0.001"}, 2, {"--rate takes a number"}},
        {{"play", tone, "--rate", "50"}, 1, {tone + ": --rate 50 would play it at 2400000 Hz"}},
        {{"play", tone, "--out", "3"}, 1, {"no wave output 3 on the virtual backend: there is only wave output 0"}, {}},
        {{"play", tone, "--render", "/nonexistent-dir/x.wav"}, 1, {"cannot write /nonexistent-dir/x.wav"}},
        {{"play", tone, "--volume", "-6", "--render", tone}, 2, {"will not write " + tone + ": it is one of the files"}},
        {{"record"}, 2, {"needs"}},
        {{"record", never, never}, 2, {""}},
        {{"record", never, "--in", "3"}, 1, {"wave input"}},
        {{"record", "/nonexistent-dir/x.wav", "--seconds", "1"}, 1, {"cannot write /nonexistent-dir/x.wav"}},
    };
    for (const std::string value : {"0", "fast", "0x10", "1e1"})
        cases.push_back({{"perform", text, "--tempo-scale", value}, 2, {"--tempo-scale takes a number"}});
    for (const std::string value : {"44100:16", "44100:12:2", "500:16:1", "44100:16:3", "x"})
        cases.push_back({{"record", never, "--format", value}, 2, {"--format takes"}});
    for (const std::string cmd : {"devices", "perform", "play", "sync-slave", "thru", "record-midi", "send", "panic"})
        cases.push_back({{cmd, "--help"}, 0, {"Usage: quavix " + cmd, "--backend NAME"}});
    // What a command writes is checked before anything plays or is sent.
    for (const std::string& bad : {std::string("/nonexistent-dir/out.mid"), folder})
        for (const std::vector<std::string>& args : std::vector<std::vector<std::string>>{
                 {"perform", song, "--capture", bad},
                 {"sync-slave", "--in", "0", "--output", "1", song, "--inject", feed, "--capture", bad},
                 {"thru", "--in", "0", "--out", "1", "--inject", feed, "--capture", bad},
                 {"send", "--out", "0", "90", "3C", "40", "--capture", bad},
                 {"panic", "--capture", bad},
                 {"record-midi", "--in", "0", bad, "--inject", feed},
             })
            cases.push_back({args, 1, {"cannot write " + bad}});
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.args));
        std::vector<std::string> args = c.args;
        const std::string capture = TempPath("capture.mid");
        if (!c.emits.empty()) args.insert(args.end(), {"--capture", capture});
        const CliResult r = RunCli(args, c.env);
        EXPECT_EQ(r.status, c.status) << r.err;
        if (c.args.empty()) continue; // the usage
        EXPECT_EQ(c.status == 0 ? r.err : r.out, "") << "nothing is done, or nothing goes wrong";
        if (c.status != 0) {
            ASSERT_EQ(r.ErrLines().size(), 1u) << r.err;
            EXPECT_EQ(r.err.rfind("quavix", 0), 0u) << r.err;
        }
        const std::string& said = c.status == 0 ? r.out : r.err;
        for (const std::string& s : c.says)
            EXPECT_EQ(said.find(s.substr(s[0] == '!')) == std::string::npos, s[0] == '!') << s << " in\n" << said;
        if (!c.emits.empty()) {
            EXPECT_EQ(BytesOf(capture), c.emits);
        }
    }
}

// A note every 100 ms, its key counting up so that a key tells its place, follows a
// master's Start, clocks at 120 BPM and Stop, then its Continue, clocks and Stop.
TEST(Cli, SyncSlaveStartsStopsAndContinuesWithTheExternalClock)
{
    Timed notes, master{{100, {0xFA}}, {1150, {0xFC}}, {1600, {0xFB}}, {2400, {0xFC}}};
    for (uint8_t i = 0; i < 40; ++i)
        notes.insert(notes.end(), {{i * 100u, {0x90, uint8_t(40 + i), 100}}, {i * 100u + 50, {0x80, uint8_t(40 + i), 0}}});
    for (int i = 0; i < 84; ++i)
        master.push_back({static_cast<uint64_t>(i < 48 ? 101 + i * 125 / 6 : 1601 + (i - 48) * 125 / 6), {0xF8}});
    std::stable_sort(master.begin(), master.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
    const std::string song = WriteSong(qxsmf::FromMilliseconds(notes), "slave-song.mid"), out = TempPath("slave.mid");
    const std::string feed = WriteSong(qxsmf::FromMilliseconds(master), "master.mid");
    const CliResult r = RunCli(
        {"sync-slave", "--in", "0", "--output", "1", song, "--inject", feed, "--capture", out, "--capture-times", "due"}, kInOut);
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.out.find("transport 1 starts, 1 continues, 2 stops, 84 clocks"), std::string::npos) << r.out;
    std::vector<qxsmf::Message> ons = MessagesOf(out);
    std::erase_if(ons, [](const auto& m) { return m.bytes.size() != 3 || m.bytes[0] != 0x90 || m.bytes[2] == 0; });
    ASSERT_GE(ons.size(), 12u);
    EXPECT_EQ(ons.front().bytes[1], 40) << "Start plays from the top";
    size_t split = 0; // the pause between the two runs
    for (size_t i = 1; i < ons.size(); ++i) split = ons[i].ms - ons[i - 1].ms > 150 ? i : split;
    ASSERT_GT(split, 5u);
    ASSERT_GT(ons.size() - split, 3u);
    for (size_t i = 1; i < ons.size(); ++i) {
        if (i == split) continue;
        EXPECT_EQ(ons[i].bytes[1], ons[i - 1].bytes[1] + 1) << i;
        EXPECT_NEAR(ons[i].ms - ons[i - 1].ms, 100.0, 1.0) << "performance time within a run, " << i;
    }
    EXPECT_GT(ons[split].bytes[1], ons[split - 1].bytes[1]) << "Continue goes on from where Stop left, nothing twice";
    EXPECT_LE(ons[split].bytes[1], ons[split - 1].bytes[1] + 2) << "and skips nothing that was not heard";
}

// A write cut short by a file size limit leaves the file that was there whole and nothing
// beside it; a link stays a link to the new file; what is no regular file is written.
TEST(Cli, OutputFilesAreReplacedWhole)
{
    const std::string folder = TempPath("folder"), good = folder + "/good.mid", link = folder + "/link.mid";
    const std::string feed =
        WriteSong(qxsmf::FromMilliseconds({{0, {0x90, 60, 100}}, {50, {0x80, 60, 0}}}), "paths-feed.mid");
    ASSERT_EQ(mkdir(folder.c_str(), 0755), 0);
    std::string error;
    ASSERT_TRUE(qxsmf::Write(good, TestSong(), error)) << error;
    const Bytes before = ReadBytes(good);
    CliResult r = RunCli({"perform", kDemo, "-q", "--tempo-scale", "20", "--capture", good}, {}, {}, 2048);
    EXPECT_EQ(r.status, 1) << r.err;
    EXPECT_NE(r.err.find("cannot write " + good), std::string::npos) << r.err;
    EXPECT_EQ(ReadBytes(good), before);
    Timed dense;
    for (uint64_t i = 0; i < 400; ++i) dense.push_back({i, {0x90, static_cast<uint8_t>(i % 128), 1}});
    const std::string denseFeed = WriteSong(qxsmf::FromMilliseconds(dense), "dense.mid");
    r = RunCli({"record-midi", "--in", "0", good, "--inject", denseFeed, "-q"}, {}, {}, 1024);
    EXPECT_EQ(r.status, 1) << r.err;
    EXPECT_EQ(ReadBytes(good), before);
    EXPECT_EQ(DirEntries(folder), std::vector<std::string>{"good.mid"});

    r = RunCli({"record-midi", "--in", "0", good, "--inject", feed, "-q"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(MessagesOf(good).size(), 2u) << "the new take replaced the old file";
    ASSERT_EQ(symlink("good.mid", link.c_str()), 0);
    for (const std::string& path : {link, std::string("/dev/null")})
        EXPECT_EQ(RunCli({"send", "--out", "0", "90", "3C", "40", "--capture", path}).status, 0);
    EXPECT_TRUE(std::filesystem::is_symlink(link));
    EXPECT_EQ(MessagesOf(good).size(), 1u);
    EXPECT_TRUE(std::filesystem::is_character_file("/dev/null"));

    // The same for a render, which the program writes itself.
    const std::string wave = folder + "/out.wav", waveLink = folder + "/link.wav";
    ASSERT_TRUE(WriteBytes(wave, {'o', 'l', 'd'}));
    ASSERT_EQ(symlink("out.wav", waveLink.c_str()), 0);
    ASSERT_EQ(RunCli({"play", WriteTone("whole.wav", 1000, 0.3, 0.5), "-q", "--render", waveLink}).status, 0);
    EXPECT_NEAR(Level(ReadWav(wave), 0, 1000, 50, 250) / 0.5, 1.0, 0.05) << "the link's file was replaced";
    EXPECT_TRUE(std::filesystem::is_symlink(waveLink));
    EXPECT_EQ(DirEntries(folder).size(), 4u) << "the files and their links only";
}

// SIGINT, SIGTERM and SIGHUP stop a performance and silence the output; the status
// tells the signal. Every other command stops cleanly too.
TEST(Cli, SignalsStopEveryCommandCleanlyWithTheirStatus)
{
    const std::vector<Bytes> panic = PanicBytes();
    for (int sig : {SIGINT, SIGTERM, SIGHUP}) {
        SCOPED_TRACE(sig);
        const std::string out = TempPath("signalled.mid");
        const CliResult r = RunCli({"perform", kDemo, "--capture", out}, {}, {1500, sig});
        ASSERT_EQ(r.status, 128 + sig) << r.err;
        EXPECT_NE(r.out.find("Stopped (interrupted)"), std::string::npos) << r.out;
        const std::vector<Bytes> got = BytesOf(out);
        ASSERT_GT(got.size(), panic.size());
        EXPECT_LT(got.size(), panic.size() + 676u) << "the performance did not run to its end";
        EXPECT_EQ(std::vector<Bytes>(got.end() - std::ssize(panic), got.end()), panic) << "the panic came last";
    }
    // A quarter of the rate makes the tone last 6 s.
    const std::string take = TempPath("interrupted-take.mid"), render = TempPath("stopped.wav");
    for (const std::vector<std::string>& args : std::vector<std::vector<std::string>>{
             {"thru", "--in", "0", "--out", "1", "--seconds", "60"},
             {"record-midi", "--in", "0", take, "--inject", kDemo},
             {"sync-slave", "--in", "0", "--output", "1", kDemo},
             {"play", WriteTone("long.wav", 500, 1.5, 0.5), "--rate", "0.25", "--render", render}}) {
        const CliResult r = RunCli(args, kInOut, {1200});
        EXPECT_EQ(r.status, 130) << r.err;
        EXPECT_NE(r.out.find("Stopped"), std::string::npos) << r.out;
    }
    EXPECT_FALSE(MessagesOf(take).empty()) << "what came before Ctrl-C is kept";
    const Wav mix = ReadWav(render);
    EXPECT_LT(mix.Seconds(), 4.0) << "the sound stopped long before its end";
    EXPECT_NEAR(Level(mix, 0, 125, 200, 600) / 0.5, 1.0, 0.05) << "and what played is kept";
}

// The library's report is shown with -v only, then once, in release builds too.
TEST(Cli, VerboseShowsEveryReportOfTheLibraryOnce)
{
    const std::string song = WriteSong(TestSong(), "verbose-song.mid");
    for (const bool verbose : {false, true}) {
        std::vector<std::string> args{"perform", song};
        if (verbose) args.push_back("-v");
        const CliResult r = RunCli(args, {"QUAVIX_VIRTUAL_FAULT=midiStreamOpen"});
        EXPECT_EQ(r.status, 1);
        const auto lines = r.ErrLines();
        ASSERT_EQ(lines.size() == 1, !verbose) << r.err;
        EXPECT_EQ(std::count(lines.begin(), lines.end(), "Error opening MIDI stream device 0: An unspecified error occurred."),
                  verbose ? 1 : 0) << r.err;
        EXPECT_EQ(lines.back().rfind("quavix perform: cannot open MIDI output 0", 0), 0u) << r.err;
    }
}
