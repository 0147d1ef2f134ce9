// The wave file reader against arbitrary files: the questions asked by name, opening,
// reads of varying sizes and seeks of every kind. Whatever the file claims, nothing
// may read outside its buffers, hang, leak, or break the reader's own invariants.
//
// The input is the file; when it is at least 16 bytes long its last 16 bytes are not
// part of the file but steer the reads and seeks (fuzz/make_seeds.cpp writes seeds so).
#include <quavix/QXNotify.h>
#include <quavix/QXWaveFile.h>

#include "platform/mmio/QXMmio.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace {

constexpr size_t kControl = 16;

// The scratch file is unlinked at once and reached through /proc/self/fd, so that
// nothing is left behind however the run ends.
int g_fd = -1;

const std::string& FilePath()
{
    static const std::string path = [] {
        const std::string tmp = "/tmp/qx-wavefile-fuzz-" + std::to_string(getpid()) + ".wav";
        g_fd = open(tmp.c_str(), O_CREAT | O_TRUNC | O_RDWR | O_CLOEXEC, 0600);
        unlink(tmp.c_str());
        return "/proc/self/fd/" + std::to_string(g_fd);
    }();
    return path;
}

bool WriteFile(const uint8_t* data, size_t size)
{
    if (g_fd < 0 || ftruncate(g_fd, 0) != 0) return false;
    for (size_t done = 0; done < size;) {
        const ssize_t n = pwrite(g_fd, data + done, size - done, off_t(done));
        if (n <= 0) return false;
        done += size_t(n);
    }
    return true;
}

size_t OpenFdCount()
{
    size_t n = 0;
    if (DIR* d = opendir("/proc/self/fd")) {
        while (readdir(d) != nullptr) ++n;
        closedir(d);
    }
    return n;
}

[[noreturn]] void Fail(const char* what)
{
    std::fprintf(stderr, "wavefile_fuzz: %s\n", what);
    std::abort();
}

// One reader for the whole run: each device has a thread of its own.
CWaveFileRead& Reader()
{
    static CWaveFileRead* s_pReader = [] {
        QXSetTraceProc([](const char*, void*) {}, nullptr); // reports are expected by the thousand
        return new CWaveFileRead;
    }();
    return *s_pReader;
}

// pReadPoint: where the test knows reading goes on, in sample bytes from the start of
// the data. Successful seeks set it, refused ones leave it, reads advance it.
void CheckRead(CWaveFileRead& r, int size, long* pReadPoint)
{
    // A buffer of exactly the size asked for, so that any overrun is caught.
    std::unique_ptr<unsigned char[]> buf(new unsigned char[size_t(size > 0 ? size : 1)]);
    const long before = r.GetFilePosition();
    const int n = r.Read(buf.get(), size);
    if (n < -1 || n > (size > 0 ? size : 0)) Fail("Read returned a count outside [-1, size]");
    if (n < 0) return;
    if (r.GetFilePosition() != before + n) Fail("position moved by other than the count");
    // The data size is what the file holds, and the file does not change while it is
    // read: every byte up to the end of the data comes, in full pieces.
    const long expect = size <= 0 || before >= r.GetDataSize() ? 0 : std::min<long>(size, r.GetDataSize() - *pReadPoint);
    if (n != std::max(expect, 0L)) Fail("a count other than what is left at the read point");
    *pReadPoint += n;
    if (r.GetFilePosition() > r.GetDataSize()) Fail("position past the data size");
    const QX_DevFormat* f = r.GetFormat();
    const unsigned char silence = f != nullptr && f->wBitsPerSample == 16 ? 0x00 : 0x80;
    for (int i = n; i < size; ++i)
        if (buf[size_t(i)] != silence) Fail("the rest of the buffer is not silence");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    CWaveFileRead& r = Reader();
    const char* name = FilePath().c_str();
    static const size_t s_nFds = OpenFdCount();

    uint8_t ctl[kControl] = {};
    size_t fileSize = size;
    if (size >= kControl) {
        fileSize = size - kControl;
        std::memcpy(ctl, data + fileSize, kControl);
    }
    if (!WriteFile(data, fileSize)) Fail("cannot write the scratch file");

    CWaveFile::FileExists(name);
    QX_DevFormat format{};
    const int hasFormat = CWaveFile::FileFormat(name, format);
    const long duration = CWaveFile::FileDuration(name);
    if (!hasFormat && duration != 0) Fail("a duration for a file without a format");

    r.SetFilename(name);
    const int opened = r.Open(0);
    // Buffered (the reader) and unbuffered (the questions by name) access must agree.
    if (opened != hasFormat) Fail("the reader and FileFormat disagree");
    if (opened) {
        if (r.GetFormat() == nullptr || std::memcmp(r.GetFormat(), &format, sizeof(format)) != 0)
            Fail("the reader's format differs from FileFormat's");
        if (r.GetDataSize() < 0) Fail("negative data size");
        if (r.GetDuration() != duration) Fail("GetDuration and FileDuration disagree");
        long readPoint = 0;
        static const UINT kTypes[] = {TIME_MS, TIME_SAMPLES, TIME_BYTES, TIME_SMPTE};
        for (size_t i = 0; i < 12; ++i) {
            const uint8_t op = ctl[i];
            const uint32_t arg = uint32_t(ctl[(i + 1) % kControl]) << 8 | ctl[(i + 2) % kControl] |
                                 uint32_t(ctl[(i + 3) % kControl]) << (op & 0x80 ? 24 : 16);
            switch (op & 3) {
            case 0:
            case 1:
                CheckRead(r, int(arg % 20000) - (op == 0xFF ? 20001 : 0), &readPoint); // now and then a negative size
                break;
            case 2: {
                MMTIME t{};
                t.wType = kTypes[(op >> 2) & 3];
                t.u.ms = arg;
                const int ok = r.Seek(op & 0x40 ? nullptr : &t, (op >> 4) & 3);
                if (!ok && r.GetFilePosition() != 0) Fail("a refused seek left the position");
                if (ok) readPoint = r.GetFilePosition();
                if (r.GetFilePosition() < 0 || r.GetFilePosition() > r.GetDataSize()) Fail("seek left the data");
                break;
            }
            default:
                CheckRead(r, 8192, &readPoint);
                break;
            }
        }
        if (!r.Close()) r.Close();
    }
    if (qxplat::LiveMmioCount() != 0) Fail("a file was left open");
    if (OpenFdCount() != s_nFds) Fail("a descriptor was left open");
    return 0;
}
