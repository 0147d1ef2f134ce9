// The timed event record.
#include <quavix/QXEventData.h>

#include <cstring>
#include <new>

CQXEventData::~CQXEventData()
{
    if (m_dwData == 0) return;
    if (m_nType == QX_EVENT_SYSEX)
        delete[] reinterpret_cast<BYTE*>(m_dwData);
    else if (m_nType == QX_EVENT_WAVEDATA)
        delete reinterpret_cast<QX_WaveParams*>(m_dwData);
}

CQXEventData& CQXEventData::operator=(const CQXEventData& src)
{
    m_nType = src.m_nType;
    m_dwTimeStamp = src.m_dwTimeStamp;
    m_nDevice = src.m_nDevice;
    m_dwStreamWords = src.m_dwStreamWords;
    m_dwData = src.m_dwData;
    m_dwLength = src.m_dwLength;
    return *this;
}

// The payload setters never release an earlier payload: a record is given its payload
// once, and a record filled by operator= shares its payload with the source.

void CQXEventData::SetMidiData(DWORD dwMsg)
{
    m_nType = QX_EVENT_MIDI;
    m_dwData = dwMsg;
}

void CQXEventData::SetSysExData(const BYTE* pData, DWORD dwLength)
{
    if (dwLength == 0 || pData == nullptr) return;
    // Out of memory leaves the record as it was rather than claiming a buffer it does
    // not have; the caller sees an unchanged kind and drops or retries the message.
    BYTE* pCopy = new (std::nothrow) BYTE[dwLength];
    if (pCopy == nullptr) return;
    std::memcpy(pCopy, pData, dwLength);
    m_nType = QX_EVENT_SYSEX;
    m_dwData = reinterpret_cast<DWORD_PTR>(pCopy);
    m_dwLength = dwLength;
    m_dwStreamWords = static_cast<DWORD>((static_cast<uint64_t>(dwLength) + 3) / 4);
}

void CQXEventData::SetWaveData(QX_WaveParams* pParams)
{
    m_nType = QX_EVENT_WAVEDATA;
    m_dwData = reinterpret_cast<DWORD_PTR>(pParams);
}

void CQXEventData::SetWaveStart(QX_WaveParams* pParams)
{
    if (pParams == nullptr) return; // no player to name: the record stays as it was
    m_nType = QX_EVENT_WAVESTART;
    m_dwData = 1;
    m_dwLength = reinterpret_cast<DWORD_PTR>(pParams->dsParams.pWavePlay);
    m_dwStreamWords = 2;
}

void CQXEventData::SetWaveHeader(WAVEHDR* pHeader)
{
    m_nType = QX_EVENT_WAVEHEADER;
    m_dwData = reinterpret_cast<DWORD_PTR>(pHeader);
}

void CQXEventData::SetFileMeta(DWORD dwValue)
{
    m_nType = QX_EVENT_FILEMETA;
    m_dwData = dwValue;
}

void CQXEventData::SetDevChan(int nDevice, int nChannel)
{
    m_nDevice = nDevice;
    // Only a data word that is a value has a channel. Kinds 2 to 5 carry a pointer or
    // the wave start marker 1 there, and changing its low bits would corrupt it.
    switch (m_nType) {
    case QX_EVENT_SYSEX:
    case QX_EVENT_WAVEDATA:
    case QX_EVENT_WAVEHEADER:
    case QX_EVENT_WAVESTART:
        return;
    default:
        m_dwData = (m_dwData & ~static_cast<DWORD_PTR>(0x0F)) | (static_cast<DWORD_PTR>(nChannel) & 0x0F);
    }
}
