// Slave sync: an external MIDI clock drives the performances.
#include <quavix/QXQuavix.h>

#include "manager/QXManagerWalk.h"
#include "platform/QXPlatform.h"

void CQuavix::_SyncPerformances(int nCode, DWORD dwA, DWORD dwB)
{
    EnterCriticalSection(&m_csDevices);
    const DWORD dwStart = m_dwBufferTime, dwEnd = _GetNextBufferTime();
    _WalkPerformances([&](QX_PerformanceRec* pRec) {
        if (nCode == QX_SYNC_CLOCK)
            pRec->pCallback(pRec->dwUser, nCode, dwA, dwB);
        else
            pRec->pCallback(pRec->dwUser, nCode, dwStart, dwEnd);
    });
    LeaveCriticalSection(&m_csDevices);
}

// The streams and what they hold are discarded; the outputs are open and ready again.
void CQuavix::_ReopenMidiOutputs()
{
    for (int n = 0; n < m_nDeviceCount[QX_DEVTYPE_MIDI][QX_DEVDIR_OUT]; ++n) {
        CloseDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_OUT, n);
        OpenDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_OUT, n);
    }
}

void CQuavix::SetSyncMode(DWORD dwMode)
{
    CallScope scope(this);
    if (!scope.Live() || !m_bInitialized) return;
    const DWORD dwOld = m_dwSyncMode;
    if (dwMode > QX_SYNCMODE_SLAVE) return; // refused: the mode stays
    m_dwSyncMode = dwMode;
    if (dwMode == dwOld || (dwMode != QX_SYNCMODE_SLAVE && dwOld != QX_SYNCMODE_SLAVE)) return;
    if (dwMode != QX_SYNCMODE_SLAVE) {
        OpenDevices();
        StartDevices();
        return;
    }
    _SyncPerformances(QX_SYNC_STOP, 0, 0);
    EnterCriticalSection(&m_csDevices);
    _ReopenMidiOutputs();
    m_dwBufferTime = 0;
    LeaveCriticalSection(&m_csDevices);
}

void CQuavix::QueueSlavedPerformance()
{
    CallScope scope(this);
    if (!scope.Live() || !m_bInitialized || m_dwSyncMode != QX_SYNCMODE_SLAVE) return;
    EnterCriticalSection(&m_csDevices);
    _ReopenMidiOutputs();
    m_dwBufferTime = 0;
    LeaveCriticalSection(&m_csDevices);
    for (int i = 0; i < m_nPrefetchBuffers; ++i) _PollPerformances();
}

void CQuavix::_SyncStop()
{
    EnterCriticalSection(&m_csDevices);
    _SyncPerformances(QX_SYNC_STOP, 0, 0);
    _ReopenMidiOutputs();
    for (POSITION pos = m_Performances.GetHeadPosition(); pos != nullptr;) m_Performances.GetNext(pos)->bEnded = 1;
    if (m_nWalkDepth == 0) _RemoveEndedPerformances();
    // Still under the lock: an application that queues anew as soon as it sees the stop
    // must not have its first period's time reset under it.
    m_dwBufferTime = 0;
    LeaveCriticalSection(&m_csDevices);
}
