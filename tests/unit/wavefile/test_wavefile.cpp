#include <quavix/QXWaveFile.h>

#include "WaveTestUtil.h"
#include "integration/analysis.h"

#include <unistd.h>

using namespace wavetest;

namespace {

int Seek(CWaveFileRead& r, UINT type, DWORD value, int origin)
{
    MMTIME t{};
    t.wType = type;
    t.u.ms = value;
    return r.Seek(&t, origin);
}

QX_DevFormat Garbage()
{
    QX_DevFormat f;
    std::memset(&f, 0xEE, sizeof(f));
    return f;
}

// Files report on the shared notifier, naming themselves as the device.
class WaveFile : public ScratchTest {
protected:
    void SetUp() override
    {
        ScratchTest::SetUp();
        QXGetSharedNotify()->SetNotificationCallback(ReportLog::Proc, 0);
        ReportLog::Take();
    }
    void TearDown() override
    {
        QXGetSharedNotify()->SetNotificationCallback(nullptr, 0);
        ScratchTest::TearDown();
    }
    void OpenReader(CWaveFileRead& r, const std::string& bytes, const char* name = "in.wav")
    {
        ASSERT_EQ(OpenFile(r, Make(name, bytes)), 1);
    }
};

} // namespace

// What a short chunk lacks is 0; an extensible chunk stands for its sub-format's code
// when that is PCM or float of the standard family.
TEST_F(WaveFile, FormatRecordIsItsFirst18BytesWhateverTheChunkLength)
{
    std::string cbSize22 = Fmt(1, 22050, 16, 40);
    cbSize22.replace(8 + 16, 2, Le16(22)); // a cbSize the record must not take
    struct Case { std::string chunk; WORD tag, bits; };
    for (const Case& c : {Case{Fmt(1, 22050, 16), WAVE_FORMAT_PCM, 16}, {cbSize22, WAVE_FORMAT_PCM, 16},
                          {Fmt(1, 22050, 16, 14), WAVE_FORMAT_PCM, 0}, {Fmt(1, 22050, 16, 0), 0, 0},
                          {FmtExtensible(2, 44100, 24, WAVE_FORMAT_PCM), WAVE_FORMAT_PCM, 24},
                          {FmtExtensible(1, 44100, 32, WAVE_FORMAT_IEEE_FLOAT), WAVE_FORMAT_IEEE_FLOAT, 32},
                          {FmtExtensible(2, 44100, 8, 6), WAVE_FORMAT_EXTENSIBLE, 8}}) {
        SCOPED_TRACE(c.chunk.size());
        const std::string path = Make("f.wav", Riff(c.chunk + Chunk("data", "dd")));
        QX_DevFormat f = Garbage();
        ASSERT_EQ(CWaveFile::FileFormat(path.c_str(), f), 1);
        EXPECT_EQ(std::tuple(f.wFormatTag, f.wBitsPerSample, f.cbSize), std::tuple(c.tag, c.bits, 0));
    }
}

TEST_F(WaveFile, NonsenseFormatsGiveTruncatedOrZeroDurationsAndStayInBounds)
{
    // Channels, rate, bytes per second, block alignment, bits; and the chunk's length.
    auto fmt = [](WORD channels, DWORD rate, DWORD avg, WORD align, WORD bits, size_t length = 16) {
        std::string s = Le16(WAVE_FORMAT_PCM) + Le16(channels) + Le32(rate) + Le32(avg) + Le16(align) + Le16(bits);
        return Chunk("fmt ", s.substr(0, length));
    };
    const std::string data = Pattern(3001);
    const std::pair<std::string, long> cases[] = { // the format chunk, the duration of the data
        {fmt(1, 8000, 3001, 1, 8), 1000},    {fmt(1, 8000, 3, 1, 8), 1000333},   {fmt(0, 8000, 8000, 1, 8), 375},
        {fmt(1, 8000, 8000, 0, 8), 375},     {fmt(1, 0, 8000, 1, 8), 375},       {fmt(1, 8000, 0, 1, 8), 0},
        {fmt(1, 8000, 8000, 1, 8, 12), 375}, {fmt(1, 8000, 8000, 1, 8, 2), 0},   {fmt(0, 0, 0, 0, 0), 0},
        {fmt(0xFFFF, 0xFFFFFFFFu, 0x80000000u, 0xFFFF, 0xFFFF), 0},
    };
    CWaveFileRead r;
    EXPECT_EQ(r.GetDuration(), 0); // no format yet
    for (const auto& [chunk, duration] : cases) {
        SCOPED_TRACE(duration);
        const std::string path = Make("n.wav", Riff(chunk + Chunk("data", data)));
        EXPECT_EQ(CWaveFile::FileDuration(path.c_str()), duration);
        ASSERT_EQ(OpenFile(r, path), 1);
        EXPECT_EQ(r.GetDuration(), duration);
        EXPECT_TRUE(ReadToEnd(r, 1000) == data);
        for (UINT type : {TIME_MS, TIME_SAMPLES, TIME_BYTES, TIME_SMPTE})
            for (DWORD value : {0u, 1u, 1000u, 0xFFFFFFFFu})
                for (int origin : {0, 1, 2}) {
                    const int ok = Seek(r, type, value, origin);
                    ASSERT_GE(r.GetFilePosition(), 0);
                    ASSERT_LE(r.GetFilePosition(), 3001);
                    EXPECT_TRUE(!ok || ReadToEnd(r, 777) == data.substr(size_t(r.GetFilePosition())));
                }
        r.Close();
        for (const auto& [code, value] : TakeCodes()) EXPECT_EQ(code, QXN_FILE_SEEK) << value;
    }
    // The writer takes a format of zeros too, and the reader its file.
    QX_DevFormat zero{};
    CWaveFileWrite w;
    ASSERT_EQ(OpenFile(w, Path("zero.wav"), &zero), 1);
    std::string bytes = data;
    WAVEHDR h = Header(bytes);
    ASSERT_EQ(w.Write(&h), 3001);
    EXPECT_EQ(w.GetDuration(), 0);
    ASSERT_EQ(w.Close(), 1);
    ASSERT_EQ(OpenFile(r, Path("zero.wav")), 1);
    EXPECT_EQ(ReadToEnd(r), data);
    // File devices pause and stop, but never start; the plain file device never opens.
    EXPECT_EQ(r.Pause() + r.Stop(), 2);
    EXPECT_EQ(r.Start(), 0);
    CWaveFile plain;
    EXPECT_EQ(OpenFile(plain, Path("zero.wav")), 0);
}

TEST_F(WaveFile, RefusedFilesAndPathsAreReportedWithTheReasonAndLeaveNothingOpen)
{
    const std::string fmt = Fmt(1, 8000, 8);
    Make("ok.wav", Riff(fmt + Chunk("data", "abc")));
    const DWORD notFound = MMIOERR_CHUNKNOTFOUND;
    const struct { std::string path; DWORD code, value; } cases[] = {
        {Make("1.wav", Riff(fmt + Chunk("LIST", "INFO"))), QXN_FILE_DESCEND, notFound}, // no data
        {Make("2.wav", Riff(Chunk("data", "xx"))), QXN_FILE_DESCEND, notFound},         // no format
        {Make("3.wav", "plain words, no chunks"), QXN_FILE_DESCEND, notFound},
        {Make("4.wav", Riff(fmt + Chunk("data", "xx"), "AVI ")), QXN_FILE_DESCEND, notFound},
        {Make("6.wav", "RIFF" + Le32(4) + "WAVE" + fmt + Chunk("data", "xx")), QXN_FILE_DESCEND, notFound},
        {Make("7.wav", Riff("fmt " + Le32(16) + "abc")), QXN_FILE_READ, 0}, // cut short
        {"/proc/self/mem", QXN_FILE_DESCEND, MMIOERR_CANNOTREAD}, // opens, but cannot be read at its start
        {Path("missing.wav"), QXN_FILE_OPENREAD, 0},    {m_dir, QXN_FILE_OPENREAD, 0},
    };
    const size_t fds = OpenFdCount();
    for (const auto& c : cases) {
        SCOPED_TRACE(c.path);
        QX_DevFormat f = Garbage();
        EXPECT_EQ(CWaveFile::FileFormat(c.path.c_str(), f), 0);
        EXPECT_EQ(f.nChannels, 0xEEEE);
        EXPECT_EQ(CWaveFile::FileDuration(c.path.c_str()), 0);
        TakeCodes();
        CWaveFileRead r;
        EXPECT_EQ(OpenFile(r, c.path), 0);
        EXPECT_TRUE(c.code == QXN_FILE_OPENREAD || r.GetFormat() == nullptr);
        const Log got = ReportLog::Take();
        ASSERT_EQ(got.size(), 1u);
        EXPECT_EQ(std::tuple(std::get<0>(got[0]), std::get<1>(got[0]), std::string(reinterpret_cast<const char*>(std::get<2>(got[0])))),
                  std::tuple(c.code, c.value, c.path));
    }
    for (const std::string& path : {m_dir, Path("no/x.wav"), std::string("/sys/qx-unwritable.wav")}) {
        CWaveFileWrite w;
        EXPECT_EQ(OpenFile(w, path), 0);
        EXPECT_EQ(w.GetState(), QX_STATE_CLOSED);
        EXPECT_EQ(TakeCodes(), (Got{{QXN_FILE_OPENWRITE, 0}})) << path;
    }
    EXPECT_EQ(OpenFdCount(), fds);

    EXPECT_EQ(CWaveFile::FileExists(m_dir.c_str()), 0);
    EXPECT_EQ(CWaveFile::FileExists((m_dir + "/./nowhere/../ok.wav").c_str()), 1); // qualified by its text
    EXPECT_TRUE(TakeCodes().empty());
}

TEST_F(WaveFile, ReadPadsWithTheSilenceOfTheFormat)
{
    for (auto [bits, silence] : {std::pair{8, '\x80'}, {16, '\0'}, {24, '\x80'}}) {
        const std::string data = Pattern(600);
        CWaveFileRead r;
        OpenReader(r, Riff(Fmt(1, 8000, WORD(bits)) + Chunk("data", data)));
        int n = 0;
        EXPECT_EQ(ReadPiece(r, 1000, &n), data + std::string(400, silence));
        EXPECT_EQ(n, 600);
        EXPECT_EQ(ReadPiece(r, 1000, &n), std::string(1000, silence));
        EXPECT_EQ(n, 0);
        std::string untouched = "####";
        for (int size : {0, -5, 4}) {
            if (size == 4) r.Close();
            EXPECT_EQ(r.Read(reinterpret_cast<unsigned char*>(untouched.data()), size), 0);
        }
        EXPECT_EQ(untouched, "####");
        EXPECT_EQ(r.GetFilePosition(), 0);
    }
}

TEST_F(WaveFile, ChunksInAnyOrderAndLengthsTheFileDoesNotHoldReadToItsEnd)
{
    const std::string fmt = Fmt(1, 8000, 8), data = Pattern(5000);
    const std::string tail = Chunk("LIST", "INFO" + Chunk("ICMT", "odd"));
    const struct { std::string bytes; long size; } cases[] = {
        {Riff(Chunk("data", data) + tail + fmt), 5000},
        {Riff(Chunk("JUNK", "x") + fmt + tail + Chunk("fact", "1234") + Chunk("data", data)), 5000},
        {Riff(fmt + Riff(fmt + Chunk("data", "nested")) + Chunk("data", data)), 5000},
        {Chunk("JUNK", "abc") + Riff(fmt + Chunk("data", data)) + "trailing garbage", 5000},
        {Riff(fmt + "data" + Le32(0xFFFFFFFFu) + data), 5000},                   // a streaming writer's
        {"RIFF" + Le32(0xFFFFFFFFu) + "WAVE" + fmt + "data" + Le32(0xFFFFFFFFu) + data, 5000},
        {Riff(fmt + "data" + Le32(9000) + data), 5000},                          // cut short
        {"RIFF" + Le32(0) + "WAVE" + fmt + "data" + Le32(0) + data, 5000},        // a killed recorder's
        {"RIFF" + Le32(0) + "WAVE" + fmt + "data" + Le32(0), 0},
        {"RIFF" + Le32(0) + "WAVE" + fmt + "data" + Le32(3000) + data, 3000},     // RIFF length alone missing
        {Riff(fmt + Chunk("data", "") + tail), 0},                              // empty, in a finished file
        {Riff(fmt + "data" + Le32(0)) + data, 5000},                             // RIFF length reaches only the header
        {Riff(fmt + Chunk("data", data) + tail), 5000},
    };
    int piece = 1;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.bytes.substr(0, 60));
        piece = piece * 7 % 9973; // pieces of many sizes
        const std::string path = Make("in.wav", c.bytes);
        EXPECT_EQ(CWaveFile::FileDuration(path.c_str()), c.size * 1000 / 8000);
        CWaveFileRead r;
        OpenReader(r, c.bytes);
        EXPECT_EQ(r.GetDataSize(), c.size);
        EXPECT_EQ(r.GetDuration(), c.size * 1000 / 8000);
        EXPECT_TRUE(ReadToEnd(r, piece) == data.substr(0, size_t(c.size)));
        // Every target inside what the file holds, none past it.
        EXPECT_EQ(Seek(r, TIME_BYTES, DWORD(c.size), 0), 0);
        TakeCodes();
        if (c.size > 0) {
            ASSERT_EQ(Seek(r, TIME_BYTES, DWORD(c.size - 1), 0), 1);
            int n = 0;
            EXPECT_EQ(ReadPiece(r, 4, &n), data.substr(size_t(c.size) - 1, 1) + std::string(3, '\x80'));
            EXPECT_EQ(n, 1);
        }
    }
    EXPECT_TRUE(TakeCodes().empty());
}

TEST_F(WaveFile, AFileCutWhileReadIsReadToItsLastByteThenEnds)
{
    // Longer than the reader's buffer, so that the cut is met by reading, not hidden by
    // what the buffer already holds; pieces smaller and larger than it.
    const std::string data = Pattern(300000);
    for (int piece : {1000, 8192, 70000}) {
        SCOPED_TRACE(piece);
        CWaveFileRead r;
        OpenReader(r, Riff(Fmt(1, 8000, 8) + Chunk("data", data)));
        ASSERT_EQ(ReadPiece(r, 3000), data.substr(0, 3000));
        ASSERT_EQ(truncate(r.GetFilename().c_str(), 44 + 100000), 0); // another program cuts the file
        std::string got = data.substr(0, 3000);
        int n = 1;
        for (int calls = 0; n > 0 && calls < 1000; ++calls) {
            const std::string buf = ReadPiece(r, piece, &n);
            ASSERT_GE(n, 0);
            got += buf.substr(0, size_t(n));
            // Whatever is not sample data is silence, also on the call that meets the end.
            EXPECT_EQ(buf.substr(size_t(n)), std::string(size_t(piece - n), '\x80'));
        }
        EXPECT_TRUE(got == data.substr(0, 100000)) << got.size();
        EXPECT_EQ(r.GetFilePosition(), 100000);
        ReadPiece(r, piece, &n); // and it stays at the end
        EXPECT_EQ(n, 0);
        EXPECT_TRUE(TakeCodes().empty());
    }
}

TEST_F(WaveFile, SeekByTimeSamplesAndBytes)
{
    const std::string data = Pattern(2 * 176400 + 10); // 44.1 kHz stereo 16-bit: frames of 4
    CWaveFileRead r;
    OpenReader(r, Riff(Fmt(2, 44100, 16) + Chunk("data", data)));
    ASSERT_EQ(Seek(r, TIME_MS, 1500, 0), 1);
    EXPECT_EQ(r.GetFilePosition(), 264600);
    EXPECT_EQ(ReadPiece(r, 4), data.substr(264600, 4));
    ASSERT_EQ(Seek(r, TIME_SAMPLES, 10, 0), 1);
    EXPECT_EQ(ReadPiece(r, 4), data.substr(40, 4));
    ASSERT_EQ(Seek(r, TIME_BYTES, 7, 1), 1); // from the read point
    EXPECT_EQ(r.GetFilePosition(), 51);
    EXPECT_EQ(ReadPiece(r, 4), data.substr(51, 4));
    ASSERT_EQ(Seek(r, TIME_SMPTE, 12345, 0), 1);
    EXPECT_EQ(r.GetFilePosition(), 0);
    EXPECT_TRUE(TakeCodes().empty());

    // Refused: the end origin, the end itself, a far time, unknown origins, a relative
    // offset that reaches the end counted from the file's start. The position says 0;
    // the read point stays, and reading goes on from it.
    for (auto [type, value, origin] :
         {std::tuple{TIME_BYTES, 0u, 2}, {TIME_BYTES, DWORD(data.size()), 0}, {TIME_MS, 0xFFFFFFFFu, 0},
          {TIME_BYTES, 0u, 9}, {TIME_BYTES, 0u, -1}, {TIME_BYTES, DWORD(data.size() + 44), 1}}) {
        Seek(r, TIME_BYTES, 100, 0);
        ReadPiece(r, 6);
        EXPECT_EQ(Seek(r, type, value, origin), 0);
        EXPECT_EQ(r.GetFilePosition(), 0);
        EXPECT_EQ(ReadPiece(r, 4), data.substr(106, 4)) << origin;
        EXPECT_EQ(r.GetFilePosition(), 4);
        EXPECT_EQ(TakeCodes(), (Got{{QXN_FILE_SEEK, 0}}));
    }
    // A refused seek near the end reads on up to the end of the data, not past it.
    ASSERT_EQ(Seek(r, TIME_BYTES, DWORD(data.size() - 10), 0), 1);
    EXPECT_EQ(Seek(r, TIME_BYTES, 0, 2), 0);
    int n = 0;
    EXPECT_EQ(ReadPiece(r, 16, &n), data.substr(data.size() - 10) + std::string(6, '\0'));
    EXPECT_EQ(n, 10);
    EXPECT_EQ(ReadPiece(r, 16, &n), std::string(16, '\0'));
    EXPECT_EQ(n, 0);
    TakeCodes();
    // A relative offset inside the data that leads past its end stops at the end.
    ASSERT_EQ(Seek(r, TIME_BYTES, 352000, 0), 1);
    ASSERT_EQ(Seek(r, TIME_BYTES, 352000, 1), 1);
    EXPECT_EQ(r.GetFilePosition(), long(data.size()));
    r.Close();
    EXPECT_EQ(Seek(r, TIME_BYTES, 0, 0), 0);
    EXPECT_TRUE(TakeCodes().empty());

    // 50 s at 44.1 kHz: the product of milliseconds and rate does not fit 32 bits.
    const std::string longer = Pattern(60 * 44100);
    OpenReader(r, Riff(Fmt(1, 44100, 8) + Chunk("data", longer)), "b.wav");
    ASSERT_EQ(Seek(r, TIME_MS, 50000, 0), 1);
    EXPECT_EQ(ReadPiece(r, 3), longer.substr(2205000, 3));
}

TEST_F(WaveFile, WriterLaysOutTheFileByteForByte)
{
    const std::string path = Path("out.wav");
    const QX_DevFormat def = StdFormat(8); // what a writer without a format uses
    const std::string fmt(reinterpret_cast<const char*>(&def), 18);
    ASSERT_EQ(fmt, Le16(1) + Le16(1) + Le32(22050) + Le32(44100) + Le16(2) + Le16(16) + Le16(0));
    const std::string head = "WAVEfmt " + Le32(18) + fmt + "data";
    std::string a(1000, 'a'), b(500, 'b'), xyz = "xyz", empty;
    CWaveFileWrite w;
    WAVEHDR h = Header(a);
    EXPECT_EQ(w.Write(&h), 0); // not open
    ASSERT_EQ(OpenFile(w, path), 1);
    EXPECT_EQ(w.GetFilePosition(), 46);
    ASSERT_EQ(w.Close(), 1);
    EXPECT_EQ(Slurp(path), "RIFF" + Le32(38) + head + Le32(0));

    // Reopening empties the file and keeps the format; odd data gets its pad byte.
    ASSERT_EQ(w.Open(0), 1);
    WAVEHDR none = Header(empty), odd = Header(xyz);
    none.dwBufferLength = 50;
    EXPECT_EQ(w.Write(nullptr), 0);
    EXPECT_EQ(w.Write(&none), 0);
    EXPECT_EQ(w.Write(&odd), 3);
    ASSERT_EQ(w.Close(), 1);
    EXPECT_EQ(Slurp(path), "RIFF" + Le32(42) + head + Le32(3) + "xyz" + '\0');

    ASSERT_EQ(w.Open(0), 1);
    WAVEHDR half = Header(b);
    half.dwBufferLength = 4096; // only the recorded count matters
    EXPECT_EQ(w.Write(&h), 1000);
    EXPECT_EQ(w.Write(&half), 500);
    EXPECT_EQ(w.GetDataSize(), 1500);
    EXPECT_EQ(w.GetFilePosition(), 1546);
    EXPECT_EQ(w.GetDuration(), 34);
    ASSERT_EQ(w.Close(), 1);
    EXPECT_EQ(w.GetFilePosition(), 0);
    EXPECT_EQ(Slurp(path), "RIFF" + Le32(1538) + head + Le32(1500) + a + b);
}

TEST_F(WaveFile, EachFailingFileCallIsReported)
{
    const std::string path = Make("in.wav", Riff(Fmt(1, 8000, 8) + Chunk("data", Pattern(200000))));
    for (auto [op, code, value] :
         {std::tuple{"mmioOpenA", QXN_FILE_OPENREAD, 0}, {"mmioSeek", QXN_FILE_SEEK, 0},
          {"mmioDescend", QXN_FILE_DESCEND, 77}, {"mmioRead", QXN_FILE_READ, 0}, {"mmioAscend", QXN_FILE_ASCEND, 77}}) {
        QXFaultInject(op, 77);
        CWaveFileRead r;
        EXPECT_EQ(OpenFile(r, path), 0);
        EXPECT_EQ(TakeCodes(), (Got{{code, DWORD(value)}})) << op;
    }
    // While reading: -1, the position kept. A read of less than the reader's 64 KiB
    // buffer refills it; a larger one goes straight into the caller's buffer, and its
    // failure counts as a failed refill.
    for (auto [op, call, size, code, value] :
         {std::tuple{"mmioGetInfo", 1, 1000, QXN_FILE_GETINFO, 88}, {"mmioGetInfo", 2, 1000, QXN_FILE_GETINFO, 88},
          {"mmioAdvance", 1, 1000, QXN_FILE_ADVANCE, 88}, {"mmioSetInfo", 2, 1000, QXN_FILE_SETINFO, 88},
          {"mmioRead", 1, 70000, QXN_FILE_ADVANCE, DWORD(MMIOERR_CANNOTREAD)}}) {
        CWaveFileRead r;
        ASSERT_EQ(OpenFile(r, path), 1);
        int n = 0;
        ReadPiece(r, 65000, &n); // the next read needs a refill
        ASSERT_EQ(n, 65000);
        QXFaultInject(op, 88, call);
        ReadPiece(r, size, &n);
        EXPECT_EQ(n, -1) << op;
        EXPECT_EQ(r.GetFilePosition(), 65000);
        EXPECT_EQ(TakeCodes(), (Got{{code, value}})) << op;
        QXFaultClear();
        // A close that fails is reported, and lets go of the file all the same.
        QXFaultInject("mmioClose", MMIOERR_CANNOTCLOSE);
        EXPECT_EQ(r.Close(), 0);
        EXPECT_EQ(TakeCodes(), (Got{{QXN_FILE_CLOSE, MMIOERR_CANNOTCLOSE}}));
        EXPECT_EQ(r.Close(), 1);
    }

    const std::string out = Path("w.wav");
    for (auto [op, call, code, value] :
         {std::tuple{"mmioOpenA", 1, QXN_FILE_OPENWRITE, 0}, {"mmioCreateChunk", 1, QXN_FILE_CREATECHUNK, 77},
          {"mmioCreateChunk", 2, QXN_FILE_CREATECHUNK, 77}, {"mmioWrite", 1, QXN_FILE_WRITE, 0},
          {"mmioAscend", 1, QXN_FILE_ASCEND, 77}, {"mmioCreateChunk", 3, QXN_FILE_CREATECHUNK, 77},
          {"mmioSetBuffer", 1, QXN_FILE_SETBUFFER, 77}}) {
        QXFaultInject(op, 77, call);
        CWaveFileWrite w;
        EXPECT_EQ(OpenFile(w, out), 0);
        EXPECT_EQ(w.GetHandle(), nullptr);
        EXPECT_EQ(qxplat::LiveMmioCount(), 0u);
        EXPECT_EQ(TakeCodes(), (Got{{code, DWORD(value)}})) << op << call;
    }
    // Failed ascents are reported; the data is kept, and the file is reopened to give
    // it its true lengths: the data counted, with the pad byte only if it made it to disk.
    for (const bool bBoth : {true, false}) {
        CWaveFileWrite w;
        ASSERT_EQ(OpenFile(w, out), 1);
        std::string digits = "12345";
        WAVEHDR h = Header(digits);
        ASSERT_EQ(w.Write(&h), 5);
        QXFaultInject("mmioWrite", 1);
        EXPECT_EQ(w.Write(&h), -1);
        EXPECT_EQ(w.GetDataSize(), 5);
        EXPECT_EQ(w.GetFilePosition(), 51);
        if (bBoth) QXFaultInject("mmioAscend", 77, 1);
        QXFaultInject("mmioAscend", 78, 2);
        EXPECT_EQ(w.Close(), 1);
        Got want{{QXN_FILE_WRITE, 0}, {QXN_FILE_ASCEND, 77}, {QXN_FILE_ASCEND, 78}};
        if (!bBoth) want.erase(want.begin() + 1);
        EXPECT_EQ(TakeCodes(), want);
        const std::string file = Slurp(out);
        EXPECT_EQ(file.substr(46), bBoth ? std::string("12345") : std::string("12345\0", 6));
        EXPECT_EQ(file.substr(4, 4) + file.substr(42, 4), Le32(bBoth ? 43 : 44) + Le32(5));
    }
}

// The header keeps up with the data while it is written, so that a recorder killed or
// stopped by a full disk leaves a file that we read (the recorder's own tests have SoX
// read one). The refresh rewrites the
// header from the format record; without one it writes the two lengths alone.
TEST_F(WaveFile, TheHeaderKeepsUpWithTheDataWhileRecording)
{
    const std::string path = Path("rec.wav");
    auto readWhole = [&] {
        CWaveFileRead r;
        return OpenFile(r, path) ? ReadToEnd(r) : "<refused>";
    };
    // (standard format, piece): pieces shorter and longer than the one-second file
    // buffer and one of exactly it; the format dropped halfway; a writer left open.
    for (auto [index, piece] : {std::pair{0, 3000}, {0, 8000}, {0, 21000}, {0, 5000}, {13, 88200}}) {
        SCOPED_TRACE(std::to_string(index) + ", pieces of " + std::to_string(piece));
        QX_DevFormat format = StdFormat(index);
        const DWORD second = format.nAvgBytesPerSec;
        const std::string data = Pattern(index == 0 ? 70000 : 3 * 88200);
        const bool drop = piece == 5000;
        {
            CWaveFileWrite w;
            ASSERT_EQ(OpenFile(w, path, &format), 1);
            for (size_t at = 0; at < data.size(); at += size_t(piece)) {
                if (drop && at == 15000) w.SetFormat(nullptr);
                std::string bytes = data.substr(at, size_t(piece));
                WAVEHDR h = Header(bytes);
                ASSERT_EQ(w.Write(&h), long(bytes.size()));
                // What another program sees now: lengths at most a second behind, and true.
                const analysis::Wav file = analysis::ReadWav(path);
                const size_t n = file.dataLength;
                EXPECT_GE(n + second, at + bytes.size());
                ASSERT_LE(n, at + bytes.size());
                EXPECT_EQ(file.riffLength, n == 0 ? 0 : n + 38);
                EXPECT_TRUE(readWhole() == data.substr(0, n)) << "at " << at;
            }
            // Refreshing the header left the writer's place alone.
            EXPECT_EQ(w.GetFilePosition(), long(46 + data.size()));
            EXPECT_EQ(w.GetDuration(), drop ? 0 : long(data.size() * 1000 / second));
            if (index == 0) { // else the destructor finishes the file
                ASSERT_EQ(w.Close(), 1);
            }
        }
        const analysis::Wav file = analysis::ReadWav(path);
        EXPECT_EQ(std::tuple(file.riffLength, file.dataLength, file.dataOffset), std::tuple(38 + data.size(), data.size(), 46u));
        EXPECT_TRUE(Slurp(path).substr(46) == data && readWhole() == data);
        QX_DevFormat back{};
        ASSERT_EQ(CWaveFile::FileFormat(path.c_str(), back), 1);
        EXPECT_EQ(std::memcmp(&back, &format, sizeof(format)), 0);
    }
}
