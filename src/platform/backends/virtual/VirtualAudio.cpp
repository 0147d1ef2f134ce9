#include "platform/backends/virtual/QXVirtualAudio.h"
#include "platform/backends/virtual/QXVirtual.h"

#include "platform/mmio/QXMmio.h"
#include "platform/kernel/QXRealtime.h"

#include <algorithm>
#include <cmath>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <thread>
#include <vector>

namespace qxplat {

namespace {

std::atomic<uint64_t> g_underrunFramesAll{0};

constexpr int64_t kTickNs = 5'000'000; // the sink consumes every 5 ms (a render: see kRenderStepNs)
constexpr uint32_t kTargetMs = 20;      // what the mixer keeps queued
constexpr uint32_t kRenderTargetMs = 30; // in a render: more than its step
constexpr int64_t kHeaderEveryNs = 1'000'000'000;
constexpr uint32_t kChunkFrames = 1024;

// The capture's PCM layout: QUAVIX_VIRTUAL_WAVE_OUT_CAPTURE_FORMAT=BITS:CHANNELS (8, 16,
// 24 or 32; 1 or 2), 16:2 unless given.
struct CaptureLayout {
    WORD bits = 16;
    WORD channels = 2;
};

CaptureLayout CaptureLayoutFromEnv()
{
    CaptureLayout l;
    const char* text = std::getenv("QUAVIX_VIRTUAL_WAVE_OUT_CAPTURE_FORMAT");
    if (text == nullptr || *text == '\0') return l;
    unsigned bits = 0, channels = 0;
    char end = 0;
    if (std::sscanf(text, "%u:%u%c", &bits, &channels, &end) != 2 ||
        (bits != 8 && bits != 16 && bits != 24 && bits != 32) || channels < 1 || channels > 2) {
        std::fprintf(stderr, "quavix: ignoring QUAVIX_VIRTUAL_WAVE_OUT_CAPTURE_FORMAT \"%s\" (BITS:CHANNELS); using 16:2\n",
                     text);
        return l;
    }
    l.bits = static_cast<WORD>(bits);
    l.channels = static_cast<WORD>(channels);
    return l;
}

// A PCM WAV file written through the mmio service from the clipped stereo mix.
class CaptureFile {
public:
    explicit CaptureFile(CaptureLayout layout) : m_layout(layout) {}

    bool Open(const std::string& path, DWORD rate)
    {
        std::vector<char> name(path.begin(), path.end());
        name.push_back('\0');
        m_h = mmioOpenA(name.data(), nullptr, MMIO_CREATE | MMIO_WRITE | MMIO_ALLOCBUF);
        if (m_h == nullptr) return false;
        m_riff = {};
        m_riff.fccType = mmioFOURCC('W', 'A', 'V', 'E');
        MMCKINFO fmt{};
        fmt.ckid = mmioFOURCC('f', 'm', 't', ' ');
        WAVEFORMATEX wfx{};
        wfx.wFormatTag = WAVE_FORMAT_PCM;
        wfx.nChannels = m_layout.channels;
        wfx.nSamplesPerSec = rate;
        wfx.wBitsPerSample = m_layout.bits;
        wfx.nBlockAlign = static_cast<WORD>(m_layout.channels * m_layout.bits / 8);
        wfx.nAvgBytesPerSec = rate * wfx.nBlockAlign;
        m_data = {};
        m_data.ckid = mmioFOURCC('d', 'a', 't', 'a');
        if (mmioCreateChunk(m_h, &m_riff, MMIO_CREATERIFF) != MMSYSERR_NOERROR ||
            mmioCreateChunk(m_h, &fmt, 0) != MMSYSERR_NOERROR ||
            mmioWrite(m_h, reinterpret_cast<const char*>(&wfx), 16) != 16 ||
            mmioAscend(m_h, &fmt, 0) != MMSYSERR_NOERROR || mmioCreateChunk(m_h, &m_data, 0) != MMSYSERR_NOERROR) {
            Fail();
            return false;
        }
        m_bytes = 0;
        return true;
    }

    bool IsOpen() const { return m_h != nullptr; }

    void Write(const float* frames, uint32_t n)
    {
        if (m_h == nullptr) return;
        const unsigned bytes = m_layout.bits / 8u, channels = m_layout.channels;
        unsigned char pcm[256 * 2 * 4];
        while (n > 0) {
            const uint32_t k = std::min<uint32_t>(n, 256);
            unsigned char* p = pcm;
            for (uint32_t i = 0; i < k; ++i) {
                const float l = frames[2 * i], r = frames[2 * i + 1];
                for (unsigned c = 0; c < channels; ++c) {
                    const float s = std::clamp(channels == 1 ? (l + r) * 0.5f : c == 0 ? l : r, -1.0f, 1.0f);
                    // Full scale rounded to nearest, the negative side one step longer
                    // (in float up to 16 bits, where a float holds every step).
                    const int64_t top = int64_t{1} << (8 * bytes - 1);
                    int64_t v = bytes <= 2 ? static_cast<int64_t>(s < 0 ? s * top - 0.5f : s * (top - 1) + 0.5f)
                                           : std::llround(s < 0 ? double{s} * top : double{s} * (top - 1));
                    if (bytes == 1) v += 128; // 8-bit PCM is unsigned
                    for (unsigned b = 0; b < bytes; ++b) *p++ = static_cast<unsigned char>(v >> (8 * b));
                }
            }
            const LONG cb = static_cast<LONG>(p - pcm);
            if (mmioWrite(m_h, reinterpret_cast<const char*>(pcm), cb) != cb) {
                std::fprintf(stderr, "quavix: the virtual wave output's capture file cannot be written\n");
                Fail();
                return;
            }
            m_bytes += static_cast<DWORD>(cb);
            frames += 2 * k;
            n -= k;
        }
    }

    // Writes the true sizes into the headers, leaving the file positioned at its end.
    void RefreshHeader()
    {
        if (m_h == nullptr) return;
        const DWORD riffSize = m_data.dwDataOffset - 8 + m_bytes;
        const LONG end = static_cast<LONG>(m_data.dwDataOffset + m_bytes);
        bool ok = mmioSeek(m_h, 4, SEEK_SET) == 4 &&
                  mmioWrite(m_h, reinterpret_cast<const char*>(&riffSize), 4) == 4 &&
                  mmioSeek(m_h, static_cast<LONG>(m_data.dwDataOffset - 4), SEEK_SET) >= 0 &&
                  mmioWrite(m_h, reinterpret_cast<const char*>(&m_bytes), 4) == 4 && mmioSeek(m_h, end, SEEK_SET) == end &&
                  mmioFlush(m_h, 0) == MMSYSERR_NOERROR;
        if (!ok) Fail();
    }

    void Close()
    {
        if (m_h == nullptr) return;
        RefreshHeader();
        if (m_h != nullptr) mmioClose(m_h, 0);
        m_h = nullptr;
    }

private:
    void Fail()
    {
        if (m_h != nullptr) mmioClose(m_h, 0);
        m_h = nullptr;
    }

    const CaptureLayout m_layout;
    HMMIO m_h = nullptr;
    MMCKINFO m_riff{};
    MMCKINFO m_data{};
    DWORD m_bytes = 0;
};

class VirtualAudioOut final : public AudioOutPort {
public:
    VirtualAudioOut(int n, DWORD rate, std::string capturePath)
        : m_n(n), m_rate(rate), m_ring(rate / 5), m_capturePath(std::move(capturePath)), m_tap(VirtualLoopback(n))
    {
    }

    ~VirtualAudioOut() override
    {
        Stop();
        m_capture.Close();
    }

    DWORD Rate() const override { return m_rate; }
    uint32_t TargetFrames() const override { return m_rate * (RenderClockOn() ? kRenderTargetMs : kTargetMs) / 1000; }
    AudioRing& Ring() override { return m_ring; }

    void Start() override
    {
        std::lock_guard<std::mutex> lock(m_ownerLock);
        if (m_running) return;
        m_running = true;
        m_feeding = m_tap != nullptr && m_tap->AttachOutput(this, m_rate);
        // What the consumer counts begins anew at every start; the ring's position goes on.
        const int64_t origin = NowNs();
        PublishClock(origin, m_readTotal);
        // A render's mixer takes the frames itself (RenderStep), on the steps its own
        // thread would: one thread fewer to hand over to at every step.
        m_stepped = RenderClockOn();
        if (m_stepped) {
            m_step = {origin, 0, 0};
            Consume(origin, 0, origin, m_step.consumed, m_step.lastHeader);
            return;
        }
        m_pacer.Start(
            "qx-vaudio",
            [this, origin, consumed = uint64_t{0}, lastHeader = int64_t{0}](int64_t now, uint64_t due) mutable {
                Consume(now, due, origin, consumed, lastHeader);
            },
            origin);
    }

    void Stop() override
    {
        std::lock_guard<std::mutex> lock(m_ownerLock);
        if (!m_running) return;
        m_pacer.Stop();
        m_running = false;
        PublishClock(kStopped, 0);
        if (m_feeding) m_tap->DetachOutput(this);
        m_feeding = false;
    }

    void PrimaryStarted() override { m_captureWanted.store(true); }

    bool RenderStep(int64_t nowNs) override
    {
        if (!m_stepped) return false;
        const int64_t due = std::max<int64_t>(0, VirtualPacer::FramesIn(nowNs - m_step.origin, m_rate));
        Consume(nowNs, static_cast<uint64_t>(due), m_step.origin, m_step.consumed, m_step.lastHeader);
        return true;
    }

    uint64_t UnderrunFrames() const override { return m_underruns.load(); }

    // The target, plus the frames the mixer may add in one block (5 ms) beyond it before
    // it sees a start: from a start's ring position no mixed frame lies further ahead.
    uint32_t LatencyFrames() const override { return TargetFrames() + std::max<uint32_t>(1, m_rate / 200); }

    bool HasClock() const override { return true; }
    bool RingPositionAt(int64_t ns, int64_t* pFrame) const override
    {
        // Written at a start and after an underrun only: a torn read is rare, and after a
        // few, the answer is "no clock" (a start sounds at once) rather than a spin.
        for (int tries = 0; tries < 64; ++tries) {
            const uint32_t seq = m_clockSeq.load();
            if (seq & 1) continue;
            const int64_t origin = m_clockOrigin.load(), base = m_clockBase.load();
            if (m_clockSeq.load() != seq) continue;
            if (origin == kStopped) return false;
            *pFrame = base + VirtualPacer::FramesIn(ns - origin, m_rate);
            return true;
        }
        return false;
    }

private:
    static constexpr int64_t kStopped = INT64_MIN;

    // One writer at a time: the owner while the pacer is stopped, the pacer's thread
    // while it runs.
    void PublishClock(int64_t origin, int64_t base)
    {
        const uint32_t seq = m_clockSeq.load();
        m_clockSeq.store(seq + 1);
        m_clockOrigin.store(origin);
        m_clockBase.store(base);
        m_clockSeq.store(seq + 2);
    }

    void Consume(int64_t now, uint64_t due, int64_t origin, uint64_t& consumed, int64_t& lastHeader)
    {
        if (m_captureWanted.load() && !m_captureTried) {
            m_captureTried = true;
            if (!m_capturePath.empty() && !m_capture.Open(m_capturePath, m_rate))
                std::fprintf(stderr, "quavix: cannot write the capture of virtual wave output %d to \"%s\"\n", m_n,
                             m_capturePath.c_str());
        }
        bool underrun = false;
        while (consumed < due) {
            const uint32_t want = static_cast<uint32_t>(std::min<uint64_t>(due - consumed, kChunkFrames));
            const uint32_t got = m_ring.Read(m_chunk.data(), want);
            m_readTotal += got;
            if (got < want) {
                std::fill(m_chunk.begin() + 2 * got, m_chunk.begin() + 2 * want, 0.0f);
                m_underruns.fetch_add(want - got);
                g_underrunFramesAll.fetch_add(want - got, std::memory_order_relaxed);
                underrun = true;
            }
            // The one clip of the mix, for the capture and a loopback alike.
            for (uint32_t i = 0; i < 2 * want; ++i) m_chunk[i] = std::clamp(m_chunk[i], -1.0f, 1.0f);
            if (m_feeding) m_tap->Feed(m_chunk.data(), want);
            if (m_captureTried) m_capture.Write(m_chunk.data(), want);
            consumed += want;
        }
        // The silence put in moves every later ring frame back by its length.
        if (underrun) PublishClock(origin, m_readTotal - static_cast<int64_t>(consumed));
        if (lastHeader == 0) lastHeader = now;
        if (m_capture.IsOpen() && now - lastHeader >= kHeaderEveryNs) {
            m_capture.RefreshHeader();
            lastHeader = now;
        }
    }

    const int m_n;
    const DWORD m_rate;
    AudioRing m_ring;
    const std::string m_capturePath;
    VirtualLoopbackTap* const m_tap;
    std::atomic<bool> m_captureWanted{false};
    std::atomic<uint64_t> m_underruns{0};
    // The capture belongs to the consumer thread while it runs, to the owner after.
    CaptureFile m_capture{CaptureLayoutFromEnv()};
    bool m_captureTried = false;
    int64_t m_readTotal = 0; // frames read from the ring: the consumer thread's while it runs
    // In a render, the mixer's thread is the consumer (set at the start, before it runs).
    bool m_stepped = false;
    struct {
        int64_t origin;
        uint64_t consumed;
        int64_t lastHeader;
    } m_step{};

    std::mutex m_ownerLock; // Start and Stop
    bool m_running = false; // under m_ownerLock
    bool m_feeding = false; // set before the pacer starts, cleared after it stops

    // The ring position consumed at time t is base + the frames due from origin to t.
    std::atomic<uint32_t> m_clockSeq{0}; // odd while being written
    std::atomic<int64_t> m_clockOrigin{kStopped};
    std::atomic<int64_t> m_clockBase{0};

    std::vector<float> m_chunk = std::vector<float>(2 * kChunkFrames); // the consumer thread's
    VirtualPacer m_pacer{m_rate, kTickNs}; // last: stopped first
};

} // namespace

DWORD VirtualAudioRate()
{
    const char* text = std::getenv("QUAVIX_VIRTUAL_AUDIO_RATE");
    if (text == nullptr || *text == '\0') return 48000;
    char* stop = nullptr;
    const long rate = std::strtol(text, &stop, 10);
    if (*stop != '\0' || rate < 8000 || rate > 192000) {
        std::fprintf(stderr, "quavix: ignoring QUAVIX_VIRTUAL_AUDIO_RATE \"%s\" (8000 to 192000); using 48000\n", text);
        return 48000;
    }
    return static_cast<DWORD>(rate);
}

std::string VirtualCapturePath(const char* pszPattern, int n)
{
    if (pszPattern == nullptr) return {};
    std::string out, pattern(pszPattern);
    for (size_t i = 0; i < pattern.size(); ++i) {
        if (pattern[i] == '%' && i + 1 < pattern.size() && pattern[i + 1] == 'd') {
            out += std::to_string(n);
            ++i;
        } else {
            out += pattern[i];
        }
    }
    return out;
}

void VirtualPacer::Start(const char* pszRealtimeName, Step step, int64_t originNs)
{
    std::lock_guard<std::mutex> lock(m_ownerLock);
    if (m_thread.joinable()) return;
    {
        std::lock_guard<std::mutex> l(m_lock);
        m_quit = false;
    }
    m_thread = StartClockThread(
        [this, pszRealtimeName, originNs, step = std::move(step)] { Run(pszRealtimeName, originNs, step); });
}

int64_t VirtualPacer::FramesIn(int64_t elapsedNs, DWORD dwRate)
{
    // Whole microseconds, then frames, each rounded down (towards the past).
    const int64_t us = elapsedNs >= 0 ? elapsedNs / 1000 : -((999 - elapsedNs) / 1000);
    const int64_t scaled = us * static_cast<int64_t>(dwRate);
    return scaled >= 0 ? scaled / 1000000 : -((999999 - scaled) / 1000000);
}

void VirtualPacer::Stop()
{
    std::lock_guard<std::mutex> lock(m_ownerLock);
    if (!m_thread.joinable()) return;
    {
        std::lock_guard<std::mutex> l(m_lock);
        m_quit = true;
    }
    m_wake.NotifyAll();
    m_thread.join();
}

void VirtualPacer::Run(const char* pszRealtimeName, int64_t origin, const Step& step)
{
    if (pszRealtimeName != nullptr) MakeRealtimeThread(pszRealtimeName);
    std::unique_lock<std::mutex> lock(m_lock);
    while (!m_quit) {
        lock.unlock();
        const int64_t now = NowNs();
        step(now, static_cast<uint64_t>(std::max<int64_t>(0, FramesIn(now - origin, m_rate))));
        lock.lock();
        const int64_t next = RenderClockOn() ? NextRenderStep(now) : origin + ((now - origin) / m_tickNs + 1) * m_tickNs;
        m_wake.WaitUntil(lock, next, [this] { return m_quit; });
    }
}

bool VirtualLoopbackTap::AttachOutput(const void* pOwner, DWORD dwRate)
{
    const void* none = nullptr;
    if (!m_output.compare_exchange_strong(none, pOwner)) return false;
    m_rate.store(dwRate);
    return true;
}

void VirtualLoopbackTap::DetachOutput(const void* pOwner)
{
    if (m_output.load() != pOwner) return;
    m_rate.store(0);
    m_output.store(nullptr);
}

bool VirtualLoopbackTap::AttachInput(const void* pOwner)
{
    const void* none = nullptr;
    return m_input.compare_exchange_strong(none, pOwner);
}

void VirtualLoopbackTap::DetachInput(const void* pOwner)
{
    const void* mine = pOwner;
    m_input.compare_exchange_strong(mine, nullptr);
}

void VirtualLoopbackTap::Feed(const float* pFrames, uint32_t nFrames)
{
    if (m_input.load() != nullptr) m_ring.Write(pFrames, nFrames);
}

uint64_t VirtualAudioUnderrunFramesAll()
{
    return g_underrunFramesAll.load(std::memory_order_relaxed);
}

VirtualLoopbackTap* VirtualLoopback(int n)
{
    // As many as the backend can count; made on first use and never freed, so that a
    // pacer thread can never reach one that has gone.
    constexpr int kTaps = 64;
    static std::atomic<VirtualLoopbackTap*> taps[kTaps];
    static std::mutex making;
    if (n < 0 || n >= kTaps) return nullptr;
    VirtualLoopbackTap* tap = taps[n].load();
    if (tap != nullptr) return tap;
    std::lock_guard<std::mutex> lock(making);
    tap = taps[n].load();
    if (tap == nullptr) {
        tap = new VirtualLoopbackTap;
        taps[n].store(tap);
    }
    return tap;
}

MMRESULT OpenVirtualAudioOut(int n, std::unique_ptr<AudioOutPort>& port)
{
    try {
        port = std::make_unique<VirtualAudioOut>(
            n, VirtualAudioRate(), VirtualCapturePath(std::getenv("QUAVIX_VIRTUAL_WAVE_OUT_CAPTURE"), n));
    } catch (const std::bad_alloc&) {
        return MMSYSERR_NOMEM;
    }
    return MMSYSERR_NOERROR;
}

} // namespace qxplat
