#include "platform/QXFaults.h"
#include "platform/QXPlatform.h"
#include "platform/backends/virtual/QXVirtual.h"
#include "platform/dsound/QXDSound.h"

#include "unit/wavefile/WaveTestUtil.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <memory>
#include <mutex>
#include <numbers>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace {

const int kVirtual = setenv("QUAVIX_BACKEND", "virtual", 1);

WAVEFORMATEX Pcm(DWORD rate, WORD channels, WORD bits, WORD tag = WAVE_FORMAT_PCM)
{
    WAVEFORMATEX f{};
    f.wFormatTag = tag;
    f.nChannels = channels;
    f.nSamplesPerSec = rate;
    f.wBitsPerSample = bits;
    f.nBlockAlign = static_cast<WORD>(channels * bits / 8);
    f.nAvgBytesPerSec = rate * f.nBlockAlign;
    return f;
}

struct Buffer {
    explicit Buffer(DWORD bytes) : data(bytes)
    {
        hdr.lpData = data.data();
        hdr.dwBufferLength = bytes;
    }
    std::vector<char> data;
    WAVEHDR hdr{};
};

struct Calls {
    std::mutex mutex;
    std::condition_variable cv;
    std::vector<std::pair<UINT, WAVEHDR*>> seen;
    std::vector<std::thread::id> threads;
    HWAVEIN handle = nullptr;

    bool WaitFor(UINT msg, size_t count, int ms = 10000)
    {
        std::unique_lock<std::mutex> lock(mutex);
        return cv.wait_for(lock, std::chrono::milliseconds(ms), [&] { return Count(msg) >= count; });
    }
    size_t Count(UINT msg)
    {
        size_t n = 0;
        for (auto& s : seen) n += s.first == msg;
        return n;
    }
};

void CALLBACK Proc(HWAVEIN h, UINT msg, DWORD_PTR inst, DWORD_PTR p1, DWORD_PTR)
{
    auto* c = reinterpret_cast<Calls*>(inst);
    std::lock_guard<std::mutex> lock(c->mutex);
    c->handle = h;
    c->seen.emplace_back(msg, reinterpret_cast<WAVEHDR*>(p1));
    c->threads.push_back(std::this_thread::get_id());
    c->cv.notify_all();
}

DWORD PositionBytes(HWAVEIN h)
{
    MMTIME t{};
    t.wType = TIME_BYTES;
    EXPECT_EQ(waveInGetPosition(h, &t, sizeof t), MMSYSERR_NOERROR);
    return t.u.cb;
}

// Polls the position (which takes the input's lock) until the capture has passed bytes.
bool WaitPosition(HWAVEIN h, DWORD bytes)
{
    for (int i = 0; i < 2000; ++i) {
        if (PositionBytes(h) >= bytes) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return false;
}

using Buffers = std::vector<std::unique_ptr<Buffer>>;

// Opens input 0 with Proc recording into calls, and queues buffers of the given sizes.
HWAVEIN OpenQueued(const WAVEFORMATEX& f, Calls& calls, std::initializer_list<DWORD> sizes, Buffers& bufs)
{
    HWAVEIN h = nullptr;
    EXPECT_EQ(waveInOpen(&h, 0, &f, reinterpret_cast<DWORD_PTR>(Proc), reinterpret_cast<DWORD_PTR>(&calls),
                         CALLBACK_FUNCTION),
              MMSYSERR_NOERROR);
    for (DWORD len : sizes) {
        bufs.push_back(std::make_unique<Buffer>(len));
        EXPECT_EQ(waveInPrepareHeader(h, &bufs.back()->hdr, sizeof(WAVEHDR)), MMSYSERR_NOERROR);
        EXPECT_EQ(waveInAddBuffer(h, &bufs.back()->hdr, sizeof(WAVEHDR)), MMSYSERR_NOERROR);
    }
    return h;
}

class WaveInTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        unsetenv("QUAVIX_VIRTUAL_WAVE_IN_SOURCE");
        unsetenv("QUAVIX_VIRTUAL_AUDIO_RATE");
        qxplat::QXVirtualSetDevices(1, 1, 1, 1);
    }
    void TearDown() override
    {
        QXFaultClear();
        unsetenv("QUAVIX_VIRTUAL_WAVE_IN_SOURCE");
    }
};

TEST_F(WaveInTest, OpenChecksFlagsFormatsAndDevices)
{
    HWAVEIN h = nullptr;
    const WAVEFORMATEX ok = Pcm(44100, 2, 16);
    EXPECT_EQ(waveInOpen(nullptr, 0, &ok, 0, 0, CALLBACK_NULL), MMSYSERR_INVALPARAM);
    EXPECT_EQ(waveInOpen(&h, 0, nullptr, 0, 0, CALLBACK_NULL), MMSYSERR_INVALPARAM);
    EXPECT_EQ(waveInOpen(&h, 0, &ok, 0, 0, 0x00070000u), MMSYSERR_INVALFLAG);
    EXPECT_EQ(waveInOpen(&h, 0, &ok, 0, 0, 0x00000100u), MMSYSERR_INVALFLAG);
    EXPECT_EQ(waveInOpen(&h, 5, &ok, 0, 0, CALLBACK_NULL), MMSYSERR_BADDEVICEID);

    WAVEFORMATEX bad[] = {Pcm(44100, 3, 16), Pcm(44100, 2, 12),  Pcm(999, 1, 16),
                          Pcm(192001, 1, 16), Pcm(44100, 1, 16, 2), Pcm(44100, 1, 16, WAVE_FORMAT_IEEE_FLOAT)};
    for (const WAVEFORMATEX& f : bad) EXPECT_EQ(waveInOpen(&h, 0, &f, 0, 0, CALLBACK_NULL), WAVERR_BADFORMAT);
    WAVEFORMATEX badAlign = ok;
    badAlign.nBlockAlign = 2;
    EXPECT_EQ(waveInOpen(&h, 0, &badAlign, 0, 0, CALLBACK_NULL), WAVERR_BADFORMAT);

    // A query opens nothing and needs no handle.
    const WAVEFORMATEX good[] = {Pcm(1000, 1, 8), Pcm(192000, 2, 24), Pcm(48000, 2, 32),
                                 Pcm(48000, 1, 32, WAVE_FORMAT_IEEE_FLOAT)};
    for (const WAVEFORMATEX& f : good) EXPECT_EQ(waveInOpen(nullptr, 0, &f, 0, 0, WAVE_FORMAT_QUERY), MMSYSERR_NOERROR);
    EXPECT_EQ(waveInOpen(nullptr, 0, &bad[0], 0, 0, WAVE_FORMAT_QUERY), WAVERR_BADFORMAT);
    EXPECT_EQ(waveInOpen(nullptr, WAVE_MAPPER, &ok, 0, 0, WAVE_FORMAT_QUERY), MMSYSERR_NOERROR);

    qxplat::QXVirtualSetDevices(1, 1, 0, 1);
    EXPECT_EQ(waveInOpen(&h, 0, &ok, 0, 0, CALLBACK_NULL), MMSYSERR_BADDEVICEID);
}

TEST_F(WaveInTest, HeadersMustBePreparedAndQueuedOnesAreHeld)
{
    HWAVEIN h = nullptr;
    const WAVEFORMATEX f = Pcm(48000, 2, 16);
    ASSERT_EQ(waveInOpen(&h, 0, &f, 0, 0, CALLBACK_NULL), MMSYSERR_NOERROR);
    Buffer b(4800), tiny(2);
    EXPECT_EQ(waveInAddBuffer(h, &b.hdr, sizeof b.hdr), WAVERR_UNPREPARED);
    EXPECT_EQ(waveInPrepareHeader(h, &b.hdr, sizeof b.hdr - 1), MMSYSERR_INVALPARAM);
    ASSERT_EQ(waveInPrepareHeader(h, &b.hdr, sizeof b.hdr), MMSYSERR_NOERROR);
    EXPECT_TRUE(b.hdr.dwFlags & WHDR_PREPARED);
    ASSERT_EQ(waveInPrepareHeader(h, &tiny.hdr, sizeof tiny.hdr), MMSYSERR_NOERROR);
    EXPECT_EQ(waveInAddBuffer(h, &tiny.hdr, sizeof tiny.hdr), MMSYSERR_INVALPARAM) << "less than one frame";

    ASSERT_EQ(waveInAddBuffer(h, &b.hdr, sizeof b.hdr), MMSYSERR_NOERROR);
    EXPECT_EQ(b.hdr.dwFlags & (WHDR_INQUEUE | WHDR_DONE), WHDR_INQUEUE);
    EXPECT_EQ(waveInAddBuffer(h, &b.hdr, sizeof b.hdr), WAVERR_STILLPLAYING);
    EXPECT_EQ(waveInUnprepareHeader(h, &b.hdr, sizeof b.hdr), WAVERR_STILLPLAYING);
    EXPECT_EQ(waveInClose(h), WAVERR_STILLPLAYING);

    // Stopping an input that never started returns nothing: the buffer is empty.
    EXPECT_EQ(waveInStop(h), MMSYSERR_NOERROR);
    EXPECT_TRUE(b.hdr.dwFlags & WHDR_INQUEUE);
    EXPECT_EQ(waveInReset(h), MMSYSERR_NOERROR);
    EXPECT_EQ(b.hdr.dwFlags & (WHDR_INQUEUE | WHDR_DONE), WHDR_DONE);
    EXPECT_EQ(b.hdr.dwBytesRecorded, 0u);
    EXPECT_EQ(waveInUnprepareHeader(h, &b.hdr, sizeof b.hdr), MMSYSERR_NOERROR);
    EXPECT_FALSE(b.hdr.dwFlags & WHDR_PREPARED);
    EXPECT_EQ(waveInClose(h), MMSYSERR_NOERROR);
    EXPECT_EQ(waveInClose(h), MMSYSERR_INVALHANDLE);
    EXPECT_EQ(waveInStart(h), MMSYSERR_INVALHANDLE);
    EXPECT_EQ(waveInPrepareHeader(h, &b.hdr, sizeof b.hdr), MMSYSERR_INVALHANDLE);
}

TEST_F(WaveInTest, BuffersFillInOrderAndStopReturnsThePartialOne)
{
    Calls calls;
    Buffers bufs;
    const WAVEFORMATEX f = Pcm(48000, 2, 16);
    // 25 ms each, one with a stray byte past its last frame, then two of ten seconds.
    HWAVEIN h = OpenQueued(f, calls, {4800u, 4801u, 4800u, 1920000u, 1920000u}, bufs);
    ASSERT_EQ(waveInStart(h), MMSYSERR_NOERROR);
    EXPECT_EQ(waveInUnprepareHeader(h, &bufs[4]->hdr, sizeof(WAVEHDR)), WAVERR_STILLPLAYING) << "while queued";
    ASSERT_TRUE(calls.WaitFor(WIM_DATA, 3));
    ASSERT_TRUE(WaitPosition(h, 3 * 4800 + 4 * 100));
    ASSERT_EQ(waveInStop(h), MMSYSERR_NOERROR);
    {
        std::lock_guard<std::mutex> lock(calls.mutex);
        ASSERT_EQ(calls.seen.size(), 5u) << "open, three full buffers, the partial one";
        EXPECT_EQ(calls.seen[0].first, UINT{WIM_OPEN});
        for (size_t i = 0; i < 4; ++i) {
            EXPECT_EQ(calls.seen[i + 1].first, UINT{WIM_DATA});
            EXPECT_EQ(calls.seen[i + 1].second, &bufs[i]->hdr);
        }
        for (auto& t : calls.threads) {
            EXPECT_EQ(t, calls.threads[0]);
            EXPECT_NE(t, std::this_thread::get_id());
        }
        EXPECT_EQ(calls.handle, h);
    }
    for (size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(bufs[i]->hdr.dwBytesRecorded, 4800u);
        EXPECT_EQ(bufs[i]->hdr.dwFlags & (WHDR_DONE | WHDR_INQUEUE | WHDR_PREPARED), WHDR_DONE | WHDR_PREPARED);
    }
    const DWORD partial = bufs[3]->hdr.dwBytesRecorded;
    EXPECT_GT(partial, 0u);
    EXPECT_LT(partial, 1920000u);
    EXPECT_EQ(partial % 4, 0u);
    EXPECT_EQ(bufs[3]->hdr.dwFlags & (WHDR_DONE | WHDR_INQUEUE), WHDR_DONE);
    EXPECT_EQ(bufs[4]->hdr.dwFlags & (WHDR_DONE | WHDR_INQUEUE), WHDR_INQUEUE) << "empty ones stay queued";
    EXPECT_EQ(bufs[4]->hdr.dwBytesRecorded, 0u);

    // Every frame since the start went into a buffer.
    const DWORD total = 3 * 4800 + partial;
    // An unsupported type is answered in bytes.
    const std::pair<UINT, DWORD> asked[] = {{TIME_BYTES, total}, {TIME_SAMPLES, total / 4}, {TIME_MS, total / 4 / 48},
                                            {TIME_SMPTE, total}};
    MMTIME t{};
    for (auto [type, value] : asked) {
        t.wType = type;
        ASSERT_EQ(waveInGetPosition(h, &t, sizeof t), MMSYSERR_NOERROR);
        EXPECT_EQ(t.wType, type == TIME_SMPTE ? UINT{TIME_BYTES} : type) << type;
        EXPECT_EQ(t.u.cb, value) << type;
    }
    EXPECT_EQ(waveInGetPosition(h, &t, sizeof t - 1), MMSYSERR_INVALPARAM);

    EXPECT_EQ(waveInClose(h), WAVERR_STILLPLAYING);
    ASSERT_EQ(waveInReset(h), MMSYSERR_NOERROR);
    EXPECT_EQ(bufs[4]->hdr.dwFlags & (WHDR_DONE | WHDR_INQUEUE), WHDR_DONE);
    EXPECT_EQ(PositionBytes(h), 0u);
    ASSERT_EQ(waveInClose(h), MMSYSERR_NOERROR);
    std::lock_guard<std::mutex> lock(calls.mutex);
    ASSERT_EQ(calls.seen.size(), 7u);
    EXPECT_EQ(calls.seen[5].second, &bufs[4]->hdr);
    EXPECT_EQ(calls.seen[6].first, UINT{WIM_CLOSE});
}

TEST_F(WaveInTest, ResetReturnsEveryQueuedBufferWithWhatItHolds)
{
    Calls calls;
    Buffers bufs;
    const WAVEFORMATEX f = Pcm(8000, 1, 8);
    HWAVEIN h = OpenQueued(f, calls, {80000, 80000, 80000}, bufs);
    ASSERT_EQ(waveInStart(h), MMSYSERR_NOERROR);
    ASSERT_TRUE(WaitPosition(h, 100));
    ASSERT_EQ(waveInReset(h), MMSYSERR_NOERROR);
    // The WIM_DATA of all three have come by the time the reset returns.
    {
        std::lock_guard<std::mutex> lock(calls.mutex);
        ASSERT_EQ(calls.Count(WIM_DATA), 3u);
        for (size_t i = 0; i < 3; ++i) EXPECT_EQ(calls.seen[i + 1].second, &bufs[i]->hdr);
    }
    EXPECT_GE(bufs[0]->hdr.dwBytesRecorded, 100u);
    EXPECT_EQ(bufs[1]->hdr.dwBytesRecorded, 0u);
    EXPECT_EQ(bufs[2]->hdr.dwBytesRecorded, 0u);
    for (auto& b : bufs) EXPECT_EQ(b->hdr.dwFlags & (WHDR_DONE | WHDR_INQUEUE), WHDR_DONE);
    // It recorded the default sine, not silence.
    bool varied = false;
    for (DWORD i = 1; i < bufs[0]->hdr.dwBytesRecorded; ++i) varied |= bufs[0]->data[i] != bufs[0]->data[0];
    EXPECT_TRUE(varied);
    EXPECT_EQ(waveInClose(h), MMSYSERR_NOERROR);
}

// The other callback kinds: each must report open, a full buffer and close.
TEST_F(WaveInTest, WindowThreadEventAndNullCallbacks)
{
    const WAVEFORMATEX f = Pcm(48000, 1, 16);
    auto runOne = [&](HWAVEIN& h, Buffer& b) {
        ASSERT_EQ(waveInPrepareHeader(h, &b.hdr, sizeof b.hdr), MMSYSERR_NOERROR);
        ASSERT_EQ(waveInAddBuffer(h, &b.hdr, sizeof b.hdr), MMSYSERR_NOERROR);
        ASSERT_EQ(waveInStart(h), MMSYSERR_NOERROR);
    };
    auto getMsg = [](HWND hwnd, MSG& msg) {
        for (int i = 0; i < 2000; ++i) {
            if (PeekMessageA(&msg, hwnd, 0, 0, PM_REMOVE)) return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        return false;
    };

    // Window and thread: posted MM_WIM_* with the handle and the header.
    WNDCLASSA wc{};
    wc.lpfnWndProc = DefWindowProcA;
    wc.lpszClassName = "QXWaveInTest";
    RegisterClassA(&wc); // may exist from an earlier test
    HWND hwnd = CreateWindowExA(0, "QXWaveInTest", "t", 0, 0, 0, 0, 0, nullptr, nullptr, nullptr, nullptr);
    ASSERT_NE(hwnd, nullptr);
    MSG msg;
    PeekMessageA(&msg, nullptr, 0, 0, PM_NOREMOVE); // this thread's queue exists
    for (DWORD kind : {CALLBACK_WINDOW, CALLBACK_THREAD}) {
        SCOPED_TRACE(kind);
        const DWORD_PTR target =
            kind == CALLBACK_WINDOW ? reinterpret_cast<DWORD_PTR>(hwnd) : DWORD_PTR{GetCurrentThreadId()};
        HWAVEIN h = nullptr;
        Buffer b(960);
        ASSERT_EQ(waveInOpen(&h, 0, &f, target, 0, kind), MMSYSERR_NOERROR);
        runOne(h, b);
        const UINT want[] = {MM_WIM_OPEN, MM_WIM_DATA};
        for (UINT w : want) {
            ASSERT_TRUE(getMsg(kind == CALLBACK_WINDOW ? hwnd : nullptr, msg));
            EXPECT_EQ(msg.message, w);
            EXPECT_EQ(msg.wParam, reinterpret_cast<WPARAM>(h));
            if (w == MM_WIM_DATA) {
                EXPECT_EQ(msg.lParam, reinterpret_cast<LPARAM>(&b.hdr));
            }
        }
        EXPECT_EQ(b.hdr.dwBytesRecorded, 960u);
        EXPECT_TRUE(b.hdr.dwFlags & WHDR_DONE);
        ASSERT_EQ(waveInClose(h), MMSYSERR_NOERROR);
        ASSERT_TRUE(getMsg(kind == CALLBACK_WINDOW ? hwnd : nullptr, msg));
        EXPECT_EQ(msg.message, UINT{MM_WIM_CLOSE});
    }
    DestroyWindow(hwnd);

    // Event: set for each message.
    HANDLE ev = CreateEventA(nullptr, FALSE, FALSE, nullptr);
    HWAVEIN h = nullptr;
    Buffer b(960);
    ASSERT_EQ(waveInOpen(&h, 0, &f, reinterpret_cast<DWORD_PTR>(ev), 0, CALLBACK_EVENT), MMSYSERR_NOERROR);
    EXPECT_EQ(WaitForSingleObject(ev, 10000), WAIT_OBJECT_0) << "WIM_OPEN";
    runOne(h, b);
    EXPECT_EQ(WaitForSingleObject(ev, 10000), WAIT_OBJECT_0) << "WIM_DATA";
    EXPECT_TRUE(b.hdr.dwFlags & WHDR_DONE);
    ASSERT_EQ(waveInClose(h), MMSYSERR_NOERROR);
    EXPECT_EQ(WaitForSingleObject(ev, 10000), WAIT_OBJECT_0) << "WIM_CLOSE";
    CloseHandle(ev);

    // None: the buffer comes back all the same.
    Buffer b2(960);
    ASSERT_EQ(waveInOpen(&h, 0, &f, 0, 0, CALLBACK_NULL), MMSYSERR_NOERROR);
    runOne(h, b2);
    ASSERT_TRUE(WaitPosition(h, 960));
    EXPECT_EQ(b2.hdr.dwFlags & (WHDR_DONE | WHDR_INQUEUE), WHDR_DONE);
    ASSERT_EQ(waveInClose(h), MMSYSERR_NOERROR);
}

TEST_F(WaveInTest, EveryCallFailsByFaultInjection)
{
    const WAVEFORMATEX f = Pcm(48000, 2, 16);
    HWAVEIN h = nullptr;
    QXFaultInject("waveInOpen", MMSYSERR_NOMEM);
    EXPECT_EQ(waveInOpen(&h, 0, &f, 0, 0, CALLBACK_NULL), MMSYSERR_NOMEM);
    ASSERT_EQ(waveInOpen(&h, 0, &f, 0, 0, CALLBACK_NULL), MMSYSERR_NOERROR);
    Buffer b(4800);
    MMTIME t{};
    t.wType = TIME_BYTES;
    const struct {
        const char* name;
        std::function<MMRESULT()> call;
    } calls[] = {
        {"waveInPrepareHeader", [&] { return waveInPrepareHeader(h, &b.hdr, sizeof b.hdr); }},
        {"waveInAddBuffer", [&] { return waveInAddBuffer(h, &b.hdr, sizeof b.hdr); }},
        {"waveInStart", [&] { return waveInStart(h); }},
        {"waveInGetPosition", [&] { return waveInGetPosition(h, &t, sizeof t); }},
        {"waveInStop", [&] { return waveInStop(h); }},
        {"waveInReset", [&] { return waveInReset(h); }},
        {"waveInUnprepareHeader", [&] { return waveInUnprepareHeader(h, &b.hdr, sizeof b.hdr); }},
        {"waveInClose", [&] { return waveInClose(h); }},
    };
    for (const auto& c : calls) {
        SCOPED_TRACE(c.name);
        QXFaultInject(c.name, MMSYSERR_ERROR);
        EXPECT_EQ(c.call(), MMSYSERR_ERROR);
        EXPECT_EQ(c.call(), MMSYSERR_NOERROR) << "only the armed call fails";
    }
}

// Least-squares fit of a sine of known frequency; returns the largest deviation.
double FitSine(const std::vector<double>& x, double w, double& amplitude)
{
    double ss = 0, cc = 0, sc = 0, xs = 0, xc = 0;
    for (size_t i = 0; i < x.size(); ++i) {
        const double s = std::sin(w * i), c = std::cos(w * i);
        ss += s * s;
        cc += c * c;
        sc += s * c;
        xs += x[i] * s;
        xc += x[i] * c;
    }
    const double det = ss * cc - sc * sc;
    const double a = (xs * cc - xc * sc) / det, b = (xc * ss - xs * sc) / det;
    amplitude = std::hypot(a, b);
    double worst = 0;
    for (size_t i = 0; i < x.size(); ++i)
        worst = std::max(worst, std::fabs(x[i] - a * std::sin(w * i) - b * std::cos(w * i)));
    return worst;
}

// Frames that find no buffer queued wait in the source's ring: a buffer queued late
// takes up where the last one ended. What the ring could not hold is told with a
// WIM_OVERRUN before the buffer after the loss comes back.
TEST_F(WaveInTest, FramesWaitForALateBufferAndAnOverrunIsTold)
{
    Calls calls;
    Buffers bufs;
    const WAVEFORMATEX f = Pcm(48000, 1, 16);
    HWAVEIN h = OpenQueued(f, calls, {9600}, bufs);
    ASSERT_EQ(waveInStart(h), MMSYSERR_NOERROR);
    ASSERT_TRUE(calls.WaitFor(WIM_DATA, 1));
    ASSERT_TRUE(calls.WaitFor(WIM_OVERRUN, 1)) << "the source's ring holds less than a second";
    bufs.push_back(std::make_unique<Buffer>(9600));
    ASSERT_EQ(waveInPrepareHeader(h, &bufs[1]->hdr, sizeof(WAVEHDR)), MMSYSERR_NOERROR);
    ASSERT_EQ(waveInAddBuffer(h, &bufs[1]->hdr, sizeof(WAVEHDR)), MMSYSERR_NOERROR);
    ASSERT_TRUE(calls.WaitFor(WIM_DATA, 2));
    ASSERT_EQ(waveInReset(h), MMSYSERR_NOERROR);
    ASSERT_EQ(waveInClose(h), MMSYSERR_NOERROR);
    {
        std::lock_guard<std::mutex> lock(calls.mutex);
        ASSERT_GE(calls.seen.size(), 4u);
        EXPECT_EQ(calls.seen[1], std::make_pair(UINT{WIM_DATA}, &bufs[0]->hdr));
        // The first loss at once, the rest when the next buffer came: told once or twice.
        size_t told = 0;
        while (2 + told < calls.seen.size() && calls.seen[2 + told].first == WIM_OVERRUN)
            EXPECT_GT(reinterpret_cast<DWORD_PTR>(calls.seen[2 + told++].second), 0u) << "frames lost";
        EXPECT_TRUE(told == 1 || told == 2) << told;
        ASSERT_LT(2 + told, calls.seen.size());
        EXPECT_EQ(calls.seen[2 + told], std::make_pair(UINT{WIM_DATA}, &bufs[1]->hdr));
        EXPECT_EQ(calls.seen.back(), std::make_pair(UINT{WIM_CLOSE}, static_cast<WAVEHDR*>(nullptr)));
    }
    std::vector<double> x;
    for (auto& b : bufs) {
        ASSERT_EQ(b->hdr.dwBytesRecorded, 9600u);
        const auto* p = reinterpret_cast<const int16_t*>(b->data.data());
        x.insert(x.end(), p, p + 4800);
    }
    double amplitude = 0;
    EXPECT_LT(FitSine(x, 2 * std::numbers::pi * 440 / 48000, amplitude), 3.0) << "the second buffer goes on from the first";
    EXPECT_NEAR(amplitude, 16384, 16);
}

TEST_F(WaveInTest, SineConvertedTo22050MonoIsContinuousAcrossBuffers)
{
#ifndef QUAVIX_HAVE_SAMPLERATE
    GTEST_SKIP() << "built without libsamplerate";
#endif
    Calls calls;
    Buffers bufs;
    const WAVEFORMATEX f = Pcm(22050, 1, 16);
    // Odd sizes, so that the boundaries fall anywhere in the source's blocks.
    HWAVEIN h = OpenQueued(f, calls, {3466, 3660, 3854, 4048, 4242, 4436, 4630, 4824}, bufs);
    ASSERT_EQ(waveInStart(h), MMSYSERR_NOERROR);
    ASSERT_TRUE(calls.WaitFor(WIM_DATA, 8));
    ASSERT_EQ(waveInReset(h), MMSYSERR_NOERROR);
    ASSERT_EQ(waveInClose(h), MMSYSERR_NOERROR);

    std::vector<double> x;
    for (auto& b : bufs) {
        ASSERT_EQ(b->hdr.dwBytesRecorded, b->hdr.dwBufferLength);
        for (DWORD i = 0; i < b->hdr.dwBytesRecorded; i += 2) {
            int16_t v;
            std::memcpy(&v, &b->data[i], 2);
            x.push_back(v);
        }
    }
    x.erase(x.begin(), x.begin() + 2000); // the converter's start-up
    // One sample lost or repeated anywhere shifts the phase by 0.125 rad: about 2000.
    double amplitude = 0;
    const double worst = FitSine(x, 2 * std::numbers::pi * 440 / 22050, amplitude);
    EXPECT_NEAR(amplitude, 16384, 16384 * 0.01);
    EXPECT_LT(worst, 40.0);
}

TEST_F(WaveInTest, FileSourceComesBackSampleExact)
{
    // A looped 16-bit stereo file at 48000 Hz of noise, written by hand.
    const uint32_t n = 9001;
    std::vector<int16_t> pcm(2 * n);
    std::mt19937 rng(7);
    for (auto& s : pcm) s = static_cast<int16_t>(rng());
    const std::string path = ::testing::TempDir() + "qx_wavein_src.wav";
    std::ofstream(path, std::ios::binary) << wavetest::Riff(
        wavetest::Fmt(2, 48000, 16) + wavetest::Chunk("data", std::string(reinterpret_cast<char*>(pcm.data()), 4 * n)));
    setenv("QUAVIX_VIRTUAL_WAVE_IN_SOURCE", ("file:" + path).c_str(), 1);
    Calls calls;
    Buffers bufs;
    const WAVEFORMATEX f = Pcm(48000, 2, 16);
    HWAVEIN h = OpenQueued(f, calls, {4 * 7000, 4 * 7000, 4 * 7000}, bufs);
    ASSERT_EQ(waveInStart(h), MMSYSERR_NOERROR);
    ASSERT_TRUE(calls.WaitFor(WIM_DATA, 3));
    ASSERT_EQ(waveInReset(h), MMSYSERR_NOERROR);
    ASSERT_EQ(waveInClose(h), MMSYSERR_NOERROR);

    std::vector<int16_t> got;
    for (auto& b : bufs) {
        ASSERT_EQ(b->hdr.dwBytesRecorded, 4u * 7000);
        const auto* p = reinterpret_cast<const int16_t*>(b->data.data());
        got.insert(got.end(), p, p + 2 * 7000);
    }
    // Where in the loop the capture began is the source's business; from there on, exact.
    size_t off = 0;
    while (off < n && std::memcmp(&pcm[2 * off], got.data(), 4 * 4) != 0) ++off;
    ASSERT_LT(off, n) << "the first frames are not in the file";
    size_t bad = 0;
    for (size_t i = 0; i < got.size() / 2; ++i) {
        const size_t at = (off + i) % n;
        bad += got[2 * i] != pcm[2 * at] || got[2 * i + 1] != pcm[2 * at + 1];
    }
    EXPECT_EQ(bad, 0u) << "of " << got.size() / 2 << " frames (the file looped twice)";
    std::remove(path.c_str());

    setenv("QUAVIX_VIRTUAL_WAVE_IN_SOURCE", "file:/nonexistent/x.wav", 1);
    EXPECT_NE(waveInOpen(&h, 0, &f, 0, 0, CALLBACK_NULL), MMSYSERR_NOERROR);
}

// ---- The loopback source: virtual wave input 0 hears what wave output 0 plays ----

class WaveInLoopbackTest : public WaveInTest {
protected:
    void SetUp() override
    {
        WaveInTest::SetUp();
        setenv("QUAVIX_VIRTUAL_WAVE_IN_SOURCE", "loopback", 1);
    }
};

// Output 0 through DirectSound, looping one second of 997 Hz on the left at half scale
// and 1499 Hz on the right at a quarter: whole cycles, so the loop has no seam, and a
// lost or repeated frame anywhere puts every later one out of place.
struct LoopedTone {
    static constexpr DWORD kFrames = 48000;
    LPDIRECTSOUND ds = nullptr;
    LPDIRECTSOUNDBUFFER buffer = nullptr;
    std::vector<int16_t> pcm = std::vector<int16_t>(2 * kFrames);

    LoopedTone()
    {
        const double w = 2 * std::numbers::pi / 48000;
        for (DWORD i = 0; i < kFrames; ++i) {
            pcm[2 * i] = static_cast<int16_t>(std::lround(16384 * std::sin(w * 997 * i)));
            pcm[2 * i + 1] = static_cast<int16_t>(std::lround(8192 * std::sin(w * 1499 * i)));
        }
        EXPECT_EQ(DirectSoundCreate(nullptr, &ds, nullptr), DS_OK);
        if (ds == nullptr) return;
        WAVEFORMATEX f = Pcm(48000, 2, 16);
        DSBUFFERDESC d{};
        d.dwSize = sizeof d;
        d.dwBufferBytes = 4 * kFrames;
        d.lpwfxFormat = &f;
        EXPECT_EQ(ds->CreateSoundBuffer(&d, &buffer, nullptr), DS_OK);
        LPVOID p1 = nullptr, p2 = nullptr;
        DWORD b1 = 0, b2 = 0;
        if (buffer == nullptr || buffer->Lock(0, 0, &p1, &b1, &p2, &b2, DSBLOCK_ENTIREBUFFER) != DS_OK) return;
        std::memcpy(p1, pcm.data(), b1);
        EXPECT_EQ(buffer->Unlock(p1, b1, p2, b2), DS_OK);
    }
    ~LoopedTone() { Close(); }
    void Play() { ASSERT_EQ(buffer->Play(0, 0, DSBPLAY_LOOPING), DS_OK); }
    // The device goes with its last buffer, and its output with it.
    void Close()
    {
        if (buffer != nullptr) buffer->Release();
        if (ds != nullptr) {
            EXPECT_EQ(ds->Release(), 0u);
        }
        buffer = nullptr;
        ds = nullptr;
    }
};

// The 16-bit stereo frames the buffers recorded, in order.
std::vector<int16_t> Recorded(const Buffers& bufs)
{
    std::vector<int16_t> out;
    for (auto& b : bufs) {
        const auto* p = reinterpret_cast<const int16_t*>(b->data.data());
        out.insert(out.end(), p, p + b->hdr.dwBytesRecorded / 2);
    }
    return out;
}

// Frames of [from, to) with any sound in them.
size_t Sounding(const std::vector<int16_t>& x, size_t from, size_t to)
{
    size_t n = 0;
    for (size_t i = from; i < to && 2 * i + 1 < x.size(); ++i) n += x[2 * i] != 0 || x[2 * i + 1] != 0;
    return n;
}

TEST_F(WaveInLoopbackTest, HearsWhatOutputZeroPlaysFrameByFrame)
{
    Calls calls;
    Buffers bufs;
    const WAVEFORMATEX f = Pcm(48000, 2, 16);
    HWAVEIN h = OpenQueued(f, calls, {192000, 192000, 192000, 192000}, bufs); // four seconds
    ASSERT_EQ(waveInStart(h), MMSYSERR_NOERROR);
    LoopedTone tone;
    const uint64_t dryBefore = qxplat::VirtualAudioUnderrunFramesAll();
    tone.Play();
    ASSERT_TRUE(calls.WaitFor(WIM_DATA, 4));
    ASSERT_EQ(waveInReset(h), MMSYSERR_NOERROR);
    ASSERT_EQ(waveInClose(h), MMSYSERR_NOERROR);
    tone.Close();

    const std::vector<int16_t> got = Recorded(bufs);
    ASSERT_EQ(got.size(), 2u * 4 * 48000);
    size_t first = 0;
    while (2 * first < got.size() && got[2 * first] == 0 && got[2 * first + 1] == 0) ++first;
    ASSERT_LT(first, 48000u) << "nothing arrived within a second";
    // The tone's first frame (both sines at 0) lies just before the first sound.
    size_t off = 0;
    while (off < LoopedTone::kFrames && std::memcmp(&tone.pcm[2 * off], &got[2 * first], 16 * 4) != 0) ++off;
    ASSERT_EQ(off, 1u) << "the first frames heard are not the tone's first";
    const size_t frames = got.size() / 2 - first;
    ASSERT_GT(frames, 3u * 48000);
    // Where the output ran dry (a loaded machine held its mixer up) it played silence and
    // then went on where it was: silence is passed over there, no more than was counted.
    const uint64_t dry = qxplat::VirtualAudioUnderrunFramesAll() - dryBefore;
    size_t bad = 0, skipped = 0;
    for (size_t i = 0, at = off; i < frames; ++i) {
        const int16_t* g = &got[2 * (first + i)];
        const int16_t* e = &tone.pcm[2 * (at % LoopedTone::kFrames)];
        if (g[0] == e[0] && g[1] == e[1]) {
            ++at;
        } else if (g[0] == 0 && g[1] == 0 && skipped < dry) {
            ++skipped;
        } else {
            ++bad;
            ++at;
        }
    }
    EXPECT_EQ(bad, 0u) << "frames out of place, of " << frames << " (" << skipped
                       << " of silence where the output ran dry)";
}

TEST_F(WaveInLoopbackTest, SilentWithoutARunningOutputAndEitherSideMayCloseFirst)
{
    const WAVEFORMATEX f = Pcm(48000, 2, 16);
    {
        // No output at all, then one open that has not started.
        Calls calls;
        Buffers bufs;
        HWAVEIN h = OpenQueued(f, calls, {4 * 9600, 4 * 9600}, bufs);
        ASSERT_EQ(waveInStart(h), MMSYSERR_NOERROR);
        ASSERT_TRUE(calls.WaitFor(WIM_DATA, 1));
        LoopedTone idle;
        ASSERT_TRUE(calls.WaitFor(WIM_DATA, 2));
        ASSERT_EQ(waveInClose(h), MMSYSERR_NOERROR);
        const std::vector<int16_t> got = Recorded(bufs);
        ASSERT_EQ(got.size(), 2u * 2 * 9600);
        EXPECT_EQ(Sounding(got, 0, got.size() / 2), 0u);
    }
    {
        // The output comes after the input, plays, and closes while the input records:
        // silence, the tone for no longer than it played, then silence for good. Judged
        // by the order of what was recorded, not by when the input's threads got to it.
        Calls calls;
        Buffers bufs;
        HWAVEIN h = OpenQueued(f, calls, {4 * 48000 * 6}, bufs);
        ASSERT_EQ(waveInStart(h), MMSYSERR_NOERROR);
        ASSERT_TRUE(WaitPosition(h, 4 * 48000 / 4));
        auto tone = std::make_unique<LoopedTone>();
        const DWORD playedAt = PositionBytes(h) / 4; // all recorded before the tone began
        const uint64_t dryBefore = qxplat::VirtualAudioUnderrunFramesAll();
        const auto t0 = std::chrono::steady_clock::now();
        tone->Play();
        std::this_thread::sleep_for(std::chrono::milliseconds(400));
        tone.reset();
        const double played = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count() * 48000;
        const size_t dry = qxplat::VirtualAudioUnderrunFramesAll() - dryBefore;
        ASSERT_TRUE(WaitPosition(h, (PositionBytes(h) / 4 + 3 * 48000 / 2) * 4));
        ASSERT_EQ(waveInReset(h), MMSYSERR_NOERROR);
        ASSERT_EQ(waveInClose(h), MMSYSERR_NOERROR);
        const std::vector<int16_t> got = Recorded(bufs);
        const size_t n = got.size() / 2;
        size_t first = playedAt, last = n;
        while (first < n && Sounding(got, first, first + 1) == 0) ++first;
        while (last > first && Sounding(got, last - 1, last) == 0) --last;
        EXPECT_EQ(Sounding(got, 0, playedAt), 0u);
        EXPECT_GT(Sounding(got, first, last) + dry, 48000u * 3 / 10) << "it played for 0.4 s";
        EXPECT_LE(double(last - first), played + 48000 / 20) << "no longer than it played";
        EXPECT_GE(n - last, 48000u / 2) << "then nothing";
    }
    {
        // The output plays first; one input comes and goes while it plays, and the next
        // one hears the output afresh.
        LoopedTone tone;
        tone.Play();
        for (int round = 0; round < 2; ++round) {
            const uint64_t dryBefore = qxplat::VirtualAudioUnderrunFramesAll();
            Calls calls;
            Buffers bufs;
            HWAVEIN h = OpenQueued(f, calls, {4 * 9600, 4 * 9600}, bufs);
            ASSERT_EQ(waveInStart(h), MMSYSERR_NOERROR);
            ASSERT_TRUE(calls.WaitFor(WIM_DATA, 2));
            ASSERT_EQ(waveInClose(h), MMSYSERR_NOERROR);
            const std::vector<int16_t> got = Recorded(bufs);
            // Less where the output ran dry (a loaded machine held its mixer up).
            const size_t dry = qxplat::VirtualAudioUnderrunFramesAll() - dryBefore;
            EXPECT_GT(Sounding(got, 9600, 2 * 9600) + dry, 9000u) << "round " << round;
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
    }
}

} // namespace
