// The platform services the library calls, by their Win32 names and with their
// documented argument and result conventions, implemented for Linux in this folder.
// Nothing above src/platform/ talks to POSIX or to a device backend directly.
#ifndef QUAVIX_PLATFORM_QXPLATFORM_H
#define QUAVIX_PLATFORM_QXPLATFORM_H

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

// ---- Device enumeration (answered by the process's backend) ----
UINT midiInGetNumDevs();
UINT midiOutGetNumDevs();
UINT waveInGetNumDevs();
UINT waveOutGetNumDevs();
// Fill at most cbCaps bytes of the record; the name is the backend's device name.
MMRESULT midiInGetDevCapsA(UINT_PTR uDeviceID, MIDIINCAPSA* pmic, UINT cbmic);
MMRESULT midiOutGetDevCapsA(UINT_PTR uDeviceID, MIDIOUTCAPSA* pmoc, UINT cbmoc);
MMRESULT waveInGetDevCapsA(UINT_PTR uDeviceID, WAVEINCAPSA* pwic, UINT cbwic);

// ---- MIDI output streams ----
// MIDI output callbacks: MOM_OPEN, MOM_CLOSE, MOM_DONE (param1 the header) and
// MOM_POSITIONCB (param1 the header, whose dwOffset names the event).
typedef void(CALLBACK* MIDIOUTPROC)(HMIDIOUT hmo, UINT wMsg, DWORD_PTR dwInstance, DWORD_PTR dwParam1,
                                    DWORD_PTR dwParam2);
// Opens paused. Callbacks: CALLBACK_FUNCTION (a MIDIOUTPROC), CALLBACK_WINDOW (posted
// as MM_MOM_* to the window) or CALLBACK_NULL.
MMRESULT midiStreamOpen(HMIDISTRM* phms, UINT* puDeviceID, DWORD cMidi, DWORD_PTR dwCallback, DWORD_PTR dwInstance,
                        DWORD fdwOpen);
MMRESULT midiStreamClose(HMIDISTRM hms);
MMRESULT midiStreamProperty(HMIDISTRM hms, LPBYTE lppropdata, DWORD dwProperty);
MMRESULT midiStreamOut(HMIDISTRM hms, LPMIDIHDR pmh, UINT cbmh);
MMRESULT midiStreamPause(HMIDISTRM hms);
MMRESULT midiStreamRestart(HMIDISTRM hms);
MMRESULT midiStreamStop(HMIDISTRM hms);
// TIME_TICKS or TIME_MS of the last event played.
MMRESULT midiStreamPosition(HMIDISTRM hms, LPMMTIME lpmmt, UINT cbmmt);
MMRESULT midiOutPrepareHeader(HMIDIOUT hmo, LPMIDIHDR pmh, UINT cbmh);
MMRESULT midiOutUnprepareHeader(HMIDIOUT hmo, LPMIDIHDR pmh, UINT cbmh);
// At once, past any queued stream buffers.
MMRESULT midiOutShortMsg(HMIDIOUT hmo, DWORD dwMsg);
MMRESULT midiOutLongMsg(HMIDIOUT hmo, LPMIDIHDR pmh, UINT cbmh);
#define MM_MOM_OPEN MOM_OPEN
#define MM_MOM_CLOSE MOM_CLOSE
#define MM_MOM_DONE MOM_DONE
#define MM_MOM_POSITIONCB MOM_POSITIONCB
// No driver limits the size here; the limit only guards against absurd headers. A period
// dense enough to pass 64 KiB still goes out whole.
#define MIDI_STREAM_MAX_BUFFER (16u << 20)

// ---- MIDI input ----
// MIM_OPEN, MIM_CLOSE, and MIM_DATA with param1 the short message (status in bits 0-7)
// and param2 its time stamp: milliseconds since midiInStart. Input arrives only between
// midiInStart and midiInStop; after midiInClose returns, the callback is not called.
typedef void(CALLBACK* MIDIINPROC)(HMIDIIN hmi, UINT wMsg, DWORD_PTR dwInstance, DWORD_PTR dwParam1,
                                   DWORD_PTR dwParam2);
MMRESULT midiInOpen(HMIDIIN* phmi, UINT uDeviceID, DWORD_PTR dwCallback, DWORD_PTR dwInstance, DWORD fdwOpen);
MMRESULT midiInStart(HMIDIIN hmi);
MMRESULT midiInStop(HMIDIIN hmi);
MMRESULT midiInReset(HMIDIIN hmi);
MMRESULT midiInClose(HMIDIIN hmi);
#define MM_MIM_OPEN MIM_OPEN
#define MM_MIM_CLOSE MIM_CLOSE
#define MM_MIM_DATA MIM_DATA
#define MM_MIM_LONGDATA MIM_LONGDATA
#define MM_MIM_ERROR MIM_ERROR
#define MM_MIM_LONGERROR MIM_LONGERROR

// ---- Error texts of the multimedia services ----
MMRESULT midiInGetErrorTextA(MMRESULT mmrError, LPSTR pszText, UINT cchText);
MMRESULT midiOutGetErrorTextA(MMRESULT mmrError, LPSTR pszText, UINT cchText);
MMRESULT waveInGetErrorTextA(MMRESULT mmrError, LPSTR pszText, UINT cchText);
MMRESULT waveOutGetErrorTextA(MMRESULT mmrError, LPSTR pszText, UINT cchText);

#endif // QUAVIX_PLATFORM_QXPLATFORM_H
