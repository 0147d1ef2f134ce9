// The virtual backend's audio outputs: sinks paced by the steady clock in real time at
// QUAVIX_VIRTUAL_AUDIO_RATE (default 48000). QUAVIX_VIRTUAL_WAVE_OUT_CAPTURE=PATTERN
// ("%d" becomes the output number) writes what output n consumed from the moment its
// primary buffer started, silence included, as a 16-bit stereo WAV file at that rate;
// its header is brought up to date at least once a second and when the output closes.
#ifndef QUAVIX_PLATFORM_BACKENDS_VIRTUAL_QXVIRTUALAUDIO_H
#define QUAVIX_PLATFORM_BACKENDS_VIRTUAL_QXVIRTUALAUDIO_H

#include "platform/backends/QXBackend.h"

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

namespace qxplat {

// The clock of a virtual device: a thread of its own that wakes every tick of the steady
// clock and hands its step the number of frames at the rate that are due since Start.
// Start and Stop come from the device's owner; Stop returns once the step has ended.
class VirtualPacer {
public:
    using Step = std::function<void(int64_t nowNs, uint64_t framesDue)>;
    VirtualPacer(DWORD dwRate, int64_t tickNs) : m_rate(dwRate), m_tickNs(tickNs) {}
    ~VirtualPacer() { Stop(); }
    VirtualPacer(const VirtualPacer&) = delete;
    VirtualPacer& operator=(const VirtualPacer&) = delete;
    // A null name leaves the thread's scheduling as it is.
    void Start(const char* pszRealtimeName, Step step);
    void Stop();

private:
    void Run(const char* pszRealtimeName, const Step& step);

    const DWORD m_rate;
    const int64_t m_tickNs;
    std::mutex m_ownerLock; // Start and Stop
    std::mutex m_lock;
    std::condition_variable m_wake;
    bool m_quit = false; // under m_lock
    std::thread m_thread;
};

MMRESULT OpenVirtualAudioOut(int n, std::unique_ptr<AudioOutPort>& port);
// The rate of the virtual outputs (read from the environment once).
DWORD VirtualAudioRate();
// The capture file of output n for a pattern; empty without a pattern.
std::string VirtualCapturePath(const char* pszPattern, int n);

} // namespace qxplat

#endif // QUAVIX_PLATFORM_BACKENDS_VIRTUAL_QXVIRTUALAUDIO_H
