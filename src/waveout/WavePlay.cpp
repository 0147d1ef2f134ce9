// The streaming wave player: preparing, starting at once or by a timer, parameters,
// stopping and (for a player of PlayWaveFile) deleting itself.
//
// Who may free a player, and when: a player in its output's set is freed by whoever takes
// it out (CWaveOut::_RemovePlayer / the output's own claims); the prepare and
// notification threads are ended and joined by Stop before anything they use is
// released; the start message carries the registry handle, and a start by handle pins
// the player so that its destruction waits.
#include <quavix/QXNotify.h>
#include <quavix/QXPlayerRegistry.h>
#include <quavix/QXQuavix.h>
#include <quavix/QXWaveFile.h>
#include <quavix/QXWaveOut.h>
#include <quavix/QXWavePlay.h>

#include "platform/QXPlatform.h"
#include "platform/dsound/QXDSound.h"

#include <cmath>
#include <new>

namespace {

constexpr DWORD kPrepareTimeout = 30000;

} // namespace

CWavePlay::CWavePlay()
{
    _InitWavePlay();
    InitializeCriticalSection(&m_cs);
    m_dwHandle = QXRegisterPlayer(this, _SignalProc);
}

CWavePlay::~CWavePlay()
{
    // First of all: no start by handle can begin from now on, and one under way on
    // another thread has finished.
    QXUnregisterPlayer(this);
    EnterCriticalSection(&m_cs);
    m_bDestroying = 1;
    LeaveCriticalSection(&m_cs);
    Stop();
    if (CWaveOut* pOut = CWaveOut::_GetOutput(m_nDevice)) pOut->_RemovePlayer(this);
    m_pTrack = nullptr;
    // Left only when the player is destroyed on its own notification thread, which
    // cannot wait for itself: closing the handle lets the thread end on its own.
    if (m_hNotifyThread != nullptr) {
        CloseHandle(m_hNotifyThread);
        m_hNotifyThread = nullptr;
    }
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
    m_bInPlay = 0;
    m_bDeleteAfterPlay = 0;
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
    EnterCriticalSection(&m_cs);
    if (m_bPrepared) {
        LeaveCriticalSection(&m_cs);
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
    if (m_pTrack == nullptr) {
        LeaveCriticalSection(&m_cs);
        return 0;
    }
    m_hStartEvent = CreateEventA(nullptr, FALSE, FALSE, nullptr);
    if (m_hStartEvent == nullptr) {
        LeaveCriticalSection(&m_cs);
        return 0;
    }
    if (bWait) {
        m_hPreparedEvent = CreateEventA(nullptr, FALSE, FALSE, nullptr);
        if (m_hPreparedEvent == nullptr) {
            LeaveCriticalSection(&m_cs);
            return 0;
        }
    }
    m_hPrepareThread = CreateThread(nullptr, 0, __PrepareThread, this, 0, &m_dwPrepareThreadId);
    if (m_hPrepareThread == nullptr) {
        LeaveCriticalSection(&m_cs);
        return 0;
    }
    if (bWait) {
        // The thread signals as its last act, so it is joined at once. When the wait
        // runs out, the thread and its event stay until Stop joins it: it still uses
        // the player.
        if (WaitForSingleObject(m_hPreparedEvent, kPrepareTimeout) == WAIT_OBJECT_0) {
            WaitForSingleObject(m_hPrepareThread, INFINITE);
            CloseHandle(m_hPrepareThread);
            m_hPrepareThread = nullptr;
            CloseHandle(m_hPreparedEvent);
            m_hPreparedEvent = nullptr;
        }
    }
    const int nResult = bWait ? m_bPrepared.load() : 1;
    LeaveCriticalSection(&m_cs);
    return nResult;
}

DWORD WINAPI CWavePlay::__PrepareThread(void* pPlayer)
{
    return static_cast<CWavePlay*>(pPlayer)->_PrepareThread();
}

DWORD CWavePlay::_PrepareThread()
{
    m_pDirectSound = CWaveOut::DSGetDevice(m_nDevice);
    if (m_pDirectSound == nullptr) {
#ifndef NDEBUG
        QXTrace("CWavePlay: ERROR! wave out device %d is NULL\n", m_nDevice);
#endif
    } else {
        _PrepareBuffer();
    }
    // The handle stays for whoever joins this thread (Prepare, or Stop after a time-out).
    if (m_hPreparedEvent != nullptr) SetEvent(m_hPreparedEvent);
    return 0;
}

int CWavePlay::_PrepareBuffer()
{
    if (!_OpenSoundFile(m_WaveParams.dsParams.lpszFileName)) return 0;
    if (!_CreateSoundBuffer(m_WaveParams.dsParams)) return 0;
    for (int i = 0; i < 7; ++i) _WriteBuffer();
    SetBufferParameters(m_WaveParams.dsParams);
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
    EnterCriticalSection(&m_cs);
    m_bInPlay = 1;
    m_pfnDone = pfnDone;
    m_dwDoneUser = dwUser;
    m_bAutoDelete = bAutoDelete;
    if (!Prepare(pParams, nDevice, 1)) {
        m_bInPlay = 0;
        LeaveCriticalSection(&m_cs);
        return 0;
    }
    SetBufferParameters(pParams->dsParams);

    CQuavix* pManager = CQuavix::GetQuavix();
    const DWORD dwPlayStart = pManager != nullptr ? pManager->GetPlayStartTime() : 0;
    const DWORD dwElapsed = timeGetTime() - dwPlayStart;
    // Started early by the output's latency, so that the sound leaves the sink at its time,
    // in step with MIDI that goes out at its exact time; a start already due starts at
    // once. (Delaying the MIDI instead would make it late everywhere, even with no audio.)
    DWORD dwRate = 0;
    const DWORD dwLatencyFrames = qxplat::DirectSoundOutputLatencyFrames(m_pDirectSound, &dwRate);
    const auto nLatencyMs = dwRate != 0 ? static_cast<int32_t>(uint64_t{dwLatencyFrames} * 1000 / dwRate) : 0;
    const auto nDelay = static_cast<int32_t>(dwStartTime - dwElapsed) - nLatencyMs;
#ifndef NDEBUG
    QXTrace("play at %d, delay %d\n", static_cast<int>(dwStartTime), nDelay);
#endif
    if (dwStartTime == 0 || nDelay <= 0) {
        CWavePlay* pDisplaced = nullptr;
        // Started under the lock, so that nobody frees the player meanwhile. A failed
        // start stops it here; a self-deleting player is then deleted only below, once
        // Play has let go of it and touches nothing more.
        if (_StartLocked(false, &pDisplaced) < 0) Stop();
        const bool bDelete = m_bDeleteAfterPlay != 0;
        m_bDeleteAfterPlay = 0;
        m_bInPlay = 0;
        LeaveCriticalSection(&m_cs);
        delete pDisplaced;
        if (bDelete) delete this;
        return 1;
    }
    m_uStartTimerID = timeSetEvent(static_cast<UINT>(nDelay), 0, _TimeProc, m_dwHandle, TIME_ONESHOT);
    const int nResult = m_uStartTimerID != 0 ? 1 : 0;
    if (!nResult) QXNotifyShared(QXN_TIMER_CREATE, 0, 0);
    m_bInPlay = 0;
    LeaveCriticalSection(&m_cs);
    return nResult;
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
    EnterCriticalSection(&m_cs);
    const int nResult = _StartLocked(bFromTimer, &pDisplaced);
    LeaveCriticalSection(&m_cs);
    // Outside every lock: its destruction waits for its own threads.
    delete pDisplaced;
    if (nResult < 0) Stop();
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
    const HRESULT hr = m_pDSBuffer->Play(0, 0, DSBPLAY_LOOPING);
    if (hr != DS_OK) {
        QXNotifyShared(QXN_DS_START, static_cast<DWORD>(hr), static_cast<DWORD_PTR>(m_nDevice));
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
    EnterCriticalSection(&m_cs);
    m_bStopping = 1;
    // Off the track first: the output no longer applies parameters to the buffer that
    // is about to go.
    if (CWaveOut* pOut = CWaveOut::_GetOutput(m_nDevice)) pOut->_DetachPlayer(this);
    _EndPrepareThread(); // before anything it makes is looked at
    _Stop();
    _EndNotifyThread();
    _Close();
    bool bDelete = false;
    if (m_bAutoDelete == 1 && !m_bDestroying) {
        m_bAutoDelete = 0;
        // Only a player still in the output's set is its own; otherwise the output has
        // claimed it and deletes it.
        CWaveOut* pOut = CWaveOut::_GetOutput(m_nDevice);
        bDelete = pOut == nullptr || pOut->_RemovePlayer(this) != 0;
        if (bDelete && m_bInPlay) {
            m_bDeleteAfterPlay = 1;
            bDelete = false;
        }
    }
    LeaveCriticalSection(&m_cs);
    if (bDelete) delete this;
}

void CWavePlay::_Stop()
{
    if (_CheckStatus() != 1) return;
    const HRESULT hr = m_pDSBuffer->Stop();
    if (hr != DS_OK) QXNotifyShared(QXN_DS_STOP, static_cast<DWORD>(hr), static_cast<DWORD_PTR>(m_nDevice));
}

void CWavePlay::_EndPrepareThread()
{
    HANDLE hThread = m_hPrepareThread;
    if (hThread == nullptr) return;
    m_hPrepareThread = nullptr;
    // The prepare thread takes no lock, but the wait may be long (opening the file).
    LeaveCriticalSection(&m_cs);
    WaitForSingleObject(hThread, INFINITE);
    CloseHandle(hThread);
    EnterCriticalSection(&m_cs);
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
    if (m_pfnDone != nullptr) {
        // Cleared before the call: at most once per Play, even if the callback stops
        // the player again.
        QX_WaveDoneProc pfnDone = m_pfnDone;
        m_pfnDone = nullptr;
        pfnDone(m_dwDoneUser, m_dwHandle);
    }
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
}

void CWavePlay::SetBufferParameters(QX_DSParams& params)
{
    // No lock: the output calls it with its own lock held (see CWaveOut::_DetachPlayer).
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
    if (hr != DS_OK) QXNotifyShared(QXN_DS_SETFREQUENCY, static_cast<DWORD>(hr), static_cast<DWORD_PTR>(m_nDevice));
    m_WaveParams.dsParams.lFrequency = nValue;
}

void CWavePlay::_SetVolume(int nValue)
{
    if (!_CheckStatus()) return;
    if (nValue > 0) nValue = 0;
    if (nValue < -10000) nValue = -10000;
    const HRESULT hr = m_pDSBuffer->SetVolume(nValue);
    if (hr != DS_OK) QXNotifyShared(QXN_DS_SETVOLUME, static_cast<DWORD>(hr), static_cast<DWORD_PTR>(m_nDevice));
    m_WaveParams.dsParams.lVolume = nValue;
}

void CWavePlay::_SetPan(int nValue)
{
    if (!_CheckStatus()) return;
    if (nValue > 10000) nValue = 10000;
    if (nValue < -10000) nValue = -10000;
    const HRESULT hr = m_pDSBuffer->SetPan(nValue);
    if (hr != DS_OK) QXNotifyShared(QXN_DS_SETPAN, static_cast<DWORD>(hr), static_cast<DWORD_PTR>(m_nDevice));
    m_WaveParams.dsParams.lPan = nValue;
}
