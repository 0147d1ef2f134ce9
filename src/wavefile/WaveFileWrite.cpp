// The wave file writer: creates the header, appends recorded buffers, and lets the
// file service fix the chunk lengths when the file is finished.
#include <quavix/QXNotify.h>
#include <quavix/QXWaveFile.h>

#include "platform/QXMmio.h"

#include <cstring>
#include <new>

namespace {

constexpr int kWaveInDefaultFormat = 8; // what a wave input records unless told: 22,050 Hz mono 16-bit
// One second of a format no device records could be gigabytes: the buffer stops here.
constexpr double kMaxBuffer = 16.0 * 1024 * 1024;

} // namespace

CWaveFileWrite::~CWaveFileWrite()
{
    // While still a writer, so that the file is finished, not just closed.
    Close();
}

int CWaveFileWrite::DevOpen()
{
    if (m_pFormat == nullptr) {
        m_pFormat = new (std::nothrow) QX_DevFormat{};
        if (m_pFormat == nullptr) return 0;
        WAVEFORMATEX format;
        FillFormat(&format, kWaveInDefaultFormat);
        std::memcpy(m_pFormat, &format, sizeof(QX_DevFormat));
    }

    const char* pszName = m_strFilename.c_str();
    const DWORD_PTR name = reinterpret_cast<DWORD_PTR>(pszName);
    HMMIO hFile = _OpenFile(pszName, MMIO_CREATE | MMIO_WRITE | MMIO_ALLOCBUF);
    if (hFile == nullptr) {
        QXNotifyShared(QXN_FILE_OPENWRITE, 0, name);
        return 0;
    }
    // What was written so far stays on disk.
    auto fail = [&](DWORD dwCode, DWORD dwValue) {
        QXNotifyShared(dwCode, dwValue, name);
        mmioClose(hFile, 0);
        m_hDevice = nullptr;
        return 0;
    };

    m_ckRiff.fccType = mmioFOURCC('W', 'A', 'V', 'E');
    m_ckRiff.cksize = 0;
    MMRESULT r = mmioCreateChunk(hFile, &m_ckRiff, MMIO_CREATERIFF);
    if (r != MMSYSERR_NOERROR) return fail(QXN_FILE_CREATECHUNK, r);

    m_ckFmt.ckid = mmioFOURCC('f', 'm', 't', ' ');
    m_ckFmt.cksize = sizeof(QX_DevFormat);
    r = mmioCreateChunk(hFile, &m_ckFmt, 0);
    if (r != MMSYSERR_NOERROR) return fail(QXN_FILE_CREATECHUNK, r);
    if (mmioWrite(hFile, reinterpret_cast<const char*>(m_pFormat), sizeof(QX_DevFormat)) < 0)
        return fail(QXN_FILE_WRITE, 0);
    r = mmioAscend(hFile, &m_ckFmt, 0);
    if (r != MMSYSERR_NOERROR) return fail(QXN_FILE_ASCEND, r);

    m_ckData.ckid = mmioFOURCC('d', 'a', 't', 'a');
    m_ckData.cksize = 0;
    r = mmioCreateChunk(hFile, &m_ckData, 0);
    if (r != MMSYSERR_NOERROR) return fail(QXN_FILE_CREATECHUNK, r);
    m_lDataSize = LONG(m_ckData.cksize);
    m_lFilePosition = LONG(m_ckData.dwDataOffset);

    // One buffer time of audio. A format without a byte rate keeps the default buffer.
    const double bytes = m_nBufferTime / 1000.0 * m_pFormat->nAvgBytesPerSec;
    const LONG cchBuffer = bytes < 1.0 ? MMIO_DEFAULTBUFFER : LONG(bytes < kMaxBuffer ? bytes : kMaxBuffer);
    r = mmioSetBuffer(hFile, nullptr, cchBuffer, 0);
    if (r != MMSYSERR_NOERROR) return fail(QXN_FILE_SETBUFFER, r);

    m_hDevice = hFile;
    return 1;
}

long CWaveFileWrite::Write(WAVEHDR* pHeader)
{
    if (!TestState(QX_STATE_OPEN) || pHeader == nullptr || pHeader->dwBytesRecorded == 0) return 0;
    const LONG n = mmioWrite(File(), pHeader->lpData, LONG(pHeader->dwBytesRecorded));
    if (n < 0) {
        QXNotifyShared(QXN_FILE_WRITE, 0, reinterpret_cast<DWORD_PTR>(m_strFilename.c_str()));
        return -1;
    }
    m_lDataSize += n;
    m_lFilePosition += n;
    return n;
}

int CWaveFileWrite::DevClose()
{
#ifndef NDEBUG
    QXTrace("file write _DevClose()\n");
#endif
    if (File() == nullptr) return 1;
    const DWORD_PTR name = reinterpret_cast<DWORD_PTR>(m_strFilename.c_str());
    // The service writes the true lengths and the pad byte; a failed ascent is
    // reported, and the file is closed all the same.
    MMRESULT r = mmioAscend(File(), &m_ckData, 0);
    if (r != MMSYSERR_NOERROR) QXNotifyShared(QXN_FILE_ASCEND, r, name);
    r = mmioAscend(File(), &m_ckRiff, 0);
    if (r != MMSYSERR_NOERROR) QXNotifyShared(QXN_FILE_ASCEND, r, name);
    const int ok = _CloseFile(m_strFilename.c_str(), File());
    m_hDevice = nullptr;
    m_lFilePosition = 0;
    return ok;
}
