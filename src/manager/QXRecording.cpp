// Recordings and the MIDI thru settings.
#include <quavix/QXMidiOut.h>
#include <quavix/QXQuavix.h>
#include <quavix/QXWavePlay.h>

#include "platform/QXPlatform.h"

#include <algorithm>
#include <new>

int CQuavix::StartRecording(QX_RecordingProc pCallback, DWORD_PTR dwUser, int bActive)
{
    CallScope scope(this);
    // A null callback would be called with the next recorded event: refused.
    if (!scope.Live() || !m_bInitialized || pCallback == nullptr) return 0;
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
    CallScope scope(this);
    if (!scope.Live() || !m_bInitialized) return;
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
    CallScope scope(this);
    if (!scope.Live() || !m_bInitialized) return;
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

int CQuavix::MidiThruEnabled() const
{
    CallScope scope(this);
    return scope.Live() ? m_bMidiThru.load() : 0;
}

int CQuavix::GetMidiThruDevice() const
{
    CallScope scope(this);
    return scope.Live() ? m_nMidiThruDevice.load() : -1;
}

int CQuavix::GetMidiThruChannel() const
{
    CallScope scope(this);
    return scope.Live() ? m_nMidiThruChannel.load() : -1;
}

void CQuavix::ConnectMidiThru(int nDevice, int nChannel)
{
    if (nDevice < GetDeviceCount(QX_DEVTYPE_MIDI, QX_DEVDIR_OUT) && nChannel < 16) {
        m_nMidiThruDevice = nDevice;
        m_nMidiThruChannel = nChannel;
    }
}

void CQuavix::SendMidiMsg(UINT nDevice, DWORD dwMsg, int bQueued)
{
    CallScope scope(this);
    if (!scope.Live() || !m_bInitialized) return;
    const int n = _ChosenMidiOutput(static_cast<int>(nDevice));
    if (!bQueued) {
        if (auto* pOut = static_cast<CMidiOut*>(GetDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_OUT, n))) pOut->PlayMidi(dwMsg);
        return;
    }
    EnterCriticalSection(&m_csDevices);
    if (CQXEventList* pList = _GetEventList(QX_DEVTYPE_MIDI, n)) {
        if (auto* pEvent = new (std::nothrow) CQXEventData) {
            pEvent->SetMidiData(dwMsg);
            pEvent->SetDevice(n);
            if (pList->AddHead(pEvent) == nullptr) delete pEvent;
        }
    }
    LeaveCriticalSection(&m_csDevices);
}

void CQuavix::SendMidiNote(UINT nDevice, DWORD dwNoteOn, DWORD dwNoteOff, DWORD dwDuration, int bQueued)
{
    CallScope scope(this);
    if (!scope.Live() || !m_bInitialized) return;
    const int n = _ChosenMidiOutput(static_cast<int>(nDevice));
    if (!bQueued) {
        // The output makes the note-off itself, from the note-on with velocity 0.
        if (auto* pOut = static_cast<CMidiOut*>(GetDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_OUT, n)))
            pOut->PlayNote(dwNoteOn, dwDuration);
        return;
    }
    EnterCriticalSection(&m_csDevices);
    CQXEventList* pList = _GetEventList(QX_DEVTYPE_MIDI, n);
    auto* pOn = pList ? new (std::nothrow) CQXEventData : nullptr;
    auto* pOff = pOn ? new (std::nothrow) CQXEventData : nullptr;
    if (pOff != nullptr && pList->AddHead(pOn) != nullptr) {
        pOn->SetMidiData(dwNoteOn);
        pOn->SetDevice(n);
        pOff->SetMidiData(dwNoteOff);
        pOff->SetDevice(n);
        pOff->SetTimeStamp(m_dwBufferTime + dwDuration);
        // From the tail, after the first event not later than it; the note-on at the head
        // always qualifies.
        for (POSITION pos = pList->GetTailPosition(); pos != nullptr;) {
            POSITION here = pos;
            if (pList->GetPrev(pos)->m_dwTimeStamp <= pOff->m_dwTimeStamp) {
                if (pList->InsertAfter(here, pOff) == nullptr) delete pOff;
                pOff = nullptr;
                break;
            }
        }
        delete pOff; // only when nothing qualified, which the note-on prevents
    } else {
        delete pOn;
        delete pOff;
    }
    LeaveCriticalSection(&m_csDevices);
}

void CQuavix::SendSysExMsg(UINT nDevice, const BYTE* pData, int nLength, int bQueued)
{
    CallScope scope(this);
    if (!scope.Live() || !m_bInitialized) return;
    const int n = _ChosenMidiOutput(static_cast<int>(nDevice));
    if (!bQueued) {
        if (auto* pOut = static_cast<CMidiOut*>(GetDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_OUT, n)))
            pOut->PlaySysEx(pData, nLength);
        return;
    }
    EnterCriticalSection(&m_csDevices);
    if (CQXEventList* pList = _GetEventList(QX_DEVTYPE_MIDI, n)) {
        if (auto* pEvent = new (std::nothrow) CQXEventData) {
            if (nLength > 0) pEvent->SetSysExData(pData, static_cast<DWORD>(nLength));
            pEvent->SetDevice(n);
            if (pList->AddHead(pEvent) == nullptr) delete pEvent;
        }
    }
    LeaveCriticalSection(&m_csDevices);
}

int CQuavix::PlayWaveFile(const char* pszFileName, int nDevice, void (*pCallback)(DWORD_PTR, DWORD),
                          DWORD_PTR dwUser)
{
    CallScope scope(this);
    if (!scope.Live() || !m_bInitialized) return 0;
    const int nTag = GetUniqueTag();
    QX_WaveParams params{};
    params.nPerformance = nTag;
    params.nTrack = 0;
    params.dsParams.lpszFileName = pszFileName;
    auto* pPlayer = new (std::nothrow) CWavePlay;
    if (pPlayer == nullptr) return 0;
    // A self-deleting player: once Play succeeds it is its own, and is not touched here.
    // A failed one is deleted here only while it is still ours: a close of the output
    // meanwhile may have claimed it, and then deletes it itself.
    int bYours = 1;
    if (pPlayer->_Play(&params, nDevice, 0, pCallback, dwUser, 1, &bYours)) return nTag;
    if (bYours) delete pPlayer;
    return 0;
}

void CQuavix::OnPanicButton()
{
    CallScope scope(this);
    if (!scope.Live() || !m_bInitialized) return;
    for (int d = 0; d < m_nDeviceCount[QX_DEVTYPE_MIDI][QX_DEVDIR_OUT]; ++d) {
        for (DWORD ch = 0; ch < 16; ++ch) {
            for (DWORD k = 0; k < 128; ++k) SendMidiMsg(static_cast<UINT>(d), 0x90 | ch | (k << 8), 0);
            SendMidiMsg(static_cast<UINT>(d), 0x79B0 | ch, 0);
            SendMidiMsg(static_cast<UINT>(d), 0x7BB0 | ch, 0);
        }
        SendMidiMsg(static_cast<UINT>(d), 0xFF, 0);
    }
}
