// The buffered RIFF file service (mmio*) over POSIX files, with the documented Win32
// semantics: buffered and unbuffered access, chunk descent and ascent with size
// fix-up and pad bytes, and direct access to the I/O buffer.
//
// Only plain files: no memory files, installable I/O procedures or share modes.
// Offsets are 32-bit LONG as in the API, so files over 2 GiB are refused when opened
// (MMIOERR_INVALIDFILE) and writes that would pass that size fail.
#ifndef QUAVIX_PLATFORM_QXMMIO_H
#define QUAVIX_PLATFORM_QXMMIO_H

#include <quavix/QXWinTypes.h>

#include <cstddef>

#ifndef MAX_PATH
#define MAX_PATH 260
#endif

// Unless MMIO_EXIST, MMIO_PARSE or MMIO_DELETE is given (those write the fully
// qualified name back into the caller's buffer, which must hold MAX_PATH characters,
// or delete the file), the name is only read.
HMMIO mmioOpenA(LPSTR pszFileName, LPMMIOINFO lpmmioinfo, DWORD dwOpenFlags);
// Flushes and closes; the handle is gone even when the result is an error.
MMRESULT mmioClose(HMMIO hmmio, UINT wFlags);
LONG mmioSeek(HMMIO hmmio, LONG lOffset, int iOrigin);
LONG mmioRead(HMMIO hmmio, char* pch, LONG cch);
LONG mmioWrite(HMMIO hmmio, const char* pch, LONG cch);
MMRESULT mmioFlush(HMMIO hmmio, UINT wFlags);
MMRESULT mmioDescend(HMMIO hmmio, LPMMCKINFO lpck, const MMCKINFO* lpckParent, UINT wFlags);
MMRESULT mmioAscend(HMMIO hmmio, LPMMCKINFO lpck, UINT wFlags);
MMRESULT mmioCreateChunk(HMMIO hmmio, LPMMCKINFO lpck, UINT wFlags);
MMRESULT mmioGetInfo(HMMIO hmmio, LPMMIOINFO lpmmioinfo, UINT wFlags);
MMRESULT mmioSetInfo(HMMIO hmmio, const MMIOINFO* lpmmioinfo, UINT wFlags);
MMRESULT mmioAdvance(HMMIO hmmio, LPMMIOINFO lpmmioinfo, UINT wFlags);
MMRESULT mmioSetBuffer(HMMIO hmmio, LPSTR pchBuffer, LONG cchBuffer, UINT wFlags);

namespace qxplat {

// Files the service holds open in the whole process, for tests that check that
// nothing is left behind.
size_t LiveMmioCount();

} // namespace qxplat

#endif // QUAVIX_PLATFORM_QXMMIO_H
