// quavix record on the virtual backend: what the file holds against what the source
// gave, how long it is, and that a stopped or killed recorder leaves a file others read.
#include "CliRunner.h"

#include <cstdlib>
#include <sys/stat.h>

namespace {

off_t FileSize(const std::string& path)
{
    struct stat st {};
    return stat(path.c_str(), &st) == 0 ? st.st_size : 0;
}

} // namespace

// --seconds gives exactly that many samples in the format asked for: from the source's
// 48 kHz stereo a 1 kHz tone at half scale, as the meter says too; a file source in the
// take's own format, whose length is no whole number of buffers, sample for sample from
// its first frame again where it loops.
TEST(CliRecord, RecordsExactlyTheSecondsAskedInTheFormatAsked)
{
    const std::string out = TempPath("tone.wav"), copy = TempPath("copy.wav"), in = TempPath("source.wav");
    CliResult r = RunCli({"record", out, "--seconds", "1.3", "--format", "22050:16:1"},
                         {"QUAVIX_VIRTUAL_WAVE_IN_SOURCE=sine:1000"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.err, "");
    EXPECT_NE(r.out.find("Done: 1.3 s"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("peak      L -6.0 dBFS, R -6.0 dBFS"), std::string::npos) << r.out;
    const Wav w = ReadWav(out);
    EXPECT_EQ(std::vector<unsigned>({w.rate, w.channels, w.bits}), std::vector<unsigned>({22050, 1, 16}));
    EXPECT_EQ(w.dataLength, 28665u * 2) << "1.3 s of 22,050 Hz";
    EXPECT_EQ(w.riffLength, w.dataOffset - 8 + w.dataLength);
    ASSERT_EQ(w.x.size(), 28665u);
    EXPECT_NEAR(Level(w, 0, 1000, 100, 1100), 0.5, 0.005);
    EXPECT_LT(Level(w, 0, 1500, 100, 1100), 0.001);

    std::vector<float> src;
    for (uint32_t i = 0, x = 12345; i < 2 * 4801; ++i) src.push_back(static_cast<int16_t>((x = x * 1103515245 + 12345) >> 16) / 32767.0f);
    ASSERT_TRUE(analysis::WriteWav(in, 48000, 2, src));
    r = RunCli({"record", copy, "--seconds", "1", "--format", "48000:16:2", "-q"}, {"QUAVIX_VIRTUAL_WAVE_IN_SOURCE=file:" + in});
    ASSERT_EQ(r.status, 0) << r.err;
    const std::vector<float> back = ReadWav(in).x, got = ReadWav(copy).x;
    ASSERT_EQ(got.size(), 2u * 48000);
    size_t differ = 0;
    for (size_t i = 0; i < got.size(); ++i) differ += got[i] != back[i % back.size()] ? 1 : 0;
    EXPECT_EQ(differ, 0u);
}

// Ctrl-C ends the take with its last whole half second; SIGKILL leaves a file whose
// header is at most a second behind, which SoX reads. The signals wait for the file to
// hold what the checks need, however slowly the recorder starts.
TEST(CliRecord, AStoppedOrKilledRecorderLeavesAFileOthersRead)
{
    const std::string stopped = TempPath("stopped.wav"), killed = TempPath("killed.wav");
    const uint32_t halfSecond = 48000 * 4 / 2, second = 8000 * 2;
    const CliResult r = RunCli({"record", stopped}, {"QUAVIX_VIRTUAL_WAVE_IN_SOURCE=sine:440"},
                               {0, SIGINT, [&] { return FileSize(stopped) > 2 * halfSecond + 100; }});
    ASSERT_EQ(r.status, 130) << r.err;
    const Wav w = ReadWav(stopped);
    EXPECT_EQ(w.rate, 48000u) << "the default format";
    EXPECT_EQ(w.channels, 2u);
    EXPECT_GE(w.dataLength, 2 * halfSecond);
    EXPECT_EQ(w.dataLength % halfSecond, 0u) << "whole half seconds";
    EXPECT_EQ(w.x.size() * 2, w.dataLength);
    char said[64];
    std::snprintf(said, sizeof said, "Stopped (interrupted): %.1f s", w.dataLength / 192000.0);
    EXPECT_NE(r.out.find(said), std::string::npos) << r.out;

    const CliResult k = RunCli({"record", killed, "--format", "8000:16:1"}, {},
                               {0, SIGKILL, [&] { return FileSize(killed) > 2 * second + 100; }});
    ASSERT_EQ(k.status, 128 + SIGKILL);
    const Wav kw = ReadWav(killed);
    const size_t bytes = kw.x.size() * 2;
    EXPECT_GE(bytes, 2u * second) << "what came before the kill is on disk";
    EXPECT_LE(kw.dataLength, bytes);
    EXPECT_GE(kw.dataLength + second + 1, bytes) << "the header a second behind at most";
    for (const auto& [path, samples] : {std::pair{stopped, w.dataLength / 4}, {killed, kw.dataLength / 2}}) {
        const harness::TempFile said("soxi.txt");
        if (harness::Command({"sh", "-c", "soxi -s '" + path + "' >" + said.path}) != 0) GTEST_SKIP() << "no soxi (apt-get install -y sox)";
        EXPECT_EQ(std::strtoul(harness::Slurp(said).c_str(), nullptr, 10), samples) << path;
    }
}

// A take that cannot start leaves the file that was there as it was, and nothing beside.
TEST(CliRecord, ATakeThatCannotStartLeavesTheOldFile)
{
    const std::string keepDir = TempPath("keep-dir"), kept = keepDir + "/kept.wav";
    ASSERT_EQ(mkdir(keepDir.c_str(), 0755), 0);
    ASSERT_TRUE(WriteBytes(kept, {'o', 'l', 'd'}));
    for (const std::string fault : {"waveInOpen", "waveInStart"}) {
        EXPECT_EQ(RunCli({"record", kept, "--seconds", "1"}, {"QUAVIX_VIRTUAL_FAULT=" + fault}).status, 1) << fault;
        EXPECT_EQ(ReadBytes(kept), (Bytes{'o', 'l', 'd'}));
        EXPECT_EQ(DirEntries(keepDir).size(), 1u) << "the file only";
    }
}
