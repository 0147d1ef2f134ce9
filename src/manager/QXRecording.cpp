// Recordings and the MIDI thru settings.
#include <quavix/QXQuavix.h>

#include "platform/QXPlatform.h"

#include <algorithm>
#include <new>

int CQuavix::StartRecording(QX_RecordingProc pCallback, DWORD_PTR dwUser, int bActive)
{
    if (!m_bInitialized) return 0;
    EnterCriticalSection(&m_csRecording);
    _ApplyStoppedRecordings();
    auto* pRec = new (std::nothrow) QX_RecordingRec{GetUniqueTag(), bActive, pCallback, dwUser};
    int nResult = 0;
    if (pRec != nullptr && m_Recordings.AddTail(pRec) != nullptr)
        nResult = pRec->nTag;
    else
        delete pRec; // nothing registered: 0 tells the caller
    LeaveCriticalSection(&m_csRecording);
    return nResult;
}

void CQuavix::StopRecording(int nTag)
{
    if (!m_bInitialized) return;
    {
        std::lock_guard<std::mutex> lock(m_mxStoppedRecordings);
        m_StoppedRecordings.push_back(nTag);
    }
    // In slave mode this may run in a performance callback under the device lock while
    // a recording callback holds the recording lock and waits for the device lock: it
    // must not wait then. The stop is queued above, and whoever holds the recording
    // lock next (here, or the running ForwardRecordedData) carries it out; until then
    // the stopped recording's callback is no longer called.
    if (m_dwSyncMode == QX_SYNCMODE_SLAVE) {
        if (!TryEnterCriticalSection(&m_csRecording)) return;
    } else {
        EnterCriticalSection(&m_csRecording);
    }
    _ApplyStoppedRecordings();
    LeaveCriticalSection(&m_csRecording);
}

// With the recording lock held. Not while a walk of the list is under way on this
// thread (a callback stopping a recording): the walk removes them when it is over.
void CQuavix::_ApplyStoppedRecordings()
{
    if (m_nRecordingWalkDepth > 0) return;
    std::vector<int> stopped;
    {
        std::lock_guard<std::mutex> lock(m_mxStoppedRecordings);
        stopped.swap(m_StoppedRecordings);
    }
    for (int nTag : stopped)
        for (POSITION pos = m_Recordings.GetHeadPosition(); pos != nullptr;) {
            POSITION here = pos;
            QX_RecordingRec* pRec = m_Recordings.GetNext(pos);
            if (pRec->nTag == nTag) {
                m_Recordings.RemoveAt(here);
                delete pRec;
                break;
            }
        }
}

void CQuavix::ForwardRecordedData(CQXEventData* pEvent)
{
    if (!m_bInitialized) return;
    EnterCriticalSection(&m_csRecording);
    _ApplyStoppedRecordings();
    ++m_nRecordingWalkDepth;
    // Recordings started by a callback during the walk begin with the next event.
    POSITION last = m_Recordings.GetTailPosition();
    for (POSITION pos = m_Recordings.GetHeadPosition(); pos != nullptr;) {
        POSITION here = pos;
        QX_RecordingRec* pRec = m_Recordings.GetNext(pos);
        bool bStopped;
        {
            std::lock_guard<std::mutex> lock(m_mxStoppedRecordings);
            bStopped = std::find(m_StoppedRecordings.begin(), m_StoppedRecordings.end(), pRec->nTag) !=
                       m_StoppedRecordings.end();
        }
        // A recording stopped by an earlier callback of this walk is skipped; its
        // record goes once the walk is over.
        if (!bStopped) pRec->pCallback(pRec->dwUser, pRec->nTag, pEvent);
        if (here == last) break;
    }
    --m_nRecordingWalkDepth;
    _ApplyStoppedRecordings();
    LeaveCriticalSection(&m_csRecording);
}

void CQuavix::ConnectMidiThru(int nDevice, int nChannel)
{
    if (nDevice < GetDeviceCount(QX_DEVTYPE_MIDI, QX_DEVDIR_OUT) && nChannel < 16) {
        m_nMidiThruDevice = nDevice;
        m_nMidiThruChannel = nChannel;
    }
}
