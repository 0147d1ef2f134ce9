// A device backend: what the platform's MIDI and audio services run on. One backend is
// chosen per process (QUAVIX_BACKEND = virtual | jack | pulse | alsa | auto) on first use.
#ifndef QUAVIX_PLATFORM_BACKENDS_QXBACKEND_H
#define QUAVIX_PLATFORM_BACKENDS_QXBACKEND_H

#include <quavix/QXWinTypes.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace qxplat {

enum class DeviceKind { MidiIn = 0, MidiOut = 1, WaveIn = 2, WaveOut = 3 };

// The platform's clock for due times and time stamps: steady, in nanoseconds.
int64_t NowNs();

// An open MIDI output. Messages are whole (a short message or a complete SysEx) and are
// handed over in the order of their due times; delivering each at its due time is the
// backend's job. Send may be called from several threads.
class MidiOutPort {
public:
    virtual ~MidiOutPort() = default;
    // A due time already past means at once.
    virtual MMRESULT Send(const BYTE* pData, size_t cb, int64_t dueNs) = 0;
    // How long before its due time a message is to be handed over (0: at the due time).
    virtual int64_t LeadNs() const { return 0; }
    // Drops what was handed over and not yet emitted.
    virtual void Cancel() {}
    // For a pause: drops what was handed over and not yet emitted, as Cancel does, and
    // says whether it could; a stream then hands that over again when it restarts.
    // *pOutBeforeNs comes in as now; a port that has let out messages due later (a cycle
    // or a mix block ahead) moves it on: what is due before it went out and stays out.
    virtual bool Withdraw(int64_t* pOutBeforeNs)
    {
        (void)pOutBeforeNs;
        return false;
    }
    // The device volume of an output that has one (left in the low word).
    virtual MMRESULT SetVolume(DWORD) { return MMSYSERR_NOTSUPPORTED; }
    virtual MMRESULT GetVolume(DWORD*) const { return MMSYSERR_NOTSUPPORTED; }
    // False once the device behind it has gone (a server that went away).
    virtual bool Alive() const { return true; }
};

// Receives what an open MIDI input delivers, in the backend's callback context.
class MidiInSink {
public:
    virtual ~MidiInSink() = default;
    virtual void OnMidiData(const BYTE* pData, size_t cb, int64_t timeNs) = 0;
};

// An open MIDI input; it delivers to its sink until destroyed, and not after.
class MidiInPort {
public:
    virtual ~MidiInPort() = default;
};

class AudioOutPort;
class AudioInPort;

class Backend {
public:
    virtual ~Backend() = default;
    virtual const char* Name() const = 0;
    virtual int Count(DeviceKind kind) = 0;
    // Name of device n of a kind; empty when there is no such device.
    virtual std::string DeviceName(DeviceKind kind, int n) = 0;
    virtual MMRESULT OpenMidiOut(int n, std::unique_ptr<MidiOutPort>& port) = 0;
    virtual MMRESULT OpenMidiIn(int n, MidiInSink* pSink, std::unique_ptr<MidiInPort>& port) = 0;
    // Whether MIDI output n reaches something outside the process that may sound: not an
    // in-process virtual output, not a loopback such as ALSA's "Midi Through".
    virtual bool IsExternalMidiOut(int n) { return n >= 0 && n < Count(DeviceKind::MidiOut); }
    // Audio output n (DeviceKind::WaveOut), which a DirectSound device's mixer feeds.
    virtual MMRESULT OpenAudioOut(int n, std::unique_ptr<AudioOutPort>& port);
    // Audio input n (DeviceKind::WaveIn), which a wave input's capture thread drains.
    virtual MMRESULT OpenAudioIn(int n, std::unique_ptr<AudioInPort>& port);
};

// What a backend reports of its own accord, from its own threads: the server behind it
// went away, or the peer of an open MIDI port (device number nDevice) did. The layers
// above install the handler that turns these into notifications.
enum class BackendEvent { ServerLost = 0, MidiInLost = 1, MidiOutLost = 2 };
using BackendEventProc = void (*)(BackendEvent event, int nDevice, const char* pszServer);
void SetBackendEventProc(BackendEventProc proc);
void RaiseBackendEvent(BackendEvent event, int nDevice, const char* pszServer);

// ---- Audio outputs ----

// Stereo float frames handed from one producer thread (a mixer) to one consumer (a sink's
// real-time callback or pacing thread) without locks: each side owns one index.
class AudioRing {
public:
    // Capacity in frames, rounded up to a power of two. Allocates; made before use only.
    explicit AudioRing(uint32_t nFrames);
    uint32_t Capacity() const { return m_mask + 1; }
    uint32_t Readable() const;
    uint32_t Writable() const;
    // Producer side: copies up to nFrames, returns how many went in.
    uint32_t Write(const float* pFrames, uint32_t nFrames);
    // Consumer side: copies up to nFrames out, returns how many came.
    uint32_t Read(float* pFrames, uint32_t nFrames);
    // Consumer side: the frames readable now are taken as consumed without copying.
    void Skip(uint32_t nFrames);

private:
    std::unique_ptr<float[]> m_data;
    uint32_t m_mask;
    alignas(64) std::atomic<uint32_t> m_write{0};
    alignas(64) std::atomic<uint32_t> m_read{0};
};

// An open audio output. The producer keeps about TargetFrames() frames queued in Ring()
// while the port runs; the port consumes them at its rate and clips them to its
// sample format. Start and Stop come from the producer's owner, not from the producer
// thread's mixing loop.
class AudioOutPort {
public:
    virtual ~AudioOutPort() = default;
    virtual DWORD Rate() const = 0;
    virtual uint32_t TargetFrames() const = 0;
    virtual AudioRing& Ring() = 0;
    virtual void Start() = 0;
    // Stops consuming; what is left in the ring stays there.
    virtual void Stop() = 0;
    // The output's primary buffer began to play (a virtual output's capture starts).
    virtual void PrimaryStarted() {}
    // In a render, a port whose frames the mixer's thread takes: it takes what is due by
    // nowNs, as a thread of its own would have, and says true. False: it paces itself.
    virtual bool RenderStep(int64_t /*nowNs*/) { return false; }
    // Frames the port had to fill with silence because the ring ran dry while running.
    virtual uint64_t UnderrunFrames() const { return 0; }
    // Frames from the mixer's start of a sound to its first frame leaving the port, on
    // average (exactly, with a clock), for ports that know it; 0 (unknown) leaves wave
    // starts uncompensated.
    virtual uint32_t LatencyFrames() const { return 0; }
    // The port's clock, for a port that has an exact one: *pFrame is the ring position
    // (frames read from Ring() since it was made) that the port consumes at time ns of
    // NowNs(). A sound started at time t then begins at ring position clock(t) +
    // LatencyFrames(), which must cover TargetFrames() plus one mix block (5 ms) for a
    // start never to come late. False: no clock, a sound begins with the next frame mixed.
    // Whether the port has such a clock at all (it may still answer false for a moment,
    // before its first cycle).
    virtual bool HasClock() const { return false; }
    virtual bool RingPositionAt(int64_t ns, int64_t* pFrame) const
    {
        (void)ns;
        (void)pFrame;
        return false;
    }
};

// An open audio input. Between Start and Stop the source's own thread (or real-time
// callback) writes stereo float frames at Rate() into Ring(), for one consumer; frames
// that find the ring full are dropped. Start and Stop come from the port's owner; once
// Stop returns nothing more is written until the next Start.
class AudioInPort {
public:
    virtual ~AudioInPort() = default;
    virtual DWORD Rate() const = 0;
    virtual AudioRing& Ring() = 0;
    virtual void Start() = 0;
    virtual void Stop() = 0;
    // Frames dropped because the ring was full (and, for sources that learn of them, frames
    // the device itself lost to an overrun).
    virtual uint64_t OverrunFrames() const { return 0; }
};

// The process's backend, chosen on first use.
Backend& CurrentBackend();
// Which backend QUAVIX_BACKEND (or "auto") resolves to on this machine.
const char* SelectedBackendName();

} // namespace qxplat

#endif // QUAVIX_PLATFORM_BACKENDS_QXBACKEND_H
