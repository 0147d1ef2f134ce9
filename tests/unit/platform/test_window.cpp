#include "platform/QXFaults.h"
#include "platform/QXPlatform.h"
#include "platform/kernel/QXWindow.h"

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <thread>
#include <vector>

namespace {

// What reaches a window's procedure, found through the window's slot.
struct Recorder {
    std::mutex mutex;
    std::vector<std::pair<UINT, WPARAM>> seen;
    std::atomic<DWORD> handlerThread{0};
};

LRESULT CALLBACK RecordingProc(HWND hWnd, UINT msg, WPARAM wParam, LPARAM lParam)
{
    auto* rec = reinterpret_cast<Recorder*>(GetWindowLongA(hWnd, 0));
    if (rec == nullptr) return DefWindowProcA(hWnd, msg, wParam, lParam);
    rec->handlerThread = GetCurrentThreadId();
    std::lock_guard<std::mutex> lock(rec->mutex);
    rec->seen.emplace_back(msg, wParam);
    return 0;
}

HWND Make(const char* cls = "QXTestWindow")
{
    return CreateWindowExA(0, cls, "t", 0, 0, 0, 0, 0, nullptr, nullptr, nullptr, nullptr);
}

class WindowTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        WNDCLASSA wc{};
        wc.lpfnWndProc = RecordingProc;
        wc.cbWndExtra = 4; // rounded up to a whole pointer slot
        wc.lpszClassName = "QXTestWindow";
        RegisterClassA(&wc); // may exist from an earlier test
    }
    // A window on a thread of its own running a message loop until WM_QUIT.
    HWND StartLoop(Recorder* rec, bool destroyAtEnd = true)
    {
        std::atomic<HWND> made{nullptr};
        loop_ = std::thread([rec, destroyAtEnd, &made] {
            HWND h = Make();
            SetWindowLongA(h, 0, reinterpret_cast<LONG_PTR>(rec));
            made = h;
            MSG msg;
            while (GetMessageA(&msg, nullptr, 0, 0) > 0) DispatchMessageA(&msg);
            if (destroyAtEnd) DestroyWindow(h);
        });
        while (made.load() == nullptr) std::this_thread::yield();
        return made;
    }
    void Quit(HWND h)
    {
        PostMessageA(h, WM_QUIT, 0, 0);
        loop_.join();
    }

    std::thread loop_;
};

} // namespace

TEST_F(WindowTest, MessagesArriveInEachPostersOrderOnTheOwnerThread)
{
    Recorder rec;
    HWND h = StartLoop(&rec);
    std::vector<std::thread> posters;
    for (int t = 0; t < 2; ++t)
        posters.emplace_back([h, t] {
            for (WPARAM i = 0; i < 500; ++i) PostMessageA(h, WM_USER + t, i, 0);
        });
    for (auto& p : posters) p.join();
    Quit(h);
    WPARAM next[2] = {0, 0};
    for (auto [msg, wp] : rec.seen) {
        if (msg == WM_DESTROY) continue;
        const int t = static_cast<int>(msg - WM_USER);
        ASSERT_TRUE(t == 0 || t == 1) << msg;
        EXPECT_EQ(wp, next[t]++);
    }
    EXPECT_EQ(next[0], 500u);
    EXPECT_EQ(next[1], 500u);
    EXPECT_NE(rec.handlerThread.load(), GetCurrentThreadId());
}

TEST_F(WindowTest, PostingToADestroyedWindowOrOneWhoseThreadEndedFails)
{
    for (bool destroy : {true, false}) {
        SCOPED_TRACE(destroy);
        Recorder rec;
        HWND h = StartLoop(&rec, destroy);
        EXPECT_TRUE(IsWindow(h));
        Quit(h);
        EXPECT_FALSE(IsWindow(h));
        EXPECT_FALSE(PostMessageA(h, WM_USER, 0, 0));
        EXPECT_EQ(GetLastError(), ERROR_INVALID_WINDOW_HANDLE);
    }
    EXPECT_FALSE(PostMessageA(reinterpret_cast<HWND>(uintptr_t{0x1234}), WM_USER, 0, 0));
}

TEST_F(WindowTest, MessagesForAWindowDestroyedAfterPostingAreDropped)
{
    Recorder rec;
    HWND h = Make();
    SetWindowLongA(h, 0, reinterpret_cast<LONG_PTR>(&rec));
    PostMessageA(h, WM_USER, 1, 0);
    PostMessageA(nullptr, WM_USER + 5, 2, 0); // a thread message
    DestroyWindow(h);
    PostQuitMessage(3);
    MSG msg;
    int got = 0;
    while (GetMessageA(&msg, nullptr, 0, 0) > 0) {
        EXPECT_EQ(DispatchMessageA(&msg), 0);
        ++got;
    }
    EXPECT_EQ(got, 2);
    EXPECT_EQ(msg.message, WM_QUIT);
    EXPECT_EQ(msg.wParam, 3u);
    ASSERT_EQ(rec.seen.size(), 1u) << "only WM_DESTROY reached the procedure";
    EXPECT_EQ(rec.seen[0].first, WM_DESTROY);
}

TEST_F(WindowTest, GetMessageFailuresAreReportedAndLoseNoMessage)
{
    MSG msg;
    EXPECT_EQ(GetMessageA(nullptr, nullptr, 0, 0), -1);
    EXPECT_EQ(GetMessageA(&msg, reinterpret_cast<HWND>(uintptr_t{0x99}), 0, 0), -1);
    QXFaultInject("GetMessageA", 1);
    PostMessageA(nullptr, WM_USER, 0, 0);
    EXPECT_EQ(GetMessageA(&msg, nullptr, 0, 0), -1);
    EXPECT_EQ(GetMessageA(&msg, nullptr, 0, 0), 1) << "the message is still there";
    EXPECT_EQ(msg.message, WM_USER);
    QXFaultInject("PostMessageA", 1);
    EXPECT_FALSE(PostMessageA(nullptr, WM_USER, 0, 0));
    EXPECT_FALSE(PeekMessageA(&msg, nullptr, 0, 0, PM_REMOVE));
}
