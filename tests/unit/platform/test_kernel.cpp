#include "platform/QXFaults.h"
#include "platform/kernel/QXKernel.h"
#include "platform/QXPlatform.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <thread>
#include <vector>

namespace {

DWORD ReturnParam(LPVOID p)
{
    return static_cast<DWORD>(reinterpret_cast<uintptr_t>(p));
}

DWORD WaitOnEvent(LPVOID p)
{
    return WaitForSingleObject(static_cast<HANDLE>(p), 10000);
}

} // namespace

TEST(KernelEvent, AutoResetReleasesExactlyOneWaiterPerSet)
{
    HANDLE ev = CreateEventA(nullptr, FALSE, TRUE, nullptr);
    EXPECT_EQ(WaitForSingleObject(ev, 0), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(ev, 0), WAIT_TIMEOUT);

    std::atomic<int> released{0};
    std::vector<std::thread> waiters;
    for (int i = 0; i < 4; ++i)
        waiters.emplace_back([&] {
            if (WaitForSingleObject(ev, 3000) == WAIT_OBJECT_0) ++released;
        });
    for (int i = 0; i < 4; ++i) {
        SetEvent(ev);
        // Each set is consumed by one waiter before the next.
        for (int spin = 0; spin < 3000 && released.load() <= i; ++spin) Sleep(1);
        EXPECT_EQ(released.load(), i + 1);
    }
    for (auto& t : waiters) t.join();
    CloseHandle(ev);
}

TEST(KernelWait, MultipleObjectsReportsLowestSignalledIndexAndManualEventsStaySet)
{
    HANDLE evs[3] = {CreateEventA(nullptr, TRUE, FALSE, nullptr), CreateEventA(nullptr, TRUE, FALSE, nullptr),
                     CreateEventA(nullptr, FALSE, FALSE, nullptr)};
    EXPECT_EQ(WaitForMultipleObjects(3, evs, FALSE, 10), WAIT_TIMEOUT);
    SetEvent(evs[2]);
    SetEvent(evs[1]);
    EXPECT_EQ(WaitForMultipleObjects(3, evs, FALSE, 0), WAIT_OBJECT_0 + 1);
    EXPECT_EQ(WaitForSingleObject(evs[1], 0), WAIT_OBJECT_0) << "a manual-reset event stays set";
    EXPECT_TRUE(ResetEvent(evs[1]));
    EXPECT_EQ(WaitForMultipleObjects(3, evs, FALSE, 0), WAIT_OBJECT_0 + 2);
    // The auto-reset one was consumed by that wait.
    EXPECT_EQ(WaitForMultipleObjects(3, evs, FALSE, 0), WAIT_TIMEOUT);

    std::thread setter([&] {
        Sleep(30);
        SetEvent(evs[0]);
    });
    EXPECT_EQ(WaitForMultipleObjects(3, evs, FALSE, 5000), WAIT_OBJECT_0);
    setter.join();
    for (HANDLE h : evs) CloseHandle(h);
}

TEST(KernelWait, ClosedAndBogusHandlesFail)
{
    HANDLE ev = CreateEventA(nullptr, TRUE, TRUE, nullptr);
    EXPECT_TRUE(CloseHandle(ev));
    EXPECT_EQ(WaitForSingleObject(ev, 0), WAIT_FAILED);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
    EXPECT_FALSE(SetEvent(ev));
    EXPECT_FALSE(CloseHandle(ev));
    EXPECT_EQ(WaitForSingleObject(nullptr, 0), WAIT_FAILED);
    HANDLE mixed[2] = {CreateEventA(nullptr, TRUE, TRUE, nullptr), ev};
    EXPECT_EQ(WaitForMultipleObjects(2, mixed, FALSE, 0), WAIT_FAILED);
    EXPECT_EQ(WaitForMultipleObjects(0, mixed, FALSE, 0), WAIT_FAILED);
    EXPECT_EQ(WaitForMultipleObjects(1, mixed, TRUE, 0), WAIT_FAILED) << "wait-all is not offered";
    CloseHandle(mixed[0]);
}

TEST(KernelWait, HandleClosedDuringAWaitDoesNotCrashTheWaiter)
{
    HANDLE ev = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    std::thread waiter([ev] { EXPECT_EQ(WaitForSingleObject(ev, 100), WAIT_TIMEOUT); });
    Sleep(10);
    CloseHandle(ev);
    waiter.join();
}

TEST(KernelThread, RunsOffTheCallerAndSignalsItsEnd)
{
    DWORD tid = 0;
    HANDLE h = CreateThread(nullptr, 0, ReturnParam, reinterpret_cast<LPVOID>(uintptr_t{42}), 0, &tid);
    ASSERT_NE(h, nullptr);
    EXPECT_NE(tid, 0u);
    EXPECT_NE(tid, GetCurrentThreadId());
    EXPECT_EQ(WaitForSingleObject(h, 5000), WAIT_OBJECT_0);
    DWORD code = 0;
    EXPECT_TRUE(GetExitCodeThread(h, &code));
    EXPECT_EQ(code, 42u);
    // An ended thread stays signalled.
    EXPECT_EQ(WaitForSingleObject(h, 0), WAIT_OBJECT_0);
    EXPECT_TRUE(CloseHandle(h));
}

TEST(KernelThread, ClosingTheHandleOfARunningThreadDetachesIt)
{
    HANDLE gate = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    size_t before = qxplat::LiveHandleCount();
    HANDLE h = CreateThread(nullptr, 0, WaitOnEvent, gate, 0, nullptr);
    EXPECT_TRUE(CloseHandle(h));
    EXPECT_EQ(qxplat::LiveHandleCount(), before);
    SetEvent(gate); // the detached thread still finds its event
    Sleep(20);
    CloseHandle(gate);
}

TEST(KernelThread, TimedJoinPriorityAndFailedCreation)
{
    HANDLE gate = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    HANDLE h = CreateThread(nullptr, 0, WaitOnEvent, gate, 0, nullptr);
    EXPECT_EQ(WaitForSingleObject(h, 30), WAIT_TIMEOUT) << "a timed-out join leaves it running";
    DWORD code = 0;
    GetExitCodeThread(h, &code);
    EXPECT_EQ(code, static_cast<DWORD>(STILL_ACTIVE));
    EXPECT_EQ(GetThreadPriority(h), THREAD_PRIORITY_NORMAL);
    EXPECT_TRUE(SetThreadPriority(h, THREAD_PRIORITY_TIME_CRITICAL));
    EXPECT_EQ(GetThreadPriority(h), THREAD_PRIORITY_TIME_CRITICAL);
    EXPECT_TRUE(SetThreadPriority(h, THREAD_PRIORITY_NORMAL));
    SetEvent(gate);
    EXPECT_EQ(WaitForSingleObject(h, 5000), WAIT_OBJECT_0);
    CloseHandle(h);
    CloseHandle(gate);
    EXPECT_FALSE(SetThreadPriority(h, THREAD_PRIORITY_HIGHEST));
    EXPECT_TRUE(SetThreadPriority(GetCurrentThread(), THREAD_PRIORITY_NORMAL));

    QXFaultInject("CreateThread", ERROR_NOT_ENOUGH_MEMORY);
    EXPECT_EQ(CreateThread(nullptr, 0, ReturnParam, nullptr, 0, nullptr), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_NOT_ENOUGH_MEMORY);
    HANDLE ok = CreateThread(nullptr, 0, ReturnParam, nullptr, 0, nullptr);
    EXPECT_NE(ok, nullptr) << "only the armed call fails";
    WaitForSingleObject(ok, 5000);
    CloseHandle(ok);
}

TEST(KernelFaults, NthCallFailsOnceWithTheChosenResult)
{
    QXFaultInject("CreateEventA", 1234, 3);
    for (int n = 1; n <= 4; ++n) {
        HANDLE ev = CreateEventA(nullptr, TRUE, FALSE, nullptr);
        EXPECT_EQ(ev == nullptr, n == 3) << "call " << n;
        if (ev == nullptr) {
            EXPECT_EQ(GetLastError(), 1234u);
        }
        CloseHandle(ev);
    }
    QXFaultInject("CreateEventA", 1);
    QXFaultClear();
    HANDLE e = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    EXPECT_NE(e, nullptr) << "cleared faults do not fire";
    CloseHandle(e);
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
    std::vector<std::thread> workers;
    for (int t = 0; t < 4; ++t)
        workers.emplace_back([&] {
            for (int i = 0; i < 10000; ++i) {
                EnterCriticalSection(&cs);
                ++counter;
                LeaveCriticalSection(&cs);
            }
        });
    for (auto& w : workers) w.join();
    EXPECT_EQ(counter, 40000);
    DeleteCriticalSection(&cs);
}

TEST(KernelMemory, PagesAreZeroFilledAndReleasedOnlyWhole)
{
    auto* p = static_cast<unsigned char*>(VirtualAlloc(nullptr, 100000, MEM_COMMIT | MEM_RESERVE, PAGE_READWRITE));
    ASSERT_NE(p, nullptr);
    for (size_t i = 0; i < 100000; i += 997) ASSERT_EQ(p[i], 0);
    std::memset(p, 0xAB, 100000);
    EXPECT_TRUE(VirtualLock(p, 100000));
    EXPECT_FALSE(VirtualLock(p, 1 << 20)) << "beyond the allocation";
    EXPECT_TRUE(VirtualUnlock(p, 100000));
    EXPECT_FALSE(VirtualFree(p + 4096, 0, MEM_RELEASE)) << "not the start of an allocation";
    EXPECT_FALSE(VirtualFree(p, 100, MEM_RELEASE)) << "release takes size 0";
    EXPECT_TRUE(VirtualFree(p, 0, MEM_RELEASE));
    EXPECT_FALSE(VirtualFree(p, 0, MEM_RELEASE));
    EXPECT_FALSE(VirtualLock(p, 16));

    // Small regions are reused after release; they must come back zeroed all the same.
    for (int round = 0; round < 3; ++round) {
        auto* r = static_cast<unsigned char*>(VirtualAlloc(nullptr, 5000, MEM_COMMIT, PAGE_READWRITE));
        ASSERT_NE(r, nullptr);
        for (size_t i = 0; i < 8192; ++i) ASSERT_EQ(r[i], 0) << round << " " << i;
        std::memset(r, 0x5A, 8192);
        EXPECT_TRUE(VirtualLock(r, 8192));
        EXPECT_TRUE(VirtualFree(r, 0, MEM_RELEASE));
    }

    EXPECT_EQ(VirtualAlloc(nullptr, 0, MEM_COMMIT, PAGE_READWRITE), nullptr);
    QXFaultInject("VirtualAlloc", ERROR_NOT_ENOUGH_MEMORY);
    EXPECT_EQ(VirtualAlloc(nullptr, 4096, MEM_COMMIT, PAGE_READWRITE), nullptr);
    void* q = VirtualAlloc(nullptr, 4096, MEM_COMMIT, PAGE_READWRITE);
    QXFaultInject("VirtualLock", ERROR_NOT_ENOUGH_QUOTA);
    EXPECT_FALSE(VirtualLock(q, 4096));
    EXPECT_TRUE(VirtualFree(q, 0, MEM_RELEASE));
}
