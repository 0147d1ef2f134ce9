// The buffered RIFF file service over POSIX files.
//
// A file's I/O buffer mirrors the bytes [lBufOffset, lBufOffset + (pchEndRead -
// pchBuffer)) of the file; pchNext is the logical position inside it. MMIO_DIRTY means
// that whole span has to be written back before the buffer moves. Unbuffered files
// have no buffer and keep their position in lBufOffset. All transfers use pread and
// pwrite at explicit offsets, so the descriptor's own offset never matters.
#include "platform/mmio/QXMmio.h"

#include "platform/QXFaults.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <unordered_map>

namespace {

constexpr int64_t kMaxOffset = 0x7FFFFFFF; // what a LONG offset reaches
constexpr FOURCC kDosIOProc = mmioFOURCC('D', 'O', 'S', ' ');
const HMMIO kTrue = reinterpret_cast<HMMIO>(uintptr_t{1}); // MMIO_EXIST and friends answer TRUE

struct MmioFile {
    int fd = -1;
    bool canRead = false;
    bool canWrite = false;
    std::unique_ptr<char[]> owned; // the buffer, when the service allocated it
    MMIOINFO info{};
};

// Handles are keys into this table and never reused, so a stale or made-up handle is
// refused instead of followed.
struct Table {
    std::mutex mutex;
    std::unordered_map<uintptr_t, std::unique_ptr<MmioFile>> files;
    uintptr_t next = 0x40000;
};

Table& Files()
{
    static Table& t = *new Table; // immortal: files may be closed during process exit
    return t;
}

// Bumped by every close. A thread remembers the last handle it looked up, good until
// a close anywhere: the reader's per-buffer calls then take no lock.
std::atomic<uint64_t> g_closes{0};
struct LastFound {
    uintptr_t id = 0;
    MmioFile* file = nullptr;
    uint64_t closes = 0;
};
thread_local LastFound t_last;

MmioFile* Find(HMMIO h)
{
    const auto id = reinterpret_cast<uintptr_t>(h);
    const uint64_t closes = g_closes.load(std::memory_order_acquire);
    if (id == t_last.id && closes == t_last.closes && id != 0) return t_last.file;
    Table& t = Files();
    std::lock_guard<std::mutex> lock(t.mutex);
    auto it = t.files.find(id);
    if (it == t.files.end()) return nullptr;
    t_last = {id, it->second.get(), g_closes.load(std::memory_order_relaxed)};
    return t_last.file;
}

DWORD Le32(const BYTE* p)
{
    return DWORD(p[0]) | DWORD(p[1]) << 8 | DWORD(p[2]) << 16 | DWORD(p[3]) << 24;
}

void PutLe32(BYTE* p, DWORD v)
{
    p[0] = BYTE(v);
    p[1] = BYTE(v >> 8);
    p[2] = BYTE(v >> 16);
    p[3] = BYTE(v >> 24);
}

// Fewer bytes than asked only at the end of the file; -1 on an error.
int64_t PreadAll(int fd, char* p, int64_t n, int64_t off)
{
    int64_t done = 0;
    while (done < n) {
        ssize_t r = pread(fd, p + done, size_t(n - done), off + done);
        if (r < 0 && errno == EINTR) continue;
        if (r < 0) return -1;
        if (r == 0) break;
        done += r;
    }
    return done;
}

bool PwriteAll(int fd, const char* p, int64_t n, int64_t off)
{
    int64_t done = 0;
    while (done < n) {
        ssize_t r = pwrite(fd, p + done, size_t(n - done), off + done);
        if (r < 0 && errno == EINTR) continue;
        if (r <= 0) return false;
        done += r;
    }
    return true;
}

int64_t Pos(const MmioFile& f)
{
    return int64_t(f.info.lBufOffset) + (f.info.pchNext - f.info.pchBuffer);
}

int64_t Valid(const MmioFile& f)
{
    return f.info.pchEndRead - f.info.pchBuffer;
}

// An empty buffer at pos. The writable span stops where LONG offsets end.
void StartBuffer(MmioFile& f, int64_t pos)
{
    MMIOINFO& i = f.info;
    i.lBufOffset = LONG(pos);
    i.pchNext = i.pchEndRead = i.pchBuffer;
    i.pchEndWrite = i.pchBuffer + std::min<int64_t>(i.cchBuffer, kMaxOffset - pos);
}

MMRESULT Flush(MmioFile& f)
{
    MMIOINFO& i = f.info;
    if ((i.dwFlags & MMIO_DIRTY) == 0) return MMSYSERR_NOERROR;
    const int64_t n = Valid(f);
    if (n > 0 && !PwriteAll(f.fd, i.pchBuffer, n, i.lBufOffset)) return MMIOERR_CANNOTWRITE;
    i.dwFlags &= ~MMIO_DIRTY;
    i.lDiskOffset = LONG(i.lBufOffset + n);
    return MMSYSERR_NOERROR;
}

// Moves the position; inside the buffer's valid bytes only the pointer moves.
MMRESULT MoveTo(MmioFile& f, int64_t pos)
{
    if (pos < 0 || pos > kMaxOffset) return MMIOERR_CANNOTSEEK;
    MMIOINFO& i = f.info;
    if (i.pchBuffer != nullptr && pos >= i.lBufOffset && pos <= i.lBufOffset + Valid(f)) {
        i.pchNext = i.pchBuffer + (pos - i.lBufOffset);
        return MMSYSERR_NOERROR;
    }
    if (MMRESULT r = Flush(f)) return r;
    StartBuffer(f, pos);
    return MMSYSERR_NOERROR;
}

// Refills the buffer from the current position; end of file leaves it empty.
MMRESULT Fill(MmioFile& f)
{
    if (Flush(f) != MMSYSERR_NOERROR) return MMIOERR_CANNOTWRITE;
    const int64_t pos = Pos(f);
    StartBuffer(f, pos);
    MMIOINFO& i = f.info;
    const int64_t n = PreadAll(f.fd, i.pchBuffer, std::min<int64_t>(i.cchBuffer, kMaxOffset - pos), pos);
    if (n < 0) return MMIOERR_CANNOTREAD;
    i.pchEndRead = i.pchBuffer + n;
    i.lDiskOffset = LONG(pos + n);
    return MMSYSERR_NOERROR;
}

int64_t EndOfFile(const MmioFile& f)
{
    struct stat st;
    if (fstat(f.fd, &st) != 0) return -1;
    int64_t end = st.st_size;
    if (f.info.dwFlags & MMIO_DIRTY) end = std::max(end, int64_t(f.info.lBufOffset) + Valid(f));
    return end;
}

LONG ReadBytes(MmioFile& f, char* pch, LONG cch)
{
    if (cch < 0 || (pch == nullptr && cch > 0) || !f.canRead) return -1;
    MMIOINFO& i = f.info;
    const int64_t want = std::min<int64_t>(cch, kMaxOffset - Pos(f));
    if (i.pchBuffer == nullptr) {
        const int64_t n = PreadAll(f.fd, pch, want, i.lBufOffset);
        if (n < 0) return -1;
        i.lBufOffset = LONG(i.lBufOffset + n);
        i.lDiskOffset = i.lBufOffset;
        return LONG(n);
    }
    int64_t done = 0;
    while (done < want) {
        const int64_t avail = i.pchEndRead - i.pchNext;
        if (avail > 0) {
            const int64_t n = std::min(avail, want - done);
            std::memcpy(pch + done, i.pchNext, size_t(n));
            i.pchNext += n;
            done += n;
            continue;
        }
        // Once the buffer is spent, a caller who asked for a buffer's worth or more gets
        // all the rest straight from the file: one copy instead of two, and the next
        // such call starts with an empty buffer again instead of its leftover.
        if (want >= i.cchBuffer) {
            if (Flush(f) != MMSYSERR_NOERROR) return -1;
            const int64_t at = Pos(f);
            const int64_t ask = want - done;
            const int64_t n = PreadAll(f.fd, pch + done, ask, at);
            if (n < 0) return -1;
            done += n;
            StartBuffer(f, at + n);
            i.lDiskOffset = LONG(at + n);
            if (n < ask) break;
            continue;
        }
        if (Fill(f) != MMSYSERR_NOERROR) return -1;
        if (i.pchEndRead == i.pchNext) break;
    }
    return LONG(done);
}

LONG WriteBytes(MmioFile& f, const char* pch, LONG cch)
{
    if (cch < 0 || (pch == nullptr && cch > 0) || !f.canWrite) return -1;
    MMIOINFO& i = f.info;
    if (Pos(f) + cch > kMaxOffset) return -1; // the file may not grow past a LONG offset
    if (i.pchBuffer == nullptr) {
        if (!PwriteAll(f.fd, pch, cch, i.lBufOffset)) return -1;
        i.lBufOffset += cch;
        i.lDiskOffset = i.lBufOffset;
        return cch;
    }
    int64_t done = 0;
    while (done < cch) {
        const int64_t room = i.pchEndWrite - i.pchNext;
        if (room == 0) {
            if (Flush(f) != MMSYSERR_NOERROR) return -1;
            StartBuffer(f, Pos(f));
            continue;
        }
        // A write that covers a whole empty buffer goes straight to the file.
        if (i.pchNext == i.pchBuffer && i.pchEndRead == i.pchBuffer && cch - done >= i.cchBuffer) {
            const int64_t at = Pos(f);
            if (!PwriteAll(f.fd, pch + done, cch - done, at)) return -1;
            StartBuffer(f, at + (cch - done));
            i.lDiskOffset = i.lBufOffset;
            break;
        }
        const int64_t n = std::min(room, cch - done);
        std::memcpy(i.pchNext, pch + done, size_t(n));
        i.pchNext += n;
        if (i.pchNext > i.pchEndRead) i.pchEndRead = i.pchNext;
        i.dwFlags |= MMIO_DIRTY;
        done += n;
    }
    return cch;
}

// Takes over what a caller did to the buffer through direct access.
MMRESULT TakeInfo(MmioFile& f, const MMIOINFO& in)
{
    MMIOINFO& i = f.info;
    if (i.pchBuffer == nullptr) return MMSYSERR_NOERROR;
    const auto lo = reinterpret_cast<uintptr_t>(i.pchBuffer);
    const auto next = reinterpret_cast<uintptr_t>(in.pchNext);
    if (in.pchBuffer != i.pchBuffer || next < lo || next > lo + uintptr_t(i.cchBuffer)) return MMSYSERR_INVALPARAM;
    i.pchNext = in.pchNext;
    // Bytes the caller stepped over are the buffer's contents from now on.
    if (i.pchNext > i.pchEndRead) i.pchEndRead = i.pchNext;
    if (in.dwFlags & MMIO_DIRTY) i.dwFlags |= MMIO_DIRTY;
    return MMSYSERR_NOERROR;
}

bool Qualify(const char* pszName, std::string& strOut)
{
    if (pszName == nullptr || *pszName == '\0') return false;
    std::error_code ec;
    std::filesystem::path p = std::filesystem::absolute(pszName, ec);
    if (ec) return false;
    strOut = p.lexically_normal().string();
    return strOut.size() < MAX_PATH;
}

bool IsRegularFile(const char* pszName)
{
    struct stat st;
    return stat(pszName, &st) == 0 && S_ISREG(st.st_mode);
}

UINT OpenError(int err, const char* pszName)
{
    switch (err) {
    case ENOENT: {
        // Missing file or missing folder on the way to it.
        std::filesystem::path dir = std::filesystem::path(pszName).parent_path();
        struct stat st;
        const bool dirExists = stat(dir.empty() ? "." : dir.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
        return dirExists ? MMIOERR_FILENOTFOUND : MMIOERR_PATHNOTFOUND;
    }
    case ENOTDIR:
    case ENAMETOOLONG:
    case ELOOP:
        return MMIOERR_PATHNOTFOUND;
    case EACCES:
    case EPERM:
    case EROFS:
    case EISDIR:
        return MMIOERR_ACCESSDENIED;
    case EMFILE:
    case ENFILE:
        return MMIOERR_TOOMANYOPENFILES;
    case ENOMEM:
        return MMIOERR_OUTOFMEMORY;
    case ETXTBSY:
    case EBUSY:
        return MMIOERR_SHARINGVIOLATION;
    default:
        return MMIOERR_CANNOTOPEN;
    }
}

} // namespace

size_t qxplat::LiveMmioCount()
{
    Table& t = Files();
    std::lock_guard<std::mutex> lock(t.mutex);
    return t.files.size();
}

HMMIO mmioOpenA(LPSTR pszFileName, LPMMIOINFO lpmmioinfo, DWORD dwOpenFlags)
{
    auto fail = [lpmmioinfo](UINT e) -> HMMIO {
        if (lpmmioinfo != nullptr) lpmmioinfo->wErrorRet = e;
        return nullptr;
    };
    DWORD fault = 0;
    if (QXFaultCheck("mmioOpenA", &fault)) return fail(fault);

    if (dwOpenFlags & (MMIO_EXIST | MMIO_PARSE)) {
        std::string full;
        if (!Qualify(pszFileName, full)) return fail(MMIOERR_PATHNOTFOUND);
        std::memcpy(pszFileName, full.c_str(), full.size() + 1);
        if ((dwOpenFlags & MMIO_EXIST) && !IsRegularFile(full.c_str())) return fail(MMIOERR_FILENOTFOUND);
        return kTrue;
    }
    if (dwOpenFlags & MMIO_DELETE) {
        if (pszFileName == nullptr) return fail(MMIOERR_FILENOTFOUND);
        if (unlink(pszFileName) != 0) return fail(OpenError(errno, pszFileName));
        return kTrue;
    }
    // Temporary names, memory files, already-open handles and installable I/O
    // procedures are not offered.
    if (dwOpenFlags & MMIO_GETTEMP) return fail(MMSYSERR_NOTSUPPORTED);
    if (pszFileName == nullptr) return fail(MMSYSERR_NOTSUPPORTED);
    if (lpmmioinfo != nullptr && (lpmmioinfo->pIOProc != nullptr ||
                                  (lpmmioinfo->fccIOProc != 0 && lpmmioinfo->fccIOProc != kDosIOProc)))
        return fail(MMSYSERR_NOTSUPPORTED);

    int oflags = O_CLOEXEC | O_NONBLOCK; // a FIFO must not block the open; refused below
    switch (dwOpenFlags & MMIO_RWMODE) {
    case MMIO_READ: oflags |= O_RDONLY; break;
    case MMIO_WRITE: oflags |= O_WRONLY; break;
    case MMIO_READWRITE: oflags |= O_RDWR; break;
    default: return fail(MMSYSERR_INVALFLAG);
    }
    if (dwOpenFlags & MMIO_CREATE) oflags |= O_CREAT | O_TRUNC;

    LONG cchBuffer = 0;
    char* pchCaller = nullptr;
    if (lpmmioinfo != nullptr && lpmmioinfo->pchBuffer != nullptr && lpmmioinfo->cchBuffer > 0) {
        pchCaller = lpmmioinfo->pchBuffer;
        cchBuffer = lpmmioinfo->cchBuffer;
    } else if (dwOpenFlags & MMIO_ALLOCBUF) {
        cchBuffer = lpmmioinfo != nullptr && lpmmioinfo->cchBuffer != 0 ? lpmmioinfo->cchBuffer : MMIO_DEFAULTBUFFER;
        if (cchBuffer < 0) return fail(MMSYSERR_INVALPARAM);
    }

    auto f = std::make_unique<MmioFile>();
    if (pchCaller == nullptr && cchBuffer > 0) {
        f->owned.reset(new (std::nothrow) char[size_t(cchBuffer)]);
        if (!f->owned) return fail(MMIOERR_OUTOFMEMORY);
    }

    const int fd = open(pszFileName, oflags, 0666);
    if (fd < 0) return fail(OpenError(errno, pszFileName));
    struct stat st;
    UINT err = MMSYSERR_NOERROR;
    if (fstat(fd, &st) != 0)
        err = MMIOERR_CANNOTOPEN;
    else if (S_ISDIR(st.st_mode))
        err = MMIOERR_ACCESSDENIED;
    else if (!S_ISREG(st.st_mode))
        err = MMIOERR_CANNOTOPEN;
    else if (st.st_size > kMaxOffset)
        err = MMIOERR_INVALIDFILE;
    else if (fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_NONBLOCK) != 0)
        err = MMIOERR_CANNOTOPEN;
    if (err != MMSYSERR_NOERROR) {
        close(fd);
        return fail(err);
    }

    f->fd = fd;
    f->canRead = (dwOpenFlags & MMIO_RWMODE) != MMIO_WRITE;
    f->canWrite = (dwOpenFlags & MMIO_RWMODE) != MMIO_READ;
    MMIOINFO& i = f->info;
    i.dwFlags = dwOpenFlags & (MMIO_RWMODE | MMIO_SHAREMODE | MMIO_CREATE);
    if (f->owned) i.dwFlags |= MMIO_ALLOCBUF;
    i.fccIOProc = kDosIOProc;
    i.cchBuffer = cchBuffer;
    i.pchBuffer = pchCaller != nullptr ? pchCaller : f->owned.get();
    StartBuffer(*f, 0);

    Table& t = Files();
    std::lock_guard<std::mutex> lock(t.mutex);
    const uintptr_t id = t.next++;
    i.hmmio = reinterpret_cast<HMMIO>(id);
    t.files.emplace(id, std::move(f));
    if (lpmmioinfo != nullptr) {
        lpmmioinfo->wErrorRet = MMSYSERR_NOERROR;
        lpmmioinfo->hmmio = reinterpret_cast<HMMIO>(id);
    }
    return reinterpret_cast<HMMIO>(id);
}

MMRESULT mmioClose(HMMIO hmmio, UINT)
{
    DWORD fault = 0;
    const bool faulted = QXFaultCheck("mmioClose", &fault);
    std::unique_ptr<MmioFile> f;
    {
        Table& t = Files();
        std::lock_guard<std::mutex> lock(t.mutex);
        auto it = t.files.find(reinterpret_cast<uintptr_t>(hmmio));
        if (it == t.files.end()) return MMSYSERR_INVALHANDLE;
        f = std::move(it->second);
        t.files.erase(it);
        g_closes.fetch_add(1, std::memory_order_release);
    }
    MMRESULT r = Flush(*f);
    if (close(f->fd) != 0 && r == MMSYSERR_NOERROR) r = MMIOERR_CANNOTCLOSE;
    return faulted ? fault : r;
}

LONG mmioSeek(HMMIO hmmio, LONG lOffset, int iOrigin)
{
    DWORD fault = 0;
    if (QXFaultCheck("mmioSeek", &fault)) return -1;
    MmioFile* f = Find(hmmio);
    if (f == nullptr) return -1;
    int64_t base = 0;
    switch (iOrigin) {
    case SEEK_SET: base = 0; break;
    case SEEK_CUR: base = Pos(*f); break;
    case SEEK_END: base = EndOfFile(*f); break;
    default: return -1;
    }
    if (base < 0) return -1;
    const int64_t target = base + lOffset;
    if (target < 0 || target > kMaxOffset) return -1;
    if (MoveTo(*f, target) != MMSYSERR_NOERROR) return -1;
    return LONG(target);
}

LONG mmioRead(HMMIO hmmio, char* pch, LONG cch)
{
    DWORD fault = 0;
    if (QXFaultCheck("mmioRead", &fault)) return -1;
    MmioFile* f = Find(hmmio);
    return f == nullptr ? -1 : ReadBytes(*f, pch, cch);
}

LONG mmioWrite(HMMIO hmmio, const char* pch, LONG cch)
{
    DWORD fault = 0;
    if (QXFaultCheck("mmioWrite", &fault)) return -1;
    MmioFile* f = Find(hmmio);
    return f == nullptr ? -1 : WriteBytes(*f, pch, cch);
}

MMRESULT mmioFlush(HMMIO hmmio, UINT wFlags)
{
    DWORD fault = 0;
    if (QXFaultCheck("mmioFlush", &fault)) return fault;
    MmioFile* f = Find(hmmio);
    if (f == nullptr) return MMSYSERR_INVALHANDLE;
    if (Flush(*f) != MMSYSERR_NOERROR) return MMIOERR_CANNOTWRITE;
    if (wFlags & MMIO_EMPTYBUF) StartBuffer(*f, Pos(*f));
    return MMSYSERR_NOERROR;
}

MMRESULT mmioDescend(HMMIO hmmio, LPMMCKINFO lpck, const MMCKINFO* lpckParent, UINT wFlags)
{
    DWORD fault = 0;
    if (QXFaultCheck("mmioDescend", &fault)) return fault;
    MmioFile* f = Find(hmmio);
    if (f == nullptr) return MMSYSERR_INVALHANDLE;
    if (lpck == nullptr) return MMSYSERR_INVALPARAM;
    const int64_t end = lpckParent != nullptr ? int64_t(lpckParent->dwDataOffset) + lpckParent->cksize : kMaxOffset;

    // Every pass moves at least one header forward, so the search ends.
    for (;;) {
        const int64_t start = Pos(*f);
        if (start + 8 > end) return MMIOERR_CHUNKNOTFOUND;
        BYTE hdr[8];
        const LONG got = ReadBytes(*f, reinterpret_cast<char*>(hdr), 8);
        if (got < 0) return MMIOERR_CANNOTREAD;
        if (got != 8) return MMIOERR_CHUNKNOTFOUND;
        const FOURCC ckid = Le32(hdr);
        const DWORD cksize = Le32(hdr + 4);
        const bool hasType = ckid == FOURCC_RIFF || ckid == FOURCC_LIST;
        FOURCC type = 0;
        if (hasType) {
            BYTE t[4];
            const LONG n = ReadBytes(*f, reinterpret_cast<char*>(t), 4);
            if (n < 0) return MMIOERR_CANNOTREAD;
            if (n != 4) return MMIOERR_CHUNKNOTFOUND;
            type = Le32(t);
        }
        bool match = true;
        if (wFlags & MMIO_FINDCHUNK)
            match = ckid == lpck->ckid;
        else if (wFlags & MMIO_FINDRIFF)
            match = ckid == FOURCC_RIFF && type == lpck->fccType;
        else if (wFlags & MMIO_FINDLIST)
            match = ckid == FOURCC_LIST && type == lpck->fccType;
        if (match) {
            lpck->ckid = ckid;
            lpck->cksize = cksize;
            lpck->fccType = type;
            lpck->dwDataOffset = DWORD(start + 8);
            lpck->dwFlags = 0;
            return MMSYSERR_NOERROR;
        }
        const int64_t next = start + 8 + int64_t(cksize) + (cksize & 1);
        if (next > kMaxOffset) return MMIOERR_CHUNKNOTFOUND;
        if (MoveTo(*f, next) != MMSYSERR_NOERROR) return MMIOERR_CANNOTSEEK;
    }
}

MMRESULT mmioAscend(HMMIO hmmio, LPMMCKINFO lpck, UINT)
{
    DWORD fault = 0;
    if (QXFaultCheck("mmioAscend", &fault)) return fault;
    MmioFile* f = Find(hmmio);
    if (f == nullptr) return MMSYSERR_INVALHANDLE;
    if (lpck == nullptr) return MMSYSERR_INVALPARAM;

    if (lpck->dwFlags & MMIO_DIRTY) {
        // The position is the end of what was written into the chunk.
        const int64_t endData = Pos(*f);
        const int64_t size = endData - int64_t(lpck->dwDataOffset);
        if (size < 0 || lpck->dwDataOffset < 4) return MMIOERR_CANNOTSEEK;
        if (size != int64_t(lpck->cksize)) {
            BYTE le[4];
            PutLe32(le, DWORD(size));
            if (MoveTo(*f, lpck->dwDataOffset - 4) != MMSYSERR_NOERROR) return MMIOERR_CANNOTSEEK;
            if (WriteBytes(*f, reinterpret_cast<const char*>(le), 4) != 4) return MMIOERR_CANNOTWRITE;
            lpck->cksize = DWORD(size);
            if (MoveTo(*f, endData) != MMSYSERR_NOERROR) return MMIOERR_CANNOTSEEK;
        }
        if (size & 1) {
            const char pad = 0;
            if (WriteBytes(*f, &pad, 1) != 1) return MMIOERR_CANNOTWRITE;
        }
        lpck->dwFlags &= ~MMIO_DIRTY;
    }
    const int64_t next = int64_t(lpck->dwDataOffset) + lpck->cksize + (lpck->cksize & 1);
    if (MoveTo(*f, next) != MMSYSERR_NOERROR) return MMIOERR_CANNOTSEEK;
    return MMSYSERR_NOERROR;
}

MMRESULT mmioCreateChunk(HMMIO hmmio, LPMMCKINFO lpck, UINT wFlags)
{
    DWORD fault = 0;
    if (QXFaultCheck("mmioCreateChunk", &fault)) return fault;
    MmioFile* f = Find(hmmio);
    if (f == nullptr) return MMSYSERR_INVALHANDLE;
    if (lpck == nullptr) return MMSYSERR_INVALPARAM;
    if (wFlags & MMIO_CREATERIFF)
        lpck->ckid = FOURCC_RIFF;
    else if (wFlags & MMIO_CREATELIST)
        lpck->ckid = FOURCC_LIST;
    const bool hasType = lpck->ckid == FOURCC_RIFF || lpck->ckid == FOURCC_LIST;
    const int64_t start = Pos(*f);
    BYTE hdr[12];
    PutLe32(hdr, lpck->ckid);
    PutLe32(hdr + 4, lpck->cksize);
    PutLe32(hdr + 8, lpck->fccType);
    const LONG n = hasType ? 12 : 8;
    if (WriteBytes(*f, reinterpret_cast<const char*>(hdr), n) != n) return MMIOERR_CANNOTWRITE;
    lpck->dwDataOffset = DWORD(start + 8);
    lpck->dwFlags = MMIO_DIRTY;
    return MMSYSERR_NOERROR;
}

MMRESULT mmioGetInfo(HMMIO hmmio, LPMMIOINFO lpmmioinfo, UINT)
{
    DWORD fault = 0;
    if (QXFaultCheck("mmioGetInfo", &fault)) return fault;
    MmioFile* f = Find(hmmio);
    if (f == nullptr) return MMSYSERR_INVALHANDLE;
    if (lpmmioinfo == nullptr) return MMSYSERR_INVALPARAM;
    *lpmmioinfo = f->info;
    return MMSYSERR_NOERROR;
}

MMRESULT mmioSetInfo(HMMIO hmmio, const MMIOINFO* lpmmioinfo, UINT)
{
    DWORD fault = 0;
    if (QXFaultCheck("mmioSetInfo", &fault)) return fault;
    MmioFile* f = Find(hmmio);
    if (f == nullptr) return MMSYSERR_INVALHANDLE;
    if (lpmmioinfo == nullptr) return MMSYSERR_INVALPARAM;
    return TakeInfo(*f, *lpmmioinfo);
}

MMRESULT mmioAdvance(HMMIO hmmio, LPMMIOINFO lpmmioinfo, UINT wFlags)
{
    DWORD fault = 0;
    if (QXFaultCheck("mmioAdvance", &fault)) return fault;
    MmioFile* f = Find(hmmio);
    if (f == nullptr) return MMSYSERR_INVALHANDLE;
    if (f->info.pchBuffer == nullptr) return MMIOERR_UNBUFFERED;
    if (lpmmioinfo != nullptr)
        if (MMRESULT r = TakeInfo(*f, *lpmmioinfo)) return r;
    const bool forWrite = (wFlags & MMIO_WRITE) != 0;
    if (forWrite && !f->canWrite) return MMIOERR_CANNOTWRITE;
    if (!forWrite && !f->canRead) return MMIOERR_CANNOTREAD;
    if (Flush(*f) != MMSYSERR_NOERROR) return MMIOERR_CANNOTWRITE;
    // A readable file reads the next buffer either way, so that writing part of it
    // keeps the rest of what the file holds there.
    if (f->canRead) {
        if (MMRESULT r = Fill(*f)) return r;
    } else {
        StartBuffer(*f, Pos(*f));
    }
    if (lpmmioinfo != nullptr) *lpmmioinfo = f->info;
    return MMSYSERR_NOERROR;
}

MMRESULT mmioSetBuffer(HMMIO hmmio, LPSTR pchBuffer, LONG cchBuffer, UINT)
{
    DWORD fault = 0;
    if (QXFaultCheck("mmioSetBuffer", &fault)) return fault;
    MmioFile* f = Find(hmmio);
    if (f == nullptr) return MMSYSERR_INVALHANDLE;
    if (cchBuffer < 0) return MMSYSERR_INVALPARAM;
    if (Flush(*f) != MMSYSERR_NOERROR) return MMIOERR_CANNOTWRITE;
    std::unique_ptr<char[]> fresh;
    if (pchBuffer == nullptr && cchBuffer > 0) {
        fresh.reset(new (std::nothrow) char[size_t(cchBuffer)]);
        if (!fresh) return MMIOERR_OUTOFMEMORY;
        pchBuffer = fresh.get();
    }
    const int64_t pos = Pos(*f);
    MMIOINFO& i = f->info;
    f->owned = std::move(fresh);
    i.cchBuffer = cchBuffer > 0 ? cchBuffer : 0;
    i.pchBuffer = cchBuffer > 0 ? pchBuffer : nullptr;
    if (f->owned)
        i.dwFlags |= MMIO_ALLOCBUF;
    else
        i.dwFlags &= ~MMIO_ALLOCBUF;
    StartBuffer(*f, pos);
    return MMSYSERR_NOERROR;
}
