// One playback period packed into the platform's MIDI stream format.
#ifndef QUAVIX_QXMIDISTREAMBUFFER_H
#define QUAVIX_QXMIDISTREAMBUFFER_H

#include <quavix/QXExport.h>

#include <quavix/QXEventData.h>

class QUAVIX_API CMidiStreamBuffer {
public:
    static constexpr DWORD STRMBUF_SHORT_MESSAGE = 0x00000000u;
    static constexpr DWORD STRMBUF_SHORT_NO_OP = 0x02000000u;
    static constexpr DWORD STRMBUF_LONG_CALLBACK = 0xC2000000u;
    static constexpr DWORD STRMBUF_LONG_SYSTEM = 0x80000000u;

    CMidiStreamBuffer();
    CMidiStreamBuffer(DWORD dwStart, DWORD dwEnd);
    ~CMidiStreamBuffer();
    CMidiStreamBuffer(const CMidiStreamBuffer&) = delete;
    CMidiStreamBuffer& operator=(const CMidiStreamBuffer&) = delete;

    void AddStreamData(CQXEventData* pEvent);
    void CapStreamBuffer();
    MIDIHDR* GetStreamHeader() { return &m_Header; }
    static CMidiStreamBuffer* GetBufferFromHeader(MIDIHDR* pHeader);
    // A period too dense for one buffer goes out in several; each but the last is
    // marked, so that only the period's last buffer paces the engine.
    void SetContinued(bool bContinued) { m_bContinued = bContinued; }
    bool IsContinued() const { return m_bContinued; }

private:
    void BufferStreamData(CQXEventData* pEvent);

    CQXEventList m_Events{10};
    MIDIHDR m_Header{};
    DWORD* m_pBuffer = nullptr;
    DWORD m_dwWords = 0;
    DWORD m_dwCursorTime = 0;
    DWORD m_dwStartTime = 0;
    DWORD m_dwEndTime = 0;
    DWORD m_dwDeltaTotal = 0;
    bool m_bTooLarge = false; // the added events need more than 32-bit sizes can express
    bool m_bContinued = false;
};

#endif // QUAVIX_QXMIDISTREAMBUFFER_H
