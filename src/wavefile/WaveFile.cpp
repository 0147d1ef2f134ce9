// The RIFF WAVE file device: file names, the acceptance check and the questions that
// can be asked about a file by name.
#include <quavix/QXNotify.h>
#include <quavix/QXWaveFile.h>

#include "platform/mmio/QXMmio.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

namespace {

DWORD_PTR NameValue(const char* pszFilename)
{
    return reinterpret_cast<DWORD_PTR>(pszFilename);
}

} // namespace

CWaveFile::~CWaveFile()
{
    Close();
}

void CWaveFile::SetFilename(const char* pszFilename)
{
    m_strFilename.clear();
    if (pszFilename != nullptr) m_strFilename = pszFilename;
}

long CWaveFile::GetDuration() const
{
    // Without a byte rate the data has no playing time: the duration is then 0, here
    // and in FileDuration, never a division by zero. So is a rate too large to be
    // signed, as FileDuration takes it.
    if (m_pFormat == nullptr) return 0;
    const LONG lBytesPerSec = static_cast<LONG>(m_pFormat->nAvgBytesPerSec);
    if (lBytesPerSec <= 0) return 0;
    return static_cast<long>(m_lDataSize / static_cast<double>(lBytesPerSec) * 1000.0);
}

HMMIO CWaveFile::_OpenFile(const char* pszFilename, DWORD dwFlags)
{
    // Without MMIO_EXIST or MMIO_PARSE the name is only read.
    return mmioOpenA(const_cast<LPSTR>(pszFilename), nullptr, dwFlags);
}

int CWaveFile::_CloseFile(const char* pszFilename, HMMIO hFile)
{
    const MMRESULT r = mmioClose(hFile, 0);
    if (r != MMSYSERR_NOERROR) {
        QXNotifyShared(QXN_FILE_CLOSE, r, NameValue(pszFilename));
        return 0;
    }
    return 1;
}

namespace {

// The fixed part of WAVEFORMATEX (18 bytes), then wValidBitsPerSample, dwChannelMask
// and the 16-byte sub-format GUID.
constexpr size_t kExtensibleSize = 40;

// The format code a chunk stands for: its tag, or for WAVE_FORMAT_EXTENSIBLE the PCM or
// IEEE float code of a sub-format in the standard KSDATAFORMAT family (an unknown one,
// or a chunk too short for it, stays WAVE_FORMAT_EXTENSIBLE, which no player takes).
WORD FormatCode(const unsigned char* pChunk, DWORD cbChunk)
{
    const WORD wTag = static_cast<WORD>(pChunk[0] | pChunk[1] << 8);
    if (wTag != WAVE_FORMAT_EXTENSIBLE || cbChunk < kExtensibleSize) return wTag;
    const unsigned char* pGuid = pChunk + 24;
    static constexpr unsigned char kTail[12] = {0x00, 0x00, 0x10, 0x00, 0x80, 0x00,
                                                0x00, 0xAA, 0x00, 0x38, 0x9B, 0x71};
    const DWORD dwCode = pGuid[0] | pGuid[1] << 8 | DWORD{pGuid[2]} << 16 | DWORD{pGuid[3]} << 24;
    if (std::memcmp(pGuid + 4, kTail, sizeof kTail) != 0) return wTag;
    if (dwCode != WAVE_FORMAT_PCM && dwCode != WAVE_FORMAT_IEEE_FLOAT) return wTag;
    return static_cast<WORD>(dwCode);
}

} // namespace

int CWaveFile::_CheckFile(const char* pszFilename, HMMIO hFile, MMCKINFO& ckRiff, MMCKINFO& ckFmt, MMCKINFO& ckData,
                          WAVEFORMATEX& format)
{
    const DWORD_PTR name = NameValue(pszFilename);
    if (mmioSeek(hFile, 0, SEEK_SET) < 0) {
        QXNotifyShared(QXN_FILE_SEEK, 0, name);
        return 0;
    }
    ckRiff.fccType = mmioFOURCC('W', 'A', 'V', 'E');
    MMRESULT r = mmioDescend(hFile, &ckRiff, nullptr, MMIO_FINDRIFF);
    if (r != MMSYSERR_NOERROR) {
        QXNotifyShared(QXN_FILE_DESCEND, r, name);
        return 0;
    }
    // Recorders that were killed or ran out of disk leave a RIFF length of 0, streaming
    // writers 0xFFFFFFFF: both mean "up to the end of the file", as a length past the
    // end can only mean. The record keeps the length as the file can be read.
    const LONG lFileEnd = mmioSeek(hFile, 0, SEEK_END);
    if (lFileEnd < 0) {
        QXNotifyShared(QXN_FILE_SEEK, 0, name);
        return 0;
    }
    const DWORD dwRiffClaim = ckRiff.cksize;
    const int64_t llRiffRoom = std::max<int64_t>(0, int64_t(lFileEnd) - ckRiff.dwDataOffset);
    if (dwRiffClaim == 0 || dwRiffClaim > llRiffRoom) ckRiff.cksize = DWORD(llRiffRoom);
    const LONG lForm = static_cast<LONG>(ckRiff.dwDataOffset + 4); // first byte after the form type
    if (mmioSeek(hFile, lForm, SEEK_SET) < 0) {
        QXNotifyShared(QXN_FILE_SEEK, 0, name);
        return 0;
    }
    ckFmt.ckid = mmioFOURCC('f', 'm', 't', ' ');
    ckFmt.cksize = 0;
    r = mmioDescend(hFile, &ckFmt, &ckRiff, MMIO_FINDCHUNK);
    if (r != MMSYSERR_NOERROR) {
        QXNotifyShared(QXN_FILE_DESCEND, r, name);
        return 0;
    }
    // A short format chunk (plain PCM has 16 bytes, some writers 12 or 14) leaves the
    // rest of the record 0: a defined value, and one every user of the record survives.
    // WAVE_FORMAT_EXTENSIBLE (what sox and most editors write for 24-bit, 32-bit and
    // multichannel audio) carries the real format code in its sub-format.
    unsigned char chunk[kExtensibleSize] = {};
    const LONG cb = static_cast<LONG>(std::min<DWORD>(ckFmt.cksize, sizeof chunk));
    if (mmioRead(hFile, reinterpret_cast<char*>(chunk), cb) != cb) {
        QXNotifyShared(QXN_FILE_READ, 0, name);
        return 0;
    }
    std::memcpy(&format, chunk, sizeof(format));
    format.wFormatTag = FormatCode(chunk, static_cast<DWORD>(cb));
    // The record is the 18 bytes of WAVEFORMATEX and nothing after them, whatever the
    // file's own cbSize claims: no one may read past it.
    format.cbSize = 0;
    r = mmioAscend(hFile, &ckFmt, 0);
    if (r != MMSYSERR_NOERROR) {
        QXNotifyShared(QXN_FILE_ASCEND, r, name);
        return 0;
    }
    if (mmioSeek(hFile, lForm, SEEK_SET) < 0) {
        QXNotifyShared(QXN_FILE_SEEK, 0, name);
        return 0;
    }
    ckData.ckid = mmioFOURCC('d', 'a', 't', 'a');
    r = mmioDescend(hFile, &ckData, &ckRiff, MMIO_FINDCHUNK);
    if (r != MMSYSERR_NOERROR) {
        QXNotifyShared(QXN_FILE_DESCEND, r, name);
        return 0;
    }
    // The data length as it can be read, as other readers take it (sox, libsndfile):
    // a claim past the end of the file stops there. A length of 0 from a recorder that
    // never finished its file (its RIFF length does not reach past the data header
    // either) also runs to the end; an empty data chunk inside a finished file stays
    // empty.
    const int64_t llDataRoom = std::max<int64_t>(0, int64_t(lFileEnd) - ckData.dwDataOffset);
    const bool bUnfinished = ckData.cksize == 0 && int64_t(ckRiff.dwDataOffset) + dwRiffClaim <= ckData.dwDataOffset;
    if (bUnfinished || ckData.cksize > llDataRoom) ckData.cksize = DWORD(llDataRoom);
    return 1;
}

int CWaveFile::DevClose()
{
    // A close that failed has already let go of the file; nothing is left to close.
    if (File() == nullptr) return 1;
    const int r = _CloseFile(m_strFilename.c_str(), File());
    m_hDevice = nullptr;
    m_lFilePosition = 0;
    return r;
}

int CWaveFile::FileExists(const char* pszFilename)
{
    if (pszFilename == nullptr) return 0;
    // The service writes the fully qualified name back, so it gets a copy of its own.
    char szPath[MAX_PATH] = "";
    std::strncpy(szPath, pszFilename, MAX_PATH - 1);
    return mmioOpenA(szPath, nullptr, MMIO_EXIST) != nullptr ? 1 : 0;
}

long CWaveFile::FileDuration(const char* pszFilename)
{
    HMMIO hFile = _OpenFile(pszFilename, MMIO_READ);
    if (hFile == nullptr) return 0;
    MMCKINFO ckRiff{}, ckFmt{}, ckData{};
    WAVEFORMATEX format{};
    long lDuration = 0;
    if (_CheckFile(pszFilename, hFile, ckRiff, ckFmt, ckData, format)) {
        // A rate of zero, or one too large to be signed, gives no time.
        const LONG lBytesPerSec = static_cast<LONG>(format.nAvgBytesPerSec);
        if (lBytesPerSec > 0) lDuration = static_cast<long>(ckData.cksize / static_cast<double>(lBytesPerSec) * 1000.0);
    }
    _CloseFile(pszFilename, hFile);
    return lDuration;
}

int CWaveFile::FileFormat(const char* pszFilename, QX_DevFormat& format)
{
    HMMIO hFile = _OpenFile(pszFilename, MMIO_READ);
    if (hFile == nullptr) return 0;
    MMCKINFO ckRiff{}, ckFmt{}, ckData{};
    WAVEFORMATEX found{};
    const int ok = _CheckFile(pszFilename, hFile, ckRiff, ckFmt, ckData, found);
    if (ok) std::memcpy(&format, &found, sizeof(format));
    _CloseFile(pszFilename, hFile);
    return ok;
}
