// The manager's thread and window, its private messages, and the transport of devices
// one by one and as a group.
#include <quavix/QXQuavix.h>
#include <quavix/QXWaveOut.h>
#include <quavix/QXWavePlay.h>

#include "core/QXMessageLoop.h"
#include "manager/QXManagerWalk.h"
#include "platform/QXPlatform.h"

#include <cstdlib>
#include <mutex>

struct CQuavix::ThreadShared {
    std::mutex mutex;
    bool abandoned = false;
};

namespace {

// CloseDevices under way on this thread (callbacks of the players it destroys run in it).
thread_local int t_nClosing = 0;

const char kClassName[] = "CQuavix";

} // namespace

int CQuavix::_RegisterQuavix()
{
    WNDCLASSA wc{};
    wc.lpfnWndProc = _WndProc;
    wc.cbWndExtra = sizeof(CQuavix*); // one slot naming the manager
    wc.hInstance = QXGetModuleInstance();
    wc.hbrBackground = reinterpret_cast<HBRUSH>(static_cast<uintptr_t>(COLOR_WINDOW + 1));
    wc.lpszClassName = kClassName;
    return RegisterClassA(&wc) != 0 ? 1 : 0;
}

void CQuavix::ThreadStart()
{
    m_dwThreadId = 0;
    m_pThreadShared = std::make_shared<ThreadShared>();
    m_hThreadEvent = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    m_hThread = CreateThread(nullptr, 0, reinterpret_cast<LPTHREAD_START_ROUTINE>(_ThreadProc), this, 0,
                             &m_dwThreadId);
    if (m_hThread == nullptr) std::exit(0);
    WaitForSingleObject(m_hThreadEvent, 5000);
    ResetEvent(m_hThreadEvent);
}

DWORD CQuavix::_ThreadProc(void* pManager)
{
    return static_cast<CQuavix*>(pManager)->ThreadProc();
}

DWORD CQuavix::ThreadProc()
{
    std::shared_ptr<ThreadShared> shared = m_pThreadShared;
    HWND hWnd = CreateWindowExA(0, kClassName, kClassName, 0, 0, 0, 0, 0, nullptr, nullptr, QXGetModuleInstance(),
                                this);
    m_hWnd = hWnd;
    if (hWnd == nullptr) return 0;
    SetWindowLongA(hWnd, 0, reinterpret_cast<LONG_PTR>(this));
    SetEvent(m_hThreadEvent);
    QXRunMessageLoop("Error in CQuavix ThreadProc\n");
    // The manager may be gone by now if ThreadStop gave up waiting: only the local
    // window handle is used, and the manager's field only while it still waits.
    SetWindowLongA(hWnd, 0, 0);
    DestroyWindow(hWnd);
    std::lock_guard<std::mutex> lock(shared->mutex);
    if (!shared->abandoned) m_hWnd = nullptr;
    return 0;
}

void CQuavix::ThreadStop()
{
    if (m_hThread == nullptr) return;
    HWND hWnd = m_hWnd;
    if (IsWindow(hWnd)) {
        PostMessageA(hWnd, WM_QUIT, 0, 0);
        if (WaitForSingleObject(m_hThread, 5000) != WAIT_OBJECT_0) {
            // Left running: make sure it can no longer reach this manager.
            SetWindowLongA(hWnd, 0, 0);
            std::lock_guard<std::mutex> lock(m_pThreadShared->mutex);
            m_pThreadShared->abandoned = true;
        }
    }
    CloseHandle(m_hThread);
    m_hThread = nullptr;
    CloseHandle(m_hThreadEvent);
    m_hThreadEvent = nullptr;
}

LRESULT CQuavix::_WndProc(HWND hWnd, UINT uMsg, WPARAM wParam, LPARAM lParam)
{
    auto* pManager = reinterpret_cast<CQuavix*>(GetWindowLongA(hWnd, 0));
    CallScope scope(pManager);
    if (scope.Live()) return pManager->WndProc(uMsg, wParam, lParam);
    // A manager on its way out handles nothing more; a delayed start's block is
    // still this message's to free.
    if (uMsg == QXM_DELAYSTART) delete reinterpret_cast<QX_DELAYSTART*>(wParam);
    return DefWindowProcA(hWnd, uMsg, wParam, lParam);
}

LRESULT CQuavix::WndProc(UINT uMsg, WPARAM wParam, LPARAM lParam)
{
    const bool bSlave = m_dwSyncMode == QX_SYNCMODE_SLAVE;
    switch (uMsg) {
    case QXM_TIMER:
        // A tick posted before StopDevices killed the timer may arrive after it; with the
        // play start zeroed it would make the catch-up loop poll without end.
        if (m_uTimerID != 0) _CatchUp();
        return 0;
    case QXM_DELAYSTART: {
        auto* pBlock = reinterpret_cast<QX_DELAYSTART*>(wParam);
        StartDevice(pBlock->nType, pBlock->nDir, pBlock->nDevice);
        delete pBlock;
        return 0;
    }
    case QXM_SYNCSTART:
        if (bSlave) {
            StartDevices();
            _SyncPerformances(QX_SYNC_START, 0, 0);
        }
        return 0;
    case QXM_SYNCCONTINUE:
        if (bSlave) {
            _SyncPerformances(QX_SYNC_CONTINUE, 0, 0);
            StartDevices();
        }
        return 0;
    case QXM_SYNCSTOP:
        if (bSlave) _SyncStop();
        return 0;
    case QXM_SYNCPOSITION:
        if (bSlave) {
            m_dwSyncPosition = static_cast<DWORD>(wParam);
            _SyncPerformances(QX_SYNC_POSITION, 0, 0);
        }
        return 0;
    case QXM_SYNCCLOCK:
        if (bSlave) _SyncPerformances(QX_SYNC_CLOCK, static_cast<DWORD>(wParam), static_cast<DWORD>(lParam));
        return 0;
    case QXM_WAVEPLAY:
        // wParam is the player's registry handle: a player stopped or destroyed since
        // its timer fired resolves to nothing.
        CWavePlay::StartFromHandle(static_cast<DWORD>(wParam));
        return 0;
    default:
        return DefWindowProcA(m_hWnd, uMsg, wParam, lParam);
    }
}

void CQuavix::_TimeProc(UINT, UINT, DWORD_PTR dwUser, DWORD_PTR, DWORD_PTR)
{
    PostMessageA(reinterpret_cast<HWND>(dwUser), QXM_TIMER, 0, 0);
}

void CQuavix::_DelayProc(UINT uTimerID, UINT, DWORD_PTR dwUser, DWORD_PTR, DWORD_PTR)
{
    auto* pBlock = reinterpret_cast<QX_DELAYSTART*>(dwUser);
    // A manager on its way out frees the blocks of its pending timers itself.
    CQuavix* pManager = s_pSharedQuavix.load();
    CallScope scope(pManager);
    if (!scope.Live()) return;
    {
        std::lock_guard<std::mutex> lock(pManager->m_mxDelays);
        if (pManager->m_PendingDelays.erase(uTimerID) == 0) return; // cancelled and freed
        // Only this timer's own identifier is cleared: a later delayed start stays
        // cancellable.
        UINT uExpected = uTimerID;
        pManager->m_uDelayTimerID.compare_exchange_strong(uExpected, 0);
    }
    if (!PostMessageA(pBlock->hWnd, QXM_DELAYSTART, reinterpret_cast<WPARAM>(pBlock), 0)) delete pBlock;
}

// The getters the devices call from their own threads check first that the manager is
// still there (CallScope); the others are the application's, on a manager it holds.
DWORD CQuavix::GetPlayStartTime() const
{
    CallScope scope(this);
    return scope.Live() ? m_dwPlayStartTime.load() : 0;
}

int64_t CQuavix::_GetPlayStartNs() const
{
    CallScope scope(this);
    return scope.Live() ? m_nPlayStartNs.load() : 0;
}

void CQuavix::_TakePlayStart()
{
    const int64_t ns = qxplat::NowNs();
    m_nPlayStartNs = ns;
    m_dwPlayStartTime = qxplat::MsTimeOf(ns);
}

DWORD CQuavix::GetRecordStartTime() const
{
    CallScope scope(this);
    return scope.Live() ? m_dwRecordStartTime.load() : 0;
}

DWORD CQuavix::GetElapsedPlayTime() const
{
    return timeGetTime() - m_dwPlayStartTime;
}

DWORD CQuavix::GetElapsedRecordTime() const
{
    return timeGetTime() - m_dwRecordStartTime;
}

HWND CQuavix::GetHWnd() const
{
    CallScope scope(this);
    return scope.Live() ? m_hWnd.load() : nullptr;
}

CQXDevice* CQuavix::GetTimingDevice() const
{
    CallScope scope(this);
    return scope.Live() ? m_pTimingDevice.load() : nullptr;
}

DWORD CQuavix::GetSyncMode() const
{
    CallScope scope(this);
    return scope.Live() ? m_dwSyncMode.load() : QX_SYNCMODE_INTERNAL;
}

int CQuavix::OpenDevice(int nType, int nDir, int nDevice)
{
    CallScope scope(this);
    if (!scope.Live()) return 0;
    CQXDevice* pDevice = GetDevice(nType, nDir, nDevice);
    return pDevice != nullptr ? pDevice->Open(nDevice) : 0;
}

int CQuavix::StartDevice(int nType, int nDir, int nDevice)
{
    CallScope scope(this);
    if (!scope.Live()) return 0;
    CQXDevice* pDevice = GetDevice(nType, nDir, nDevice);
    return pDevice != nullptr ? pDevice->Start() : 0;
}

int CQuavix::PauseDevice(int nType, int nDir, int nDevice)
{
    CallScope scope(this);
    if (!scope.Live()) return 0;
    CQXDevice* pDevice = GetDevice(nType, nDir, nDevice);
    if (pDevice == nullptr) return 0;
    CQXDevice* pExpected = pDevice;
    m_pTimingDevice.compare_exchange_strong(pExpected, nullptr);
    return pDevice->Pause();
}

int CQuavix::StopDevice(int nType, int nDir, int nDevice)
{
    CallScope scope(this);
    if (!scope.Live()) return 0;
    CQXDevice* pDevice = GetDevice(nType, nDir, nDevice);
    if (pDevice == nullptr) return 0;
    CQXDevice* pExpected = pDevice;
    m_pTimingDevice.compare_exchange_strong(pExpected, nullptr);
    return pDevice->Stop();
}

int CQuavix::CloseDevice(int nType, int nDir, int nDevice)
{
    CallScope scope(this);
    if (!scope.Live()) return 0;
    CQXDevice* pDevice = GetDevice(nType, nDir, nDevice);
    if (pDevice == nullptr) return 0;
    CQXDevice* pExpected = pDevice;
    m_pTimingDevice.compare_exchange_strong(pExpected, nullptr);
    return pDevice->Close();
}

int CQuavix::OpenDevices()
{
    CallScope scope(this);
    if (!scope.Live() || !m_bInitialized || t_nClosing > 0) return 0;
    EnterCriticalSection(&m_csDevices);
    int bResult = 0;
    _ForEachDevice([&](int nType, int nDir, int n) {
        if (OpenDevice(nType, nDir, n) == 1) bResult = 1;
    });
    if (m_pTimingDevice.load() == nullptr && m_dwSyncMode != QX_SYNCMODE_SLAVE)
        for (int i = 0; i < m_nPrefetchBuffers; ++i) _WriteBuffers();
    LeaveCriticalSection(&m_csDevices);
    return bResult;
}

int CQuavix::StartDevices()
{
    CallScope scope(this);
    if (!scope.Live() || !m_bInitialized || t_nClosing > 0) return 0;
    EnterCriticalSection(&m_csDevices);
    int bResult = 1;
    if (m_pTimingDevice.load() == nullptr) {
        for (int n = 0; n < m_nDeviceCount[QX_DEVTYPE_MIDI][QX_DEVDIR_OUT]; ++n) {
            CQXDevice* pDevice = GetDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_OUT, n);
            if (pDevice != nullptr && (pDevice->GetState() & QX_STATE_OPEN)) {
                m_pTimingDevice = pDevice;
                m_nTimingDevice = n;
                PostMessageA(pDevice->GetHWnd(), QXM_PRIORITYHIGH, 0, 0);
                break;
            }
        }
        _TakePlayStart();
    }
    if (m_pTimingDevice.load() == nullptr && m_uTimerID == 0) {
        m_uTimerID = timeSetEvent(100, 10, _TimeProc, reinterpret_cast<DWORD_PTR>(m_hWnd.load()), TIME_PERIODIC);
        if (m_uTimerID == 0) {
            Notify(QXN_TIMER_CREATE, 0, 0);
            bResult = 0;
        }
        _TakePlayStart();
    }
    if (m_dwRecordStartTime == 0) m_dwRecordStartTime = m_dwPlayStartTime.load();
    if (bResult) {
        _ForEachDevice([this](int nType, int nDir, int n) { StartDevice(nType, nDir, n); });
        // Wave events of the periods written before the start waited in their outputs'
        // lists; each now starts at its time from the play start just taken.
        for (int n = 0; n < m_nDeviceCount[QX_DEVTYPE_WAVE][QX_DEVDIR_OUT]; ++n) {
            CQXEventList* pList = _GetEventList(QX_DEVTYPE_WAVE, n);
            CQXDevice* pDevice = GetDevice(QX_DEVTYPE_WAVE, QX_DEVDIR_OUT, n);
            if (pList != nullptr && !pList->IsEmpty() && pDevice != nullptr && IsDeviceEnabled(QX_DEVTYPE_WAVE, QX_DEVDIR_OUT, n) &&
                (pDevice->GetState() & QX_STATE_STARTED))
                pDevice->PlayData(pList, m_dwBufferTime, m_dwBufferTime);
        }
    }
    LeaveCriticalSection(&m_csDevices);
    return bResult;
}

int CQuavix::PauseDevices()
{
    CallScope scope(this);
    if (!scope.Live() || !m_bInitialized) return 0;
    m_pTimingDevice = nullptr;
    EnterCriticalSection(&m_csDevices);
    _ForEachDevice([this](int nType, int nDir, int n) { PauseDevice(nType, nDir, n); });
    LeaveCriticalSection(&m_csDevices);
    return 1;
}

int CQuavix::StopDevices()
{
    CallScope scope(this);
    if (!scope.Live() || !m_bInitialized) return 0;
    m_pTimingDevice = nullptr;
    EnterCriticalSection(&m_csDevices);
    if (m_uTimerID != 0) {
        timeKillEvent(m_uTimerID);
        m_uTimerID = 0;
    }
    StopDelay(m_uDelayTimerID);
    _ForEachDevice([this](int nType, int nDir, int n) { StopDevice(nType, nDir, n); });
    m_dwPlayStartTime = 0;
    m_nPlayStartNs = 0;
    m_dwRecordStartTime = 0;
    m_dwBufferTime = 0;
    LeaveCriticalSection(&m_csDevices);
    return 1;
}

int CQuavix::CloseDevices()
{
    CallScope scope(this);
    if (!scope.Live() || !m_bInitialized) return 0;
    // A done callback of a player that this close destroys runs inside it: the close
    // under way does what was asked.
    if (t_nClosing > 0) return 1;
    StopDevices();
    EnterCriticalSection(&m_csDevices);
    ++t_nClosing;
    _ForEachDevice([this](int nType, int nDir, int n) { CloseDevice(nType, nDir, n); });
    // Every output is closed and has destroyed its players. A self-deleting player that
    // is still finishing on its own thread holds a reference to its driver's device
    // object, which so outlives the registry's.
    CWaveOut::DSExit();
    --t_nClosing;
    LeaveCriticalSection(&m_csDevices);
    return 1;
}

UINT CQuavix::DelayStart(int nType, int nDir, int nDevice, DWORD dwDelay)
{
    CallScope scope(this);
    if (!scope.Live()) return 0;
    if (dwDelay < 10) {
        StartDevice(nType, nDir, nDevice);
        return 0;
    }
    auto* pBlock = new (std::nothrow) QX_DELAYSTART{nType, nDir, nDevice, m_hWnd.load()};
    if (pBlock == nullptr) return 0;
    // Held while arming, so the callback finds its block registered.
    std::lock_guard<std::mutex> lock(m_mxDelays);
    UINT uID = timeSetEvent(dwDelay, 0, _DelayProc, reinterpret_cast<DWORD_PTR>(pBlock), TIME_ONESHOT);
    m_uDelayTimerID = uID;
    if (uID == 0) {
        delete pBlock; // never handed on
        return 0;
    }
    m_PendingDelays[uID] = pBlock;
    return uID;
}

void CQuavix::StopDelay(UINT uTimerID)
{
    CallScope scope(this);
    if (!scope.Live()) return;
    if (uTimerID == 0 || uTimerID != m_uDelayTimerID) return;
    // After the kill the callback has either posted its block or will never run.
    timeKillEvent(uTimerID);
    m_uDelayTimerID = 0;
    std::lock_guard<std::mutex> lock(m_mxDelays);
    auto it = m_PendingDelays.find(uTimerID);
    if (it != m_PendingDelays.end()) {
        delete it->second;
        m_PendingDelays.erase(it);
    }
}
