// Interoperability with SoX: what it writes we read, what we write it accepts.
#include <quavix/QXWaveFile.h>

#include "WaveTestUtil.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

using namespace wavetest;

namespace {

#define REQUIRE_SOX()                                                                                      \
    if (std::system("command -v sox >/dev/null 2>&1 && command -v soxi >/dev/null 2>&1") != 0)            \
    GTEST_SKIP() << "sox/soxi not installed (apt-get install -y sox): interoperability not checked"

std::string Shell(const std::string& cmd)
{
    std::string out;
    FILE* p = popen((cmd + " 2>&1").c_str(), "r");
    char buf[512];
    for (size_t n; p != nullptr && (n = fread(buf, 1, sizeof(buf), p)) > 0;) out.append(buf, n);
    EXPECT_EQ(p != nullptr ? pclose(p) : -1, 0) << cmd << "\n" << out;
    while (!out.empty() && (out.back() == '\n' || out.back() == ' ')) out.pop_back();
    return out;
}

class Sox : public ScratchTest {
protected:
    std::string Q(const std::string& name) const { return "'" + Path(name) + "'"; }
};

} // namespace

TEST_F(Sox, WeReadWhatSoxWritesWithAndWithoutExtraChunks)
{
    REQUIRE_SOX();
    for (auto [rate, channels, bits] : {std::tuple{8000, 1, 8}, {11025, 2, 8}, {22050, 1, 16}, {44100, 2, 16},
                                        {48000, 2, 16}, {96000, 1, 16}}) {
        const std::string format = std::to_string(rate) + "/" + std::to_string(channels) + "/" + std::to_string(bits);
        Shell("sox -V1 -D -n -r " + std::to_string(rate) + " -c " + std::to_string(channels) + " -b " +
              std::to_string(bits) + " " + Q("sox.wav") + " synth 0.73 sine 300 sine 500");
        Shell("sox -V1 " + Q("sox.wav") + " -t raw " + Q("sox.raw"));
        const std::string raw = Slurp(Path("sox.raw")), file = Slurp(Path("sox.wav"));
        // The same with a LIST/INFO chunk (odd comment) before the data and an odd one after.
        const size_t data = file.find("data");
        ASSERT_NE(data, std::string::npos);
        Make("extra.wav", Riff(file.substr(12, data - 12) + Chunk("LIST", "INFO" + Chunk("ICMT", "made by sox")) +
                               file.substr(data) + Chunk("zzzz", "tail!")));

        for (const std::string& path : {Path("sox.wav"), Path("extra.wav")}) {
            const DWORD align = DWORD(channels * bits / 8);
            QX_DevFormat f{};
            ASSERT_EQ(CWaveFile::FileFormat(path.c_str(), f), 1) << path << format;
            EXPECT_EQ(f.wFormatTag, WAVE_FORMAT_PCM);
            EXPECT_EQ(std::to_string(f.nSamplesPerSec) + "/" + std::to_string(f.nChannels) + "/" +
                          std::to_string(f.wBitsPerSample),
                      format);
            EXPECT_EQ(f.nBlockAlign, align);
            EXPECT_EQ(f.nAvgBytesPerSec, rate * align);
            EXPECT_EQ(CWaveFile::FileDuration(path.c_str()), long(raw.size() * 1000.0 / (rate * align)));
            CWaveFileRead r;
            ASSERT_EQ(OpenFile(r, path), 1);
            EXPECT_EQ(r.GetDataSize(), long(raw.size()));
            std::string back(raw.size() + 100, '\0');
            EXPECT_EQ(r.Read(reinterpret_cast<unsigned char*>(back.data()), int(back.size())), int(raw.size()));
            EXPECT_TRUE(back.substr(0, raw.size()) == raw) << path << format;
        }
    }
}

TEST_F(Sox, SoxAcceptsWhatWeWrite)
{
    REQUIRE_SOX();
    // Standard formats 0, 3, 8, 13: 8 kHz mono 8-bit (odd data: a pad byte), 11 kHz
    // stereo 8-bit, 22 kHz mono 16-bit (left open: the destructor finishes the file),
    // 44.1 kHz stereo 16-bit.
    for (auto [index, encoding, bytes] : {std::tuple{0, "Unsigned", 4001}, {3, "Unsigned", 66150},
                                          {8, "Signed", 88202}, {13, "Signed", 352804}}) {
        QX_DevFormat wfx = StdFormat(index), format = wfx;
        const std::string data = Pattern(size_t(bytes), unsigned(index));
        {
            CWaveFileWrite w;
            ASSERT_EQ(OpenFile(w, Path("ours.wav"), &format), 1);
            for (size_t at = 0, half = wfx.nAvgBytesPerSec / 2; at < data.size(); at += half) {
                std::string piece = data.substr(at, half);
                WAVEHDR h = Header(piece);
                ASSERT_EQ(w.Write(&h), long(piece.size()));
            }
            if (index != 8) {
                EXPECT_EQ(w.Close(), 1);
            }
        }
        const std::string q = Q("ours.wav");
        EXPECT_EQ(Shell("soxi -r " + q) + " " + Shell("soxi -c " + q) + " " + Shell("soxi -b " + q) + " " +
                      Shell("soxi -s " + q),
                  std::to_string(wfx.nSamplesPerSec) + " " + std::to_string(wfx.nChannels) + " " +
                      std::to_string(wfx.wBitsPerSample) + " " + std::to_string(bytes / wfx.nBlockAlign));
        EXPECT_NE(Shell("soxi -e " + q).find(encoding), std::string::npos);
        Shell("sox -V1 " + q + " -t raw " + Q("ours.raw"));
        EXPECT_TRUE(Slurp(Path("ours.raw")) == data) << index;
    }
}
