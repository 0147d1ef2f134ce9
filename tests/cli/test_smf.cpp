// The Standard MIDI File reader, writer and timeline, on files written byte by byte
// here, on damaged copies, and on real files from a Debian package.
#include "CliRunner.h"
#include "Demo.h"
#include "Smf.h"

#include <gtest/gtest.h>

#include <random>

using qxsmf::Kind;

namespace {

Bytes Cat(std::initializer_list<Bytes> parts)
{
    Bytes b;
    for (const auto& p : parts) b.insert(b.end(), p.begin(), p.end());
    return b;
}

Bytes Header(int format, int tracks, uint16_t division)
{
    return {'M', 'T', 'h', 'd', 0, 0, 0, 6, 0, static_cast<uint8_t>(format), 0, static_cast<uint8_t>(tracks),
            static_cast<uint8_t>(division >> 8), static_cast<uint8_t>(division)};
}

Bytes Chunk(const char* id, const Bytes& body)
{
    const auto n = static_cast<uint32_t>(body.size());
    return Cat({Bytes(id, id + 4), {uint8_t(n >> 24), uint8_t(n >> 16), uint8_t(n >> 8), uint8_t(n)}, body});
}

// A format 0 file at 96 ticks a quarter note of one track.
Bytes Track0(const Bytes& body)
{
    return Cat({Header(0, 1, 96), Chunk("MTrk", body)});
}

// Format 1 at 96 ticks a quarter note: the tempo doubles its length at tick 96.
Bytes SampleFile()
{
    const Bytes conductor{0x00, 0xFF, 0x03, 0x04, 'S', 'o', 'n', 'g',      // name
                          0x00, 0xFF, 0x51, 0x03, 0x07, 0xA1, 0x20,        // 500000 us
                          0x60, 0xFF, 0x51, 0x03, 0x0F, 0x42, 0x40,        // tick 96: 1000000 us
                          0x00, 0xFF, 0x7F, 0x02, 0x00, 0x01,              // sequencer-specific
                          0x00, 0xFF, 0x2F, 0x00};
    const Bytes music{0x00, 0xC0, 0x05,                                    // program change
                      0x00, 0x90, 0x3C, 0x40,                              // note-on at 0
                      0x60, 0x3D, 0x41,                                    // running status, tick 96
                      0x81, 0x40, 0x3C, 0x00,                              // tick 288: note-off (velocity 0)
                      0x00, 0xF0, 0x03, 0x43, 0x12, 0x00,                  // a divided SysEx ...
                      0x10, 0xF7, 0x02, 0x34, 0xF7,                        // ... ends 16 ticks later
                      0x00, 0xF7, 0x01, 0xF8,                              // escape: a timing clock
                      0x00, 0xF7, 0x03, 0x01, 0x02, 0x03,                  // escape that is no message
                      0x00, 0xE0, 0x00, 0x40,                              // pitch bend
                      0x00, 0xFF, 0x2F, 0x00,
                      0x90, 0x3C, 0x40};                                   // after end of track: not read
    return Cat({Header(1, 2, 96), Chunk("MTrk", conductor), Chunk("XFIH", {1, 2, 3}), Chunk("MTrk", music)});
}

qxsmf::Timeline TimelineOf(const Bytes& bytes, double scale = 1.0)
{
    qxsmf::File f;
    qxsmf::Timeline t;
    std::string error;
    EXPECT_TRUE(qxsmf::Parse(bytes.data(), bytes.size(), f, error)) << error;
    EXPECT_TRUE(qxsmf::BuildTimeline(f, scale, t, error)) << error;
    return t;
}

// A Song of the bytes says what the parsed file's timeline says, message for message:
// the same refusal, counts and merged order.
void ExpectSongLikeTimeline(const Bytes& bytes)
{
    qxsmf::File f;
    qxsmf::Timeline t;
    std::string error, songError;
    const bool read = qxsmf::Parse(bytes.data(), bytes.size(), f, error) && qxsmf::BuildTimeline(f, 1.0, t, error);
    qxsmf::Song song;
    ASSERT_EQ(song.Open(bytes, 1.0, songError), read) << songError;
    ASSERT_EQ(songError, read ? "" : error);
    if (!read) return;
    EXPECT_EQ(std::make_tuple(song.Messages(), song.Info().lengthMs, song.Info().dropped, song.Info().metaSkipped,
                              song.Info().tempoChanges, song.Info().title),
              std::make_tuple(t.messages.size(), t.lengthMs, t.dropped, t.metaSkipped, t.tempoChanges, t.title));
    qxsmf::Message m;
    for (size_t i = 0; song.Next(m); ++i) {
        ASSERT_LT(i, t.messages.size());
        ASSERT_EQ(std::tie(m.ms, m.track, m.bytes), std::tie(t.messages[i].ms, t.messages[i].track, t.messages[i].bytes))
            << "message " << i;
    }
    if (!t.messages.empty()) {
        EXPECT_EQ(std::make_pair(song.FirstMs(), song.LastMs()), std::make_pair(t.messages.front().ms, t.messages.back().ms));
    }
}

} // namespace

TEST(Smf, ReadsEveryKindOfEventThroughTheTempoMap)
{
    const qxsmf::Timeline t = TimelineOf(SampleFile());
    std::vector<std::pair<double, Bytes>> got;
    for (const auto& m : t.messages) got.emplace_back(m.ms, m.bytes);
    const double tick288 = 500.0 + 192 * 1000.0 / 96; // 96 ticks at 120 BPM, then 192 at 60 BPM
    const double tick304 = tick288 + 16 * 1000.0 / 96;
    const std::vector<std::pair<double, Bytes>> expect{
        {0.0, {0xC0, 0x05}},
        {0.0, {0x90, 0x3C, 0x40}},
        {500.0, {0x90, 0x3D, 0x41}},
        {tick288, {0x90, 0x3C, 0x00}},
        {tick288, {0xF0, 0x43, 0x12, 0x00, 0x34, 0xF7}}, // joined, at the time of its start
        {tick304, {0xF8}},
        {tick304, {0xE0, 0x00, 0x40}},
    };
    ASSERT_EQ(got.size(), expect.size());
    for (size_t i = 0; i < got.size(); ++i) {
        EXPECT_NEAR(got[i].first, expect[i].first, 1e-6) << i;
        EXPECT_EQ(got[i].second, expect[i].second) << i;
    }
    EXPECT_EQ(t.title, "Song");
    EXPECT_EQ(t.tempoChanges, 2u);
    EXPECT_EQ(t.dropped, 1u) << "the escape that is no message";
    EXPECT_EQ(t.metaSkipped, 1u);
    EXPECT_NEAR(t.lengthMs, tick304, 1e-6);

    // Twice as fast; and the same file inside a RIFF MIDI wrapper.
    const qxsmf::Timeline fast = TimelineOf(SampleFile(), 2.0);
    EXPECT_NEAR(fast.messages[2].ms, 250.0, 1e-6);
    Bytes smf = SampleFile();
    Bytes riff{'R', 'I', 'F', 'F', 0, 0, 0, 0, 'R', 'M', 'I', 'D', 'd', 'a', 't', 'a'};
    const auto n = static_cast<uint32_t>(smf.size());
    riff.insert(riff.end(), {static_cast<uint8_t>(n), static_cast<uint8_t>(n >> 8), static_cast<uint8_t>(n >> 16),
                             static_cast<uint8_t>(n >> 24)});
    riff.insert(riff.end(), smf.begin(), smf.end());
    EXPECT_EQ(TimelineOf(riff).messages.size(), t.messages.size());

    // SMPTE division, 25 frames of 40 ticks: a tick is a millisecond, whatever the tempo.
    const Bytes track{0x00, 0xFF, 0x51, 0x03, 0x0F, 0x42, 0x40, 0x89, 0x52, 0x90, 0x3C, 0x40, 0x00, 0xFF, 0x2F, 0x00};
    const qxsmf::Timeline smpte = TimelineOf(Cat({Header(0, 1, 0xE728), Chunk("MTrk", track)}));
    ASSERT_EQ(smpte.messages.size(), 1u);
    EXPECT_NEAR(smpte.messages[0].ms, 1234.0, 1e-6);
}

TEST(Smf, BrokenFilesFailWithTheirReason)
{
    const Bytes endOnly{0x00, 0xFF, 0x2F, 0x00};
    const struct {
        const char* what;
        Bytes bytes;
        const char* reason;
    } cases[] = {
        {"empty", {}, "empty"},
        {"not MIDI", {'R', 'I', 'F', 'X', 0, 0, 0, 0}, "no MThd"},
        {"RIFF that is no MIDI", {'R', 'I', 'F', 'F', 4, 0, 0, 0, 'W', 'A', 'V', 'E'}, "not RIFF MIDI"},
        {"short header", {'M', 'T', 'h', 'd', 0, 0, 0, 6, 0, 1}, "truncated header"},
        {"header too long", Cat({{'M', 'T', 'h', 'd', 0, 0, 1, 0}, Bytes(6, 0)}), "does not fit"},
        {"format 3", Cat({Header(3, 1, 96), Chunk("MTrk", endOnly)}), "unknown format 3"},
        {"no tracks", Header(1, 0, 96), "no tracks"},
        {"division 0", Cat({Header(0, 1, 0), Chunk("MTrk", endOnly)}), "division of 0"},
        {"bad SMPTE", Cat({Header(0, 1, 0xF828), Chunk("MTrk", endOnly)}), "SMPTE"},
        {"missing track", Cat({Header(1, 2, 96), Chunk("MTrk", endOnly)}), "announces 2 tracks"},
        {"chunk past the end", Cat({Header(0, 1, 96), {'M', 'T', 'r', 'k', 0, 0, 0, 50, 0x00}}), "runs past the end"},
        {"five-byte number", Track0({0x81, 0x81, 0x81, 0x81, 0x01, 0x90, 1, 1}), "longer than four bytes"},
        {"number cut off", Track0({0x81}), "truncated variable-length"},
        {"data without status", Track0({0x00, 0x3C, 0x40}), "without a running status"},
        {"real-time status in a track", Track0({0x00, 0xF8}), "cannot stand"},
        {"message cut off", Track0({0x00, 0x90, 0x3C}), "truncated channel"},
        {"status inside a message", Track0({0x00, 0x90, 0x3C, 0x90}), "where a data byte"},
        {"meta past its track", Track0({0x00, 0xFF, 0x01, 0x7F, 'a'}), "runs past its track"},
        {"SysEx past its track", Track0({0x00, 0xF0, 0x05, 0x01}), "runs past its track"},
        {"meta type cut off", Track0({0x00, 0xFF}), "truncated meta"},
        {"delta without event", Track0({0x00}), "truncated event"},
    };
    for (const auto& c : cases) {
        qxsmf::File f;
        std::string error;
        EXPECT_FALSE(qxsmf::Parse(c.bytes.data(), c.bytes.size(), f, error)) << c.what;
        EXPECT_NE(error.find(c.reason), std::string::npos) << c.what << ": " << error;
        EXPECT_EQ(error.find('\n'), std::string::npos) << c.what;
        ExpectSongLikeTimeline(c.bytes);
    }
}

TEST(Smf, WriterAndReaderAgreeOnEveryKind)
{
    qxsmf::File f;
    f.format = 1;
    f.division = 240;
    qxsmf::Track a, b;
    // After a SysEx the status is written again; the last gap is wider than one delta holds.
    a.events = {{0, Kind::Meta, 0x51, {0x07, 0xA1, 0x20}}, {0, Kind::Channel, 0, {0x90, 60, 100}},
                {10, Kind::Channel, 0, {0x90, 62, 100}}, {10, Kind::Channel, 0, {0x80, 60, 0}},
                {20, Kind::SysEx, 0, {0xF0, 0x41, 0x10, 0xF7}}, {30, Kind::Channel, 0, {0x90, 64, 90}},
                {40, Kind::Escape, 0, {0xFA}}, {uint64_t{qxsmf::kMaxVlq} + 5, Kind::Channel, 0, {0xC3, 7}}};
    b.events = {{0, Kind::Meta, 0x03, {'x'}}, {5, Kind::Channel, 0, {0xE1, 0x00, 0x40}}, {900, Kind::Meta, 0x2F, {}}};
    f.tracks = {a, b};
    const Bytes running = qxsmf::Serialize(f, true), plain = qxsmf::Serialize(f, false);
    EXPECT_LT(running.size(), plain.size());
    for (const Bytes* bytes : {&running, &plain}) {
        qxsmf::File back;
        std::string error;
        ASSERT_TRUE(qxsmf::Parse(bytes->data(), bytes->size(), back, error)) << error;
        EXPECT_EQ(back.format, 1);
        EXPECT_EQ(back.division, 240);
        ASSERT_EQ(back.tracks.size(), 2u);
        for (size_t t = 0; t < 2; ++t) {
            std::vector<std::pair<uint64_t, Bytes>> want, got;
            for (const auto& e : f.tracks[t].events)
                if (!(e.kind == Kind::Meta && e.metaType == 0x2F)) want.emplace_back(e.tick, e.data);
            for (const auto& e : back.tracks[t].events)
                if (!(e.kind == Kind::Meta && (e.metaType == 0x2F || e.metaType == 0x7F))) got.emplace_back(e.tick, e.data);
            EXPECT_EQ(got, want) << "track " << t;
            EXPECT_EQ(back.tracks[t].events.back().metaType, 0x2F) << "end of track written";
            EXPECT_EQ(back.tracks[t].events.back().tick, t == 0 ? f.tracks[0].events.back().tick : 900u)
                << "where the track says, or with its last event";
        }
    }
}

// Every shorter prefix of a file lacks part of a track the header announces; damaged
// copies never crash the reader.
TEST(Smf, DamagedFilesNeverCrashTheReader)
{
    std::string error;
    const Bytes demo = qxsmf::Serialize(qxsmf::BuildDemo());
    qxsmf::File f;
    for (size_t n = 0; n < demo.size(); ++n) EXPECT_FALSE(qxsmf::Parse(demo.data(), n, f, error)) << n;
    std::mt19937 rng(1234);
    // A SysEx divided around a note: it plays at its first part's time, before the note.
    const Bytes divided = Track0({0x00, 0xF0, 0x02, 0x01, 0x02, 0x10, 0x90, 0x3C, 0x40, 0x40, 0xF7, 0x02, 0x03, 0xF7});
    for (const Bytes& base : {demo, SampleFile(), divided})
        for (int i = 0; i < 3000; ++i) {
            if (i == 0) ExpectSongLikeTimeline(base);
            Bytes b = base;
            for (int k = 0, flips = 1 + int(rng() % 4); k < flips; ++k) b[rng() % b.size()] = static_cast<uint8_t>(rng());
            if (rng() % 4 == 0) b.resize(rng() % b.size());
            ExpectSongLikeTimeline(b); // which reads it as perform does, a message at a time
        }
}

// The shipped demo is what its generator writes; it and the format 1 files Debian's
// openttd-openmsx ships read, and play the same rewritten.
TEST(Smf, RealFilesReadAndRewriteUnchanged)
{
    const std::string demo = std::string(QUAVIX_SOURCE_DIR) + "/examples/quavix-demo.mid";
    EXPECT_EQ(ReadBytes(demo), qxsmf::Serialize(qxsmf::BuildDemo())) << "regenerate it: quavix_make_demo " << demo;
    const std::string dir = "/usr/share/games/openttd/baseset/openmsx";
    std::vector<std::string> files{demo};
    for (const std::string& name : DirEntries(dir))
        if (name.ends_with(".mid")) files.push_back(dir + "/" + name);
    for (const std::string& path : files) {
        SCOPED_TRACE(path);
        qxsmf::File f;
        std::string error;
        ASSERT_TRUE(qxsmf::Read(path, f, error)) << error;
        const qxsmf::Timeline t = TimelineOf(qxsmf::Serialize(f));
        qxsmf::Timeline o;
        EXPECT_TRUE(qxsmf::BuildTimeline(f, 1.0, o, error)) << error;
        EXPECT_GT(o.messages.size(), 100u);
        EXPECT_GT(o.lengthMs, 10'000.0);
        EXPECT_LT(o.lengthMs, 900'000.0);
        EXPECT_EQ(o.dropped, 0u);
        auto flat = [](const qxsmf::Timeline& x) {
            std::vector<std::pair<double, Bytes>> out;
            for (const auto& m : x.messages) out.emplace_back(m.ms, m.bytes);
            return out;
        };
        EXPECT_EQ(flat(t), flat(o)) << "rewritten, the file plays the same";
        ExpectSongLikeTimeline(ReadBytes(path));
    }
    if (files.size() == 1) GTEST_SKIP() << "no MIDI files in " << dir << ": install the Debian package openttd-openmsx";
}
