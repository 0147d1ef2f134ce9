#include <gtest/gtest.h>

#include <quavix/QXNotify.h>

#include "platform/QXPlatform.h"

#include <cstring>
#include <string>
#include <thread>
#include <vector>

namespace {

std::string Line(DWORD dwCode, DWORD dwValue, DWORD_PTR dwDevice)
{
    std::string s;
    CQXNotify::FormatNotification(dwCode, dwValue, dwDevice, s);
    return s;
}

DWORD_PTR Name(const char* psz) { return reinterpret_cast<DWORD_PTR>(psz); }

std::string Text(MMRESULT (*pGet)(MMRESULT, LPSTR, UINT), MMRESULT mmr)
{
    char text[256] = "";
    pGet(mmr, text, sizeof(text));
    return text;
}

void Collect(const char* pszLine, void* pUser) { static_cast<std::vector<std::string>*>(pUser)->push_back(pszLine); }

} // namespace

TEST(Notify, EveryCodeFormatsItsValueDeviceAndTextIntoItsOwnLine)
{
    EXPECT_EQ(Line(4, 3, 9), "Wave recording 3 stopped\n");
    EXPECT_EQ(Line(100, DSERR_NODRIVER, 2), "Error creating DS object 2: DSERR_NODRIVER No sound driver is available for use.\n");
    EXPECT_EQ(Line(122, 0, 1), "Error unlocking buffer for DS object 1: DSERROR!! Unrecognized error in Direct Sound.\n");
    EXPECT_EQ(Line(200, 2, 1), "Error opening MIDI in device 1: " + Text(midiInGetErrorTextA, 2) + "\n");
    EXPECT_EQ(Line(310, MIDIERR_NOTREADY, 0),
              "Error sending MIDI short message on device 0: " + Text(midiOutGetErrorTextA, MIDIERR_NOTREADY) + "\n");
    EXPECT_EQ(Line(404, WAVERR_UNPREPARED, 3),
              "Error preparing buffer on WAVE in device 3: " + Text(waveInGetErrorTextA, WAVERR_UNPREPARED) + "\n");
    EXPECT_EQ(Line(503, 7, 4), "Error closing WAVE out device 4: " + Text(waveOutGetErrorTextA, 7) + "\n");
    EXPECT_EQ(Line(203, 9999, 0), "Error closing MIDI in device 0: \n"); // no text for the result
    EXPECT_EQ(Line(800, 0, 0), "Error creating media event timer\n");
    EXPECT_EQ(Line(803, 0, 2), "Error allocating virtual memory on WAVE in device 2\n");

    EXPECT_EQ(Line(603, 2, Name("a.wav")), "Descend error (2) in file a.wav\n");
    EXPECT_EQ(Line(614, 0xFFFFFFFFu, Name("o.wav")), "Error (-1) opening file o.wav for writing\n");
    EXPECT_EQ(Line(801, 5, Name("b.wav")), "File b.wav does not exist\n");
    EXPECT_EQ(Line(600, 0, 0), "Error (0) opening file  for reading\n");
    const std::string longName(2000, 'x');
    EXPECT_EQ(Line(802, 0, Name(longName.c_str())), "Out of memory in file " + longName + "\n");

    EXPECT_EQ(Line(408, 7, 0), "ERROR 408 (7 0)\n");
    EXPECT_EQ(Line(0, 0, 0), "ERROR 0 (0 0)\n");
    EXPECT_EQ(Line(123, DSERR_GENERIC, 1), "ERROR 123 (-2147467259 1)\n");
    EXPECT_EQ(Line(0xFFFFFFFFu, 0x80000000u, static_cast<DWORD_PTR>(-1)), "ERROR -1 (-2147483648 -1)\n");
    // Every message's arguments match its format, whatever the values.
    for (DWORD code = 0; code < 1000; ++code) EXPECT_EQ(Line(code, 1, Name("n.wav")).back(), '\n') << code;
}

TEST(Notify, TheCallbackGetsEachNotificationAndDebugBuildsTraceItsLine)
{
    static DWORD_PTR got[3];
    CQXNotify notify;
    notify.SetNotificationCallback([](DWORD c, DWORD v, DWORD_PTR d) { got[0] = c, got[1] = v, got[2] = d; }, 42);
    std::vector<std::string> lines;
    QXSetTraceProc(Collect, &lines);
    notify.Notify(603, 2, Name("a.wav"));
    notify.SetNotificationCallback(nullptr, 0);
    notify.Notify(408, 7, 0);
    QXSetTraceProc(nullptr, nullptr);
    EXPECT_EQ(got[0], 603u);
    EXPECT_EQ(got[1], 2u);
    EXPECT_STREQ(reinterpret_cast<const char*>(got[2]), "a.wav");
#ifdef NDEBUG
    EXPECT_TRUE(lines.empty());
#else
    EXPECT_EQ(lines, (std::vector<std::string>{"Descend error (2) in file a.wav\n", "ERROR 408 (7 0)\n"}));
#endif
}

TEST(Notify, TraceLosesNoLineWhileTheSinkChangesAndANestedTraceGoesToStderr)
{
    std::vector<std::string> a, b;
    QXSetTraceProc(Collect, &a);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([t] {
            for (int i = 0; i < 300; ++i) QXTrace("thread %d line %d\n", t, i);
        });
    for (int i = 0; i < 200; ++i) QXSetTraceProc(Collect, i % 2 ? &a : &b);
    for (std::thread& th : threads) th.join();
    QXSetTraceProc(nullptr, nullptr);
    EXPECT_EQ(a.size() + b.size(), 1200u);

    // Without a sink, and from inside a sink, lines go to stderr.
    testing::internal::CaptureStderr();
    QXTrace("to %s\n", "stderr");
    QXSetTraceProc([](const char*, void*) { QXTrace("nested\n"); }, nullptr);
    QXTrace("swallowed\n");
    QXSetTraceProc(nullptr, nullptr);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "to stderr\nnested\n");
}

TEST(Notify, DSErrorTextIsCutToTheBufferAndNeverWritesPastIt)
{
    char buf[256];
    CQXNotify::GetDSErrorText(DSERR_UNINITIALIZED, buf, sizeof(buf));
    EXPECT_STREQ(buf, "DSERR_UNINITIALIZED The IDirectSound::Initialize method has not been called or has not been "
                      "called successfully before other methods were called.");
    CQXNotify::GetDSErrorText(E_NOINTERFACE, buf, sizeof(buf));
    EXPECT_STREQ(buf, "DSERROR!! Unrecognized error in Direct Sound.");
    std::memset(buf, '#', sizeof(buf));
    CQXNotify::GetDSErrorText(DSERR_ALLOCATED, buf, 16);
    EXPECT_STREQ(buf, "DSERR_ALLOCATED");
    EXPECT_EQ(buf[16], '#');
    CQXNotify::GetDSErrorText(DSERR_ALLOCATED, buf, 1);
    EXPECT_STREQ(buf, "");
    buf[0] = '#';
    CQXNotify::GetDSErrorText(DSERR_ALLOCATED, buf, 0);
    CQXNotify::GetDSErrorText(DSERR_ALLOCATED, buf, -5);
    CQXNotify::GetDSErrorText(DSERR_ALLOCATED, nullptr, 16);
    EXPECT_EQ(buf[0], '#');
}
