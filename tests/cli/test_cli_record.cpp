// quavix record on the virtual backend: what the file holds against what the source
// gave, how long it is, and that a stopped or killed recorder leaves a file others read.
#include "CliRunner.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <string>
#include <sys/stat.h>
#include <vector>

namespace {

uint32_t Le32(const std::vector<uint8_t>& b, size_t at)
{
    return b[at] | (b[at + 1] << 8) | (b[at + 2] << 16) | (uint32_t{b[at + 3]} << 24);
}

struct Wav {
    unsigned rate = 0, channels = 0, bits = 0;
    uint32_t riffLength = 0, dataLength = 0;
    size_t dataOffset = 0;
    std::vector<int16_t> samples; // 16-bit files only; every byte after the header
};

// Walks the chunks: the writer's fmt chunk is 18 bytes (with cbSize), so the data
// does not always begin at byte 44.
Wav ReadWav(const std::string& path)
{
    const std::vector<uint8_t> b = ReadBytes(path);
    Wav w;
    EXPECT_GE(b.size(), 44u) << path;
    if (b.size() < 44) return w;
    EXPECT_EQ(std::memcmp(b.data(), "RIFF", 4), 0);
    EXPECT_EQ(std::memcmp(b.data() + 8, "WAVE", 4), 0);
    w.riffLength = Le32(b, 4);
    for (size_t at = 12; at + 8 <= b.size();) {
        const uint32_t len = Le32(b, at + 4);
        if (std::memcmp(b.data() + at, "fmt ", 4) == 0 && at + 24 <= b.size()) {
            w.channels = b[at + 10] | (b[at + 11] << 8);
            w.rate = Le32(b, at + 12);
            w.bits = b[at + 22] | (b[at + 23] << 8);
        } else if (std::memcmp(b.data() + at, "data", 4) == 0) {
            w.dataLength = len;
            w.dataOffset = at + 8;
            for (size_t i = at + 8; w.bits == 16 && i + 1 < b.size(); i += 2)
                w.samples.push_back(static_cast<int16_t>(b[i] | (b[i + 1] << 8)));
            break;
        }
        at += 8 + len + (len & 1);
    }
    EXPECT_NE(w.dataOffset, 0u) << "no data chunk in " << path;
    return w;
}

size_t DirEntries(const std::string& dir)
{
    size_t n = 0;
    if (DIR* d = opendir(dir.c_str())) {
        while (const dirent* e = readdir(d)) n += e->d_name[0] != '.' || std::strlen(e->d_name) > 2 ? 1 : 0;
        closedir(d);
    }
    return n;
}

double Level(const std::vector<int16_t>& s, double hz, double rate, size_t from, size_t n)
{
    double re = 0, im = 0;
    for (size_t i = from; i < from + n && i < s.size(); ++i) {
        re += s[i] / 32768.0 * std::cos(2 * M_PI * hz * static_cast<double>(i) / rate);
        im += s[i] / 32768.0 * std::sin(2 * M_PI * hz * static_cast<double>(i) / rate);
    }
    return 2 * std::hypot(re, im) / static_cast<double>(n);
}

bool HaveSox()
{
    return std::system("command -v soxi >/dev/null 2>&1") == 0;
}

// What soxi says of a file's length in samples, or -1.
long SoxSamples(const std::string& path)
{
    FILE* p = popen(("soxi -s '" + path + "' 2>/dev/null").c_str(), "r");
    if (p == nullptr) return -1;
    long n = -1;
    if (std::fscanf(p, "%ld", &n) != 1) n = -1;
    pclose(p);
    return n;
}

} // namespace

// --seconds gives exactly that many samples in the format asked for, converted from the
// source's 48 kHz stereo: a 1 kHz tone at half scale, as the meter says too.
TEST(CliRecord, RecordsExactlyTheSecondsAskedInTheFormatAsked)
{
    const std::string out = TempPath("tone.wav");
    const CliResult r = RunCli({"record", out, "--seconds", "1.3", "--format", "22050:16:1"},
                               {"QUAVIX_VIRTUAL_WAVE_IN_SOURCE=sine:1000"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_TRUE(r.err.empty()) << r.err;
    EXPECT_NE(r.out.find("Done: 1.3 s"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("peak      L -6.0 dBFS, R -6.0 dBFS"), std::string::npos) << r.out;
    const Wav w = ReadWav(out);
    EXPECT_EQ(w.rate, 22050u);
    EXPECT_EQ(w.channels, 1u);
    EXPECT_EQ(w.bits, 16u);
    EXPECT_EQ(w.dataLength, 28665u * 2) << "1.3 s of 22,050 Hz";
    EXPECT_EQ(w.riffLength, w.dataOffset - 8 + w.dataLength);
    ASSERT_EQ(w.samples.size(), 28665u);
    EXPECT_NEAR(Level(w.samples, 1000, 22050, 2205, 22050), 0.5, 0.005);
    EXPECT_LT(Level(w.samples, 1500, 22050, 2205, 22050), 0.001);
}

// A file source comes back sample for sample when the format is the source's own.
TEST(CliRecord, AFileSourceComesBackSampleForSample)
{
    std::vector<uint8_t> b;
    const unsigned frames = 4801; // not a whole number of buffers, so the loop shows
    auto put = [&](uint32_t v, int n) {
        for (int i = 0; i < n; ++i) b.push_back(static_cast<uint8_t>(v >> (8 * i)));
    };
    b.insert(b.end(), {'R', 'I', 'F', 'F'});
    put(36 + frames * 4, 4);
    for (char c : std::string("WAVEfmt ")) b.push_back(static_cast<uint8_t>(c));
    put(16, 4), put(1, 2), put(2, 2), put(48000, 4), put(192000, 4), put(4, 2), put(16, 2);
    b.insert(b.end(), {'d', 'a', 't', 'a'});
    put(frames * 4, 4);
    std::vector<int16_t> src;
    uint32_t x = 12345;
    for (unsigned i = 0; i < 2 * frames; ++i) {
        x = x * 1103515245 + 12345;
        src.push_back(static_cast<int16_t>(x >> 16));
        put(static_cast<uint16_t>(src.back()), 2);
    }
    const std::string in = TempPath("source.wav"), out = TempPath("copy.wav");
    ASSERT_TRUE(WriteBytes(in, b));
    const CliResult r = RunCli({"record", out, "--seconds", "1", "--format", "48000:16:2", "-q"},
                               {"QUAVIX_VIRTUAL_WAVE_IN_SOURCE=file:" + in});
    ASSERT_EQ(r.status, 0) << r.err;
    const Wav w = ReadWav(out);
    ASSERT_EQ(w.samples.size(), 2u * 48000);
    size_t differ = 0;
    for (size_t i = 0; i < w.samples.size(); ++i) differ += w.samples[i] != src[i % src.size()] ? 1 : 0;
    EXPECT_EQ(differ, 0u) << "the loop from its first frame, without a gap";
}

// Ctrl-C ends the take with its last whole half second; SIGKILL leaves a file whose
// header is at most a second behind, which SoX reads.
TEST(CliRecord, AStoppedOrKilledRecorderLeavesAFileOthersRead)
{
    const std::string stopped = TempPath("stopped.wav"), killed = TempPath("killed.wav");
    const CliResult r = RunCli({"record", stopped}, {"QUAVIX_VIRTUAL_WAVE_IN_SOURCE=sine:440"}, 2000);
    ASSERT_EQ(r.status, 130) << r.err;
    Wav w = ReadWav(stopped);
    EXPECT_EQ(w.rate, 48000u) << "the default format";
    EXPECT_EQ(w.channels, 2u);
    const uint32_t halfSecond = 48000 * 4 / 2;
    EXPECT_GE(w.dataLength, 2 * halfSecond);
    EXPECT_EQ(w.dataLength % halfSecond, 0u) << "whole half seconds";
    EXPECT_EQ(w.samples.size() * 2, w.dataLength);
    char said[64];
    std::snprintf(said, sizeof said, "Stopped (interrupted): %.1f s", w.dataLength / 192000.0);
    EXPECT_NE(r.out.find(said), std::string::npos) << r.out;

    const CliResult k = RunCli({"record", killed, "--format", "8000:16:1"}, {}, 3300, 9);
    ASSERT_EQ(k.status, 128 + 9);
    w = ReadWav(killed);
    const size_t bytes = w.samples.size() * 2;
    EXPECT_GE(bytes, 2u * 8000 * 2) << "what came before the kill is on disk";
    EXPECT_LE(w.dataLength, bytes);
    EXPECT_GE(w.dataLength + 2 * 8000 + 1, bytes) << "the header a second behind at most";
    if (!HaveSox()) GTEST_SKIP() << "soxi not installed (apt-get install -y sox)";
    EXPECT_EQ(SoxSamples(stopped), static_cast<long>(ReadWav(stopped).dataLength / 4));
    EXPECT_EQ(SoxSamples(killed), static_cast<long>(w.dataLength / 2));
}

TEST(CliRecord, BadUsageAndMissingDevicesAreRefused)
{
    const std::string out = TempPath("never.wav");
    for (const char* f : {"44100:16", "44100:12:2", "500:16:1", "44100:16:3", "x"}) {
        const CliResult r = RunCli({"record", out, "--format", f});
        EXPECT_EQ(r.status, 2) << f;
        EXPECT_EQ(r.ErrLines().size(), 1u) << r.err;
    }
    EXPECT_EQ(RunCli({"record"}).status, 2);
    EXPECT_EQ(RunCli({"record", out, out}).status, 2);
    const CliResult none = RunCli({"record", out, "--in", "3"});
    EXPECT_EQ(none.status, 1);
    EXPECT_NE(none.err.find("wave input"), std::string::npos) << none.err;
    const CliResult dir = RunCli({"record", "/nonexistent-dir/x.wav", "--seconds", "1"});
    EXPECT_EQ(dir.status, 1);
    EXPECT_EQ(dir.ErrLines().size(), 1u) << dir.err;
    const CliResult devs = RunCli({"devices"}, {"QUAVIX_VIRTUAL_DEVICES=wave-in=2"});
    EXPECT_NE(devs.out.find("wave  in     1"), std::string::npos) << devs.out;
    EXPECT_NE(devs.out.find("48000:16:2 (what quavix record uses"), std::string::npos) << devs.out;

    // A take that cannot start leaves the file that was there as it was, and nothing beside.
    const std::string keepDir = TempPath("keep-dir");
    ASSERT_EQ(mkdir(keepDir.c_str(), 0755), 0);
    const std::string kept = keepDir + "/kept.wav";
    ASSERT_TRUE(WriteBytes(kept, {'o', 'l', 'd'}));
    for (const char* fault : {"waveInOpen", "waveInStart"}) {
        const CliResult r = RunCli({"record", kept, "--seconds", "1"}, {std::string("QUAVIX_VIRTUAL_FAULT=") + fault});
        EXPECT_EQ(r.status, 1) << fault << "\n" << r.err;
        EXPECT_EQ(ReadBytes(kept), (std::vector<uint8_t>{'o', 'l', 'd'})) << fault;
        EXPECT_EQ(DirEntries(keepDir), 1u) << fault << ": the file only";
    }
}
