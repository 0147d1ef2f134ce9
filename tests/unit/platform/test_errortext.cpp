#include "platform/QXPlatform.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

TEST(ErrorText, EachServiceKnowsItsOwnRangesAndCutsToTheBuffer)
{
    const struct {
        MMRESULT (*get)(MMRESULT, LPSTR, UINT);
        MMRESULT first, last; // its own range besides the MMSYSERR_ codes
    } services[] = {{midiInGetErrorTextA, MIDIERR_BASE, MIDIERR_LASTERROR},
                    {midiOutGetErrorTextA, MIDIERR_BASE, MIDIERR_LASTERROR},
                    {waveInGetErrorTextA, WAVERR_BASE, WAVERR_LASTERROR},
                    {waveOutGetErrorTextA, WAVERR_BASE, WAVERR_LASTERROR}};
    for (const auto& s : services) {
        for (MMRESULT mmr = 0; mmr < 300; ++mmr) {
            char text[256] = "#";
            const bool known = mmr <= MMSYSERR_LASTERROR || (mmr >= s.first && mmr <= s.last);
            ASSERT_EQ(s.get(mmr, text, sizeof(text)), known ? MMSYSERR_NOERROR : MMSYSERR_BADERRNUM) << mmr;
            EXPECT_EQ(std::string(text).size() > 10, known) << mmr; // a sentence, or nothing written
        }
        char full[256], small[8];
        ASSERT_EQ(s.get(MMSYSERR_ALLOCATED, full, sizeof(full)), MMSYSERR_NOERROR);
        std::memset(small, '#', sizeof(small));
        EXPECT_EQ(s.get(MMSYSERR_ALLOCATED, small, 6), MMSYSERR_NOERROR);
        EXPECT_EQ(std::string(small), std::string(full, 5));
        EXPECT_EQ(small[6], '#');
        EXPECT_EQ(s.get(MMSYSERR_ERROR, small, 0), MMSYSERR_INVALPARAM);
        EXPECT_EQ(s.get(MMSYSERR_ERROR, nullptr, 256), MMSYSERR_INVALPARAM);
        EXPECT_EQ(small[6], '#');
    }
}
