#include <gtest/gtest.h>

#include <quavix/QXDevice.h>

#include <cstring>
#include <string>

namespace {

WAVEFORMATEX Filled(int nIndex)
{
    WAVEFORMATEX f;
    std::memset(&f, 0xAB, sizeof(f)); // every field must be overwritten
    CQXDevice::FillFormat(&f, nIndex);
    return f;
}

std::string Described(WAVEFORMATEX f)
{
    std::string s = "stale";
    CQXDevice::FillFormatString(&f, s);
    return s;
}

} // namespace

TEST(FillFormat, StandardFormatsAndFallback)
{
    for (int i = -1; i <= 14; ++i) {
        const WAVEFORMATEX f = Filled(i);
        EXPECT_EQ(f.wFormatTag, WAVE_FORMAT_PCM);
        EXPECT_EQ(f.cbSize, 0);
        EXPECT_EQ(f.nBlockAlign, f.nChannels * f.wBitsPerSample / 8) << i;
        EXPECT_EQ(f.nAvgBytesPerSec, f.nSamplesPerSec * f.nBlockAlign) << i;
    }
    EXPECT_EQ(Described(Filled(1)), "8.000 kHz 8-bit Stereo");
    EXPECT_EQ(Described(Filled(5)), "11.025 kHz 16-bit Stereo");
    EXPECT_EQ(Described(Filled(9)), "22.050 kHz 16-bit Stereo");
    EXPECT_EQ(Described(Filled(13)), "44.100 kHz 16-bit Stereo");
    for (int i : {8, 14, -1, INT32_MIN}) EXPECT_EQ(Described(Filled(i)), "22.050 kHz 16-bit Mono") << i;
    CQXDevice::FillFormat(nullptr, 3); // no crash
}

TEST(FillFormat, DescriptionOfAnyFormat)
{
    WAVEFORMATEX f = Filled(0);
    EXPECT_EQ(Described(f), "8.000 kHz 8-bit Mono");
    f = {3, 4, 96000, 0, 0, 24, 0}; // tag not looked at; more than 2 channels read as stereo
    EXPECT_EQ(Described(f), "96.000 kHz 24-bit Stereo");
    f = {1, 0, 0xFFFFFFFFu, 0, 0, 0xFFFF, 0};
    EXPECT_EQ(Described(f), "4294967.295 kHz 65535-bit Stereo");
    std::string s = "stale";
    CQXDevice::FillFormatString(nullptr, s);
    EXPECT_EQ(s, "");
}
