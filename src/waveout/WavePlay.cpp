// The streaming wave player: preparing, starting at once or by a timer, parameters,
// stopping and (for a player of PlayWaveFile) deleting itself.
//
// Who may free a player, and when: a player in its output's set is freed by whoever takes
// it out (CWaveOut::_RemovePlayer / the output's own claims); a self-deleting player takes
// itself out before its done callback, so nothing the callback does destroys it twice.
// The prepare and notification threads are joined by Stop, with m_cs held, before
// anything they use is released; the start message carries the registry handle, and a
// start by handle pins the player so that its destruction waits.
//
// Locks: m_cs, then the output's lock (never the other way round: the output calls
// into a player only through a pin, holding none of its own locks). Nothing of the
// application is called with m_cs held: reports wait until it is let go, and the done
// callback runs after everything else.
#include <quavix/QXNotify.h>
#include <quavix/QXPlayerRegistry.h>
#include <quavix/QXQuavix.h>
#include <quavix/QXWaveFile.h>
#include <quavix/QXWaveOut.h>
#include <quavix/QXWavePlay.h>

#include "platform/QXPlatform.h"
#include "platform/dsound/QXDSound.h"

#include <algorithm>
#include <cmath>
#include <new>
#include <utility>

namespace {

constexpr DWORD kPrepareTimeout = 30000;

// The player whose prepare thread the calling thread is.
thread_local const CWavePlay* t_pPreparing = nullptr;

} // namespace

CWavePlay::CWavePlay()
{
    _InitWavePlay();
    InitializeCriticalSection(&m_cs);
    InitializeCriticalSection(&m_csReports);
    m_dwHandle = QXRegisterPlayer(this, _SignalProc);
}

CWavePlay::~CWavePlay()
{
    // First of all: no start by handle can begin from now on, and one under way on
    // another thread has finished.
    QXUnregisterPlayer(this);
    _Lock();
    m_bDestroying = 1;
    const StopTail tail = _StopLocked();
    _Unlock();
    if (tail.pfnDone != nullptr) CQuavix::_CallDone(tail.pfnDone, tail.dwUser, tail.dwHandle);
    if (CWaveOut* pOut = CWaveOut::_GetOutput(m_nDevice)) pOut->_RemovePlayer(this);
    m_pTrack = nullptr;
    // Left only when the player is destroyed on its own notification thread, which
    // cannot wait for itself: closing the handle lets the thread end on its own.
    if (m_hNotifyThread != nullptr) {
        CloseHandle(m_hNotifyThread);
        m_hNotifyThread = nullptr;
    }
    DeleteCriticalSection(&m_csReports);
    DeleteCriticalSection(&m_cs);
}

void CWavePlay::_InitWavePlay()
{
    m_pSoundFile = nullptr;
    m_pDirectSound = nullptr;
    m_pDSBuffer = nullptr;
    m_pNotify = nullptr;
    m_pTrack = nullptr;
    m_nDevice = 0;
    m_bWait = 0;
    m_bEndOfData = 0;
    m_bPrepared = 0;
    m_bAutoDelete = 0;
    m_bDestroying = 0;
    m_bStopping = 0;
    m_WaveParams = QX_WaveParams{};
    m_uStartTimerID = 0;
    m_nStartNs = 0;
    m_hStartEvent = nullptr;
    m_hPreparedEvent = nullptr;
    for (HANDLE& h : m_hNotifyEvents) h = nullptr;
    m_hPrepareThread = nullptr;
    m_hNotifyThread = nullptr;
    m_dwPrepareThreadId = 0;
    m_dwNotifyThreadId = 0;
    m_dwSegmentSize = 0;
    m_dwBufferSize = 0;
    m_dwWritePos = 0;
    m_nPendingSegments = 0;
    m_pfnDone = nullptr;
    m_dwDoneUser = 0;
    m_cs = CRITICAL_SECTION{};
    m_dwHandle = 0;
    m_nSegmentEnds = 0;
    m_nLockDepth = 0;
    m_dwLockOwner = 0;
    m_csReports = CRITICAL_SECTION{};
    m_nReports = 0;
}

void CWavePlay::_Lock()
{
    EnterCriticalSection(&m_cs);
    if (m_nLockDepth++ == 0) m_dwLockOwner = GetCurrentThreadId();
}

void CWavePlay::_Unlock()
{
    Report reports[8];
    int nReports = 0;
    if (--m_nLockDepth == 0) {
        m_dwLockOwner = 0;
        EnterCriticalSection(&m_csReports);
        nReports = m_nReports;
        for (int i = 0; i < nReports; ++i) reports[i] = m_Reports[i];
        m_nReports = 0;
        LeaveCriticalSection(&m_csReports);
    }
    LeaveCriticalSection(&m_cs);
    // From copies: the reaction may destroy the player.
    for (int i = 0; i < nReports; ++i) QXNotifyShared(reports[i].dwCode, reports[i].dwValue, reports[i].dwDevice);
}

void CWavePlay::_Report(DWORD dwCode, DWORD dwValue)
{
    _Report(dwCode, dwValue, static_cast<DWORD_PTR>(m_nDevice));
}

void CWavePlay::_Report(DWORD dwCode, DWORD dwValue, DWORD_PTR dwDevice)
{
    const DWORD dwSelf = GetCurrentThreadId();
    const bool bHeld = m_dwLockOwner.load() == dwSelf || (t_pPreparing == this && m_bWait);
    if (!bHeld) {
        QXNotifyShared(dwCode, dwValue, dwDevice);
        return;
    }
    EnterCriticalSection(&m_csReports);
    // More than a handful in one hold means the same failure over again: the first are kept.
    if (m_nReports < static_cast<int>(sizeof m_Reports / sizeof m_Reports[0]))
        m_Reports[m_nReports++] = {dwCode, dwValue, dwDevice};
    LeaveCriticalSection(&m_csReports);
}

void CWavePlay::_SignalProc(void* pPlayer)
{
    static_cast<CWavePlay*>(pPlayer)->SignalStart();
}

int CWavePlay::Prepare(QX_WaveParams* pParams, int nDevice, int bWait)
{
    if (CWaveOut::DSGetDevice(nDevice) == nullptr) {
#ifndef NDEBUG
        QXTrace("CWavePlay: device %d is unavailable, cannot prepare\n", nDevice);
#endif
        return 0;
    }
    if (pParams == nullptr) return 0;
    _Lock();
    if (m_bPrepared) {
        _Unlock();
        return 1;
    }

    // Played again, or prepared again after a failure: what a previous run left goes
    // first (its threads are told to stop, not to stop the player), and the streaming
    // state starts afresh.
    m_bStopping = 1;
    _EndPrepareThread();
    _EndNotifyThread();
    if (m_hNotifyThread != nullptr) { // played again from its own done callback: let it end alone
        CloseHandle(m_hNotifyThread);
        m_hNotifyThread = nullptr;
    }
    _Release();
    m_bEndOfData = 0;
    m_bStopping = 0;
    m_dwWritePos = 0;
    m_nPendingSegments = 0;
    m_nSegmentEnds = 0;

    m_nDevice = nDevice;
    m_bWait = bWait;
    m_WaveParams = *pParams;

    CWaveOut* pOut = CWaveOut::_GetOutput(m_nDevice);
    m_pTrack = pOut != nullptr ? pOut->_AddPlayer(this, m_WaveParams.nPerformance, m_WaveParams.nTrack) : nullptr;
    int nResult = 0;
    if (m_pTrack != nullptr && (m_hStartEvent = CreateEventA(nullptr, FALSE, FALSE, nullptr)) != nullptr &&
        (!bWait || (m_hPreparedEvent = CreateEventA(nullptr, FALSE, FALSE, nullptr)) != nullptr) &&
        (m_hPrepareThread = CreateThread(nullptr, 0, __PrepareThread, this, 0, &m_dwPrepareThreadId)) != nullptr) {
        nResult = 1;
        if (bWait) {
            // The thread signals as its last act, so it is joined at once. When the
            // wait runs out, the thread and its event stay until Stop joins it: it
            // still uses the player.
            if (WaitForSingleObject(m_hPreparedEvent, kPrepareTimeout) == WAIT_OBJECT_0) {
                WaitForSingleObject(m_hPrepareThread, INFINITE);
                CloseHandle(m_hPrepareThread);
                m_hPrepareThread = nullptr;
                CloseHandle(m_hPreparedEvent);
                m_hPreparedEvent = nullptr;
            }
            nResult = m_bPrepared.load();
        }
    }
    _Unlock();
    return nResult;
}

DWORD WINAPI CWavePlay::__PrepareThread(void* pPlayer)
{
    return static_cast<CWavePlay*>(pPlayer)->_PrepareThread();
}

DWORD CWavePlay::_PrepareThread()
{
    t_pPreparing = this;
    // A reference of its own: the registry may be emptied while this thread works.
    m_pDirectSound = CWaveOut::DSAcquireDevice(m_nDevice);
    if (m_pDirectSound == nullptr) {
#ifndef NDEBUG
        QXTrace("CWavePlay: ERROR! wave out device %d is NULL\n", m_nDevice);
#endif
    } else {
        _PrepareBuffer();
    }
    t_pPreparing = nullptr;
    // The handle stays for whoever joins this thread (Prepare, or Stop after a time-out).
    if (m_hPreparedEvent != nullptr) SetEvent(m_hPreparedEvent);
    return 0;
}

int CWavePlay::_PrepareBuffer()
{
    if (!_OpenSoundFile(m_WaveParams.dsParams.lpszFileName)) return 0;
    if (!_CreateSoundBuffer(m_WaveParams.dsParams)) return 0;
    for (int i = 0; i < 7; ++i) _WriteBuffer();
    _ApplyParameters(m_WaveParams.dsParams);
    m_bPrepared = 1;
    return 1;
}

int CWavePlay::_OpenSoundFile(const char* pszPath)
{
    if (pszPath == nullptr) return 0;
    m_pSoundFile = new (std::nothrow) CWaveFileRead;
    if (m_pSoundFile == nullptr) return 0;
    m_pSoundFile->SetFilename(pszPath);
    return m_pSoundFile->Open(0) ? 1 : 0;
}

int CWavePlay::Play(QX_WaveParams* pParams, int nDevice, DWORD dwStartTime, QX_WaveDoneProc pfnDone,
                    DWORD_PTR dwUser, int bAutoDelete)
{
    int bYours = 1;
    return _Play(pParams, nDevice, dwStartTime, pfnDone, dwUser, bAutoDelete, &bYours);
}

int CWavePlay::_Play(QX_WaveParams* pParams, int nDevice, DWORD dwStartTime, QX_WaveDoneProc pfnDone,
                     DWORD_PTR dwUser, int bAutoDelete, int* pbYours)
{
    *pbYours = 1;
    _Lock();
    m_pfnDone = pfnDone;
    m_dwDoneUser = dwUser;
    m_bAutoDelete = bAutoDelete;
    if (!Prepare(pParams, nDevice, 1)) {
        *pbYours = _Withdraw();
        _Unlock();
        return 0;
    }
    _ApplyParameters(pParams->dsParams);

    // Started early by the output's latency, so that the sound leaves the sink at its time,
    // in step with MIDI that goes out at its exact time; a start already due starts at
    // once. (Delaying the MIDI instead would make it late everywhere, even with no audio.)
    // An output that places a start at its exact frame is handed the exact start time,
    // taken from the play start's exact time, and is started some ms ahead: the timer and
    // the hop to the manager's thread then cost no accuracy.
    CQuavix* pManager = CQuavix::GetQuavix();
    DWORD dwRate = 0;
    bool bExact = false;
    const DWORD dwLatencyFrames = qxplat::DirectSoundOutputLatencyFrames(m_pDirectSound, &dwRate, &bExact);
    const int64_t nLatencyNs = dwRate != 0 ? int64_t{dwLatencyFrames} * 1'000'000'000 / dwRate : 0;
    const int64_t nPlayStartNs = pManager != nullptr ? pManager->_GetPlayStartNs() : 0;
    m_nStartNs = 0;
    int32_t nDelay = 0;
    if (dwStartTime != 0 && nPlayStartNs != 0) {
        constexpr int64_t kAheadNs = 10'000'000;
        const int64_t nStartNs = nPlayStartNs + int64_t{dwStartTime} * 1'000'000 - nLatencyNs;
        if (bExact) m_nStartNs = nStartNs;
        const int64_t nWaitNs = nStartNs - (bExact ? kAheadNs : 0) - qxplat::NowNs();
        nDelay = static_cast<int32_t>(std::clamp<int64_t>(nWaitNs / 1'000'000, INT32_MIN, INT32_MAX));
    }
#ifndef NDEBUG
    QXTrace("play at %d, delay %d\n", static_cast<int>(dwStartTime), nDelay);
#endif
    if (dwStartTime == 0 || nDelay <= 0) {
        CWavePlay* pDisplaced = nullptr;
        StopTail tail{};
        // Started under the lock, so that nobody frees the player meanwhile. A failed
        // start stops it; its callback and a self-deleting player's deletion come only
        // once Play has let go of it.
        if (_StartLocked(false, &pDisplaced) < 0) tail = _StopLocked();
        _Unlock();
        delete pDisplaced;
        _FinishStop(tail);
        return 1;
    }
    m_uStartTimerID = timeSetEvent(static_cast<UINT>(nDelay), 0, _TimeProc, m_dwHandle, TIME_ONESHOT);
    const int nResult = m_uStartTimerID != 0 ? 1 : 0;
    if (!nResult) {
        _Report(QXN_TIMER_CREATE, 0, 0);
        *pbYours = _Withdraw();
    }
    _Unlock();
    return nResult;
}

int CWavePlay::_Withdraw()
{
    if (m_pTrack == nullptr) return 1; // never in the set
    CWaveOut* pOut = CWaveOut::_GetOutput(m_nDevice);
    if (pOut == nullptr) return 1; // no output left to claim it
    return pOut->_RemovePlayer(this);
}

// The timer's user value is the player's registry handle, never its address: the
// message may reach the manager after the player has gone.
void CALLBACK CWavePlay::_TimeProc(UINT, UINT, DWORD_PTR dwUser, DWORD_PTR, DWORD_PTR)
{
    CQuavix* pManager = CQuavix::GetQuavix();
    if (pManager == nullptr) return;
    PostMessageA(pManager->GetHWnd(), QXM_WAVEPLAY, dwUser, 0);
}

void CWavePlay::StartFromHandle(DWORD dwHandle)
{
    auto* pPlayer = static_cast<CWavePlay*>(QXAcquirePlayer(dwHandle));
    if (pPlayer == nullptr) return;
    // Pinned: a destruction on another thread waits until the start is over; one on
    // this thread (a self-deleting player whose start fails) does not, and the player
    // is not touched after _Start.
    pPlayer->_Start(true);
    QXReleasePlayer(dwHandle);
}

void CWavePlay::Start()
{
    _Start(false);
}

void CWavePlay::_Start(bool bFromTimer)
{
    CWavePlay* pDisplaced = nullptr;
    StopTail tail{};
    _Lock();
    if (!bFromTimer) m_nStartNs = 0; // the application's Start sounds now, not at a pending time
    if (_StartLocked(bFromTimer, &pDisplaced) < 0) tail = _StopLocked();
    _Unlock();
    // Outside every lock: its destruction waits for its own threads.
    delete pDisplaced;
    _FinishStop(tail);
}

int CWavePlay::_StartLocked(bool bFromTimer, CWavePlay** ppDisplaced)
{
    // A start by the timer that comes after a stop (or after another start) is stale.
    if (bFromTimer && m_uStartTimerID == 0) return 0;
    if (!m_bPrepared || !_CheckStatus()) return 0;
    m_uStartTimerID = 0;
    if (m_pTrack != nullptr) {
        // The track is taken over before the sound starts: a player that may not have
        // it (its track was deleted meanwhile) is stopped instead of sounding unowned.
        CWaveOut* pOut = CWaveOut::_GetOutput(m_nDevice);
        int bAttached = 0;
        CWavePlay* pOld = pOut != nullptr ? pOut->_AttachPlayer(this, m_WaveParams.dsParams, &bAttached) : nullptr;
        if (pOld != nullptr) {
#ifndef NDEBUG
            QXTrace("DELETING from WavePlay::Start %X\n", pOld->m_dwHandle);
#endif
            *ppDisplaced = pOld;
        }
        if (!bAttached) return -1;
#ifndef NDEBUG
        QXTrace("assigning %X to track %X\n", m_dwHandle, static_cast<unsigned>(m_WaveParams.nTrack));
#endif
    }
    const int64_t nStartNs = std::exchange(m_nStartNs, 0);
    const HRESULT hr = nStartNs != 0 ? qxplat::DirectSoundPlayBufferAt(m_pDSBuffer, DSBPLAY_LOOPING, nStartNs)
                                     : m_pDSBuffer->Play(0, 0, DSBPLAY_LOOPING);
    if (hr != DS_OK) {
        _Report(QXN_DS_START, static_cast<DWORD>(hr));
        return -1;
    }
    return 1;
}

void CWavePlay::SignalStart()
{
    // A closed handle makes SetEvent fail cleanly (handles are never reused).
    HANDLE h = m_hStartEvent.load();
    if (h != nullptr) SetEvent(h);
}

void CWavePlay::Stop()
{
    _Lock();
    const StopTail tail = _StopLocked();
    _Unlock();
    _FinishStop(tail);
}

CWavePlay::StopTail CWavePlay::_StopLocked()
{
    m_bStopping = 1;
    _EndPrepareThread(); // before anything it makes is looked at
    _Stop();
    _EndNotifyThread();
    _Close();
    StopTail tail{m_pfnDone, m_dwDoneUser, m_dwHandle, false};
    // Cleared here: at most one call per Play, even if the callback stops the player again.
    m_pfnDone = nullptr;
    if (m_bAutoDelete == 1 && !m_bDestroying) {
        m_bAutoDelete = 0;
        // Only a player still in the output's set is its own; otherwise the output has
        // claimed it and deletes it. Out of the set before the callback, so that
        // closing the devices there leaves it alone.
        CWaveOut* pOut = CWaveOut::_GetOutput(m_nDevice);
        tail.bDelete = pOut == nullptr || pOut->_RemovePlayer(this) != 0;
    }
    return tail;
}

void CWavePlay::_FinishStop(const StopTail& tail)
{
    if (tail.pfnDone != nullptr) CQuavix::_CallDone(tail.pfnDone, tail.dwUser, tail.dwHandle);
    if (tail.bDelete) delete this;
}

void CWavePlay::_Stop()
{
    if (_CheckStatus() != 1) return;
    const HRESULT hr = m_pDSBuffer->Stop();
    if (hr != DS_OK) _Report(QXN_DS_STOP, static_cast<DWORD>(hr));
}

void CWavePlay::_EndPrepareThread()
{
    HANDLE hThread = m_hPrepareThread;
    if (hThread == nullptr) return;
    m_hPrepareThread = nullptr;
    WaitForSingleObject(hThread, INFINITE);
    CloseHandle(hThread);
}

void CWavePlay::_Close()
{
    m_bPrepared = 0;
    if (m_uStartTimerID != 0) {
        timeKillEvent(m_uStartTimerID); // once it returns, the timer posts nothing more
        m_uStartTimerID = 0;
    }
    // Only the records this player's own Prepare made: a player that never got that
    // far has no performance of its own to remove.
    if (m_bAutoDelete && m_pTrack != nullptr) {
        if (CWaveOut* pOut = CWaveOut::_GetOutput(m_nDevice)) pOut->DeletePerformance(m_WaveParams.nPerformance, 0);
        m_pTrack = nullptr;
    }
    _Release();
}

void CWavePlay::_Release()
{
    if (HANDLE h = m_hStartEvent.exchange(nullptr)) CloseHandle(h);
    if (m_hPreparedEvent != nullptr) {
        CloseHandle(m_hPreparedEvent);
        m_hPreparedEvent = nullptr;
    }
    for (HANDLE& h : m_hNotifyEvents) {
        if (h != nullptr) {
            CloseHandle(h);
            h = nullptr;
        }
    }
    if (m_pSoundFile != nullptr) {
        delete m_pSoundFile;
        m_pSoundFile = nullptr;
    }
    if (m_pNotify != nullptr) {
        m_pNotify->Release();
        m_pNotify = nullptr;
    }
    if (m_pDSBuffer != nullptr) {
        m_pDSBuffer->Release();
        m_pDSBuffer = nullptr;
    }
    if (m_pDirectSound != nullptr) {
        m_pDirectSound->Release();
        m_pDirectSound = nullptr;
    }
}

void CWavePlay::SetBufferParameters(QX_DSParams& params)
{
    _Lock();
    _ApplyParameters(params);
    _Unlock();
}

int CWavePlay::CopyBufferParameters(QX_DSParams* pParams)
{
    _Lock();
    if (pParams != nullptr) *pParams = m_WaveParams.dsParams;
    const int bSounding = m_pDSBuffer != nullptr ? 1 : 0;
    _Unlock();
    return bSounding;
}

void CWavePlay::_ApplyParameters(const QX_DSParams& params)
{
    if (!_CheckStatus()) return;
    const bool bAll = !m_bPrepared;
    const QX_DSParams& now = m_WaveParams.dsParams;
    if (bAll || params.lFrequency != now.lFrequency) _SetFrequency(params.lFrequency);
    if (bAll || params.lVolume != now.lVolume) _SetVolume(params.lVolume);
    if (bAll || params.lPan != now.lPan) _SetPan(params.lPan);
}

void CWavePlay::_SetFrequency(int nValue)
{
    if (!_CheckStatus()) return;
    const QX_DevFormat* pFormat = m_pSoundFile != nullptr ? m_pSoundFile->GetFormat() : nullptr;
    const double r = pFormat != nullptr ? static_cast<double>(pFormat->nSamplesPerSec) : 0.0;
    double f = 0;
    if (nValue > 0)
        f = r + std::trunc((nValue / 10000.0) * (100000.0 - r));
    else if (nValue < 0)
        f = r + std::trunc((nValue / 10000.0) * (r - 100.0));
    if (nValue != 0) f = f > 100000.0 ? 100000.0 : (f < 100.0 ? 100.0 : f);
    const HRESULT hr = m_pDSBuffer->SetFrequency(static_cast<DWORD>(f));
    if (hr != DS_OK) _Report(QXN_DS_SETFREQUENCY, static_cast<DWORD>(hr));
    m_WaveParams.dsParams.lFrequency = nValue;
}

void CWavePlay::_SetVolume(int nValue)
{
    if (!_CheckStatus()) return;
    if (nValue > 0) nValue = 0;
    if (nValue < -10000) nValue = -10000;
    const HRESULT hr = m_pDSBuffer->SetVolume(nValue);
    if (hr != DS_OK) _Report(QXN_DS_SETVOLUME, static_cast<DWORD>(hr));
    m_WaveParams.dsParams.lVolume = nValue;
}

void CWavePlay::_SetPan(int nValue)
{
    if (!_CheckStatus()) return;
    if (nValue > 10000) nValue = 10000;
    if (nValue < -10000) nValue = -10000;
    const HRESULT hr = m_pDSBuffer->SetPan(nValue);
    if (hr != DS_OK) _Report(QXN_DS_SETPAN, static_cast<DWORD>(hr));
    m_WaveParams.dsParams.lPan = nValue;
}
