// Chooses the process's backend from QUAVIX_BACKEND: a named backend is used whether or
// not it finds devices (then it reports none). Each name is one system:
// - "jack": MIDI and audio are JACK ports.
// - "pulse": audio through PulseAudio (or PipeWire's pulse server), MIDI through the
//   ALSA sequencer (PulseAudio has none).
// - "alsa": audio through raw ALSA PCM ("default"), MIDI through the ALSA sequencer.
// - "auto" (the default): "jack" when a JACK server answers; else "pulse" when a sound
//   server answers; else "alsa" when the sequencer has a MIDI device or raw PCM opens;
//   else virtual. A desktop user without JACK hears sound with no setting at all.
// - "virtual": in-process devices and paced audio outputs.
// Each gets the built-in synth as its last MIDI output when it has a wave output.
#include "platform/backends/QXBackend.h"
#include "platform/kernel/QXClock.h"
#include "platform/backends/synth/QXSynth.h"
#include "platform/backends/virtual/QXVirtual.h"
#ifdef QUAVIX_HAVE_JACK
#include "platform/backends/jack/QXJack.h"
#endif
#ifdef QUAVIX_HAVE_ALSA
#include "platform/backends/alsa/QXAlsa.h"
#endif
#ifdef QUAVIX_HAVE_PULSE
#include "platform/backends/pulse/QXPulse.h"
#endif

#include <atomic>
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace qxplat {

namespace {

std::atomic<BackendEventProc> g_eventProc{nullptr};

[[maybe_unused]] Backend& Unavailable(const char* name)
{
    std::fprintf(stderr, "quavix: backend \"%s\" is not built in; using the virtual backend\n", name);
    return VirtualBackend();
}

// MIDI devices from one backend, audio outputs and inputs from another.
class WithAudio final : public Backend {
public:
    WithAudio(const char* pszName, Backend& midi, Backend& audio) : m_pszName(pszName), m_midi(midi), m_audio(audio) {}
    const char* Name() const override { return m_pszName; }
    int Count(DeviceKind kind) override { return Side(kind).Count(kind); }
    std::string DeviceName(DeviceKind kind, int n) override { return Side(kind).DeviceName(kind, n); }
    bool IsExternalMidiOut(int n) override { return m_midi.IsExternalMidiOut(n); }
    MMRESULT OpenMidiOut(int n, std::unique_ptr<MidiOutPort>& port) override { return m_midi.OpenMidiOut(n, port); }
    MMRESULT OpenMidiIn(int n, MidiInSink* pSink, std::unique_ptr<MidiInPort>& port) override
    {
        return m_midi.OpenMidiIn(n, pSink, port);
    }
    MMRESULT OpenAudioOut(int n, std::unique_ptr<AudioOutPort>& port) override { return m_audio.OpenAudioOut(n, port); }
    MMRESULT OpenAudioIn(int n, std::unique_ptr<AudioInPort>& port) override { return m_audio.OpenAudioIn(n, port); }

private:
    Backend& Side(DeviceKind kind)
    {
        return kind == DeviceKind::WaveOut || kind == DeviceKind::WaveIn ? m_audio : m_midi;
    }
    const char* m_pszName;
    Backend& m_midi;
    Backend& m_audio;
};

#ifdef QUAVIX_HAVE_ALSA
// The ALSA sequencer's MIDI with raw ALSA PCM audio; made once.
Backend& AlsaWithPcm()
{
    static WithAudio* s_backend = new WithAudio("alsa", AlsaBackendAlways(), AlsaPcmAlways());
    return *s_backend;
}
#endif

#if defined(QUAVIX_HAVE_ALSA) && defined(QUAVIX_HAVE_PULSE)
// The ALSA sequencer's MIDI with PulseAudio's audio; made once.
Backend& AlsaWithPulse()
{
    static WithAudio* s_backend = new WithAudio("pulse", AlsaBackendAlways(), PulseBackendAlways());
    return *s_backend;
}
#endif

bool Is(const char* want, const char* name)
{
    return want != nullptr && std::strcmp(want, name) == 0;
}

Backend& Choose()
{
    const char* want = std::getenv("QUAVIX_BACKEND");
    // A device keeps the world's time, not the render's.
    if (RenderClockOn()) {
        if (want != nullptr && *want != '\0' && !Is(want, "virtual") && !Is(want, "auto"))
            std::fprintf(stderr, "quavix: rendering uses the virtual backend, not \"%s\"\n", want);
        return VirtualBackend();
    }
    if (Is(want, "virtual")) return VirtualBackend();
    if (Is(want, "jack")) {
#ifdef QUAVIX_HAVE_JACK
        if (JackBackendIfAvailable() == nullptr)
            std::fprintf(stderr, "quavix: no JACK server answers; the jack backend has no devices\n");
        return JackBackendAlways();
#else
        return Unavailable(want);
#endif
    }
    if (Is(want, "pulse")) {
#if defined(QUAVIX_HAVE_ALSA) && defined(QUAVIX_HAVE_PULSE)
        if (PulseBackendIfServer() == nullptr)
            std::fprintf(stderr, "quavix: no PulseAudio server answers; the pulse backend has no wave devices until one does\n");
        return AlsaWithPulse();
#else
        return Unavailable(want);
#endif
    }
    if (Is(want, "alsa")) {
#ifdef QUAVIX_HAVE_ALSA
        if (AlsaBackendIfDevices() == nullptr && AlsaPcmIfDevices() == nullptr)
            std::fprintf(stderr, "quavix: ALSA offers no MIDI device and no PCM device\n");
        return AlsaWithPcm();
#else
        return Unavailable(want);
#endif
    }
    if (want != nullptr && *want != '\0' && !Is(want, "auto"))
        std::fprintf(stderr, "quavix: unknown backend \"%s\"; choosing automatically\n", want);
#ifdef QUAVIX_HAVE_JACK
    if (Backend* jack = JackBackendIfAvailable()) return *jack;
#endif
#if defined(QUAVIX_HAVE_ALSA) && defined(QUAVIX_HAVE_PULSE)
    if (PulseBackendIfServer() != nullptr) return AlsaWithPulse();
#endif
#ifdef QUAVIX_HAVE_ALSA
    if (AlsaBackendIfDevices() != nullptr || AlsaPcmIfDevices() != nullptr) return AlsaWithPcm();
#endif
    return VirtualBackend();
}

} // namespace

void SetBackendEventProc(BackendEventProc proc)
{
    g_eventProc.store(proc);
}

void RaiseBackendEvent(BackendEvent event, int nDevice, const char* pszServer)
{
    if (BackendEventProc proc = g_eventProc.load()) proc(event, nDevice, pszServer != nullptr ? pszServer : "");
}

Backend& CurrentBackend()
{
    static Backend& backend = WithSynth(Choose());
    return backend;
}

const char* SelectedBackendName()
{
    return CurrentBackend().Name();
}

MMRESULT Backend::OpenAudioOut(int, std::unique_ptr<AudioOutPort>&)
{
    return MMSYSERR_NODRIVER;
}

MMRESULT Backend::OpenAudioIn(int, std::unique_ptr<AudioInPort>&)
{
    return MMSYSERR_NODRIVER;
}

AudioRing::AudioRing(uint32_t nFrames)
{
    uint32_t cap = 1;
    while (cap < nFrames && cap < (1u << 24)) cap <<= 1;
    m_data.reset(new float[size_t{cap} * 2]());
    m_mask = cap - 1;
}

uint32_t AudioRing::Readable() const
{
    return m_write.load(std::memory_order_acquire) - m_read.load(std::memory_order_acquire);
}

uint32_t AudioRing::Writable() const
{
    return Capacity() - Readable();
}

uint32_t AudioRing::Write(const float* pFrames, uint32_t nFrames)
{
    const uint32_t w = m_write.load(std::memory_order_relaxed);
    const uint32_t r = m_read.load(std::memory_order_acquire);
    const uint32_t n = std::min(nFrames, Capacity() - (w - r));
    const uint32_t at = w & m_mask, first = std::min(n, Capacity() - at);
    std::memcpy(&m_data[size_t{at} * 2], pFrames, size_t{first} * 2 * sizeof(float));
    std::memcpy(&m_data[0], pFrames + size_t{first} * 2, size_t{n - first} * 2 * sizeof(float));
    m_write.store(w + n, std::memory_order_release);
    return n;
}

uint32_t AudioRing::Read(float* pFrames, uint32_t nFrames)
{
    const uint32_t r = m_read.load(std::memory_order_relaxed);
    const uint32_t w = m_write.load(std::memory_order_acquire);
    const uint32_t n = std::min(nFrames, w - r);
    const uint32_t at = r & m_mask, first = std::min(n, Capacity() - at);
    std::memcpy(pFrames, &m_data[size_t{at} * 2], size_t{first} * 2 * sizeof(float));
    std::memcpy(pFrames + size_t{first} * 2, &m_data[0], size_t{n - first} * 2 * sizeof(float));
    m_read.store(r + n, std::memory_order_release);
    return n;
}

void AudioRing::Skip(uint32_t nFrames)
{
    const uint32_t r = m_read.load(std::memory_order_relaxed);
    const uint32_t w = m_write.load(std::memory_order_acquire);
    m_read.store(r + std::min(nFrames, w - r), std::memory_order_release);
}

} // namespace qxplat
