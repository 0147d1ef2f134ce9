#include <quavix/QXDevice.h>

#include "platform/QXFaults.h"
#include "platform/QXPlatform.h"
#include "platform/kernel/QXKernel.h"
#include "platform/kernel/QXWindow.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <string>

namespace {

// A device whose hooks can be told to fail and which records the hooks it ran.
class TestDevice : public CQXDevice {
public:
    ~TestDevice() override { ThreadStop(); }

    bool failOpen = false, failStart = false, failPause = false, failStop = false, failClose = false;
    std::string calls;
    std::atomic<int> userMessages{0};
    HANDLE hangUntil = nullptr; // WndProc blocks on it when set

protected:
    int DevOpen() override { return Hook("O", failOpen); }
    int DevStart() override { return Hook("S", failStart); }
    int DevPause() override { return Hook("P", failPause); }
    int DevStop() override { return Hook("T", failStop); }
    int DevClose() override { return Hook("C", failClose); }
    LRESULT WndProc(UINT uMsg, WPARAM wParam, LPARAM lParam) override
    {
        if (uMsg != WM_USER) return CQXDevice::WndProc(uMsg, wParam, lParam);
        ++userMessages;
        if (hangUntil != nullptr) WaitForSingleObject(hangUntil, 10000);
        return 0;
    }

private:
    int Hook(const char* name, bool fail)
    {
        calls += name;
        return fail ? 0 : 1;
    }
};

// A standard format, every field overwritten, and its description.
WAVEFORMATEX Filled(int nIndex)
{
    WAVEFORMATEX f;
    std::memset(&f, 0xAB, sizeof(f));
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

TEST(DeviceState, EachStepRunsItsHookOnceOpenKeepsTheFirstNumberAndCloseForgetsIt)
{
    TestDevice d, f;
    EXPECT_TRUE(IsWindow(d.GetHWnd()));
    EXPECT_EQ(d.Pause() + d.Stop(), 2);
    EXPECT_EQ(d.calls, "") << "pause and stop of a closed device do nothing";
    f.failOpen = true;
    EXPECT_EQ(f.Open(7), 0);
    EXPECT_EQ(f.GetState(), QX_STATE_CLOSED);
    EXPECT_EQ(f.GetDevice(), 7) << "the number stays although the open failed";
    // Each step twice: the second time runs no hook.
    const struct {
        int (CQXDevice::*step)();
        UINT state;
        const char* calls;
    } steps[] = {
        {&CQXDevice::Start, QX_STATE_OPEN | QX_STATE_STARTED, "OS"}, // opens a closed device as number 0
        {&CQXDevice::Pause, QX_STATE_OPEN | QX_STATE_PAUSED, "OSP"},
        {&CQXDevice::Stop, QX_STATE_OPEN | QX_STATE_STOPPED, "OSPT"},
        {&CQXDevice::Pause, QX_STATE_OPEN | QX_STATE_PAUSED, "OSPTP"}, // a stopped device can be paused
        {&CQXDevice::Start, QX_STATE_OPEN | QX_STATE_STARTED, "OSPTPS"},
        {&CQXDevice::Close, QX_STATE_CLOSED, "OSPTPSTC"},
    };
    for (const auto& s : steps) {
        SCOPED_TRACE(s.calls);
        for (int i = 0; i < 2; ++i) EXPECT_EQ((d.*s.step)(), 1);
        EXPECT_EQ(d.GetState(), s.state);
        EXPECT_EQ(d.calls, s.calls);
    }
    EXPECT_EQ(d.Open(3) + d.Open(5) + d.Stop() + d.Stop(), 4);
    EXPECT_EQ(d.GetDevice(), 3);
    EXPECT_EQ(d.calls, "OSPTPSTCOT") << "stop of a freshly opened device runs its hook once";
    EXPECT_EQ(d.GetState(), QX_STATE_OPEN | QX_STATE_STOPPED);
    EXPECT_EQ(d.Close(), 1);
    EXPECT_EQ(d.GetDevice(), 0);
}

TEST(DeviceState, FailedHooksLeaveTheStateAsItWas)
{
    TestDevice d;
    d.Open(1);
    d.failStart = true;
    EXPECT_EQ(d.Start(), 0);
    EXPECT_EQ(d.GetState(), QX_STATE_OPEN);
    d.failStart = false;
    d.Start();
    d.failPause = true;
    EXPECT_EQ(d.Pause(), 0);
    EXPECT_EQ(d.GetState(), QX_STATE_OPEN | QX_STATE_STARTED);
    d.failStop = true;
    EXPECT_EQ(d.Close(), 0);
    EXPECT_EQ(d.GetState(), QX_STATE_OPEN | QX_STATE_STARTED);
    d.failStop = false;
    d.failClose = true;
    EXPECT_EQ(d.Close(), 0) << "close fails half-way";
    EXPECT_EQ(d.GetState(), QX_STATE_OPEN | QX_STATE_STOPPED);
    EXPECT_EQ(d.GetDevice(), 1);
}

TEST(DeviceState, DisablingClosesAndRefusesOpenButNotStartOfAnOpenDevice)
{
    TestDevice d;
    d.Start();
    d.SetEnabled(0);
    EXPECT_EQ(d.GetState(), QX_STATE_DISABLED | QX_STATE_CLOSED);
    EXPECT_EQ(d.IsEnabled(), 0);
    d.calls.clear();
    EXPECT_EQ(d.Open(0), 0);
    EXPECT_EQ(d.Start(), 0);
    EXPECT_EQ(d.calls, "") << "no hook runs for a closed, disabled device";
    d.SetEnabled(1);
    EXPECT_EQ(d.GetState(), QX_STATE_CLOSED);
    // A device whose close fails stays open, stopped and disabled; it can still be
    // started, and a later close enables it again.
    TestDevice e;
    e.Start();
    e.failClose = true;
    e.SetEnabled(0);
    EXPECT_EQ(e.GetState(), QX_STATE_DISABLED | QX_STATE_OPEN | QX_STATE_STOPPED);
    EXPECT_EQ(e.Start(), 1);
    EXPECT_EQ(e.GetState(), QX_STATE_DISABLED | QX_STATE_OPEN | QX_STATE_STARTED);
    e.failClose = false;
    EXPECT_EQ(e.Close(), 1);
    EXPECT_EQ(e.GetState(), QX_STATE_CLOSED);
}

TEST(DeviceFormat, KeepsItsOwnCopyOfExactlyEighteenBytes)
{
    TestDevice d;
    unsigned char raw[32];
    std::memset(raw, 0xEE, sizeof raw);
    auto* fmt = reinterpret_cast<WAVEFORMATEX*>(raw);
    CQXDevice::FillFormat(fmt, 13);
    fmt->cbSize = 14; // extra bytes follow, and must not be copied
    EXPECT_EQ(d.SetFormat(reinterpret_cast<QX_DevFormat*>(raw)), 1);
    ASSERT_NE(d.GetFormat(), nullptr);
    EXPECT_EQ(std::memcmp(d.GetFormat(), raw, 18), 0);
    fmt->nSamplesPerSec = 8000;
    EXPECT_EQ(d.GetFormat()->nSamplesPerSec, 44100u);
    EXPECT_EQ(d.SetFormat(nullptr), 0);
    EXPECT_EQ(d.GetFormat(), nullptr);
}

// The order of the standard formats is part of the interface: devices name them by index.
TEST(FillFormat, StandardFormatsAreConsistentInTheirOrderAndOthersFallBackTo22050Mono)
{
    for (int i = -1; i <= 14; ++i) {
        const WAVEFORMATEX f = Filled(i);
        EXPECT_EQ(f.wFormatTag, WAVE_FORMAT_PCM);
        EXPECT_EQ(f.cbSize, 0);
        EXPECT_EQ(f.nBlockAlign, f.nChannels * f.wBitsPerSample / 8) << i;
        EXPECT_EQ(f.nAvgBytesPerSec, f.nSamplesPerSec * f.nBlockAlign) << i;
    }
    const std::pair<int, const char*> named[] = {{0, "8.000 kHz 8-bit Mono"},      {1, "8.000 kHz 8-bit Stereo"},
                                                 {5, "11.025 kHz 16-bit Stereo"}, {9, "22.050 kHz 16-bit Stereo"},
                                                 {13, "44.100 kHz 16-bit Stereo"}, {8, "22.050 kHz 16-bit Mono"},
                                                 {14, "22.050 kHz 16-bit Mono"},  {INT32_MIN, "22.050 kHz 16-bit Mono"}};
    for (auto [i, text] : named) EXPECT_EQ(Described(Filled(i)), text) << i;
    // The tag is not looked at; more than 2 channels read as stereo.
    EXPECT_EQ(Described({3, 4, 96000, 0, 0, 24, 0}), "96.000 kHz 24-bit Stereo");
    EXPECT_EQ(Described({1, 0, 0xFFFFFFFFu, 0, 0, 0xFFFF, 0}), "4294967.295 kHz 65535-bit Stereo");
    std::string s = "stale";
    CQXDevice::FillFormatString(nullptr, s);
    EXPECT_EQ(s, "");
    CQXDevice::FillFormat(nullptr, 3); // no crash
}

TEST(DeviceThread, DestructionAbandonsAHungThreadAfterASecondAndItNeverReachesTheDevice)
{
    HANDLE release = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    auto* d = new TestDevice;
    d->hangUntil = release;
    HWND h = d->GetHWnd();
    PostMessageA(h, WM_USER, 0, 0);
    PostMessageA(h, WM_USER, 0, 0); // still queued when the thread is abandoned
    for (int i = 0; i < 20000 && d->userMessages == 0; ++i) Sleep(1);
    ASSERT_EQ(d->userMessages, 1) << "the first message is being handled";
    const auto t0 = std::chrono::steady_clock::now();
    delete d;
    const auto waited = std::chrono::steady_clock::now() - t0;
    EXPECT_LT(waited, std::chrono::seconds(4));
    EXPECT_GE(waited, std::chrono::milliseconds(900));
    SetEvent(release);
    for (int i = 0; i < 20000 && IsWindow(h); ++i) Sleep(1);
    EXPECT_FALSE(IsWindow(h));
    CloseHandle(release);
}

TEST(DeviceThread, WithoutAWindowTheConstructorGivesUpAfterItsWaitAndTheDeviceStillWorks)
{
    QXFaultInject("CreateWindowExA", ERROR_NOT_ENOUGH_MEMORY);
    const auto t0 = std::chrono::steady_clock::now();
    TestDevice d;
    EXPECT_EQ(d.GetHWnd(), nullptr);
    EXPECT_GE(std::chrono::steady_clock::now() - t0, std::chrono::milliseconds(4900));
    EXPECT_EQ(d.Open(0), 1);
    d.Close();
}

TEST(DeviceThreadDeathTest, ProcessEndsWhenNoWorkerThreadOrWindowClassCanBeMade)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            QXFaultInject("CreateThread", ERROR_NOT_ENOUGH_MEMORY);
            TestDevice d;
            std::_Exit(3);
        },
        ::testing::ExitedWithCode(0), "");
    EXPECT_EXIT(
        {
            CQXDevice::s_bRegistered = 0;
            UnregisterClassA("CQXDevice", nullptr);
            QXFaultInject("RegisterClassA", 1);
            TestDevice d;
            std::_Exit(3);
        },
        ::testing::ExitedWithCode(0), "");
}
