// The virtual backend's audio outputs: sinks paced by the platform clock (real time, or a
// render's) at QUAVIX_VIRTUAL_AUDIO_RATE (default 48000). QUAVIX_VIRTUAL_WAVE_OUT_CAPTURE=PATTERN
// ("%d" becomes the output number) writes what output n consumed from the moment its
// primary buffer started, silence included, as a PCM WAV file at that rate (16-bit stereo
// unless QUAVIX_VIRTUAL_WAVE_OUT_CAPTURE_FORMAT=BITS:CHANNELS says otherwise);
// its header is brought up to date at least once a second and when the output closes.
// An output's clock is exact, so a sound starts a constant latency after its Play: the
// 20 ms the mixer keeps queued plus one 5 ms mix block.
#ifndef QUAVIX_PLATFORM_BACKENDS_VIRTUAL_QXVIRTUALAUDIO_H
#define QUAVIX_PLATFORM_BACKENDS_VIRTUAL_QXVIRTUALAUDIO_H

#include "platform/backends/QXBackend.h"
#include "platform/kernel/QXClock.h"

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

namespace qxplat {

// The clock of a virtual device: a thread of its own that wakes every tick of the steady
// clock and hands its step the number of frames at the rate that are due since the
// origin (the time of Start unless given). Start and Stop come from the device's owner;
// Stop returns once the step has ended.
class VirtualPacer {
public:
    using Step = std::function<void(int64_t nowNs, uint64_t framesDue)>;
    VirtualPacer(DWORD dwRate, int64_t tickNs) : m_rate(dwRate), m_tickNs(tickNs) {}
    ~VirtualPacer() { Stop(); }
    VirtualPacer(const VirtualPacer&) = delete;
    VirtualPacer& operator=(const VirtualPacer&) = delete;
    // A null name leaves the thread's scheduling as it is.
    void Start(const char* pszRealtimeName, Step step, int64_t originNs = NowNs());
    void Stop();
    // Frames due at a rate after elapsedNs (rounded down, also before the origin).
    static int64_t FramesIn(int64_t elapsedNs, DWORD dwRate);

private:
    void Run(const char* pszRealtimeName, int64_t originNs, const Step& step);

    const DWORD m_rate;
    const int64_t m_tickNs;
    std::mutex m_ownerLock; // Start and Stop
    std::mutex m_lock;
    ClockCondition m_wake;
    bool m_quit = false; // under m_lock
    std::thread m_thread;
};

// Where virtual wave output n's consumption (its final mix, clipped, silence included)
// meets virtual wave input n whose source is "loopback": a ring with one producer, the
// output's pacer thread, and one consumer, the input's. The first output and the first
// input of a number to start take part until they stop; others neither feed nor take.
// A tap lives as long as the process, so neither side can outlive it.
class VirtualLoopbackTap {
public:
    // Room for an output that catches up after its thread was held up for a second.
    VirtualLoopbackTap() : m_ring(65536) {}
    // The owners' side: an end is claimed at its start and given up once its pacer has
    // stopped. False: that end is taken.
    bool AttachOutput(const void* pOwner, DWORD dwRate);
    void DetachOutput(const void* pOwner);
    bool AttachInput(const void* pOwner);
    void DetachInput(const void* pOwner);
    // The attached output's pacer thread, while an input is attached; what does not fit
    // is dropped.
    void Feed(const float* pFrames, uint32_t nFrames);
    // The attached input's pacer thread reads the ring.
    AudioRing& Ring() { return m_ring; }
    // The attached output's rate; 0 while none is.
    DWORD OutputRate() const { return m_rate.load(); }

private:
    AudioRing m_ring;
    std::atomic<const void*> m_output{nullptr}, m_input{nullptr};
    std::atomic<DWORD> m_rate{0};
};

// The tap of output number n; null for a number no virtual output can have.
VirtualLoopbackTap* VirtualLoopback(int n);

MMRESULT OpenVirtualAudioOut(int n, std::unique_ptr<AudioOutPort>& port);
// The rate of the virtual outputs (read from the environment once).
DWORD VirtualAudioRate();
// The capture file of output n for a pattern; empty without a pattern.
std::string VirtualCapturePath(const char* pszPattern, int n);

} // namespace qxplat

#endif // QUAVIX_PLATFORM_BACKENDS_VIRTUAL_QXVIRTUALAUDIO_H
