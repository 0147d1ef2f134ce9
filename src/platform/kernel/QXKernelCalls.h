// Kernel services by their Win32 names: handles, events and any-one waits, threads,
// recursive critical sections, hidden windows with per-thread message queues, the
// multimedia clock and timers, and zero-filled virtual memory.
//
// Contract: waits and joins take time-outs; timeKillEvent returns only when the
// callback can no longer run; a post to a destroyed window fails cleanly; handles and
// windows are never reused.
#ifndef QUAVIX_PLATFORM_KERNEL_QXKERNELCALLS_H
#define QUAVIX_PLATFORM_KERNEL_QXKERNELCALLS_H

#include <quavix/QXWinTypes.h>

// ---- Handles, events, waits ----
BOOL CloseHandle(HANDLE hObject);
HANDLE CreateEventA(LPSECURITY_ATTRIBUTES lpAttributes, BOOL bManualReset, BOOL bInitialState, LPCSTR lpName);
BOOL SetEvent(HANDLE hEvent);
BOOL ResetEvent(HANDLE hEvent);
DWORD WaitForSingleObject(HANDLE hHandle, DWORD dwMilliseconds);
// Any-one waits only (bWaitAll must be FALSE): the lowest signalled index wins.
DWORD WaitForMultipleObjects(DWORD nCount, const HANDLE* lpHandles, BOOL bWaitAll, DWORD dwMilliseconds);
void Sleep(DWORD dwMilliseconds);
DWORD GetLastError();
void SetLastError(DWORD dwError);

#define ERROR_SUCCESS 0u
#define ERROR_INVALID_HANDLE 6u
#define ERROR_NOT_ENOUGH_MEMORY 8u
#define ERROR_INVALID_PARAMETER 87u
#define ERROR_CLASS_ALREADY_EXISTS 1410u
#define ERROR_CLASS_DOES_NOT_EXIST 1411u
#define ERROR_CLASS_HAS_WINDOWS 1412u
#define ERROR_INVALID_WINDOW_HANDLE 1400u
#define ERROR_CANNOT_FIND_WND_CLASS 1407u
#define ERROR_NOT_ENOUGH_QUOTA 1816u

// ---- Threads ----
HANDLE CreateThread(LPSECURITY_ATTRIBUTES lpAttributes, size_t dwStackSize, LPTHREAD_START_ROUTINE lpStartAddress,
                    LPVOID lpParameter, DWORD dwCreationFlags, LPDWORD lpThreadId);
DWORD GetCurrentThreadId();
// Pseudo handle naming the calling thread, as for SetThreadPriority.
HANDLE GetCurrentThread();
// Best effort: raising above normal asks for SCHED_FIFO where the process may use it.
BOOL SetThreadPriority(HANDLE hThread, int nPriority);
int GetThreadPriority(HANDLE hThread);
BOOL GetExitCodeThread(HANDLE hThread, LPDWORD lpExitCode);

// ---- Critical sections (recursive) ----
void InitializeCriticalSection(LPCRITICAL_SECTION lpCriticalSection);
void DeleteCriticalSection(LPCRITICAL_SECTION lpCriticalSection);
void EnterCriticalSection(LPCRITICAL_SECTION lpCriticalSection);
BOOL TryEnterCriticalSection(LPCRITICAL_SECTION lpCriticalSection);
void LeaveCriticalSection(LPCRITICAL_SECTION lpCriticalSection);

// ---- Hidden windows and per-thread message queues ----
HINSTANCE QXGetModuleInstance();
ATOM RegisterClassA(const WNDCLASSA* lpWndClass);
BOOL UnregisterClassA(LPCSTR lpClassName, HINSTANCE hInstance);
HWND CreateWindowExA(DWORD dwExStyle, LPCSTR lpClassName, LPCSTR lpWindowName, DWORD dwStyle, int x, int y,
                     int nWidth, int nHeight, HWND hWndParent, HMENU hMenu, HINSTANCE hInstance, LPVOID lpParam);
BOOL DestroyWindow(HWND hWnd);
BOOL IsWindow(HWND hWnd);
// The extra bytes of a window hold pointer-sized slots at byte offsets.
LONG_PTR SetWindowLongA(HWND hWnd, int nIndex, LONG_PTR dwNewLong);
LONG_PTR GetWindowLongA(HWND hWnd, int nIndex);
DWORD GetWindowThreadProcessId(HWND hWnd, LPDWORD lpdwProcessId);
BOOL PostMessageA(HWND hWnd, UINT Msg, WPARAM wParam, LPARAM lParam);
BOOL PostThreadMessageA(DWORD idThread, UINT Msg, WPARAM wParam, LPARAM lParam);
void PostQuitMessage(int nExitCode);
// 1 for a message, 0 for WM_QUIT, -1 on failure.
BOOL GetMessageA(LPMSG lpMsg, HWND hWnd, UINT wMsgFilterMin, UINT wMsgFilterMax);
#define PM_NOREMOVE 0x0000u
#define PM_REMOVE 0x0001u
BOOL PeekMessageA(LPMSG lpMsg, HWND hWnd, UINT wMsgFilterMin, UINT wMsgFilterMax, UINT wRemoveMsg);
LRESULT DispatchMessageA(const MSG* lpMsg);
LRESULT DefWindowProcA(HWND hWnd, UINT Msg, WPARAM wParam, LPARAM lParam);

// ---- Multimedia time ----
DWORD timeGetTime();
namespace qxplat {
// The platform's clock: steady, in ns. Everything that keeps time reads it.
int64_t NowNs();
// What timeGetTime says at a time of that clock.
DWORD MsTimeOf(int64_t ns);
} // namespace qxplat
MMRESULT timeGetDevCaps(LPTIMECAPS ptc, UINT cbtc);
MMRESULT timeBeginPeriod(UINT uPeriod);
MMRESULT timeEndPeriod(UINT uPeriod);
// Callbacks run on the one timer thread. After timeKillEvent returns, the timer's
// callback is not running and never runs again (unless called from that callback).
UINT timeSetEvent(UINT uDelay, UINT uResolution, LPTIMECALLBACK lpTimeProc, DWORD_PTR dwUser, UINT fuEvent);
MMRESULT timeKillEvent(UINT uTimerID);
// Tests shift timeGetTime's epoch so that its 2^32 wrap can be reached.
void QXSetTimeOffset(DWORD dwOffset);

// ---- Virtual memory: zero-filled pages ----
LPVOID VirtualAlloc(LPVOID lpAddress, size_t dwSize, DWORD flAllocationType, DWORD flProtect);
BOOL VirtualFree(LPVOID lpAddress, size_t dwSize, DWORD dwFreeType);
BOOL VirtualLock(LPVOID lpAddress, size_t dwSize);
BOOL VirtualUnlock(LPVOID lpAddress, size_t dwSize);

// ---- System version and processor ----
#define VER_PLATFORM_WIN32_NT 2u
#define PROCESSOR_ARCHITECTURE_INTEL 0
#define PROCESSOR_ARCHITECTURE_AMD64 9
#define PROCESSOR_ARCHITECTURE_ARM64 12
#define PROCESSOR_ARCHITECTURE_UNKNOWN 0xFFFF
#define PROCESSOR_AMD_X8664 8664u
struct OSVERSIONINFOA {
    DWORD dwOSVersionInfoSize;
    DWORD dwMajorVersion;
    DWORD dwMinorVersion;
    DWORD dwBuildNumber;
    DWORD dwPlatformId;
    CHAR szCSDVersion[128];
};
struct SYSTEM_INFO {
    WORD wProcessorArchitecture;
    WORD wReserved;
    DWORD dwPageSize;
    LPVOID lpMinimumApplicationAddress;
    LPVOID lpMaximumApplicationAddress;
    DWORD_PTR dwActiveProcessorMask;
    DWORD dwNumberOfProcessors;
    DWORD dwProcessorType;
    DWORD dwAllocationGranularity;
    WORD wProcessorLevel;
    WORD wProcessorRevision;
};
// Linux answers as an NT-family system: the kernel's version numbers, the machine's
// architecture (AMD64 on x86-64, ARM64 on aarch64) and the CPU family as the level.
BOOL GetVersionExA(OSVERSIONINFOA* lpVersionInformation);
void GetSystemInfo(SYSTEM_INFO* lpSystemInfo);
// Tests make the two answer as another machine would; null restores the real answers.
void QXSetSystemInfoOverride(const OSVERSIONINFOA* pVersion, const SYSTEM_INFO* pInfo);

// ---- The host application's main window ----
// DirectSound's cooperative level names the host's main window. A library has no GUI,
// so a window registered here stands in for it (the manager registers its own); null
// when none is registered or it was destroyed.
HWND QXGetHostMainWindow();
void QXSetHostMainWindow(HWND hWnd);
// Registers hWnd only where no live window is registered yet.
void QXOfferHostMainWindow(HWND hWnd);

#endif // QUAVIX_PLATFORM_KERNEL_QXKERNELCALLS_H
