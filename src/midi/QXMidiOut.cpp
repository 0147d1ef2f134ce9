#include <quavix/QXMidiOut.h>
#include <quavix/QXMidiStreamBuffer.h>
#include <quavix/QXPlayerRegistry.h>
#include <quavix/QXQuavix.h>

#include "platform/QXPlatform.h"

#include <cstdint>
#include <cstring>
#include <new>
#include <vector>

namespace {

// SMPTE, 25 frames per second of 40 ticks: one tick is one millisecond.
constexpr DWORD kMillisecondTimeDiv = 0xFFFFE728u;

DWORD NoteOff(DWORD dwMsg)
{
    return dwMsg & 0xFF00FFFFu;
}

// The closing no-op every stream buffer ends with.
constexpr uint64_t kNoOpBytes = 12;

// Of two times, the later; by signed difference, so that it holds across the 2^32 wrap.
DWORD Later(DWORD a, DWORD b)
{
    return static_cast<int32_t>(b - a) > 0 ? b : a;
}

} // namespace

CMidiOut::CMidiOut()
{
    InitializeCriticalSection(&m_csNotes);
}

CMidiOut::~CMidiOut()
{
    EnterCriticalSection(&m_csNotes);
    UINT uTimer = m_uNoteTimerID;
    m_uNoteTimerID = 0;
    LeaveCriticalSection(&m_csNotes);
    // The pending note-offs are not sent. The kill waits for a running callback, which
    // takes the note lock, so it happens outside it.
    if (uTimer != 0) timeKillEvent(uTimer);
    // No open stream may outlive this object: its callback names it. Closing through
    // this class's own hooks needs the worker thread for the returned buffers, so the
    // thread ends after.
    Close();
    ThreadStop();
    DeleteCriticalSection(&m_csNotes);
}

int CMidiOut::GetDeviceCaps(int nDevice, QX_DevCaps* pCaps)
{
    if (pCaps == nullptr) return 0;
    MMRESULT r = midiOutGetDevCapsA(static_cast<UINT_PTR>(nDevice), &pCaps->midiOut, sizeof(MIDIOUTCAPSA));
    if (r != MMSYSERR_NOERROR) {
        QXNotifyShared(QXN_MIDIOUT_GETCAPS, r, static_cast<DWORD_PTR>(nDevice));
        return 0;
    }
    return 1;
}

int CMidiOut::DevOpen()
{
    m_dwStreamFlags.fetch_and(~STREAM_RUNNING);
    HMIDISTRM hStream = nullptr;
    UINT uDevice = static_cast<UINT>(m_nDevice.load());
    MMRESULT r = midiStreamOpen(&hStream, &uDevice, 1, reinterpret_cast<DWORD_PTR>(_MidiOutProc),
                                reinterpret_cast<DWORD_PTR>(this), CALLBACK_FUNCTION);
    if (r != MMSYSERR_NOERROR) {
        QXNotifyShared(QXN_MIDIOUT_OPEN, r, static_cast<DWORD_PTR>(m_nDevice.load()));
        return 0;
    }
    m_hDevice = hStream;
    MIDIPROPTIMEDIV prop{sizeof(MIDIPROPTIMEDIV), kMillisecondTimeDiv};
    r = midiStreamProperty(hStream, reinterpret_cast<LPBYTE>(&prop), MIDIPROP_SET | MIDIPROP_TIMEDIV);
    if (r != MMSYSERR_NOERROR) {
        QXNotifyShared(QXN_MIDIOUT_SETTIMING, r, static_cast<DWORD_PTR>(m_nDevice.load()));
        DevClose();
        return 0;
    }
    m_nBuffersOut = 0;
    m_hBuffersDone = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    m_dwStreamFlags.fetch_or(STREAM_READY);
    return 1;
}

int CMidiOut::DevStart()
{
    m_dwStreamFlags.fetch_and(~STREAM_READY);
    MMRESULT r = midiStreamRestart(static_cast<HMIDISTRM>(m_hDevice.load()));
    if (r != MMSYSERR_NOERROR) {
        QXNotifyShared(QXN_MIDIOUT_START, r, static_cast<DWORD_PTR>(m_nDevice.load()));
        return 0;
    }
    m_dwStreamFlags.fetch_or(STREAM_RUNNING);
    return 1;
}

int CMidiOut::DevPause()
{
    m_dwStreamFlags = 0;
    MMRESULT r = midiStreamPause(static_cast<HMIDISTRM>(m_hDevice.load()));
    if (r != MMSYSERR_NOERROR) {
        QXNotifyShared(QXN_MIDIOUT_PAUSE, r, static_cast<DWORD_PTR>(m_nDevice.load()));
        return 0;
    }
    return 1;
}

int CMidiOut::DevStop()
{
    m_dwStreamFlags = 0;
    MMRESULT r = midiStreamStop(static_cast<HMIDISTRM>(m_hDevice.load()));
    if (r != MMSYSERR_NOERROR) {
        QXNotifyShared(QXN_MIDIOUT_STOP, r, static_cast<DWORD_PTR>(m_nDevice.load()));
        return 0;
    }
    // The returned buffers are finished on the worker thread; wait for them unless this
    // is that thread, which could not finish them while waiting.
    if (m_nBuffersOut > 0 && GetCurrentThreadId() != m_dwThreadId) {
        WaitForSingleObject(m_hBuffersDone, 5000);
        ResetEvent(m_hBuffersDone);
    }
    return 1;
}

int CMidiOut::DevClose()
{
    m_dwStreamFlags = 0;
    MMRESULT r = midiStreamClose(static_cast<HMIDISTRM>(m_hDevice.load()));
    if (r != MMSYSERR_NOERROR) {
        QXNotifyShared(QXN_MIDIOUT_CLOSE, r, static_cast<DWORD_PTR>(m_nDevice.load()));
        return 0;
    }
    if (m_hBuffersDone != nullptr) CloseHandle(m_hBuffersDone);
    m_hBuffersDone = nullptr;
    return 1;
}

int CMidiOut::PlayData(CQXEventList* pEvents, DWORD dwStart, DWORD dwEnd)
{
    CQuavix* pManager = CQuavix::GetQuavix();
    const bool bSlave = pManager != nullptr && pManager->GetSyncMode() == QX_SYNCMODE_SLAVE;
    if (m_dwStreamFlags.load() == 0 && !bSlave) return 0;
    // A period whose events need more than the stream takes in one buffer goes out in
    // consecutive buffers, each ending where the next begins, so that their deltas still
    // add up to the period. The timing device paces the engine with one poll per period,
    // so only the period's last buffer polls when it comes back (OnMidiOutDone). An event
    // larger than any buffer cannot be played: it is dropped and reported as 305 with the
    // result the platform gives a buffer over its limit, and the rest of the period plays.
    const auto dwDevice = static_cast<DWORD_PTR>(m_nDevice.load());
    std::vector<CQXEventData*> part;
    DWORD dwFrom = dwStart;
    for (bool bFirst = true;; bFirst = false) {
        uint64_t cbPart = kNoOpBytes;
        DWORD dwLatest = dwFrom;
        bool bContinued = false;
        while (!pEvents->IsEmpty()) {
            CQXEventData* pEvent = pEvents->GetHead();
            if (pEvent->m_dwTimeStamp >= dwEnd) break;
            const uint64_t cbEvent = (uint64_t{pEvent->m_dwStreamWords} + 3) * 4;
            if (cbEvent + kNoOpBytes > MIDI_STREAM_MAX_BUFFER) {
                pEvents->RemoveHead();
                delete pEvent;
                QXNotifyShared(QXN_MIDIOUT_PREPARE, MMSYSERR_INVALPARAM, dwDevice);
                continue;
            }
            if (cbPart + cbEvent > MIDI_STREAM_MAX_BUFFER) {
                bContinued = true;
                break;
            }
            pEvents->RemoveHead();
            part.push_back(pEvent);
            cbPart += cbEvent;
            dwLatest = Later(dwLatest, pEvent->m_dwTimeStamp);
        }
        // The next part begins at its first event, or after this part's latest one.
        const DWORD dwTo = bContinued ? Later(dwLatest, pEvents->GetHead()->m_dwTimeStamp) : dwEnd;
        auto* pBuffer = new (std::nothrow) CMidiStreamBuffer(dwFrom, dwTo);
        if (pBuffer == nullptr) {
            for (CQXEventData* pEvent : part) delete pEvent;
            return bFirst ? 0 : 1;
        }
        for (CQXEventData* pEvent : part) pBuffer->AddStreamData(pEvent);
        part.clear();
        pBuffer->SetContinued(bContinued);
        pBuffer->CapStreamBuffer();
        MIDIHDR* pHeader = pBuffer->GetStreamHeader();
        if (pHeader->lpData == nullptr) {
            // No memory for it: dropped with its events rather than handed to the stream
            // without data.
            QXNotifyShared(QXN_MIDIOUT_PREPARE, MMSYSERR_NOMEM, dwDevice);
            delete pBuffer;
        } else if (!PlayBuffer(pHeader)) {
            delete pBuffer; // never queued: nothing will hand it back
        }
        if (!bContinued) return 1;
        dwFrom = dwTo;
    }
}

int CMidiOut::PlayBuffer(MIDIHDR* pHeader)
{
    auto hStream = static_cast<HMIDISTRM>(m_hDevice.load());
    MMRESULT r = midiOutPrepareHeader(reinterpret_cast<HMIDIOUT>(hStream), pHeader, sizeof(MIDIHDR));
    if (r != MMSYSERR_NOERROR) {
        QXNotifyShared(QXN_MIDIOUT_PREPARE, r, static_cast<DWORD_PTR>(m_nDevice.load()));
        return 0;
    }
    // Counted before it is queued, so that a buffer returned at once cannot take the
    // count below zero.
    ++m_nBuffersOut;
    ResetEvent(m_hBuffersDone);
    r = midiStreamOut(hStream, pHeader, sizeof(MIDIHDR));
    if (r != MMSYSERR_NOERROR) {
        QXNotifyShared(QXN_MIDIOUT_SEND, r, static_cast<DWORD_PTR>(m_nDevice.load()));
        midiOutUnprepareHeader(reinterpret_cast<HMIDIOUT>(hStream), pHeader, sizeof(MIDIHDR));
        if (--m_nBuffersOut < 1) SetEvent(m_hBuffersDone);
        return 0;
    }
    return 1;
}

void CMidiOut::FinishBuffer(MIDIHDR* pHeader)
{
    MMRESULT r = midiOutUnprepareHeader(static_cast<HMIDIOUT>(m_hDevice.load()), pHeader, sizeof(MIDIHDR));
    if (r != MMSYSERR_NOERROR) QXNotifyShared(QXN_MIDIOUT_UNPREPARE, r, static_cast<DWORD_PTR>(m_nDevice.load()));
    delete CMidiStreamBuffer::GetBufferFromHeader(pHeader);
    if (--m_nBuffersOut < 1) SetEvent(m_hBuffersDone);
}

void CALLBACK CMidiOut::_MidiOutProc(HMIDIOUT, UINT uMsg, DWORD_PTR dwInstance, DWORD_PTR dwParam1, DWORD_PTR dwParam2)
{
    auto* pThis = reinterpret_cast<CMidiOut*>(dwInstance);
    if (uMsg == MOM_POSITIONCB) {
        auto* pHeader = reinterpret_cast<MIDIHDR*>(dwParam1);
        DWORD ev[5];
        if (pHeader->dwOffset + sizeof ev > pHeader->dwBytesRecorded) return;
        std::memcpy(ev, pHeader->lpData + pHeader->dwOffset, sizeof ev);
        if ((ev[2] & 0xFF000000u) == CMidiStreamBuffer::STRMBUF_LONG_CALLBACK && ev[3] == 1) QXSignalPlayer(ev[4]);
        return;
    }
    // A long message of PlaySysEx comes back at once and is its caller's to free.
    if (uMsg == MOM_DONE && !(reinterpret_cast<MIDIHDR*>(dwParam1)->dwFlags & MHDR_ISSTRM)) return;
    PostMessageA(pThis->m_hWnd, uMsg, dwParam1, static_cast<LPARAM>(dwParam2));
}

LRESULT CMidiOut::WndProc(UINT uMsg, WPARAM wParam, LPARAM lParam)
{
    switch (uMsg) {
    case MM_MOM_OPEN:
        return OnMidiOutOpen(wParam, lParam);
    case MM_MOM_CLOSE:
        return OnMidiOutClose(wParam, lParam);
    case MM_MOM_DONE:
        return OnMidiOutDone(wParam, lParam);
    case MM_MOM_POSITIONCB:
        return OnMidiOutPosition(wParam, lParam);
    case QXM_PRIORITYHIGH:
        SetThreadPriority(GetCurrentThread(), THREAD_PRIORITY_HIGHEST);
        return DefWindowProcA(m_hWnd, uMsg, wParam, lParam);
    case QXM_PRIORITYNORMAL:
        SetThreadPriority(GetCurrentThread(), THREAD_PRIORITY_NORMAL);
        return DefWindowProcA(m_hWnd, uMsg, wParam, lParam);
    default:
        return CQXDevice::WndProc(uMsg, wParam, lParam);
    }
}

LRESULT CMidiOut::OnMidiOutOpen(WPARAM, LPARAM)
{
    return 0;
}

LRESULT CMidiOut::OnMidiOutClose(WPARAM, LPARAM)
{
    return 0;
}

LRESULT CMidiOut::OnMidiOutPosition(WPARAM, LPARAM)
{
    return 0;
}

LRESULT CMidiOut::OnMidiOutDone(WPARAM wParam, LPARAM)
{
    auto* pHeader = reinterpret_cast<MIDIHDR*>(wParam);
    const CMidiStreamBuffer* pBuffer = CMidiStreamBuffer::GetBufferFromHeader(pHeader);
    CQuavix* pManager = CQuavix::GetQuavix();
    if (pManager != nullptr && pManager->GetTimingDevice() == this && !(pBuffer != nullptr && pBuffer->IsContinued()))
        pManager->_PollForTimingDevice(this);
    FinishBuffer(pHeader);
    return 0;
}

int CMidiOut::PlayMidi(DWORD dwMsg)
{
    if (TestState(QX_STATE_CLOSED)) return 0;
    MMRESULT r = midiOutShortMsg(static_cast<HMIDIOUT>(m_hDevice.load()), dwMsg);
    if (r != MMSYSERR_NOERROR) {
        QXNotifyShared(QXN_MIDIOUT_SHORTMSG, r, static_cast<DWORD_PTR>(m_nDevice.load()));
        return 0;
    }
    return 1;
}

int CMidiOut::PlayNote(DWORD dwMsg, DWORD dwDuration)
{
    if (!PlayMidi(dwMsg)) return 0;
    EnterCriticalSection(&m_csNotes);
    if (m_uNoteTimerID == 0) {
        m_uNoteTimerID =
            timeSetEvent(dwDuration, 10, _NoteTimerFunc, reinterpret_cast<DWORD_PTR>(this), TIME_ONESHOT);
        if (m_uNoteTimerID == 0) {
            LeaveCriticalSection(&m_csNotes);
            PlayMidi(NoteOff(dwMsg));
            return 0;
        }
    }
    m_PendingNotes.push_back(dwMsg);
    LeaveCriticalSection(&m_csNotes);
    return 1;
}

void CALLBACK CMidiOut::_NoteTimerFunc(UINT, UINT, DWORD_PTR dwUser, DWORD_PTR, DWORD_PTR)
{
    reinterpret_cast<CMidiOut*>(dwUser)->TurnOffNotes();
}

// The note-offs go out after the lock is let go: a failed send is reported, and the
// application's reaction may play or close on this output.
void CMidiOut::TurnOffNotes()
{
    std::vector<DWORD> notes;
    EnterCriticalSection(&m_csNotes);
    notes.swap(m_PendingNotes);
    m_uNoteTimerID = 0;
    LeaveCriticalSection(&m_csNotes);
    for (DWORD dwMsg : notes) PlayMidi(NoteOff(dwMsg));
}

// Sent at once, outside the stream's buffers, as PlayMidi sends a short message.
int CMidiOut::PlaySysEx(const BYTE* pData, int nLength)
{
    if (pData == nullptr || nLength <= 0 || TestState(QX_STATE_CLOSED)) return 0;
    std::vector<char> copy(pData, pData + nLength);
    MIDIHDR header{};
    header.lpData = copy.data();
    header.dwBufferLength = header.dwBytesRecorded = static_cast<DWORD>(nLength);
    auto hOut = static_cast<HMIDIOUT>(m_hDevice.load());
    MMRESULT r = midiOutPrepareHeader(hOut, &header, sizeof header);
    if (r == MMSYSERR_NOERROR) {
        r = midiOutLongMsg(hOut, &header, sizeof header);
        midiOutUnprepareHeader(hOut, &header, sizeof header);
    }
    if (r != MMSYSERR_NOERROR) {
        QXNotifyShared(QXN_MIDIOUT_SHORTMSG, r, static_cast<DWORD_PTR>(m_nDevice.load()));
        return 0;
    }
    return 1;
}
