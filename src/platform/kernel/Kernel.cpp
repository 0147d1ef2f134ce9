// Kernel objects behind opaque handles: events, threads, waits, critical sections and
// zero-filled virtual memory. Handles are never reused, so a stale or closed handle is
// refused (WAIT_FAILED, FALSE) instead of reaching freed memory.
#include "platform/kernel/QXKernel.h"

#include "platform/QXFaults.h"
#include "platform/QXPlatform.h"
#include "platform/kernel/QXClock.h"

#include <pthread.h>
#include <sched.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <thread>
#include <unordered_map>
#include <vector>

namespace qxplat {

namespace {

thread_local DWORD t_lastError = 0;
thread_local DWORD t_threadId = 0;
std::atomic<DWORD> g_nextThreadId{1};

// One mutex guards the state of every waitable object and every waiter list, so that
// a wait on several objects sees them consistently; each waiter sleeps on its own
// condition variable so a signal wakes only the threads that wait for that object.
std::mutex& WaitMutex()
{
    static std::mutex& m = *new std::mutex; // outlives threads still running at exit
    return m;
}

struct Waiter {
    ClockCondition cv;
};

} // namespace

struct Waitable : KernelObject {
    std::vector<Waiter*> waiters; // under WaitMutex()

    // Under WaitMutex().
    virtual bool IsSignalled() const = 0;
    virtual void Consume() {}
    void WakeWaiters()
    {
        for (Waiter* w : waiters) w->cv.NotifyOne();
    }
};

namespace {

struct Event final : Waitable {
    bool manual = false;
    bool signalled = false;
    bool IsSignalled() const override { return signalled; }
    void Consume() override
    {
        if (!manual) signalled = false;
    }
};

struct Thread final : Waitable {
    DWORD id = 0;
    bool ended = false;       // under WaitMutex()
    DWORD exitCode = STILL_ACTIVE;
    int priority = THREAD_PRIORITY_NORMAL;
    pthread_t native{};
    std::thread th;           // touched only by CreateThread, CloseHandle and the destructor
    bool IsSignalled() const override { return ended; }
    ~Thread() override
    {
        if (th.joinable()) {
            if (std::this_thread::get_id() != th.get_id() && Ended())
                th.join();
            else
                th.detach();
        }
    }
    bool Ended()
    {
        std::lock_guard<std::mutex> lock(WaitMutex());
        return ended;
    }
};

struct HandleTable {
    std::mutex mutex;
    std::unordered_map<uintptr_t, std::shared_ptr<KernelObject>> objects;
    uintptr_t next = 0x1000;
};

HandleTable& Table()
{
    static HandleTable& t = *new HandleTable; // immortal: detached threads may still look up
    return t;
}

HANDLE Insert(std::shared_ptr<KernelObject> obj)
{
    HandleTable& t = Table();
    std::lock_guard<std::mutex> lock(t.mutex);
    t.next += 4;
    t.objects.emplace(t.next, std::move(obj));
    return reinterpret_cast<HANDLE>(t.next);
}

template <class T>
std::shared_ptr<T> LookupAs(HANDLE h)
{
    return std::dynamic_pointer_cast<T>(Lookup(h));
}

// Pseudo handle of the calling thread.
const HANDLE kCurrentThread = reinterpret_cast<HANDLE>(static_cast<intptr_t>(-2));

int PosixPolicyPriority(int nPriority)
{
    int lo = sched_get_priority_min(SCHED_FIFO), hi = sched_get_priority_max(SCHED_FIFO);
    int p = nPriority >= THREAD_PRIORITY_TIME_CRITICAL ? hi - 1 : lo + 10 + nPriority;
    return std::clamp(p, lo, hi);
}

void ApplyPriority(pthread_t native, int nPriority)
{
    // Real-time scheduling is a wish, not a requirement: without the right to it the
    // thread keeps the normal policy and the call still succeeds.
    sched_param sp{};
    if (nPriority > THREAD_PRIORITY_NORMAL) {
        sp.sched_priority = PosixPolicyPriority(nPriority);
        if (pthread_setschedparam(native, SCHED_FIFO, &sp) == 0) return;
    }
    sp.sched_priority = 0;
    pthread_setschedparam(native, SCHED_OTHER, &sp);
}

struct VirtualRegion {
    size_t size;
};

std::mutex& VirtualMutex()
{
    static std::mutex& m = *new std::mutex;
    return m;
}

std::map<uintptr_t, VirtualRegion>& VirtualRegions()
{
    static auto& regions = *new std::map<uintptr_t, VirtualRegion>;
    return regions;
}

size_t PageRound(size_t n)
{
    static const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    return (n + page - 1) / page * page;
}

// Released small regions, by page count, kept for reuse: a stream buffer is allocated
// and released every period, and a fresh mapping costs a system call, page faults and a
// TLB flush where zeroing a reused page costs a memset. Under VirtualMutex().
constexpr size_t kCachedMaxBytes = 64 * 1024;
constexpr size_t kCachedPerSize = 32;
std::map<size_t, std::vector<void*>>& VirtualCache()
{
    static auto& cache = *new std::map<size_t, std::vector<void*>>;
    return cache;
}

// The region [p, p+n) must lie inside one allocation.
bool InRegion(LPVOID p, size_t n)
{
    auto addr = reinterpret_cast<uintptr_t>(p);
    auto& regions = VirtualRegions();
    auto it = regions.upper_bound(addr);
    if (it == regions.begin()) return false;
    --it;
    return addr + n <= it->first + it->second.size && addr >= it->first;
}

} // namespace

KernelObject::~KernelObject() = default;

std::shared_ptr<KernelObject> Lookup(HANDLE h)
{
    HandleTable& t = Table();
    std::lock_guard<std::mutex> lock(t.mutex);
    auto it = t.objects.find(reinterpret_cast<uintptr_t>(h));
    return it == t.objects.end() ? nullptr : it->second;
}

HANDLE InsertObject(std::shared_ptr<KernelObject> obj)
{
    return Insert(std::move(obj));
}

size_t LiveHandleCount()
{
    HandleTable& t = Table();
    std::lock_guard<std::mutex> lock(t.mutex);
    return t.objects.size();
}

DWORD CurrentThreadId()
{
    if (t_threadId == 0) t_threadId = g_nextThreadId.fetch_add(1);
    return t_threadId;
}

} // namespace qxplat

using namespace qxplat;

DWORD GetLastError()
{
    return t_lastError;
}

void SetLastError(DWORD dwError)
{
    t_lastError = dwError;
}

BOOL CloseHandle(HANDLE hObject)
{
    std::shared_ptr<KernelObject> obj;
    {
        HandleTable& t = Table();
        std::lock_guard<std::mutex> lock(t.mutex);
        auto it = t.objects.find(reinterpret_cast<uintptr_t>(hObject));
        if (it == t.objects.end()) {
            SetLastError(ERROR_INVALID_HANDLE);
            return FALSE;
        }
        obj = std::move(it->second);
        t.objects.erase(it);
    }
    // Threads finish in the object's destructor: joined when they have ended, else left
    // to run on, detached. A thread that is still running holds its own reference.
    obj.reset();
    return TRUE;
}

HANDLE CreateEventA(LPSECURITY_ATTRIBUTES, BOOL bManualReset, BOOL bInitialState, LPCSTR)
{
    DWORD fail;
    if (QXFaultCheck("CreateEventA", &fail)) {
        SetLastError(fail);
        return nullptr;
    }
    auto ev = std::make_shared<Event>();
    ev->manual = bManualReset != FALSE;
    ev->signalled = bInitialState != FALSE;
    return Insert(std::move(ev));
}

BOOL SetEvent(HANDLE hEvent)
{
    auto ev = LookupAs<Event>(hEvent);
    if (!ev) {
        SetLastError(ERROR_INVALID_HANDLE);
        return FALSE;
    }
    std::lock_guard<std::mutex> lock(WaitMutex());
    ev->signalled = true;
    ev->WakeWaiters();
    return TRUE;
}

BOOL ResetEvent(HANDLE hEvent)
{
    auto ev = LookupAs<Event>(hEvent);
    if (!ev) {
        SetLastError(ERROR_INVALID_HANDLE);
        return FALSE;
    }
    std::lock_guard<std::mutex> lock(WaitMutex());
    ev->signalled = false;
    return TRUE;
}

DWORD WaitForMultipleObjects(DWORD nCount, const HANDLE* lpHandles, BOOL bWaitAll, DWORD dwMilliseconds)
{
    if (nCount == 0 || nCount > MAXIMUM_WAIT_OBJECTS || lpHandles == nullptr || bWaitAll) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return WAIT_FAILED;
    }
    std::vector<std::shared_ptr<Waitable>> objs(nCount);
    for (DWORD i = 0; i < nCount; ++i) {
        objs[i] = std::dynamic_pointer_cast<Waitable>(Lookup(lpHandles[i]));
        if (!objs[i]) {
            SetLastError(ERROR_INVALID_HANDLE);
            return WAIT_FAILED;
        }
    }

    const int64_t deadline = NowNs() + int64_t{dwMilliseconds} * 1'000'000;
    Waiter self;
    bool registered = false;
    std::unique_lock<std::mutex> lock(WaitMutex());
    auto unregister = [&] {
        if (!registered) return;
        for (auto& o : objs) o->waiters.erase(std::find(o->waiters.begin(), o->waiters.end(), &self));
        registered = false;
    };
    for (;;) {
        for (DWORD i = 0; i < nCount; ++i) {
            if (objs[i]->IsSignalled()) {
                objs[i]->Consume();
                unregister();
                return WAIT_OBJECT_0 + i;
            }
        }
        if (dwMilliseconds == 0) return WAIT_TIMEOUT;
        if (!registered) {
            for (auto& o : objs) o->waiters.push_back(&self);
            registered = true;
        }
        if (dwMilliseconds == INFINITE) {
            self.cv.Wait(lock);
        } else if (!self.cv.WaitUntil(lock, deadline)) {
            // One last look: a signal may have raced the time-out.
            for (DWORD i = 0; i < nCount; ++i) {
                if (objs[i]->IsSignalled()) {
                    objs[i]->Consume();
                    unregister();
                    return WAIT_OBJECT_0 + i;
                }
            }
            unregister();
            return WAIT_TIMEOUT;
        }
    }
}

DWORD WaitForSingleObject(HANDLE hHandle, DWORD dwMilliseconds)
{
    return WaitForMultipleObjects(1, &hHandle, FALSE, dwMilliseconds);
}

void Sleep(DWORD dwMilliseconds)
{
    ClockSleepFor(int64_t{dwMilliseconds} * 1'000'000);
}

HANDLE CreateThread(LPSECURITY_ATTRIBUTES, size_t, LPTHREAD_START_ROUTINE lpStartAddress, LPVOID lpParameter,
                    DWORD, LPDWORD lpThreadId)
{
    DWORD fail;
    if (lpStartAddress == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    if (QXFaultCheck("CreateThread", &fail)) {
        SetLastError(fail);
        return nullptr;
    }
    auto obj = std::make_shared<Thread>();
    obj->id = g_nextThreadId.fetch_add(1);
    // The handle is in the table before the thread runs, so the thread may be waited
    // for or closed as soon as CreateThread returns.
    HANDLE h = Insert(obj);
    try {
        obj->th = StartClockThread([obj, lpStartAddress, lpParameter] {
            t_threadId = obj->id;
            DWORD rc = lpStartAddress(lpParameter);
            std::lock_guard<std::mutex> lock(WaitMutex());
            obj->exitCode = rc;
            obj->ended = true;
            obj->WakeWaiters();
        });
    } catch (const std::system_error&) {
        CloseHandle(h);
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return nullptr;
    }
    obj->native = obj->th.native_handle();
    if (lpThreadId != nullptr) *lpThreadId = obj->id;
    return h;
}

DWORD GetCurrentThreadId()
{
    return CurrentThreadId();
}

HANDLE GetCurrentThread()
{
    return kCurrentThread;
}

BOOL SetThreadPriority(HANDLE hThread, int nPriority)
{
    if (hThread == kCurrentThread) {
        ApplyPriority(pthread_self(), nPriority);
        return TRUE;
    }
    auto th = LookupAs<Thread>(hThread);
    if (!th) {
        SetLastError(ERROR_INVALID_HANDLE);
        return FALSE;
    }
    std::lock_guard<std::mutex> lock(WaitMutex());
    th->priority = nPriority;
    if (!th->ended) ApplyPriority(th->native, nPriority);
    return TRUE;
}

int GetThreadPriority(HANDLE hThread)
{
    auto th = LookupAs<Thread>(hThread);
    if (!th) return THREAD_PRIORITY_ERROR_RETURN;
    std::lock_guard<std::mutex> lock(WaitMutex());
    return th->priority;
}

BOOL GetExitCodeThread(HANDLE hThread, LPDWORD lpExitCode)
{
    auto th = LookupAs<Thread>(hThread);
    if (!th || lpExitCode == nullptr) {
        SetLastError(ERROR_INVALID_HANDLE);
        return FALSE;
    }
    std::lock_guard<std::mutex> lock(WaitMutex());
    *lpExitCode = th->exitCode;
    return TRUE;
}

void InitializeCriticalSection(LPCRITICAL_SECTION cs)
{
    if (cs != nullptr) cs->Impl = new std::recursive_mutex;
}

void DeleteCriticalSection(LPCRITICAL_SECTION cs)
{
    if (cs == nullptr) return;
    delete static_cast<std::recursive_mutex*>(cs->Impl);
    cs->Impl = nullptr;
}

void EnterCriticalSection(LPCRITICAL_SECTION cs)
{
    static_cast<std::recursive_mutex*>(cs->Impl)->lock();
}

BOOL TryEnterCriticalSection(LPCRITICAL_SECTION cs)
{
    return static_cast<std::recursive_mutex*>(cs->Impl)->try_lock() ? TRUE : FALSE;
}

void LeaveCriticalSection(LPCRITICAL_SECTION cs)
{
    static_cast<std::recursive_mutex*>(cs->Impl)->unlock();
}

LPVOID VirtualAlloc(LPVOID lpAddress, size_t dwSize, DWORD flAllocationType, DWORD)
{
    DWORD fail;
    if (dwSize == 0 || lpAddress != nullptr || !(flAllocationType & (MEM_COMMIT | MEM_RESERVE))) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    if (QXFaultCheck("VirtualAlloc", &fail)) {
        SetLastError(fail);
        return nullptr;
    }
    size_t size = PageRound(dwSize);
    {
        std::lock_guard<std::mutex> lock(VirtualMutex());
        auto it = VirtualCache().find(size);
        if (it != VirtualCache().end() && !it->second.empty()) {
            void* p = it->second.back();
            it->second.pop_back();
            std::memset(p, 0, size);
            VirtualRegions()[reinterpret_cast<uintptr_t>(p)] = {size};
            return p;
        }
    }
    void* p = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (p == MAP_FAILED) {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return nullptr;
    }
    std::lock_guard<std::mutex> lock(VirtualMutex());
    VirtualRegions()[reinterpret_cast<uintptr_t>(p)] = {size};
    return p;
}

BOOL VirtualFree(LPVOID lpAddress, size_t dwSize, DWORD dwFreeType)
{
    std::lock_guard<std::mutex> lock(VirtualMutex());
    auto& regions = VirtualRegions();
    if (dwFreeType == MEM_RELEASE) {
        auto it = regions.find(reinterpret_cast<uintptr_t>(lpAddress));
        if (it == regions.end() || dwSize != 0) {
            SetLastError(ERROR_INVALID_PARAMETER);
            return FALSE;
        }
        const size_t size = it->second.size;
        regions.erase(it);
        std::vector<void*>& cached = VirtualCache()[size];
        if (size <= kCachedMaxBytes && cached.size() < kCachedPerSize) {
            munlock(lpAddress, size); // a locked region goes back unlocked
            cached.push_back(lpAddress);
        } else {
            munmap(lpAddress, size);
        }
        return TRUE;
    }
    if (dwFreeType == MEM_DECOMMIT && InRegion(lpAddress, dwSize)) {
        // Decommitted pages read back as zeros, as freshly committed ones do.
        madvise(lpAddress, dwSize, MADV_DONTNEED);
        return TRUE;
    }
    SetLastError(ERROR_INVALID_PARAMETER);
    return FALSE;
}

BOOL VirtualLock(LPVOID lpAddress, size_t dwSize)
{
    DWORD fail;
    {
        std::lock_guard<std::mutex> lock(VirtualMutex());
        if (dwSize == 0 || !InRegion(lpAddress, dwSize)) {
            SetLastError(ERROR_INVALID_PARAMETER);
            return FALSE;
        }
    }
    if (QXFaultCheck("VirtualLock", &fail)) {
        SetLastError(fail);
        return FALSE;
    }
    // Best effort: without the right to lock memory the pages stay pageable.
    mlock(lpAddress, dwSize);
    return TRUE;
}

BOOL VirtualUnlock(LPVOID lpAddress, size_t dwSize)
{
    {
        std::lock_guard<std::mutex> lock(VirtualMutex());
        if (dwSize == 0 || !InRegion(lpAddress, dwSize)) {
            SetLastError(ERROR_INVALID_PARAMETER);
            return FALSE;
        }
    }
    munlock(lpAddress, dwSize);
    return TRUE;
}
