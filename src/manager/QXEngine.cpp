// The performance engine: performances fill 100 ms periods ahead of the sound; their
// events are merged per output in time order and handed to the outputs period by period.
#include <quavix/QXQuavix.h>
#include <quavix/QXWaveOut.h>

#include "manager/QXManagerWalk.h"
#include "platform/QXPlatform.h"

#include <algorithm>
#include <cstdint>
#include <new>
#include <thread>
#include <vector>

int CQuavix::StartPerformance(QX_PerformanceProc pCallback, DWORD_PTR dwUser, int bActive, int nTag)
{
    CallScope scope(this);
    // A null callback would be called at the next poll: refused, nothing registered.
    if (!scope.Live() || !m_bInitialized || pCallback == nullptr) return 0;
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
    CallScope scope(this);
    if (!scope.Live() || !m_bInitialized) return;
    EnterCriticalSection(&m_csDevices);
    for (POSITION pos = m_Performances.GetHeadPosition(); pos != nullptr;) {
        QX_PerformanceRec* pRec = m_Performances.GetNext(pos);
        if (nTag == -1 || pRec->nTag == nTag) pRec->bEnded = 1;
    }
    _DeleteWavePerformance(nTag);
    if (m_nWalkDepth == 0) _RemoveEndedPerformances();
    LeaveCriticalSection(&m_csDevices);
}

// With the device lock held, as every caller of the outputs' performance lists.
void CQuavix::_DeleteWavePerformance(int nTag)
{
    for (int n = 0; n < m_nDeviceCount[QX_DEVTYPE_WAVE][QX_DEVDIR_OUT]; ++n)
        if (auto* pOut = dynamic_cast<CWaveOut*>(GetDevice(QX_DEVTYPE_WAVE, QX_DEVDIR_OUT, n)))
            pOut->DeletePerformance(nTag, 1);
}

int CQuavix::SetWaveParams(QX_WaveParams* pParams)
{
    CallScope scope(this);
    if (!scope.Live() || !m_bInitialized) return 0;
    EnterCriticalSection(&m_csDevices);
    for (int n = 0; n < m_nDeviceCount[QX_DEVTYPE_WAVE][QX_DEVDIR_OUT]; ++n)
        if (auto* pOut = dynamic_cast<CWaveOut*>(GetDevice(QX_DEVTYPE_WAVE, QX_DEVDIR_OUT, n)))
            pOut->SetWaveParams(pParams);
    LeaveCriticalSection(&m_csDevices);
    return 1;
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
    // Bounded above so that the latency (and the signed lead the catch-up loop
    // compares it with) cannot wrap, and OpenDevices queues a bounded number of periods.
    m_nPrefetchBuffers = nBuffers < 2 ? 2 : nBuffers > QX_MAX_PREFETCH_BUFFERS ? QX_MAX_PREFETCH_BUFFERS : nBuffers;
    m_dwLatency = static_cast<DWORD>(m_nPrefetchBuffers) * QX_PERFORMANCE_GRANULARITY;
}

void CQuavix::_PollPerformances()
{
    CallScope scope(this);
    if (!scope.Live() || !m_bInitialized || WaitForSingleObject(m_hPollEvent, 5000) != WAIT_OBJECT_0) return;
    EnterCriticalSection(&m_csDevices);
    _PollLocked();
    LeaveCriticalSection(&m_csDevices);
    SetEvent(m_hPollEvent);
}

void CQuavix::_PollForTimingDevice(CQXDevice* pDevice)
{
    CallScope scope(this);
    if (!scope.Live() || !m_bInitialized || WaitForSingleObject(m_hPollEvent, 5000) != WAIT_OBJECT_0) return;
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
        if (pRec->pCallback(pRec->dwUser, pRec->nTag, dwStart, dwEnd) == 0) {
            pRec->bEnded = 1;
            _DeleteWavePerformance(pRec->nTag);
        }
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
    CallScope scope(this);
    if (!scope.Live() || !m_bInitialized) {
        // Nothing can take the events; they are the manager's all the same.
        while (!events.IsEmpty()) delete events.RemoveHead();
        return;
    }
    EnterCriticalSection(&m_csDevices);
    // The events are first routed into one batch per output list, in the order they
    // come; each batch is then merged into its list in one pass. The result is the
    // order that merging them one at a time gives, without its walk per event.
    const int nMidi = m_pMidiOutLists != nullptr ? m_nDeviceCount[QX_DEVTYPE_MIDI][QX_DEVDIR_OUT] : 0;
    const int nWave = m_pWaveOutLists != nullptr ? m_nDeviceCount[QX_DEVTYPE_WAVE][QX_DEVDIR_OUT] : 0;
    if (m_MergeBatches.size() < static_cast<size_t>(nMidi + nWave))
        m_MergeBatches.resize(static_cast<size_t>(nMidi + nWave));
    // Batch of MIDI output n, or of wave output n; -1 where there is no such list.
    auto Batch = [&](int nType, int n) {
        if (nType == QX_DEVTYPE_MIDI) return n >= 0 && n < nMidi ? n : -1;
        return n >= 0 && n < nWave ? nMidi + n : -1;
    };
    auto Add = [&](int nBatch, CQXEventData* pEvent) {
        try {
            m_MergeBatches[static_cast<size_t>(nBatch)].push_back(pEvent);
        } catch (const std::bad_alloc&) {
            delete pEvent; // dropped, like an event no list could take
        }
    };
    while (!events.IsEmpty()) {
        CQXEventData* pEvent = events.RemoveHead();
        int nBatch = -1;
        switch (pEvent->m_nType) {
        case QX_EVENT_MIDI:
        case QX_EVENT_WAVESTART:
            nBatch = Batch(QX_DEVTYPE_MIDI, _ChosenMidiOutput(pEvent->m_nDevice));
            break;
        case QX_EVENT_SYSEX:
            if (m_bDefaultMidiDeviceEnabled) {
                nBatch = Batch(QX_DEVTYPE_MIDI, m_nDefaultMidiDevice);
                break;
            }
            nBatch = Batch(QX_DEVTYPE_MIDI, pEvent->m_nDevice);
            // Every other output gets its own copy. The copies keep the event's time, so
            // that a message stamped for later goes out at that time everywhere.
            for (int n = 0; n < nMidi; ++n) {
                if (n == nBatch) continue;
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
                Add(n, pCopy);
            }
            break;
        case QX_EVENT_WAVEDATA:
            nBatch = Batch(QX_DEVTYPE_WAVE, pEvent->m_nDevice);
            break;
        default:
            break;
        }
        if (nBatch >= 0)
            Add(nBatch, pEvent);
        else
            delete pEvent;
    }
    for (int i = 0; i < nMidi + nWave; ++i) {
        std::vector<CQXEventData*>& batch = m_MergeBatches[static_cast<size_t>(i)];
        if (batch.empty()) continue;
        _MergeBatch(batch, i < nMidi ? &m_pMidiOutLists[i] : &m_pWaveOutLists[i - nMidi]);
        batch.clear();
    }
    LeaveCriticalSection(&m_csDevices);
}

namespace {

// A note-off goes before the events of its time already in the list; any other event
// after them.
bool IsNoteOff(const CQXEventData* pEvent)
{
    return pEvent->m_nType == QX_EVENT_MIDI &&
           ((pEvent->m_dwData & 0xF0) == 0x80 || (pEvent->m_dwData & 0x00FF00F0) == 0x90);
}

struct MergeKey {
    DWORD dwTime;
    bool bNoteOff;
    CQXEventData* pEvent;
};

// Stable sort by time, least significant byte first, skipping the bytes in which all
// the times agree (most batches span far less than 2^16 ms). Linear in the batch.
void SortByTime(std::vector<MergeKey>& keys, std::vector<MergeKey>& scratch)
{
    DWORD dwAny = 0, dwAll = ~0u;
    for (const MergeKey& k : keys) dwAny |= k.dwTime, dwAll &= k.dwTime;
    scratch.resize(keys.size());
    for (int nShift = 0; nShift < 32; nShift += 8) {
        if ((((dwAny ^ dwAll) >> nShift) & 0xFF) == 0) continue;
        size_t count[257] = {};
        for (const MergeKey& k : keys) ++count[((k.dwTime >> nShift) & 0xFF) + 1];
        for (int i = 0; i < 256; ++i) count[i + 1] += count[i];
        for (const MergeKey& k : keys) scratch[count[(k.dwTime >> nShift) & 0xFF]++] = k;
        keys.swap(scratch);
    }
}

} // namespace

void CQuavix::_MergeData(CQXEventData* pEvent, CQXEventList* pList)
{
    const bool bNoteOff = IsNoteOff(pEvent);
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

// The list is in time order (every insertion keeps it so). Merging one event at a time
// makes, for every time t, the new note-offs of t (latest first), then the events of t
// that were there, then the other new events of t in arrival order. Sorting the new
// events into that order and inserting them from the tail, last first, gives the same
// list; the walk back along the list is shared by all of them.
void CQuavix::_MergeBatch(std::vector<CQXEventData*>& events, CQXEventList* pList)
{
    if (events.size() == 1) {
        _MergeData(events[0], pList);
        return;
    }
    thread_local std::vector<MergeKey> keys, scratch;
    try {
        keys.reserve(events.size());
        scratch.reserve(events.size());
    } catch (const std::bad_alloc&) {
        for (CQXEventData* pEvent : events) _MergeData(pEvent, pList); // slower, same order
        return;
    }
    // Laid out in the order the events take among those of one time (note-offs, the
    // latest first; then the others as they came), then sorted stably by time.
    for (size_t i = events.size(); i-- > 0;)
        if (IsNoteOff(events[i])) keys.push_back({events[i]->m_dwTimeStamp, true, events[i]});
    for (CQXEventData* pEvent : events)
        if (!IsNoteOff(pEvent)) keys.push_back({pEvent->m_dwTimeStamp, false, pEvent});
    if (!std::is_sorted(keys.begin(), keys.end(),
                        [](const MergeKey& x, const MergeKey& y) { return x.dwTime < y.dwTime; }))
        SortByTime(keys, scratch);

    POSITION pos = pList->GetTailPosition();
    for (size_t i = keys.size(); i-- > 0;) {
        const MergeKey& key = keys[i];
        const bool bNoteOff = key.bNoteOff;
        // Back to the last old event that the new one follows; the new events already
        // placed lie after it, and the ones still to come sort before them.
        while (pos != nullptr) {
            DWORD dwOther = pList->GetAt(pos)->m_dwTimeStamp;
            if (bNoteOff ? dwOther < key.dwTime : dwOther <= key.dwTime) break;
            pList->GetPrev(pos);
        }
        POSITION added = pos != nullptr ? pList->InsertAfter(pos, key.pEvent) : pList->AddHead(key.pEvent);
        if (added == nullptr) delete key.pEvent;
    }
    keys.clear();
    scratch.clear();
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
