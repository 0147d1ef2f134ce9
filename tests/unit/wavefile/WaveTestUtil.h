// Scratch folders, byte builders for RIFF files and tones, and collectors of
// notifications, shared by the RIFF file, wave input and wave output tests.
#ifndef QUAVIX_TESTS_WAVETESTUTIL_H
#define QUAVIX_TESTS_WAVETESTUTIL_H

#include <quavix/QXDevice.h>
#include <quavix/QXEventData.h>
#include <quavix/QXNotify.h>

#include "integration/harness.h"
#include "platform/QXFaults.h"
#include "platform/mmio/QXMmio.h"

#include <gtest/gtest.h>

#include <stdlib.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <tuple>

namespace wavetest {

inline std::string Le16(unsigned v) { return {char(v & 0xFF), char((v >> 8) & 0xFF)}; }
inline std::string Le32(DWORD v) { return Le16(v & 0xFFFF) + Le16(v >> 16); }

// A chunk with its pad byte; the size field can be made to lie.
inline std::string Chunk(const std::string& id, const std::string& data, long long claimed = -1)
{
    return id + Le32(DWORD(claimed < 0 ? data.size() : claimed)) + data + std::string(data.size() & 1, '\0');
}

// A format chunk of the given length (16 is plain PCM); bytes past the 18th are 0x7F.
inline std::string Fmt(WORD channels, DWORD rate, WORD bits, size_t length = 16, WORD tag = WAVE_FORMAT_PCM)
{
    const WORD align = WORD(channels * bits / 8);
    std::string s = Le16(tag) + Le16(channels) + Le32(rate) + Le32(rate * align) + Le16(align) +
                    Le16(bits) + Le16(0);
    s.resize(std::max<size_t>(length, 18), '\x7F');
    return Chunk("fmt ", s.substr(0, length));
}

// A WAVE_FORMAT_EXTENSIBLE format chunk (cbSize 22), as sox and most editors write
// 24-bit, 32-bit and multichannel audio, its sub-format a code of the standard family.
inline std::string FmtExtensible(WORD channels, DWORD rate, WORD bits, DWORD subFormat)
{
    const WORD align = WORD(channels * bits / 8);
    return Chunk("fmt ", Le16(WAVE_FORMAT_EXTENSIBLE) + Le16(channels) + Le32(rate) + Le32(rate * align) +
                             Le16(align) + Le16(bits) + Le16(22) + Le16(bits) +
                             Le32(channels == 2 ? 3 : (1u << channels) - 1) + Le32(subFormat) +
                             std::string("\x00\x00\x10\x00\x80\x00\x00\xAA\x00\x38\x9B\x71", 12));
}

inline std::string Riff(const std::string& chunks, const std::string& form = "WAVE")
{
    return "RIFF" + Le32(DWORD(4 + chunks.size())) + form + chunks;
}

// A whole WAVE file; formats other than PCM get the 18-byte record.
inline std::string Wave(WORD tag, WORD channels, DWORD rate, WORD bits, const std::string& data)
{
    return Riff(Fmt(channels, rate, bits, tag == WAVE_FORMAT_PCM ? 16 : 18, tag) + Chunk("data", data));
}

// A sine in every channel: 8-bit unsigned, 16, 24 or 32-bit signed, or 32-bit float.
inline std::string Sine(WORD bits, DWORD rate, double freq, size_t frames, WORD channels = 1, double amp = 0.5,
                        bool isFloat = false)
{
    std::string s;
    for (size_t i = 0; i < frames; ++i) {
        const double x = amp * std::sin(2 * M_PI * freq * double(i) / rate);
        for (WORD c = 0; c < channels; ++c) {
            const float f = float(x);
            const auto v = int32_t(std::lround(bits == 8 ? 128 + 127 * x : x * (std::ldexp(1.0, bits - 1) - 1)));
            s.append(isFloat ? reinterpret_cast<const char*>(&f) : reinterpret_cast<const char*>(&v), bits / 8);
        }
    }
    return s;
}

inline QX_DevFormat Pcm(DWORD rate, WORD channels, WORD bits)
{
    const WORD align = WORD(channels * bits / 8);
    return {WAVE_FORMAT_PCM, channels, rate, rate * align, align, bits, 0};
}

// Parameters of a file on a track of a performance.
inline QX_WaveParams WaveParams(int nPerformance, int nTrack, const std::string& path)
{
    QX_WaveParams params{};
    params.nPerformance = nPerformance;
    params.nTrack = nTrack;
    params.dsParams.lpszFileName = path.c_str();
    return params;
}

// A standard format of the devices as a record.
inline QX_DevFormat StdFormat(int index)
{
    WAVEFORMATEX wfx;
    CQXDevice::FillFormat(&wfx, index);
    QX_DevFormat f;
    std::memcpy(&f, &wfx, sizeof(f));
    return f;
}

// Names a reader's or writer's file, and a writer's format, and opens it.
template <class File> int OpenFile(File& f, const std::string& path, QX_DevFormat* pFormat = nullptr)
{
    f.SetFilename(path.c_str());
    if (pFormat != nullptr) f.SetFormat(pFormat);
    return f.Open(0);
}

// What a reader's Read leaves in a buffer of `size` bytes ('#' where it wrote nothing).
template <class Reader> std::string ReadPiece(Reader& r, int size, int* pResult = nullptr)
{
    std::string buf(size_t(std::max(size, 0)), '#');
    const int n = r.Read(reinterpret_cast<unsigned char*>(buf.data()), size);
    if (pResult != nullptr) *pResult = n;
    return buf;
}

// Every sample byte a reader delivers, read in pieces of `piece` bytes.
template <class Reader> std::string ReadToEnd(Reader& r, int piece = 4096)
{
    std::string out;
    for (int n = 1; n > 0;) out += ReadPiece(r, piece, &n).substr(0, size_t(std::max(n, 0)));
    return out;
}

// Takes an lvalue: the header points into the string.
inline WAVEHDR Header(std::string& bytes)
{
    WAVEHDR h{};
    h.lpData = bytes.data();
    h.dwBytesRecorded = DWORD(bytes.size());
    return h;
}

inline std::string Pattern(size_t n, unsigned seed = 7)
{
    std::string s(n, '\0');
    for (size_t i = 0; i < n; ++i) s[i] = char((i * 31 + seed + (i >> 8)) & 0xFF);
    return s;
}

using harness::Slurp;

// Entries of a /proc folder: open files or threads of this process.
inline size_t CountEntries(const char* folder)
{
    return size_t(std::distance(std::filesystem::directory_iterator(folder), {}));
}
inline size_t OpenFdCount() { return CountEntries("/proc/self/fd"); }
inline size_t ThreadCount() { return CountEntries("/proc/self/task"); }

// Waits for a condition another thread brings about; false when it never came.
template <class Pred> bool Eventually(Pred pred, std::chrono::milliseconds limit = std::chrono::seconds(20))
{
    return harness::Await(pred, limit);
}

// A fresh folder per test; at the end no fault may stay armed and no file open.
class ScratchTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        char tmpl[] = "/tmp/qx-wave-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        m_dir = tmpl;
    }
    void TearDown() override
    {
        QXFaultClear();
        std::filesystem::remove_all(m_dir);
        EXPECT_EQ(qxplat::LiveMmioCount(), 0u);
    }
    std::string Path(const std::string& name) const { return m_dir + "/" + name; }
    std::string Make(const std::string& name, const std::string& bytes) const
    {
        std::ofstream(Path(name), std::ios::binary | std::ios::trunc) << bytes;
        return Path(name);
    }

    std::string m_dir;
};

using Got = std::vector<std::pair<DWORD, DWORD>>;

// Calls of a callback from any thread, since the last Take.
template <class... Args> struct CallLog {
    using Call = std::tuple<Args...>;
    static void Proc(Args... args)
    {
        std::lock_guard<std::mutex> lock(s_mutex);
        s_got.emplace_back(args...);
    }
    static std::vector<Call> Take()
    {
        std::lock_guard<std::mutex> lock(s_mutex);
        return std::exchange(s_got, {});
    }
    static std::vector<Call> Peek()
    {
        std::lock_guard<std::mutex> lock(s_mutex);
        return s_got;
    }
    static inline std::mutex s_mutex;
    static inline std::vector<Call> s_got;
};

// Reports (code, value, device).
using ReportLog = CallLog<DWORD, DWORD, DWORD_PTR>;
using Report = ReportLog::Call;
using Log = std::vector<Report>;

// The codes and values of ReportLog::Take.
inline Got TakeCodes()
{
    Got got;
    for (const auto& [code, value, device] : ReportLog::Take()) got.emplace_back(code, value);
    return got;
}

} // namespace wavetest

#endif // QUAVIX_TESTS_WAVETESTUTIL_H
