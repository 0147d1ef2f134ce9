#include "platform/QXFaults.h"
#include "platform/QXPlatform.h"
#include "platform/kernel/QXKernel.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

namespace {

HANDLE Event(BOOL manual, BOOL set = FALSE) { return CreateEventA(nullptr, manual, set, nullptr); }
DWORD WaitOnEvent(LPVOID p) { return WaitForSingleObject(static_cast<HANDLE>(p), 10000); }

} // namespace

TEST(KernelEvent, AutoResetReleasesExactlyOneWaiterPerSet)
{
    HANDLE ev = Event(FALSE, TRUE);
    EXPECT_EQ(WaitForSingleObject(ev, 0), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(ev, 0), WAIT_TIMEOUT);
    std::atomic<int> released{0};
    std::vector<std::thread> waiters;
    for (int i = 0; i < 4; ++i)
        waiters.emplace_back([&] { released += WaitForSingleObject(ev, 10000) == WAIT_OBJECT_0; });
    for (int i = 0; i < 4; ++i) {
        SetEvent(ev);
        for (int spin = 0; spin < 10000 && released.load() <= i; ++spin) Sleep(1);
        EXPECT_EQ(released.load(), i + 1);
    }
    for (auto& t : waiters) t.join();
    CloseHandle(ev);
}

TEST(KernelWait, AnyReportsTheLowestSignalledIndexAndBadHandlesFail)
{
    HANDLE evs[3] = {Event(TRUE), Event(TRUE), Event(FALSE)};
    EXPECT_EQ(WaitForMultipleObjects(3, evs, FALSE, 10), WAIT_TIMEOUT);
    SetEvent(evs[2]);
    SetEvent(evs[1]);
    EXPECT_EQ(WaitForMultipleObjects(3, evs, FALSE, 0), WAIT_OBJECT_0 + 1);
    EXPECT_EQ(WaitForSingleObject(evs[1], 0), WAIT_OBJECT_0) << "a manual-reset event stays set";
    EXPECT_TRUE(ResetEvent(evs[1]));
    EXPECT_EQ(WaitForMultipleObjects(3, evs, FALSE, 0), WAIT_OBJECT_0 + 2);
    EXPECT_EQ(WaitForMultipleObjects(3, evs, FALSE, 0), WAIT_TIMEOUT) << "the auto-reset one was consumed";
    std::thread setter([&] { SetEvent(evs[0]); });
    EXPECT_EQ(WaitForMultipleObjects(3, evs, FALSE, 5000), WAIT_OBJECT_0);
    setter.join();

    // A closed handle, none, a mix, and a waiter whose handle is closed under it.
    EXPECT_TRUE(CloseHandle(evs[2]));
    EXPECT_EQ(WaitForSingleObject(evs[2], 0), WAIT_FAILED);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
    EXPECT_FALSE(SetEvent(evs[2]) || CloseHandle(evs[2]));
    EXPECT_EQ(WaitForSingleObject(nullptr, 0), WAIT_FAILED);
    EXPECT_EQ(WaitForMultipleObjects(3, evs, FALSE, 0), WAIT_FAILED);
    EXPECT_EQ(WaitForMultipleObjects(0, evs, FALSE, 0), WAIT_FAILED);
    EXPECT_EQ(WaitForMultipleObjects(1, evs, TRUE, 0), WAIT_FAILED) << "wait-all is not offered";
    ResetEvent(evs[0]);
    std::thread waiter([h = evs[0]] { WaitForSingleObject(h, 100); });
    Sleep(10); // most likely inside the wait by now
    CloseHandle(evs[0]);
    waiter.join();
    CloseHandle(evs[1]);
}

// A timed-out join leaves the thread running; closing its handle then detaches it.
TEST(KernelThread, RunsOffTheCallerSignalsItsEndAndMayBeDetachedOrFailToStart)
{
    HANDLE gate = Event(TRUE);
    DWORD tid = 0;
    HANDLE h = CreateThread(nullptr, 0, WaitOnEvent, gate, 0, &tid);
    ASSERT_NE(h, nullptr);
    EXPECT_NE(tid, GetCurrentThreadId());
    EXPECT_EQ(WaitForSingleObject(h, 30), WAIT_TIMEOUT);
    SetEvent(gate);
    EXPECT_EQ(WaitForSingleObject(h, 5000), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(h, 0), WAIT_OBJECT_0) << "an ended thread stays signalled";
    EXPECT_TRUE(CloseHandle(h));
    ResetEvent(gate);
    HANDLE gateAndDone[2] = {gate, Event(TRUE)};
    const size_t handles = qxplat::LiveHandleCount();
    auto passOn = [](LPVOID p) -> DWORD {
        WaitForSingleObject(static_cast<HANDLE*>(p)[0], 10000);
        return SetEvent(static_cast<HANDLE*>(p)[1]);
    };
    EXPECT_TRUE(CloseHandle(CreateThread(nullptr, 0, passOn, gateAndDone, 0, nullptr)));
    EXPECT_EQ(qxplat::LiveHandleCount(), handles) << "closed while it runs";
    SetEvent(gate);
    EXPECT_EQ(WaitForSingleObject(gateAndDone[1], 10000), WAIT_OBJECT_0) << "the detached thread finds its events";
    CloseHandle(gateAndDone[1]);

    // Only the armed call fails: here the second.
    QXFaultInject("CreateThread", ERROR_NOT_ENOUGH_MEMORY, 2);
    for (int n = 1; n <= 3; ++n) {
        HANDLE t = CreateThread(nullptr, 0, WaitOnEvent, gate, 0, nullptr);
        EXPECT_EQ(t == nullptr, n == 2) << "call " << n;
        EXPECT_TRUE(t != nullptr || GetLastError() == ERROR_NOT_ENOUGH_MEMORY);
        EXPECT_TRUE(t == nullptr || WaitForSingleObject(t, 5000) == WAIT_OBJECT_0);
        CloseHandle(t);
    }
    CloseHandle(gate);
}

TEST(KernelCriticalSection, IsRecursiveAndExcludesOtherThreads)
{
    CRITICAL_SECTION cs;
    InitializeCriticalSection(&cs);
    EnterCriticalSection(&cs);
    EXPECT_TRUE(TryEnterCriticalSection(&cs)) << "the holder may enter again";
    std::atomic<int> otherGot{-1};
    std::thread([&] { otherGot = TryEnterCriticalSection(&cs); }).join();
    EXPECT_EQ(otherGot.load(), FALSE);
    LeaveCriticalSection(&cs);
    LeaveCriticalSection(&cs);
    long counter = 0;
    auto work = [&] {
        for (int i = 0; i < 20000; ++i) EnterCriticalSection(&cs), ++counter, LeaveCriticalSection(&cs);
    };
    std::thread a(work), b(work);
    a.join();
    b.join();
    EXPECT_EQ(counter, 40000);
    DeleteCriticalSection(&cs);
}

// Wave input locks its blocks; a region goes back once.
TEST(KernelMemory, ARegionLocksAndIsReleasedOnce)
{
    void* r = VirtualAlloc(nullptr, 5000, MEM_COMMIT, PAGE_READWRITE);
    ASSERT_NE(r, nullptr);
    EXPECT_TRUE(VirtualLock(r, 8192));
    EXPECT_TRUE(VirtualFree(r, 0, MEM_RELEASE));
    EXPECT_FALSE(VirtualFree(r, 0, MEM_RELEASE));
    EXPECT_EQ(VirtualAlloc(nullptr, 0, MEM_COMMIT, PAGE_READWRITE), nullptr);
}
