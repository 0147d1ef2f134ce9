#include "platform/mmio/QXMmio.h"

#include "unit/wavefile/WaveTestUtil.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

using namespace wavetest;

namespace {

class Mmio : public ScratchTest {
protected:
    HMMIO Open(const std::string& path, DWORD flags) { return mmioOpenA(const_cast<char*>(path.c_str()), nullptr, flags); }
};

std::string ReadN(HMMIO h, LONG n)
{
    std::string s(size_t(n), '\0');
    s.resize(size_t(std::max(mmioRead(h, s.data(), n), 0)));
    return s;
}

MMCKINFO Ck(const char (&id)[5], const char (&type)[5] = "\0\0\0\0")
{
    return {mmioFOURCC(id[0], id[1], id[2], id[3]), 0, mmioFOURCC(type[0], type[1], type[2], type[3]), 0, 0};
}

} // namespace

TEST_F(Mmio, OpenSaysWhyItFailedAndOffsetsStopAt2GiB)
{
    const std::string file = Make("f.bin", "x");
    ASSERT_EQ(mkfifo(Path("fifo").c_str(), 0600), 0);
    const int fd = open(Path("big").c_str(), O_CREAT | O_WRONLY, 0600);
    ASSERT_EQ(ftruncate(fd, 0x80000000LL), 0);
    const size_t fds = OpenFdCount();
    const std::tuple<std::string, DWORD, UINT> refused[] = {
        {Path("missing"), MMIO_READ, MMIOERR_FILENOTFOUND},
        {Path("no/dir"), MMIO_READ, MMIOERR_PATHNOTFOUND},
        {Path("no/x"), MMIO_CREATE | MMIO_WRITE, MMIOERR_PATHNOTFOUND},
        {file + "/x", MMIO_READ, MMIOERR_PATHNOTFOUND},
        {m_dir, MMIO_READ, MMIOERR_ACCESSDENIED},
        {m_dir, MMIO_CREATE | MMIO_WRITE, MMIOERR_ACCESSDENIED},
        {Path("fifo"), MMIO_READ, MMIOERR_CANNOTOPEN}, // and no hang
        {Path("big"), MMIO_READ, MMIOERR_INVALIDFILE},
        {file, 3, MMSYSERR_INVALFLAG},
    };
    for (const auto& [path, flags, error] : refused) {
        MMIOINFO info{};
        EXPECT_EQ(mmioOpenA(const_cast<char*>(path.c_str()), &info, flags), nullptr) << path;
        EXPECT_EQ(info.wErrorRet, error) << path;
    }
    EXPECT_EQ(OpenFdCount(), fds);

    ASSERT_EQ(ftruncate(fd, 0x7FFFFFFF), 0); // one byte less is fine
    close(fd);
    HMMIO h = Open(Path("big"), MMIO_READWRITE | MMIO_ALLOCBUF);
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(mmioSeek(h, 0, SEEK_END), 0x7FFFFFFF);
    EXPECT_EQ(mmioWrite(h, "x", 1), -1);
    EXPECT_EQ(mmioSeek(h, 1, SEEK_CUR), -1);
    EXPECT_EQ(mmioSeek(h, -2, SEEK_END), 0x7FFFFFFD);
    EXPECT_EQ(mmioWrite(h, "abc", 3), -1);
    EXPECT_EQ(mmioWrite(h, "ab", 2), 2);
    EXPECT_EQ(mmioClose(h, 0), 0u);
}

TEST_F(Mmio, BufferedAndUnbufferedReadsWritesAndSeeksGiveTheFilesBytes)
{
    const std::string data = Pattern(50000);
    std::string expect = data;
    expect.replace(100, 4, "OVER");
    for (DWORD buffering : {0u, DWORD(MMIO_ALLOCBUF)}) {
        const std::string path = Path("rw.bin");
        HMMIO h = Open(path, MMIO_CREATE | MMIO_READWRITE | buffering);
        for (size_t at = 0, n = 1; at < data.size(); at += n, n = n * 3 % 9001 + 1) {
            const LONG len = LONG(std::min(n, data.size() - at));
            ASSERT_EQ(mmioWrite(h, data.data() + at, len), len);
        }
        EXPECT_EQ(mmioSeek(h, 0, SEEK_END), 50000); // counts what is still buffered
        EXPECT_EQ(mmioSeek(h, 100, SEEK_SET), 100);
        EXPECT_EQ(mmioWrite(h, "OVER", 4), 4);
        EXPECT_EQ(mmioSeek(h, -8, SEEK_CUR), 96);
        EXPECT_EQ(ReadN(h, 12), expect.substr(96, 12));
        EXPECT_EQ(mmioSeek(h, 49990, SEEK_SET), 49990);
        EXPECT_EQ(ReadN(h, 100), data.substr(49990));
        EXPECT_EQ(mmioSeek(h, -1, SEEK_SET), -1);
        EXPECT_EQ(mmioClose(h, 0), 0u);
        EXPECT_TRUE(Slurp(path) == expect) << buffering;

        h = Open(path, MMIO_READ | buffering);
        EXPECT_EQ(mmioWrite(h, "x", 1), -1);
        std::string back;
        for (LONG n = 1; back.size() < data.size(); n = n * 7 % 20000 + 1) back += ReadN(h, n);
        EXPECT_TRUE(back == expect) << buffering;
        mmioClose(h, 0);
        h = Open(path, MMIO_WRITE | buffering);
        EXPECT_EQ(mmioRead(h, back.data(), 1), -1);
        mmioClose(h, 0);
    }
}

// Chunks written with their true sizes and pad bytes, then found again: inside their
// parent only, past the pads of the chunks before them.
TEST_F(Mmio, ChunksAreWrittenWithTheirTrueSizesAndFoundInsideTheirParent)
{
    const std::string path = Path("c.wav");
    HMMIO h = Open(path, MMIO_CREATE | MMIO_WRITE | MMIO_ALLOCBUF);
    auto put = [&](const char(&id)[5], const std::string& body) {
        MMCKINFO ck = Ck(id);
        ck.cksize = 100; // a wrong guess is corrected
        ASSERT_EQ(mmioCreateChunk(h, &ck, 0), 0u);
        mmioWrite(h, body.data(), LONG(body.size()));
        ASSERT_EQ(mmioAscend(h, &ck, 0), 0u);
        EXPECT_EQ(ck.cksize, body.size());
    };
    MMCKINFO form = Ck("????", "WAVE");
    put("JUNK", "j");
    ASSERT_EQ(mmioCreateChunk(h, &form, MMIO_CREATERIFF), 0u);
    put("fmt ", "12345");
    put("data", "abc");
    ASSERT_EQ(mmioAscend(h, &form, 0), 0u);
    put("tail", "outside");
    mmioWrite(h, "huge\xF0\xFF\xFF\xFF", 8);
    put("last", "z"); // its pad is the file's last byte
    ASSERT_EQ(mmioClose(h, 0), 0u);
    const std::string riff = Riff(Chunk("fmt ", "12345") + Chunk("data", "abc"));
    ASSERT_EQ(Slurp(path),
              Chunk("JUNK", "j") + riff + Chunk("tail", "outside") + "huge" + Le32(0xFFFFFFF0u) + Chunk("last", "z"));

    for (DWORD buffering : {0u, DWORD(MMIO_ALLOCBUF)}) {
        h = Open(path, MMIO_READ | buffering);
        MMCKINFO wave = Ck("RIFF", "WAVE"), here{}, data = Ck("data");
        EXPECT_EQ(mmioCreateChunk(h, &here, 0), UINT(MMIOERR_CANNOTWRITE));
        ASSERT_EQ(mmioDescend(h, &wave, nullptr, MMIO_FINDRIFF), 0u);
        EXPECT_EQ(wave.dwDataOffset, 18u); // past "JUNK", its odd byte and its pad
        EXPECT_EQ(mmioSeek(h, 0, SEEK_CUR), 22);
        ASSERT_EQ(mmioDescend(h, &here, &wave, 0), 0u); // the chunk right here
        EXPECT_EQ(here.ckid, mmioFOURCC('f', 'm', 't', ' '));
        EXPECT_EQ(ReadN(h, 3), "123");
        ASSERT_EQ(mmioAscend(h, &here, 0), 0u);
        ASSERT_EQ(mmioDescend(h, &data, &wave, MMIO_FINDCHUNK), 0u);
        EXPECT_EQ(ReadN(h, 3), "abc");
        ASSERT_EQ(mmioAscend(h, &data, 0), 0u);
        EXPECT_EQ(mmioSeek(h, 0, SEEK_CUR), LONG(10 + riff.size())); // past the pad: the form's end

        // Not in the parent, though the file goes on with one; without a parent the
        // search runs on, until a header whose size leads past 2 GiB.
        MMCKINFO tail = Ck("tail"), none = Ck("none"), avi = Ck("RIFF", "AVI ");
        mmioSeek(h, LONG(wave.dwDataOffset + 4), SEEK_SET);
        EXPECT_EQ(mmioDescend(h, &tail, &wave, MMIO_FINDCHUNK), UINT(MMIOERR_CHUNKNOTFOUND));
        mmioSeek(h, 0, SEEK_SET);
        EXPECT_EQ(mmioDescend(h, &tail, nullptr, MMIO_FINDCHUNK), 0u);
        ASSERT_EQ(mmioAscend(h, &tail, 0), 0u);
        EXPECT_EQ(mmioDescend(h, &none, nullptr, MMIO_FINDCHUNK), UINT(MMIOERR_CHUNKNOTFOUND));
        mmioSeek(h, 0, SEEK_SET);
        EXPECT_EQ(mmioDescend(h, &avi, nullptr, MMIO_FINDRIFF), UINT(MMIOERR_CHUNKNOTFOUND));
        mmioClose(h, 0);
    }
}

// A writer's small buffer, and a reader's direct access to its buffer.
TEST_F(Mmio, DirectBufferReadsGiveTheFilesBytesAndBadPointersOrHandlesAreRefused)
{
    const std::string data = Pattern(1000), path = Path("direct.bin");
    HMMIO h = Open(path, MMIO_CREATE | MMIO_WRITE | MMIO_ALLOCBUF);
    ASSERT_EQ(mmioSetBuffer(h, nullptr, 64, 0), 0u);
    for (size_t at = 0; at < data.size(); at += 100) ASSERT_EQ(mmioWrite(h, data.data() + at, 100), 100);
    ASSERT_EQ(mmioSetBuffer(h, nullptr, 0, 0), 0u); // flushes, then unbuffered
    EXPECT_EQ(Slurp(path), data);
    mmioWrite(h, "ab", 2);
    EXPECT_EQ(Slurp(path), data + "ab");
    ASSERT_EQ(mmioClose(h, 0), 0u);

    h = Open(path, MMIO_READ | MMIO_ALLOCBUF);
    ASSERT_EQ(mmioSetBuffer(h, nullptr, 64, 0), 0u);
    MMIOINFO info;
    ASSERT_EQ(mmioGetInfo(h, &info, 0), 0u);
    EXPECT_EQ(info.cchBuffer, 64);
    std::string back;
    for (int advances = 0; back.size() < data.size() + 2 && advances < 100; back += *info.pchNext++) {
        while (info.pchNext == info.pchEndRead && advances++ < 100) ASSERT_EQ(mmioAdvance(h, &info, MMIO_READ), 0u);
    }
    EXPECT_EQ(back, data + "ab");
    MMIOINFO wild = info;
    wild.pchNext = info.pchBuffer + info.cchBuffer + 1;
    EXPECT_EQ(mmioSetInfo(h, &wild, 0), UINT(MMSYSERR_INVALPARAM));
    EXPECT_EQ(mmioAdvance(h, &info, MMIO_WRITE), UINT(MMIOERR_CANNOTWRITE)) << "a file open for reading";
    ASSERT_EQ(mmioSetInfo(h, &info, 0), 0u);
    char mine[4];
    ASSERT_EQ(mmioSetBuffer(h, mine, sizeof(mine), 0), 0u);
    EXPECT_EQ(mmioSeek(h, 995, SEEK_SET), 995);
    EXPECT_EQ(ReadN(h, 10), data.substr(995) + "ab");
    ASSERT_EQ(mmioSetBuffer(h, nullptr, 0, 0), 0u);
    EXPECT_EQ(mmioAdvance(h, nullptr, MMIO_READ), UINT(MMIOERR_UNBUFFERED));

    // A failed close still lets go; then the handle is unknown, like any made-up one.
    QXFaultInject("mmioClose", MMIOERR_CANNOTCLOSE);
    EXPECT_EQ(mmioClose(h, 0), UINT(MMIOERR_CANNOTCLOSE));
    MMCKINFO ck{};
    for (HMMIO bad : {h, HMMIO(nullptr), reinterpret_cast<HMMIO>(uintptr_t{1})}) {
        EXPECT_EQ(mmioClose(bad, 0), UINT(MMSYSERR_INVALHANDLE));
        EXPECT_EQ(mmioRead(bad, mine, 1), -1);
        EXPECT_EQ(mmioDescend(bad, &ck, nullptr, 0), UINT(MMSYSERR_INVALHANDLE));
        EXPECT_EQ(mmioGetInfo(bad, &info, 0), UINT(MMSYSERR_INVALHANDLE));
    }
}
