// The performance engine: performances fill 100 ms periods ahead of the sound; their
// events are merged per output in time order and handed to the outputs period by period.
#include <quavix/QXQuavix.h>

#include "manager/QXManagerWalk.h"
#include "platform/QXPlatform.h"

#include <new>
#include <thread>

int CQuavix::StartPerformance(QX_PerformanceProc pCallback, DWORD_PTR dwUser, int bActive, int nTag)
{
    if (!m_bInitialized) return 0;
    EnterCriticalSection(&m_csDevices);
    auto* pRec = new (std::nothrow) QX_PerformanceRec{nTag != 0 ? nTag : GetUniqueTag(), bActive, pCallback, dwUser, 0};
    int nResult = 0;
    if (pRec != nullptr && m_Performances.AddTail(pRec) != nullptr)
        nResult = pRec->nTag;
    else
        delete pRec; // nothing registered: 0 tells the caller
    LeaveCriticalSection(&m_csDevices);
    return nResult;
}

void CQuavix::StopPerformance(int nTag)
{
    if (!m_bInitialized) return;
    EnterCriticalSection(&m_csDevices);
    for (POSITION pos = m_Performances.GetHeadPosition(); pos != nullptr;) {
        QX_PerformanceRec* pRec = m_Performances.GetNext(pos);
        if (nTag == -1 || pRec->nTag == nTag) pRec->bEnded = 1;
    }
    if (m_nWalkDepth == 0) _RemoveEndedPerformances();
    LeaveCriticalSection(&m_csDevices);
}

void CQuavix::_RemoveEndedPerformances()
{
    for (POSITION pos = m_Performances.GetHeadPosition(); pos != nullptr;) {
        POSITION here = pos;
        QX_PerformanceRec* pRec = m_Performances.GetNext(pos);
        if (pRec->bEnded) {
            m_Performances.RemoveAt(here);
            delete pRec;
        }
    }
}

void CQuavix::SetPrefetchBufferCount(int nBuffers)
{
    if (nBuffers == m_nPrefetchBuffers) return;
    m_nPrefetchBuffers = nBuffers < 2 ? 2 : nBuffers;
    m_dwLatency = static_cast<DWORD>(m_nPrefetchBuffers) * QX_PERFORMANCE_GRANULARITY;
}

void CQuavix::_PollPerformances()
{
    if (!m_bInitialized || WaitForSingleObject(m_hPollEvent, 5000) != WAIT_OBJECT_0) return;
    EnterCriticalSection(&m_csDevices);
    _PollLocked();
    LeaveCriticalSection(&m_csDevices);
    SetEvent(m_hPollEvent);
}

void CQuavix::_PollForTimingDevice(CQXDevice* pDevice)
{
    if (!m_bInitialized || WaitForSingleObject(m_hPollEvent, 5000) != WAIT_OBJECT_0) return;
    for (int nTry = 0; !TryEnterCriticalSection(&m_csDevices); ++nTry) {
        if (m_pTimingDevice.load() != pDevice) {
            SetEvent(m_hPollEvent);
            return;
        }
        if (nTry < 100)
            std::this_thread::yield();
        else
            Sleep(1);
    }
    _PollLocked();
    LeaveCriticalSection(&m_csDevices);
    SetEvent(m_hPollEvent);
}

// With the poll gate and the device lock held.
void CQuavix::_PollLocked()
{
    const DWORD dwStart = m_dwBufferTime, dwEnd = _GetNextBufferTime();
    _WalkPerformances([&](QX_PerformanceRec* pRec) {
        if (pRec->pCallback(pRec->dwUser, pRec->nTag, dwStart, dwEnd) == 0) pRec->bEnded = 1;
    });
    _WriteBuffers();
}

void CQuavix::_WriteBuffers()
{
    const DWORD dwEnd = _GetNextBufferTime();
    for (int nType = 0; nType < 2; ++nType)
        for (int n = 0; n < m_nDeviceCount[nType][QX_DEVDIR_OUT]; ++n) {
            CQXEventList* pList = _GetEventList(nType, n);
            if (pList == nullptr) continue;
            CQXDevice* pDevice = GetDevice(nType, QX_DEVDIR_OUT, n);
            if (!IsDeviceEnabled(nType, QX_DEVDIR_OUT, n) || pDevice == nullptr ||
                !pDevice->PlayData(pList, m_dwBufferTime, dwEnd))
                _EmptyEventList(pList);
        }
    m_dwBufferTime = dwEnd;
}

void CQuavix::_CatchUp()
{
    auto nAhead = static_cast<int32_t>(m_dwBufferTime - GetElapsedPlayTime());
    while (nAhead < static_cast<int32_t>(m_dwLatency)) {
        _PollPerformances();
        nAhead += static_cast<int32_t>(QX_PERFORMANCE_GRANULARITY);
    }
}

int CQuavix::_ChosenMidiOutput(int nDevice) const
{
    return m_bDefaultMidiDeviceEnabled ? m_nDefaultMidiDevice.load() : nDevice;
}

void CQuavix::PlayBuffer(CQXEventList& events)
{
    if (!m_bInitialized) {
        // Nothing can take the events; they are the manager's all the same.
        while (!events.IsEmpty()) delete events.RemoveHead();
        return;
    }
    EnterCriticalSection(&m_csDevices);
    while (!events.IsEmpty()) {
        CQXEventData* pEvent = events.RemoveHead();
        CQXEventList* pList = nullptr;
        switch (pEvent->m_nType) {
        case QX_EVENT_MIDI:
        case QX_EVENT_WAVESTART:
            pList = _GetEventList(QX_DEVTYPE_MIDI, _ChosenMidiOutput(pEvent->m_nDevice));
            break;
        case QX_EVENT_SYSEX:
            if (m_bDefaultMidiDeviceEnabled) {
                pList = _GetEventList(QX_DEVTYPE_MIDI, m_nDefaultMidiDevice);
                break;
            }
            pList = _GetEventList(QX_DEVTYPE_MIDI, pEvent->m_nDevice);
            // Every other output gets its own copy. The copies keep the event's time, so
            // that a message stamped for later goes out at that time everywhere.
            for (int n = 0; n < m_nDeviceCount[QX_DEVTYPE_MIDI][QX_DEVDIR_OUT]; ++n) {
                CQXEventList* pOther = _GetEventList(QX_DEVTYPE_MIDI, n);
                if (pOther == nullptr || pOther == pList) continue;
                auto* pCopy = new (std::nothrow) CQXEventData;
                if (pCopy == nullptr) continue;
                pCopy->SetSysExData(reinterpret_cast<const BYTE*>(pEvent->m_dwData),
                                    static_cast<DWORD>(pEvent->m_dwLength));
                if (pCopy->m_nType != QX_EVENT_SYSEX) {
                    delete pCopy; // the bytes could not be copied
                    continue;
                }
                pCopy->SetDevice(n);
                pCopy->SetTimeStamp(pEvent->m_dwTimeStamp);
                _MergeData(pCopy, pOther);
            }
            break;
        case QX_EVENT_WAVEDATA:
            pList = _GetEventList(QX_DEVTYPE_WAVE, pEvent->m_nDevice);
            break;
        default:
            break;
        }
        if (pList != nullptr)
            _MergeData(pEvent, pList);
        else
            delete pEvent;
    }
    LeaveCriticalSection(&m_csDevices);
}

void CQuavix::_MergeData(CQXEventData* pEvent, CQXEventList* pList)
{
    const bool bNoteOff = pEvent->m_nType == QX_EVENT_MIDI &&
                          ((pEvent->m_dwData & 0xF0) == 0x80 || (pEvent->m_dwData & 0x00FF00F0) == 0x90);
    const DWORD dwTime = pEvent->m_dwTimeStamp;
    for (POSITION pos = pList->GetTailPosition(); pos != nullptr;) {
        POSITION here = pos;
        DWORD dwOther = pList->GetPrev(pos)->m_dwTimeStamp;
        if (bNoteOff ? dwOther < dwTime : dwOther <= dwTime) {
            if (pList->InsertAfter(here, pEvent) == nullptr) delete pEvent;
            return;
        }
    }
    if (pList->AddHead(pEvent) == nullptr) delete pEvent;
}

CQXEventList* CQuavix::_GetEventList(int nType, int nDevice)
{
    if (nType == QX_DEVTYPE_MIDI) {
        if (nDevice < 0 || nDevice >= m_nDeviceCount[QX_DEVTYPE_MIDI][QX_DEVDIR_OUT] || m_pMidiOutLists == nullptr)
            return nullptr;
        return &m_pMidiOutLists[nDevice];
    }
    if (nType == QX_DEVTYPE_WAVE) {
        if (nDevice < 0 || nDevice >= m_nDeviceCount[QX_DEVTYPE_WAVE][QX_DEVDIR_OUT] || m_pWaveOutLists == nullptr)
            return nullptr;
        return &m_pWaveOutLists[nDevice];
    }
    return nullptr;
}

void CQuavix::_EmptyEventList(CQXEventList* pList)
{
    if (pList == nullptr) return;
    while (!pList->IsEmpty()) delete pList->RemoveHead();
}
