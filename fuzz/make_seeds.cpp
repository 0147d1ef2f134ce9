// Writes the seed corpus of the wave file fuzzer into a folder: small valid files and
// broken ones, each followed by the 16 bytes that steer the fuzzer's reads and seeks.
//   wavefile_seeds <folder>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

namespace {

std::string Le16(unsigned v)
{
    return std::string{char(v & 0xFF), char((v >> 8) & 0xFF)};
}

std::string Le32(uint32_t v)
{
    return Le16(v & 0xFFFF) + Le16(v >> 16);
}

std::string Chunk(const std::string& id, const std::string& data, int64_t claimed = -1)
{
    std::string s = id + Le32(uint32_t(claimed < 0 ? int64_t(data.size()) : claimed)) + data;
    if (data.size() & 1) s += '\0';
    return s;
}

std::string Fmt(unsigned channels, uint32_t rate, unsigned bits, size_t length = 16, uint32_t avg = 0xFFFFFFFF)
{
    const unsigned align = channels * bits / 8;
    std::string s = Le16(1) + Le16(channels) + Le32(rate) + Le32(avg == 0xFFFFFFFF ? rate * align : avg) +
                    Le16(align) + Le16(bits);
    s.resize(length, '\0');
    return Chunk("fmt ", s);
}

std::string Riff(const std::string& chunks, const std::string& form = "WAVE", int64_t claimed = -1)
{
    return "RIFF" + Le32(uint32_t(claimed < 0 ? int64_t(4 + chunks.size()) : claimed)) + form + chunks;
}

std::string Samples(size_t n)
{
    std::string s(n, '\0');
    for (size_t i = 0; i < n; ++i) s[i] = char(i * 37 + 11);
    return s;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s <folder>\n", argv[0]);
        return 2;
    }
    const std::string pcm8 = Fmt(1, 8000, 8), pcm16 = Fmt(2, 44100, 16);
    const std::string data = Chunk("data", Samples(301));
    const std::vector<std::string> files = {
        Riff(pcm8 + data),
        Riff(pcm16 + Chunk("data", Samples(4000))),
        Riff(Fmt(1, 48000, 24) + Chunk("data", Samples(900))),
        Riff(data + pcm8),                                           // data first
        Riff(pcm8 + Chunk("LIST", "INFO" + Chunk("ICMT", "odd")) + data),
        Riff(Fmt(1, 8000, 8, 18) + data),
        Riff(Fmt(1, 8000, 8, 40) + data),
        Riff(Fmt(1, 8000, 8, 14) + data),                            // short format
        Riff(Chunk("fmt ", "") + data),                              // empty format
        Riff(pcm8 + Chunk("data", "")),                              // empty data
        Riff(pcm8),                                                  // no data
        Riff(data),                                                  // no format
        Riff(pcm8 + data, "AVI "),
        "not a riff file at all, just words",
        "",
        Riff(pcm8 + "data" + Le32(100000) + Samples(50)),            // data longer than the file
        Riff(pcm8 + "data" + Le32(0xFFFFFFFF) + Samples(500)),       // streamed length
        Riff(pcm8 + data, "WAVE", 0xFFFFFFFF),
        Riff(pcm8 + data, "WAVE", 4),                                // form holds nothing
        Riff(pcm8 + Riff(pcm8 + data) + data),                       // nested form
        Riff(pcm8 + data) + "garbage after the form",
        Chunk("JUNK", "x") + Riff(pcm8 + data),
        Riff(pcm8 + Chunk("huge", "", 0xFFFFFFF0) + data),
        Riff(Fmt(1, 8000, 8, 16, 0) + data),                         // no byte rate
        Riff(Fmt(0, 8000, 0) + data),                                // no block alignment
        Riff(Fmt(2, 0xFFFFFFFF, 16, 16, 0x80000000) + data),
        Riff(pcm8 + "data" + Le32(301)).substr(0, 40),               // cut inside a header
        "RIFF" + Le32(0) + "WAVE" + pcm8 + "data" + Le32(0) + Samples(700), // a killed recorder's
        "RIFF" + Le32(0) + "WAVE" + pcm16 + "data" + Le32(5000) + Samples(900),
        Riff(pcm8 + Chunk("data", "") + Chunk("LIST", "INFO")),      // empty data, then more
        Riff(pcm8 + "data" + Le32(0)) + Samples(333),                // RIFF reaches the data header only
        Riff(Fmt(1, 8000, 8, 12) + data),                            // 12-byte format
        Riff(Fmt(0, 0, 0, 16, 0) + data),                            // all zero
        Riff(Fmt(1, 0, 8, 16, 8000) + data),                         // no sample rate
        Riff(Fmt(0xFFFF, 0xFFFFFFFF, 0xFFFF, 16, 0xFFFFFFFF) + data),
    };
    const std::vector<std::string> steering = {
        std::string(16, '\0'),
        "\x01\x20\x00\x00\x02\x10\x00\x00\x12\x05\x00\x01\x03\x00\x00\x00",
        "\x06\x00\x05\xDC\x26\xFF\xFF\xFF\x82\x00\x10\x00\x00\x00\x00\x00",
        "\xFF\x01\x02\x03\x36\x00\x00\x10\x42\x00\x00\x00\x16\x00\x00\x01",
    };
    int n = 0;
    for (size_t i = 0; i < files.size(); ++i) {
        for (size_t s = 0; s < steering.size(); ++s) {
            const std::string path = std::string(argv[1]) + "/seed-" + std::to_string(i) + "-" + std::to_string(s);
            std::ofstream out(path, std::ios::binary | std::ios::trunc);
            out << files[i] << steering[s].substr(0, 16);
            if (!out) {
                std::fprintf(stderr, "cannot write %s\n", path.c_str());
                return 1;
            }
            ++n;
        }
    }
    std::printf("%d seeds in %s\n", n, argv[1]);
    return 0;
}
