// The wave file writer: creates the header, appends recorded buffers, and lets the
// file service fix the chunk lengths when the file is finished.
#include <quavix/QXNotify.h>
#include <quavix/QXWaveFile.h>

#include "platform/mmio/QXMmio.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <new>

namespace {

constexpr int kWaveInDefaultFormat = 8; // what a wave input records unless told: 22,050 Hz mono 16-bit
// One second of a format no device records could be gigabytes: the buffer stops here.
constexpr double kMaxBuffer = 16.0 * 1024 * 1024;

// One buffer time of audio in bytes: the size of the file buffer, and so how much
// audio goes by between two refreshes of the header's lengths. A format without a
// byte rate keeps the service's default buffer.
LONG BufferBytes(const QX_DevFormat& format, int nBufferTime)
{
    const double bytes = nBufferTime / 1000.0 * format.nAvgBytesPerSec;
    return bytes < 1.0 ? MMIO_DEFAULTBUFFER : LONG(bytes < kMaxBuffer ? bytes : kMaxBuffer);
}

void Le32(char* p, DWORD v)
{
    p[0] = char(v);
    p[1] = char(v >> 8);
    p[2] = char(v >> 16);
    p[3] = char(v >> 24);
}

bool PutBytes(HMMIO hFile, LONG lAt, const char* p, LONG cb)
{
    return mmioSeek(hFile, lAt, SEEK_SET) == lAt && mmioWrite(hFile, p, cb) == cb;
}

// Writes the RIFF and data lengths into their chunk headers, then goes back to lResume
// (when not negative). Seeking away writes out what the file buffer holds first, so
// the lengths never claim bytes that are still only in memory. The header this writer
// lays out keeps the two lengths 38 bytes apart, with the form type, the format chunk
// and the data chunk's name between them: one write of those 42 bytes costs one small
// system call instead of two. Without the format record only the lengths are written.
bool PutSizes(HMMIO hFile, const MMCKINFO& ckRiff, const MMCKINFO& ckFmt, const MMCKINFO& ckData,
              const QX_DevFormat* pFormat, DWORD dwRiff, DWORD dwData, LONG lResume)
{
    const LONG lRiffSize = LONG(ckRiff.dwDataOffset) - 4, lDataSize = LONG(ckData.dwDataOffset) - 4;
    bool ok;
    if (pFormat != nullptr && ckFmt.cksize == sizeof(QX_DevFormat) && ckFmt.dwDataOffset == ckRiff.dwDataOffset + 12 &&
        ckData.dwDataOffset == ckFmt.dwDataOffset + sizeof(QX_DevFormat) + 8) {
        char block[4 + 4 + 8 + sizeof(QX_DevFormat) + 8];
        Le32(block, dwRiff);
        Le32(block + 4, ckRiff.fccType);
        Le32(block + 8, ckFmt.ckid);
        Le32(block + 12, ckFmt.cksize);
        std::memcpy(block + 16, pFormat, sizeof(QX_DevFormat));
        Le32(block + 16 + sizeof(QX_DevFormat), ckData.ckid);
        Le32(block + 20 + sizeof(QX_DevFormat), dwData);
        ok = PutBytes(hFile, lRiffSize, block, LONG(sizeof(block)));
    } else {
        char riff[4], data[4];
        Le32(riff, dwRiff);
        Le32(data, dwData);
        ok = PutBytes(hFile, lRiffSize, riff, 4) && PutBytes(hFile, lDataSize, data, 4);
    }
    if (lResume >= 0) ok = mmioSeek(hFile, lResume, SEEK_SET) == lResume && ok;
    return ok;
}

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

    r = mmioSetBuffer(hFile, nullptr, BufferBytes(*m_pFormat, m_nBufferTime), 0);
    if (r != MMSYSERR_NOERROR) return fail(QXN_FILE_SETBUFFER, r);

    m_hDevice = hFile;
    return 1;
}

long CWaveFileWrite::Write(WAVEHDR* pHeader)
{
    if (!TestState(QX_STATE_OPEN) || pHeader == nullptr || pHeader->dwBytesRecorded == 0) return 0;
    const DWORD_PTR name = reinterpret_cast<DWORD_PTR>(m_strFilename.c_str());
    HMMIO hFile = File();
    MMIOINFO info;
    if (mmioGetInfo(hFile, &info, 0) != MMSYSERR_NOERROR) {
        QXNotifyShared(QXN_FILE_WRITE, 0, name);
        return -1;
    }
    // A failed write may have left part of itself in the file buffer: the next bytes
    // go after the last ones counted, over it.
    const int64_t llHere = int64_t(info.lBufOffset) + (info.pchNext - info.pchBuffer);
    if (llHere != m_lFilePosition && mmioSeek(hFile, m_lFilePosition, SEEK_SET) < 0) {
        QXNotifyShared(QXN_FILE_WRITE, 0, name);
        return -1;
    }
    const LONG n = mmioWrite(hFile, pHeader->lpData, LONG(pHeader->dwBytesRecorded));
    if (n < 0) {
        QXNotifyShared(QXN_FILE_WRITE, 0, name);
        return -1;
    }
    const LONG lBefore = m_lDataSize;
    m_lDataSize += n;
    m_lFilePosition += n;
    // Once per file buffer (one buffer time of audio) the header gets the lengths
    // written so far, so that a recorder that is killed, or that runs out of disk,
    // leaves a file every reader takes. Once the buffer is full this costs one small
    // write: the seek away writes out the buffer, which was due anyway. A refresh that
    // fails is not reported: the data is still in the buffer, and the next Write or
    // Close meets the same failure and reports it.
    const LONG lEvery = info.cchBuffer > 0 ? info.cchBuffer : MMIO_DEFAULTBUFFER;
    if (lBefore / lEvery != m_lDataSize / lEvery)
        PutSizes(hFile, m_ckRiff, m_ckFmt, m_ckData, m_pFormat, DWORD(m_lFilePosition) - m_ckRiff.dwDataOffset,
                 DWORD(m_lDataSize), m_lFilePosition);
    return n;
}

int CWaveFileWrite::DevClose()
{
#ifndef NDEBUG
    QXTrace("file write _DevClose()\n");
#endif
    if (File() == nullptr) return 1;
    const char* pszName = m_strFilename.c_str();
    const DWORD_PTR name = reinterpret_cast<DWORD_PTR>(pszName);
    // The service writes the true lengths and the pad byte; a failed ascent is
    // reported, and the file is closed all the same.
    bool finished = true;
    MMRESULT r = mmioAscend(File(), &m_ckData, 0);
    if (r != MMSYSERR_NOERROR) {
        QXNotifyShared(QXN_FILE_ASCEND, r, name);
        finished = false;
    }
    r = mmioAscend(File(), &m_ckRiff, 0);
    if (r != MMSYSERR_NOERROR) {
        QXNotifyShared(QXN_FILE_ASCEND, r, name);
        finished = false;
    }
    const int ok = _CloseFile(pszName, File());
    m_hDevice = nullptr;
    m_lFilePosition = 0;
    // A full disk leaves the file buffer unwritten and the lengths stale. The file is
    // opened once more, and the lengths say what it really holds: the bytes that are
    // both on disk and counted as written, with the pad byte if it made it too.
    if (!finished || !ok) {
        if (HMMIO hFile = _OpenFile(pszName, MMIO_READWRITE)) {
            const LONG lEnd = mmioSeek(hFile, 0, SEEK_END);
            const LONG lData0 = LONG(m_ckData.dwDataOffset);
            if (lEnd >= lData0) {
                const LONG lData = std::min(lEnd - lData0, m_lDataSize);
                const LONG lRiffEnd = std::min(lEnd, lData0 + lData + (lData & 1));
                PutSizes(hFile, m_ckRiff, m_ckFmt, m_ckData, m_pFormat, DWORD(lRiffEnd) - m_ckRiff.dwDataOffset,
                         DWORD(lData), -1);
            }
            mmioClose(hFile, 0);
        }
    }
    return ok;
}
