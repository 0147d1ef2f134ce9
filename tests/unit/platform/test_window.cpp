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

HWND Make(Recorder* rec)
{
    static const ATOM cls = [] {
        WNDCLASSA wc{};
        wc.lpfnWndProc = RecordingProc;
        wc.cbWndExtra = 4; // rounded up to a whole pointer slot
        wc.lpszClassName = "QXTestWindow";
        return RegisterClassA(&wc);
    }();
    EXPECT_NE(cls, 0);
    HWND h = CreateWindowExA(0, "QXTestWindow", "t", 0, 0, 0, 0, 0, nullptr, nullptr, nullptr, nullptr);
    SetWindowLongA(h, 0, reinterpret_cast<LONG_PTR>(rec));
    return h;
}

} // namespace

// A window on a thread of its own: each poster's messages come in its order on that
// thread; once the window is destroyed, or its thread ended without doing so, posts fail.
TEST(Window, MessagesKeepEachPostersOrderAndPostsToAGoneWindowFail)
{
    for (bool destroy : {true, false}) {
        SCOPED_TRACE(destroy);
        Recorder rec;
        std::atomic<HWND> made{nullptr};
        std::thread loop([&] {
            HWND h = Make(&rec);
            made = h;
            MSG msg;
            while (GetMessageA(&msg, nullptr, 0, 0) > 0) DispatchMessageA(&msg);
            if (destroy) DestroyWindow(h);
        });
        while (made.load() == nullptr) std::this_thread::yield();
        const HWND h = made;
        std::thread posters[2];
        for (int t = 0; t < 2; ++t)
            posters[t] = std::thread([h, t] {
                for (WPARAM i = 0; i < 500; ++i) PostMessageA(h, WM_USER + t, i, 0);
            });
        for (auto& p : posters) p.join();
        EXPECT_TRUE(IsWindow(h));
        PostMessageA(h, WM_QUIT, 0, 0);
        loop.join();
        EXPECT_FALSE(IsWindow(h));
        EXPECT_FALSE(PostMessageA(h, WM_USER, 0, 0));
        EXPECT_EQ(GetLastError(), ERROR_INVALID_WINDOW_HANDLE);
        WPARAM next[2] = {0, 0};
        for (auto [msg, wp] : rec.seen) {
            if (msg == WM_DESTROY) continue;
            ASSERT_LT(msg - WM_USER, 2u) << msg;
            EXPECT_EQ(wp, next[msg - WM_USER]++);
        }
        EXPECT_EQ(next[0] + next[1], 1000u);
        EXPECT_NE(rec.handlerThread.load(), GetCurrentThreadId());
    }
    EXPECT_FALSE(PostMessageA(reinterpret_cast<HWND>(uintptr_t{0x1234}), WM_USER, 0, 0));
}

// A message for a window destroyed after it was posted reaches no procedure; a failed
// GetMessage leaves the queue as it was.
TEST(Window, MessagesForADestroyedWindowAreDroppedAndFailedCallsLoseNone)
{
    Recorder rec;
    HWND h = Make(&rec);
    PostMessageA(h, WM_USER, 1, 0);
    PostMessageA(nullptr, WM_USER + 5, 2, 0); // a thread message
    DestroyWindow(h);
    PostQuitMessage(3);
    MSG msg;
    EXPECT_EQ(GetMessageA(nullptr, nullptr, 0, 0), -1);
    EXPECT_EQ(GetMessageA(&msg, reinterpret_cast<HWND>(uintptr_t{0x99}), 0, 0), -1);
    QXFaultInject("GetMessageA", 1);
    EXPECT_EQ(GetMessageA(&msg, nullptr, 0, 0), -1);
    int got = 0;
    for (; GetMessageA(&msg, nullptr, 0, 0) > 0; ++got) EXPECT_EQ(DispatchMessageA(&msg), 0);
    EXPECT_EQ(got, 2);
    EXPECT_EQ(msg.message, WM_QUIT);
    EXPECT_EQ(msg.wParam, 3u);
    ASSERT_EQ(rec.seen.size(), 1u) << "only WM_DESTROY reached the procedure";
    EXPECT_EQ(rec.seen[0].first, WM_DESTROY);
    QXFaultInject("PostMessageA", 1);
    EXPECT_FALSE(PostMessageA(nullptr, WM_USER, 0, 0));
    EXPECT_FALSE(PeekMessageA(&msg, nullptr, 0, 0, PM_REMOVE));
}
