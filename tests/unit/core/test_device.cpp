#include <quavix/QXDevice.h>

#include "platform/QXFaults.h"
#include "platform/kernel/QXKernel.h"
#include "platform/QXPlatform.h"
#include "platform/kernel/QXWindow.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <string>
#include <vector>

namespace {

// A device whose hooks can be told to fail and which records the hooks it ran.
class TestDevice : public CQXDevice {
public:
    ~TestDevice() override { ThreadStop(); }

    bool failOpen = false, failStart = false, failPause = false, failStop = false, failClose = false;
    std::string calls;
    std::atomic<int> userMessages{0};
    std::atomic<DWORD> handlerThread{0};
    HANDLE hangUntil = nullptr; // WndProc blocks on it when set

    using CQXDevice::TestState;

protected:
    int DevOpen() override { return Hook("O", failOpen); }
    int DevStart() override { return Hook("S", failStart); }
    int DevPause() override { return Hook("P", failPause); }
    int DevStop() override { return Hook("T", failStop); }
    int DevClose() override { return Hook("C", failClose); }
    LRESULT WndProc(UINT uMsg, WPARAM wParam, LPARAM lParam) override
    {
        if (uMsg != WM_USER) return CQXDevice::WndProc(uMsg, wParam, lParam);
        handlerThread = GetCurrentThreadId();
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

bool WaitFor(const std::atomic<int>& value, int target)
{
    for (int i = 0; i < 5000 && value.load() < target; ++i) Sleep(1);
    return value.load() >= target;
}

} // namespace

TEST(DeviceState, NewIsClosedOpenKeepsTheFirstNumberAndFailureKeepsTheState)
{
    TestDevice d;
    EXPECT_EQ(d.GetState(), QX_STATE_CLOSED);
    EXPECT_EQ(d.GetDevice(), 0);
    EXPECT_EQ(d.GetHandle(), nullptr);
    EXPECT_EQ(d.GetFormat(), nullptr);
    EXPECT_TRUE(IsWindow(d.GetHWnd()));
    EXPECT_EQ(d.IsEnabled(), 1);
    EXPECT_EQ(d.Open(3), 1);
    EXPECT_EQ(d.GetState(), QX_STATE_OPEN);
    EXPECT_EQ(d.GetDevice(), 3);
    EXPECT_EQ(d.Open(5), 1);
    EXPECT_EQ(d.GetDevice(), 3);
    EXPECT_EQ(d.calls, "O");

    TestDevice f;
    f.failOpen = true;
    EXPECT_EQ(f.Open(7), 0);
    EXPECT_EQ(f.GetState(), QX_STATE_CLOSED);
    EXPECT_EQ(f.GetDevice(), 7) << "the number stays although the open failed";
}

TEST(DeviceState, TransportRowsCallTheRightHooks)
{
    TestDevice d;
    EXPECT_EQ(d.Pause(), 1);
    EXPECT_EQ(d.Stop(), 1);
    EXPECT_EQ(d.calls, "") << "pause and stop of a closed device do nothing";

    EXPECT_EQ(d.Start(), 1) << "start opens a closed device as number 0";
    EXPECT_EQ(d.calls, "OS");
    EXPECT_EQ(d.GetState(), QX_STATE_OPEN | QX_STATE_STARTED);
    EXPECT_EQ(d.Start(), 1);
    EXPECT_EQ(d.calls, "OS");

    EXPECT_EQ(d.Pause(), 1);
    EXPECT_EQ(d.GetState(), QX_STATE_OPEN | QX_STATE_PAUSED);
    EXPECT_EQ(d.Pause(), 1);
    EXPECT_EQ(d.Stop(), 1);
    EXPECT_EQ(d.GetState(), QX_STATE_OPEN | QX_STATE_STOPPED);
    EXPECT_EQ(d.Stop(), 1);
    EXPECT_EQ(d.Pause(), 1) << "a stopped device can be paused";
    EXPECT_EQ(d.calls, "OSPTP");
    EXPECT_EQ(d.Start(), 1);
    EXPECT_EQ(d.Close(), 1);
    EXPECT_EQ(d.calls, "OSPTPSTC");
    EXPECT_EQ(d.GetState(), QX_STATE_CLOSED);
    EXPECT_EQ(d.Close(), 1);
    EXPECT_EQ(d.calls, "OSPTPSTC");

    // Stop of a freshly opened device runs its hook once.
    d.Open(2);
    EXPECT_EQ(d.Stop(), 1);
    EXPECT_EQ(d.Stop(), 1);
    EXPECT_EQ(d.calls, "OSPTPSTCOT");
    EXPECT_EQ(d.GetState(), 0x0006u);
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
    EXPECT_EQ(d.GetState(), 0x0012u);
    d.failStop = true;
    EXPECT_EQ(d.Close(), 0);
    EXPECT_EQ(d.GetState(), 0x0012u);
    d.failStop = false;
    d.failClose = true;
    EXPECT_EQ(d.Close(), 0) << "close fails half-way";
    EXPECT_EQ(d.GetState(), 0x0006u);
    EXPECT_EQ(d.GetDevice(), 1);
    d.failClose = false;
    EXPECT_EQ(d.Close(), 1);
    EXPECT_EQ(d.GetDevice(), 0);
}

TEST(DeviceState, DisablingClosesAndRefusesOpenButNotStartOfAnOpenDevice)
{
    TestDevice d;
    d.Start();
    d.SetEnabled(0);
    EXPECT_EQ(d.GetState(), 0x8001u);
    EXPECT_EQ(d.IsEnabled(), 0);
    EXPECT_EQ(d.TestState(QX_STATE_DISABLED), 0x8000u);
    d.calls.clear();
    EXPECT_EQ(d.Open(0), 0);
    EXPECT_EQ(d.Start(), 0);
    EXPECT_EQ(d.calls, "") << "no hook runs for a closed, disabled device";
    d.SetEnabled(1);
    EXPECT_EQ(d.GetState(), QX_STATE_CLOSED);

    // Disabling a device whose close fails leaves it open, stopped and disabled; it can
    // still be started, and a later close re-enables it.
    TestDevice e;
    e.Start();
    e.failClose = true;
    e.SetEnabled(0);
    EXPECT_EQ(e.GetState(), 0x8006u);
    EXPECT_EQ(e.IsEnabled(), 0);
    EXPECT_EQ(e.Start(), 1);
    EXPECT_EQ(e.GetState(), 0x8012u);
    e.failClose = false;
    EXPECT_EQ(e.Close(), 1);
    EXPECT_EQ(e.GetState(), QX_STATE_CLOSED);
    EXPECT_EQ(e.IsEnabled(), 1);
}

TEST(DeviceFormat, CopiesExactlyEighteenBytes)
{
    TestDevice d;
    unsigned char raw[32];
    std::memset(raw, 0xEE, sizeof raw);
    WAVEFORMATEX* fmt = reinterpret_cast<WAVEFORMATEX*>(raw);
    CQXDevice::FillFormat(fmt, 13);
    fmt->cbSize = 14; // extra bytes follow, and must not be copied
    EXPECT_EQ(d.SetFormat(reinterpret_cast<QX_DevFormat*>(raw)), 1);
    QX_DevFormat* held = d.GetFormat();
    ASSERT_NE(held, nullptr);
    EXPECT_NE(static_cast<void*>(held), static_cast<void*>(raw));
    EXPECT_EQ(std::memcmp(held, raw, 18), 0);
    fmt->nSamplesPerSec = 8000;
    EXPECT_EQ(d.GetFormat()->nSamplesPerSec, 44100u);
    EXPECT_EQ(d.SetFormat(nullptr), 0);
    EXPECT_EQ(d.GetFormat(), nullptr);
}

TEST(DeviceThread, MessagesRunInOrderOnTheDeviceThread)
{
    TestDevice d;
    for (int i = 0; i < 100; ++i) ASSERT_TRUE(PostMessageA(d.GetHWnd(), WM_USER, i, 0));
    ASSERT_TRUE(WaitFor(d.userMessages, 100));
    EXPECT_NE(d.handlerThread.load(), 0u);
    EXPECT_NE(d.handlerThread.load(), GetCurrentThreadId());
}

TEST(DeviceThread, ConstructAndDestroyManyLeavesNothingBehind)
{
    size_t handles = qxplat::LiveHandleCount();
    size_t windows = qxplat::LiveWindowCount();
    HWND last = nullptr;
    for (int i = 0; i < 1000; ++i) {
        auto* d = new TestDevice;
        last = d->GetHWnd();
        ASSERT_NE(last, nullptr);
        if (i % 100 == 0) PostMessageA(last, WM_USER, 0, 0);
        delete d;
    }
    EXPECT_FALSE(IsWindow(last));
    EXPECT_FALSE(PostMessageA(last, WM_USER, 0, 0));
    EXPECT_EQ(qxplat::LiveHandleCount(), handles);
    EXPECT_EQ(qxplat::LiveWindowCount(), windows);
}

TEST(DeviceThread, DestructionDoesNotWaitLongForAHungThread)
{
    HANDLE release = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    auto* d = new TestDevice;
    d->hangUntil = release;
    HWND h = d->GetHWnd();
    PostMessageA(h, WM_USER, 0, 0);
    PostMessageA(h, WM_USER, 0, 0); // still queued when the thread is abandoned
    ASSERT_TRUE(WaitFor(d->userMessages, 1));
    auto t0 = std::chrono::steady_clock::now();
    delete d;
    auto waited = std::chrono::steady_clock::now() - t0;
    EXPECT_LT(waited, std::chrono::seconds(4));
    EXPECT_GE(waited, std::chrono::milliseconds(900));
    // The abandoned thread must not reach the deleted device when it wakes.
    SetEvent(release);
    for (int i = 0; i < 2000 && IsWindow(h); ++i) Sleep(1);
    EXPECT_FALSE(IsWindow(h));
    CloseHandle(release);
}

TEST(DeviceThreadDeathTest, ProcessEndsWhenNoWorkerThreadCanBeMade)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            QXFaultInject("CreateThread", ERROR_NOT_ENOUGH_MEMORY);
            TestDevice d;
            std::_Exit(3);
        },
        ::testing::ExitedWithCode(0), "");
}

TEST(DeviceThreadDeathTest, ProcessEndsWhenTheClassCannotBeRegistered)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
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

TEST(DeviceThread, WithoutAWindowTheConstructorGivesUpAfterItsWait)
{
    QXFaultInject("CreateWindowExA", ERROR_NOT_ENOUGH_MEMORY);
    auto t0 = std::chrono::steady_clock::now();
    {
        TestDevice d;
        EXPECT_EQ(d.GetHWnd(), nullptr);
        EXPECT_GE(std::chrono::steady_clock::now() - t0, std::chrono::milliseconds(4900));
        EXPECT_EQ(d.Open(0), 1) << "the device still works without a message loop";
        d.Close();
    }
}
