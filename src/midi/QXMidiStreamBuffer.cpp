// One playback period packed into the platform's MIDI stream format.
#include <quavix/QXMidiStreamBuffer.h>

#include <quavix/QXPlayerRegistry.h>

#include "platform/QXPlatform.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>

namespace {

constexpr DWORD kEventHeaderWords = 3;
// Bits 0-23 of an event word. A wider value would spill into the event type and make
// the stream reader take a short event for a long one and read parameters that are
// not there.
constexpr DWORD kEventValueMask = 0x00FFFFFFu;

// Signed, so that a period across the 2^32 ms wrap still orders correctly; never
// negative, so the cursor never moves back.
DWORD TicksAhead(DWORD dwTo, DWORD dwFrom)
{
    const int32_t d = static_cast<int32_t>(dwTo - dwFrom);
    return d > 0 ? static_cast<DWORD>(d) : 0;
}

} // namespace

CMidiStreamBuffer::CMidiStreamBuffer() = default;

CMidiStreamBuffer::CMidiStreamBuffer(DWORD dwStart, DWORD dwEnd)
    : m_dwCursorTime(dwStart), m_dwStartTime(dwStart), m_dwEndTime(dwEnd)
{
}

CMidiStreamBuffer::~CMidiStreamBuffer()
{
    if (m_pBuffer != nullptr) VirtualFree(m_pBuffer, 0, MEM_RELEASE);
    // Events are still here only when capping failed: the buffer was given them and
    // nothing else would free them.
    while (CQXEventData* pEvent = m_Events.RemoveHead()) delete pEvent;
}

void CMidiStreamBuffer::AddStreamData(CQXEventData* pEvent)
{
    if (pEvent == nullptr) return; // nothing to play; packing it would crash
    if (m_Events.AddTail(pEvent) == nullptr) {
        delete pEvent; // the list cannot grow: dropping the event beats leaking it
        return;
    }
    // In 64 bits, so that a huge word count cannot wrap to a small allocation that the
    // packing would then overrun. The closing no-op is counted in the limit.
    const uint64_t qwWords = uint64_t{m_dwWords} + pEvent->m_dwStreamWords + kEventHeaderWords;
    if ((qwWords + kEventHeaderWords) * 4 > 0xFFFFFFFFu)
        m_bTooLarge = true;
    else
        m_dwWords = static_cast<DWORD>(qwWords);
}

void CMidiStreamBuffer::CapStreamBuffer()
{
    if (m_pBuffer != nullptr) return; // capped already: packing again would leak the memory

    const DWORD dwTotalWords = m_dwWords + kEventHeaderWords; // cannot wrap: limited while adding
    void* pMem = m_bTooLarge ? nullptr
                             : VirtualAlloc(nullptr, size_t{dwTotalWords} * 4, MEM_COMMIT, PAGE_READWRITE);
    if (pMem == nullptr) {
        // A library must not block on a dialog. The output sees lpData still null and
        // reports it; the events stay for a retry or for the destructor.
        std::fputs("Midi Out Error: CMidiStreamBuffer: can't allocate memory!\n", stderr);
        return;
    }
    m_pBuffer = static_cast<DWORD*>(pMem);
    m_Header.lpData = reinterpret_cast<LPSTR>(m_pBuffer);
    m_dwWords = 0;

    while (CQXEventData* pEvent = m_Events.RemoveHead()) {
        BufferStreamData(pEvent);
        delete pEvent;
    }

    // After an event at or past the end, 0 ends the buffer with that event instead of
    // a wrapped delta that would stall the stream for weeks.
    const DWORD dwDelta = TicksAhead(m_dwEndTime, m_dwCursorTime);
    m_dwDeltaTotal += dwDelta;
    m_pBuffer[m_dwWords] = dwDelta;
    m_pBuffer[m_dwWords + 2] = STRMBUF_SHORT_NO_OP;

    m_Header.dwBufferLength = dwTotalWords * 4;
    m_Header.dwBytesRecorded = dwTotalWords * 4;
    m_Header.dwUser = reinterpret_cast<DWORD_PTR>(this);
    m_Header.dwFlags = 0;
}

CMidiStreamBuffer* CMidiStreamBuffer::GetBufferFromHeader(MIDIHDR* pHeader)
{
    return pHeader == nullptr ? nullptr : reinterpret_cast<CMidiStreamBuffer*>(pHeader->dwUser);
}

// Stream id and padding stay as allocated: the pages come zero-filled.
void CMidiStreamBuffer::BufferStreamData(CQXEventData* pEvent)
{
    // An event stamped before the cursor plays right after the one before it.
    const DWORD dwDelta = TicksAhead(pEvent->m_dwTimeStamp, m_dwCursorTime);
    m_dwDeltaTotal += dwDelta;
    m_dwCursorTime += dwDelta;

    DWORD* pWords = m_pBuffer + m_dwWords;
    const DWORD dwParmWords = pEvent->m_dwStreamWords;
    // A record whose byte count disagrees with its word count must neither overrun the
    // events after it nor announce bytes that are not there.
    const size_t cbRoom = size_t{dwParmWords} * 4;
    BYTE* pParms = reinterpret_cast<BYTE*>(pWords + kEventHeaderWords);
    pWords[0] = dwDelta;

    switch (pEvent->m_nType) {
    case QX_EVENT_MIDI:
        pWords[2] = STRMBUF_SHORT_MESSAGE | (static_cast<DWORD>(pEvent->m_dwData) & kEventValueMask);
        break;
    case QX_EVENT_SYSEX: {
        const size_t cb = std::min<size_t>(pEvent->m_dwLength, std::min<size_t>(cbRoom, kEventValueMask));
        const BYTE* pData = reinterpret_cast<const BYTE*>(pEvent->m_dwData);
        if (pData != nullptr) std::memcpy(pParms, pData, cb); // no bytes: send zeros
        pWords[2] = STRMBUF_LONG_SYSTEM | static_cast<DWORD>(cb);
        break;
    }
    case QX_EVENT_WAVESTART: {
        // Parameter words are 32-bit and a player pointer is not: the stream carries
        // the player's registry handle, 0 when the pointer names no live player.
        const DWORD parms[2] = {static_cast<DWORD>(pEvent->m_dwData),
                                QXPlayerHandle(reinterpret_cast<const void*>(pEvent->m_dwLength))};
        const size_t cb = std::min(sizeof parms, cbRoom);
        std::memcpy(pParms, parms, cb);
        pWords[2] = STRMBUF_LONG_CALLBACK | static_cast<DWORD>(cb);
        break;
    }
    default:
        break; // no stream form: an all-zero event word and zero parameter words
    }
    m_dwWords += dwParmWords + kEventHeaderWords;
}
