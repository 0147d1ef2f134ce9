// The wave file reader: sample bytes straight out of the file's own I/O buffer,
// silence once they run out, and seeks by time, samples or bytes.
#include <quavix/QXNotify.h>
#include <quavix/QXWaveFile.h>

#include "platform/mmio/QXMmio.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <new>

namespace {

constexpr LONG kMaxLong = 0x7FFFFFFF;
// The file buffer the reader reads through. Every refill is a system call, and a
// system call costs as much as copying several KiB (on virtual machines far more):
// 64 KiB refills copied out in the caller's pieces beat one call per piece by a wide
// margin, and 64 KiB still sits in the second-level cache.
constexpr LONG kReadBuffer = 64 * 1024;
// Past this any seek target is beyond every data chunk; products stop growing here
// instead of wrapping round into a target that looks valid.
constexpr uint64_t kFar = uint64_t{1} << 40;

} // namespace

CWaveFileRead::~CWaveFileRead() = default;

int CWaveFileRead::DevOpen()
{
    delete m_pFormat;
    m_pFormat = new (std::nothrow) QX_DevFormat{};
    if (m_pFormat == nullptr) return 0;

    const char* pszName = m_strFilename.c_str();
    HMMIO hFile = _OpenFile(pszName, MMIO_READ | MMIO_ALLOCBUF);
    if (hFile == nullptr) {
        QXNotifyShared(QXN_FILE_OPENREAD, 0, reinterpret_cast<DWORD_PTR>(pszName));
        return 0;
    }
    WAVEFORMATEX format{};
    if (_CheckFile(pszName, hFile, m_ckRiff, m_ckFmt, m_ckData, format)) {
        std::memcpy(m_pFormat, &format, sizeof(QX_DevFormat));
        // The check has already cut the length to what the file holds (files stay
        // under 2 GiB), so it fits.
        m_lDataSize = m_ckData.cksize > DWORD(kMaxLong) ? kMaxLong : LONG(m_ckData.cksize);
        m_lFilePosition = 0;
        m_hDevice = hFile;
        // Without the larger buffer the file reads all the same through the default
        // one, so a failure here is no reason to refuse the file.
        mmioSetBuffer(hFile, nullptr, kReadBuffer, 0);
        return 1;
    }
    _CloseFile(pszName, hFile);
    delete m_pFormat;
    m_pFormat = nullptr;
    return 0;
}

int CWaveFileRead::Read(unsigned char* pBuffer, int nSize)
{
    if (!TestState(QX_STATE_OPEN)) return 0;
    if (pBuffer == nullptr || nSize <= 0) return 0; // nothing to fill (a negative size is the caller's error)

    const BYTE silence = m_pFormat != nullptr && m_pFormat->wBitsPerSample == 16 ? 0x00 : 0x80;
    if (m_lFilePosition >= m_lDataSize) {
        std::memset(pBuffer, silence, size_t(nSize));
        return 0;
    }
    const DWORD_PTR name = reinterpret_cast<DWORD_PTR>(m_strFilename.c_str());
    MMIOINFO info;
    MMRESULT r = mmioGetInfo(File(), &info, 0);
    if (r != MMSYSERR_NOERROR) {
        QXNotifyShared(QXN_FILE_GETINFO, r, name);
        return -1;
    }
    // What is left is counted from the read point itself: a refused seek sets the
    // position to 0 without moving the read point.
    const int64_t llReadPoint = int64_t(info.lBufOffset) + (info.pchNext - info.pchBuffer);
    const int64_t llLeft = int64_t(m_ckData.dwDataOffset) + m_lDataSize - llReadPoint;
    const LONG lWanted = LONG(std::clamp<int64_t>(llLeft, 0, nSize));
    LONG lDone = 0;
    const bool bDirect = info.cchBuffer > 0 && lWanted >= info.cchBuffer;
    if (bDirect) {
        // A buffer's worth or more: the service copies what its buffer still holds and
        // reads the rest straight into the caller's buffer, one copy instead of two,
        // leaving its buffer empty for the next such call. Fewer bytes than wanted
        // mean that the file has ended.
        lDone = mmioRead(File(), reinterpret_cast<char*>(pBuffer), lWanted);
        if (lDone < 0) {
            QXNotifyShared(QXN_FILE_ADVANCE, MMIOERR_CANNOTREAD, name);
            return -1;
        }
    }
    for (bool bFresh = true; !bDirect && lDone < lWanted; bFresh = false) {
        if (!bFresh) {
            r = mmioGetInfo(File(), &info, 0);
            if (r != MMSYSERR_NOERROR) {
                QXNotifyShared(QXN_FILE_GETINFO, r, name);
                return -1;
            }
        }
        if (info.pchNext == info.pchEndRead) {
            r = mmioAdvance(File(), &info, MMIO_READ);
            if (r != MMSYSERR_NOERROR) {
                QXNotifyShared(QXN_FILE_ADVANCE, r, name);
                return -1;
            }
            if (info.pchNext == info.pchEndRead) break; // the file ends inside the data chunk
        }
        const LONG lAvail = LONG(info.pchEndRead - info.pchNext);
        if (lAvail <= 0) break;
        const LONG n = std::min(lAvail, lWanted - lDone);
        std::memcpy(pBuffer + lDone, info.pchNext, size_t(n));
        info.pchNext += n;
        lDone += n;
        r = mmioSetInfo(File(), &info, 0);
        if (r != MMSYSERR_NOERROR) {
            QXNotifyShared(QXN_FILE_SETINFO, r, name);
            return -1;
        }
    }
    // A file that ends before its data chunk still delivers every byte it holds; the
    // next call finds nothing and returns 0. Either way the rest is silence.
    if (lDone < nSize) std::memset(pBuffer + lDone, silence, size_t(nSize - lDone));
    m_lFilePosition += lDone;
    return lDone;
}

int CWaveFileRead::Seek(MMTIME* pTime, int nOrigin)
{
    if (TestState(QX_STATE_CLOSED)) return 0;

    const DWORD_PTR name = reinterpret_cast<DWORD_PTR>(m_strFilename.c_str());
    const int64_t lStart = m_ckData.dwDataOffset;
    const int64_t lEnd = lStart + m_lDataSize;
    // Refused before the file is touched: the read point stays where it was, so the
    // next Read goes on from there instead of replaying the file.
    auto refuse = [&] {
        QXNotifyShared(QXN_FILE_SEEK, 0, name);
        m_lFilePosition = 0;
        return 0;
    };
    if (nOrigin < 0 || nOrigin > 2) return refuse(); // the service knows no other origin

    // 64-bit arithmetic: long millisecond times and sample counts must not wrap.
    int64_t target = nOrigin == 0 ? lStart : nOrigin == 2 ? lEnd : 0;
    const uint64_t nRate = m_pFormat != nullptr ? m_pFormat->nSamplesPerSec : 0;
    const uint64_t nAlign = m_pFormat != nullptr ? m_pFormat->nBlockAlign : 0;
    if (pTime != nullptr) {
        switch (pTime->wType) {
        case TIME_MS: {
            const uint64_t frames = uint64_t(pTime->u.ms) * nRate / 1000; // whole frames
            target += int64_t(frames > kFar ? kFar : frames * nAlign);
            break;
        }
        case TIME_SAMPLES:
            target += int64_t(uint64_t(pTime->u.sample) * nAlign);
            break;
        case TIME_BYTES:
            target += pTime->u.cb;
            break;
        default:
            break;
        }
    }
    // With origin 1 the offset alone is compared, not where it leads.
    if (target >= lEnd || target > kMaxLong) return refuse();
    if (nOrigin == 1) {
        const LONG lHere = mmioSeek(File(), 0, SEEK_CUR);
        if (lHere < 0) return refuse();
        // A relative seek past the end of the data stops at its end.
        target = std::min<int64_t>(lHere + target, lEnd);
    }
    if (target < lStart) return refuse();
    // The service moves nothing when it fails.
    const LONG lNew = mmioSeek(File(), LONG(target), SEEK_SET);
    if (lNew < 0) return refuse();
    // The position counts the sample bytes before the read point, as opening sets it.
    m_lFilePosition = LONG(lNew - lStart);
    return 1;
}
