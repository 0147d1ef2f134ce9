// The player's streaming engine: a looping buffer of eight segments, a position
// notification at the end of each, and a thread that refills each segment once it has
// played and stops the player when the data has played out.
#include <quavix/QXNotify.h>
#include <quavix/QXWaveFile.h>
#include <quavix/QXWavePlay.h>

#include "platform/QXPlatform.h"
#include "platform/dsound/QXDSound.h"

#include <atomic>
#include <cstring>

namespace {

constexpr DWORD kSegmentSize = 8192;
constexpr DWORD kSegments = 8;

// The player whose notification thread the calling thread is: that thread never waits
// for itself.
thread_local const CWavePlay* t_pNotifyPlayer = nullptr;

// Relaxed: a statistic read by benchmarks and tests, never a synchronisation.
std::atomic<uint64_t> g_lateRefills{0};

bool CursorInSegment(IDirectSoundBuffer* pBuffer, DWORD dwSegmentStart, DWORD dwSegmentSize)
{
    DWORD dwPlay = 0;
    if (pBuffer == nullptr || pBuffer->GetCurrentPosition(&dwPlay, nullptr) != DS_OK) return false;
    return dwPlay >= dwSegmentStart && dwPlay - dwSegmentStart < dwSegmentSize;
}

} // namespace

int CWavePlay::_CreateSoundBuffer(QX_DSParams&)
{
    if (m_pDSBuffer != nullptr) return 0;
    // 8192 bytes for every format whose frame size divides it. Frames of 3, 6 or 12
    // bytes (24-bit, or six channels) do not: a segment is then the whole frames that
    // fit, so that the ring holds whole frames and its wrap falls between two of them.
    const QX_DevFormat* pFormat = m_pSoundFile != nullptr ? m_pSoundFile->GetFormat() : nullptr;
    const DWORD dwAlign = pFormat != nullptr && pFormat->nBlockAlign != 0 ? pFormat->nBlockAlign : 1;
    m_dwSegmentSize = dwAlign <= kSegmentSize ? kSegmentSize - kSegmentSize % dwAlign : kSegmentSize;
    m_dwBufferSize = kSegments * m_dwSegmentSize;

    DSBUFFERDESC desc{};
    desc.dwSize = sizeof desc;
    desc.dwFlags = DSBCAPS_CTRLFREQUENCY | DSBCAPS_CTRLPAN | DSBCAPS_CTRLVOLUME | DSBCAPS_CTRLPOSITIONNOTIFY |
                   DSBCAPS_STICKYFOCUS | DSBCAPS_GLOBALFOCUS | DSBCAPS_GETCURRENTPOSITION2;
    desc.dwBufferBytes = m_dwBufferSize;
    desc.lpwfxFormat = reinterpret_cast<LPWAVEFORMATEX>(const_cast<QX_DevFormat*>(pFormat));
    HRESULT hr = m_pDirectSound != nullptr ? m_pDirectSound->CreateSoundBuffer(&desc, &m_pDSBuffer, nullptr)
                                           : DSERR_UNINITIALIZED;
    if (hr != DS_OK) {
        m_pDSBuffer = nullptr;
        _Report(QXN_DS_CREATEBUFFER, static_cast<DWORD>(hr));
        return 0;
    }
    hr = m_pDSBuffer->QueryInterface(IID_IDirectSoundNotify, reinterpret_cast<LPVOID*>(&m_pNotify));
    if (hr != DS_OK) {
        m_pNotify = nullptr;
        _Report(QXN_DS_QUERYNOTIFY, static_cast<DWORD>(hr));
        return 0;
    }
    for (HANDLE& h : m_hNotifyEvents) {
        h = CreateEventA(nullptr, FALSE, FALSE, nullptr);
        if (h == nullptr) return 0;
    }

    DSBPOSITIONNOTIFY positions[kSegments + 1];
    for (DWORD j = 0; j < kSegments; ++j) {
        positions[j].dwOffset = (j + 1) * m_dwSegmentSize;
        positions[j].hEventNotify = m_hNotifyEvents[0];
    }
    positions[kSegments - 1].dwOffset -= 1; // the buffer's last byte: its size is no offset
    positions[kSegments].dwOffset = DSBPN_OFFSETSTOP;
    positions[kSegments].hEventNotify = m_hNotifyEvents[1];

    m_hNotifyThread = CreateThread(nullptr, 0, __NotificationThread, this, 0, &m_dwNotifyThreadId);
    if (m_hNotifyThread == nullptr) return 0;

    hr = m_pNotify->SetNotificationPositions(kSegments + 1, positions);
    if (hr != DS_OK) {
        _Report(QXN_DS_SETNOTIFYPOSITIONS, static_cast<DWORD>(hr));
        return 0;
    }
    return 1;
}

int CWavePlay::_WriteBuffer()
{
    if (!_CheckStatus()) return 0;
    auto report = [&](DWORD dwCode, HRESULT hr) { _Report(dwCode, static_cast<DWORD>(hr)); };
    LPVOID p1 = nullptr, p2 = nullptr;
    DWORD cb1 = 0, cb2 = 0;
    HRESULT hr = m_pDSBuffer->Lock(m_dwWritePos, m_dwSegmentSize, &p1, &cb1, &p2, &cb2, 0);
    if (hr != DS_OK) {
        report(QXN_DS_LOCK, hr);
        return 0;
    }
    // A segment locked at a segment boundary never wraps: the second region is empty.
    const int nGot = m_pSoundFile != nullptr ? m_pSoundFile->Read(static_cast<unsigned char*>(p1), static_cast<int>(cb1))
                                             : -1;
    // The reader pads with 0x80 bytes for every width but 16 bits; that is silence only
    // for 8-bit samples. For wider ones it is a loud offset, a thump at the end of every
    // such file, so the padding is made true silence here.
    if (nGot >= 0 && static_cast<DWORD>(nGot) < cb1) {
        const QX_DevFormat* pFormat = m_pSoundFile->GetFormat();
        if (pFormat != nullptr && pFormat->wBitsPerSample > 16)
            std::memset(static_cast<unsigned char*>(p1) + nGot, 0, cb1 - static_cast<DWORD>(nGot));
    }
    hr = m_pDSBuffer->Unlock(p1, cb1, p2, cb2);
    if (hr != DS_OK) {
        report(QXN_DS_UNLOCK, hr);
        return 0;
    }
    if (nGot < 0) {
#ifndef NDEBUG
        QXTrace("CWavePlay: ERROR reading file\n");
#endif
        return 0; // the same segment is written again next time
    }
    if (nGot == 0) m_bEndOfData = 1;
    m_dwWritePos += m_dwSegmentSize;
    if (m_dwWritePos >= m_dwBufferSize) m_dwWritePos -= m_dwBufferSize;
    if (!m_bEndOfData) ++m_nPendingSegments;
    return 1;
}

int CWavePlay::_CheckStatus()
{
    if (m_pDSBuffer == nullptr) return 0;
    DWORD dwStatus = 0;
    m_pDSBuffer->GetStatus(&dwStatus);
    if (dwStatus & DSBSTATUS_BUFFERLOST) m_pDSBuffer->Restore();
    return 1;
}

DWORD WINAPI CWavePlay::__NotificationThread(void* pPlayer)
{
    return static_cast<CWavePlay*>(pPlayer)->_NotificationThread();
}

DWORD CWavePlay::_NotificationThread()
{
    t_pNotifyPlayer = this;
    for (bool bOver = false; !bOver;) {
        const DWORD dwResult = WaitForMultipleObjects(3, m_hNotifyEvents, FALSE, INFINITE);
        switch (dwResult) {
        case WAIT_FAILED:
            bOver = true;
            break;
        case WAIT_OBJECT_0:
            if (CursorInSegment(m_pDSBuffer, m_dwWritePos, m_dwSegmentSize))
                g_lateRefills.fetch_add(1, std::memory_order_relaxed);
            _WriteBuffer();
            if (--m_nPendingSegments < 0) bOver = true;
            ++m_nSegmentEnds; // last: a reader that sees it sees the refill and the count
            break;
        case WAIT_OBJECT_0 + 1:
#ifndef NDEBUG
            QXTrace("CWavePlay: stop notify %x\n", m_dwHandle);
#endif
            bOver = true;
            break;
        case WAIT_OBJECT_0 + 2:
#ifndef NDEBUG
            QXTrace("CWavePlay: terminate thread notification %x\n", m_dwHandle);
#endif
            bOver = true;
            break;
        default:
#ifndef NDEBUG
            QXTrace("CWavePlay: ERROR! Notify thread gets wierd result: %d\n", static_cast<int>(dwResult));
#endif
            break;
        }
    }
    // The handle is not closed here: whoever stops the player joins this thread first.
    _StopFromNotifyThread(); // may delete the player: nothing of it is touched after
    t_pNotifyPlayer = nullptr;
    return 0;
}

void CWavePlay::_StopFromNotifyThread()
{
    // Whoever else stops the player sets m_bStopping first and then waits for this
    // thread with m_cs held: so this thread never blocks on m_cs, it tries it until it
    // has it or sees that stop.
    for (;;) {
        if (m_bStopping) return;
        if (TryEnterCriticalSection(&m_cs)) break;
        Sleep(1);
    }
    if (m_nLockDepth++ == 0) m_dwLockOwner = GetCurrentThreadId();
    StopTail tail{};
    if (!m_bStopping) tail = _StopLocked();
    _Unlock();
    _FinishStop(tail);
}

uint64_t CWavePlay::LateRefills()
{
    return g_lateRefills.load(std::memory_order_relaxed);
}

bool CWavePlay::_IsNotifyThread() const
{
    return t_pNotifyPlayer == this;
}

void CWavePlay::_EndNotifyThread()
{
    if (m_hNotifyEvents[2] != nullptr) SetEvent(m_hNotifyEvents[2]);
    // The thread stopping its own player cannot wait for itself; its handle stays until
    // the player is destroyed or played again.
    if (_IsNotifyThread()) return;
    HANDLE hThread = m_hNotifyThread;
    if (hThread == nullptr) return;
    m_hNotifyThread = nullptr;
    WaitForSingleObject(hThread, INFINITE);
    CloseHandle(hThread);
}
