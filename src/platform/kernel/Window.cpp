// Hidden windows: posting targets whose messages are handled in order on the thread
// that created them. Each thread gets a message queue the first time it asks for one;
// windows and queues are reached only through tables keyed by never-reused handles,
// so posting to a destroyed window, or to one whose thread has ended, fails cleanly.
#include "platform/kernel/QXWindow.h"

#include "platform/QXFaults.h"
#include "platform/kernel/QXClock.h"
#include "platform/kernel/QXKernel.h"
#include "platform/QXPlatform.h"

#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

namespace {

struct MessageQueue {
    std::mutex mutex;
    qxplat::ClockCondition cv;
    std::deque<MSG> messages;
    DWORD threadId = 0;
};

struct WindowClass {
    WNDPROC proc = nullptr;
    int cbWndExtra = 0;
    int windows = 0;
};

struct Window {
    std::string className;
    WNDPROC proc = nullptr;
    DWORD threadId = 0;
    std::weak_ptr<MessageQueue> queue;
    size_t extraBytes = 0;
    std::unique_ptr<std::atomic<LONG_PTR>[]> slots; // pointer-sized slots over the extra bytes
};

struct Registry {
    std::mutex mutex;
    std::map<std::string, WindowClass> classes;
    std::unordered_map<uintptr_t, std::shared_ptr<Window>> windows;
    std::unordered_map<DWORD, std::weak_ptr<MessageQueue>> queues;
    uintptr_t nextWindow = 0x20000;
};

Registry& Reg()
{
    static Registry& r = *new Registry; // immortal: threads may post during process exit
    return r;
}

void DestroyThreadWindows(DWORD threadId);

// The calling thread's queue; its end with the thread also ends the thread's windows.
struct QueueHolder {
    std::shared_ptr<MessageQueue> queue;
    ~QueueHolder()
    {
        if (!queue) return;
        DestroyThreadWindows(queue->threadId);
        std::lock_guard<std::mutex> lock(Reg().mutex);
        Reg().queues.erase(queue->threadId);
    }
};
thread_local QueueHolder t_queue;

std::shared_ptr<MessageQueue> CurrentQueue()
{
    if (!t_queue.queue) {
        auto q = std::make_shared<MessageQueue>();
        q->threadId = qxplat::CurrentThreadId();
        std::lock_guard<std::mutex> lock(Reg().mutex);
        Reg().queues[q->threadId] = q;
        t_queue.queue = q;
    }
    return t_queue.queue;
}

std::shared_ptr<Window> FindWindow(HWND hWnd)
{
    std::lock_guard<std::mutex> lock(Reg().mutex);
    auto it = Reg().windows.find(reinterpret_cast<uintptr_t>(hWnd));
    return it == Reg().windows.end() ? nullptr : it->second;
}

bool Post(const std::shared_ptr<MessageQueue>& q, HWND hWnd, UINT msg, WPARAM wParam, LPARAM lParam)
{
    MSG m{};
    m.hwnd = hWnd;
    m.message = msg;
    m.wParam = wParam;
    m.lParam = lParam;
    m.time = timeGetTime();
    {
        std::lock_guard<std::mutex> lock(q->mutex);
        q->messages.push_back(m);
    }
    q->cv.NotifyOne();
    return true;
}

bool Matches(const MSG& m, HWND hWnd, UINT lo, UINT hi)
{
    // WM_QUIT is delivered whatever the filter, so a filtered loop still ends.
    if (m.message == WM_QUIT) return true;
    if (hWnd != nullptr && m.hwnd != hWnd) return false;
    if (lo == 0 && hi == 0) return true;
    return m.message >= lo && m.message <= hi;
}

bool RemoveWindow(HWND hWnd)
{
    std::lock_guard<std::mutex> lock(Reg().mutex);
    auto it = Reg().windows.find(reinterpret_cast<uintptr_t>(hWnd));
    if (it == Reg().windows.end()) return false;
    auto cls = Reg().classes.find(it->second->className);
    if (cls != Reg().classes.end()) --cls->second.windows;
    Reg().windows.erase(it);
    return true;
}

void DestroyThreadWindows(DWORD threadId)
{
    std::vector<HWND> owned;
    {
        std::lock_guard<std::mutex> lock(Reg().mutex);
        for (auto& [h, w] : Reg().windows)
            if (w->threadId == threadId) owned.push_back(reinterpret_cast<HWND>(h));
    }
    for (HWND h : owned) RemoveWindow(h);
}

} // namespace

namespace qxplat {

size_t LiveWindowCount()
{
    std::lock_guard<std::mutex> lock(Reg().mutex);
    return Reg().windows.size();
}

} // namespace qxplat

HINSTANCE QXGetModuleInstance()
{
    static char module;
    return reinterpret_cast<HINSTANCE>(&module);
}

ATOM RegisterClassA(const WNDCLASSA* lpWndClass)
{
    DWORD fail;
    if (lpWndClass == nullptr || lpWndClass->lpszClassName == nullptr || lpWndClass->lpfnWndProc == nullptr ||
        lpWndClass->cbWndExtra < 0) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return 0;
    }
    if (QXFaultCheck("RegisterClassA", &fail)) {
        SetLastError(fail);
        return 0;
    }
    static std::atomic<ATOM> nextAtom{0xC000};
    std::lock_guard<std::mutex> lock(Reg().mutex);
    auto [it, inserted] = Reg().classes.try_emplace(lpWndClass->lpszClassName);
    if (!inserted) {
        SetLastError(ERROR_CLASS_ALREADY_EXISTS);
        return 0;
    }
    it->second.proc = lpWndClass->lpfnWndProc;
    it->second.cbWndExtra = lpWndClass->cbWndExtra;
    return nextAtom.fetch_add(1);
}

BOOL UnregisterClassA(LPCSTR lpClassName, HINSTANCE)
{
    if (lpClassName == nullptr) return FALSE;
    std::lock_guard<std::mutex> lock(Reg().mutex);
    auto it = Reg().classes.find(lpClassName);
    if (it == Reg().classes.end()) {
        SetLastError(ERROR_CLASS_DOES_NOT_EXIST);
        return FALSE;
    }
    if (it->second.windows > 0) {
        SetLastError(ERROR_CLASS_HAS_WINDOWS);
        return FALSE;
    }
    Reg().classes.erase(it);
    return TRUE;
}

HWND CreateWindowExA(DWORD, LPCSTR lpClassName, LPCSTR, DWORD, int, int, int, int, HWND, HMENU, HINSTANCE, LPVOID)
{
    DWORD fail;
    if (lpClassName == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    if (QXFaultCheck("CreateWindowExA", &fail)) {
        SetLastError(fail);
        return nullptr;
    }
    auto queue = CurrentQueue();
    auto w = std::make_shared<Window>();
    HWND h;
    {
        std::lock_guard<std::mutex> lock(Reg().mutex);
        auto cls = Reg().classes.find(lpClassName);
        if (cls == Reg().classes.end()) {
            SetLastError(ERROR_CANNOT_FIND_WND_CLASS);
            return nullptr;
        }
        w->className = lpClassName;
        w->proc = cls->second.proc;
        w->threadId = queue->threadId;
        w->queue = queue;
        // Room for whole pointer-sized slots: a class asking for 4 bytes still gets one.
        w->extraBytes = static_cast<size_t>(cls->second.cbWndExtra);
        size_t slots = (w->extraBytes + sizeof(LONG_PTR) - 1) / sizeof(LONG_PTR);
        w->extraBytes = slots * sizeof(LONG_PTR);
        w->slots.reset(new std::atomic<LONG_PTR>[slots ? slots : 1]());
        Reg().nextWindow += 2;
        h = reinterpret_cast<HWND>(Reg().nextWindow);
        Reg().windows.emplace(Reg().nextWindow, w);
        ++cls->second.windows;
    }
    // Like the real service, the procedure sees WM_CREATE before the handle is returned
    // and may refuse the window.
    if (w->proc(h, WM_CREATE, 0, 0) == -1) {
        RemoveWindow(h);
        return nullptr;
    }
    return h;
}

BOOL DestroyWindow(HWND hWnd)
{
    auto w = FindWindow(hWnd);
    if (!w) {
        SetLastError(ERROR_INVALID_WINDOW_HANDLE);
        return FALSE;
    }
    if (w->threadId == qxplat::CurrentThreadId()) w->proc(hWnd, WM_DESTROY, 0, 0);
    // Messages still queued for it are dropped at dispatch.
    return RemoveWindow(hWnd) ? TRUE : FALSE;
}

BOOL IsWindow(HWND hWnd)
{
    return FindWindow(hWnd) ? TRUE : FALSE;
}

LONG_PTR SetWindowLongA(HWND hWnd, int nIndex, LONG_PTR dwNewLong)
{
    auto w = FindWindow(hWnd);
    if (!w || nIndex < 0 || static_cast<size_t>(nIndex) + sizeof(LONG_PTR) > w->extraBytes ||
        nIndex % static_cast<int>(sizeof(LONG_PTR)) != 0) {
        SetLastError(w ? ERROR_INVALID_PARAMETER : ERROR_INVALID_WINDOW_HANDLE);
        return 0;
    }
    SetLastError(0);
    return w->slots[nIndex / sizeof(LONG_PTR)].exchange(dwNewLong);
}

LONG_PTR GetWindowLongA(HWND hWnd, int nIndex)
{
    auto w = FindWindow(hWnd);
    if (!w || nIndex < 0 || static_cast<size_t>(nIndex) + sizeof(LONG_PTR) > w->extraBytes ||
        nIndex % static_cast<int>(sizeof(LONG_PTR)) != 0) {
        SetLastError(w ? ERROR_INVALID_PARAMETER : ERROR_INVALID_WINDOW_HANDLE);
        return 0;
    }
    return w->slots[nIndex / sizeof(LONG_PTR)].load();
}

DWORD GetWindowThreadProcessId(HWND hWnd, LPDWORD lpdwProcessId)
{
    auto w = FindWindow(hWnd);
    if (!w) return 0;
    if (lpdwProcessId != nullptr) *lpdwProcessId = static_cast<DWORD>(getpid());
    return w->threadId;
}

BOOL PostMessageA(HWND hWnd, UINT Msg, WPARAM wParam, LPARAM lParam)
{
    DWORD fail;
    if (QXFaultCheck("PostMessageA", &fail)) {
        SetLastError(fail);
        return FALSE;
    }
    if (hWnd == nullptr) return Post(CurrentQueue(), nullptr, Msg, wParam, lParam) ? TRUE : FALSE;
    auto w = FindWindow(hWnd);
    std::shared_ptr<MessageQueue> q = w ? w->queue.lock() : nullptr;
    if (!q) {
        SetLastError(ERROR_INVALID_WINDOW_HANDLE);
        return FALSE;
    }
    return Post(q, hWnd, Msg, wParam, lParam) ? TRUE : FALSE;
}

BOOL PostThreadMessageA(DWORD idThread, UINT Msg, WPARAM wParam, LPARAM lParam)
{
    std::shared_ptr<MessageQueue> q;
    {
        std::lock_guard<std::mutex> lock(Reg().mutex);
        auto it = Reg().queues.find(idThread);
        if (it != Reg().queues.end()) q = it->second.lock();
    }
    if (!q) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    return Post(q, nullptr, Msg, wParam, lParam) ? TRUE : FALSE;
}

void PostQuitMessage(int nExitCode)
{
    Post(CurrentQueue(), nullptr, WM_QUIT, static_cast<WPARAM>(nExitCode), 0);
}

namespace {

// Takes the first matching message, waiting for one when bWait.
bool TakeMessage(LPMSG lpMsg, HWND hWnd, UINT lo, UINT hi, bool bWait, bool bRemove)
{
    auto q = CurrentQueue();
    std::unique_lock<std::mutex> lock(q->mutex);
    for (;;) {
        for (auto it = q->messages.begin(); it != q->messages.end(); ++it) {
            if (!Matches(*it, hWnd, lo, hi)) continue;
            *lpMsg = *it;
            if (bRemove) q->messages.erase(it);
            return true;
        }
        if (!bWait) return false;
        q->cv.Wait(lock);
    }
}

} // namespace

BOOL GetMessageA(LPMSG lpMsg, HWND hWnd, UINT wMsgFilterMin, UINT wMsgFilterMax)
{
    if (lpMsg == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return -1;
    }
    if (hWnd != nullptr) {
        auto w = FindWindow(hWnd);
        if (!w || w->threadId != qxplat::CurrentThreadId()) {
            SetLastError(ERROR_INVALID_WINDOW_HANDLE);
            return -1;
        }
    }
    DWORD fail;
    if (QXFaultCheck("GetMessageA", &fail)) {
        SetLastError(fail);
        return -1;
    }
    TakeMessage(lpMsg, hWnd, wMsgFilterMin, wMsgFilterMax, true, true);
    return lpMsg->message == WM_QUIT ? 0 : 1;
}

BOOL PeekMessageA(LPMSG lpMsg, HWND hWnd, UINT wMsgFilterMin, UINT wMsgFilterMax, UINT wRemoveMsg)
{
    if (lpMsg == nullptr) return FALSE;
    return TakeMessage(lpMsg, hWnd, wMsgFilterMin, wMsgFilterMax, false, (wRemoveMsg & PM_REMOVE) != 0) ? TRUE
                                                                                                       : FALSE;
}

LRESULT DispatchMessageA(const MSG* lpMsg)
{
    if (lpMsg == nullptr || lpMsg->hwnd == nullptr) return 0;
    auto w = FindWindow(lpMsg->hwnd);
    if (!w) return 0; // destroyed since the message was posted
    return w->proc(lpMsg->hwnd, lpMsg->message, lpMsg->wParam, lpMsg->lParam);
}

LRESULT DefWindowProcA(HWND, UINT, WPARAM, LPARAM)
{
    return 0;
}
