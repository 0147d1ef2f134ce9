// The software mixer behind each DirectSound device: voices (the secondary buffers'
// sample memory and play state) mixed into stereo float at the output rate.
//
// Sharing: a voice's play state is guarded by its own small lock, taken by the
// application's calls and by the mixer only to copy parameters before a voice is mixed
// and to move its cursor after. The voice list has its own lock, taken briefly by both;
// RemoveVoice waits for the block in progress. Lock order: list lock, then voice lock,
// then the kernel's event locks (events are signalled under the voice lock). Sources
// share the list lock and the block wait with voices.
#ifndef QUAVIX_PLATFORM_DSOUND_QXMIXER_H
#define QUAVIX_PLATFORM_DSOUND_QXMIXER_H

#include "platform/dsound/QXDSound.h"
#include "platform/kernel/QXClock.h"

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace qxplat {

class AudioOutPort;

namespace ds {

enum class SampleKind { U8, S16, S24, S32, F32 };

// A buffer format the mixer reads: PCM 8/16/24/32-bit, float 32-bit, any channel count
// (more than two are folded to stereo), 100 … 100000 Hz.
struct SourceFormat {
    SampleKind kind = SampleKind::S16;
    int channels = 2;
    int bytesPerSample = 2;
    DWORD blockAlign = 4;
    DWORD rate = 22050;
};

// False for anything the mixer cannot play (DSERR_BADFORMAT).
bool ParseFormat(const WAVEFORMATEX* pFormat, SourceFormat& out);

// Linear gains of the left and right outputs for a volume and pan (hundredths of a dB);
// total attenuations of 100 dB or more are silence.
void PanGains(LONG lVolume, LONG lPan, float& left, float& right);

// Sounds, of every mixer of the process, whose start time was past when they were first
// mixed: they sounded late, at once.
uint64_t LateStarts();

// Notification offset that never fires (an unused slot).
constexpr DWORD kNoOffset = 0xFFFFFFFEu;

// A group of voices with its own gains and pause: one device object's buffers on an
// output that several share. Lock-free; lives until its voices are removed.
struct Bus {
    std::atomic<float> gainL{1.0f}, gainR{1.0f};
    std::atomic<bool> paused{false};
};

// Where a mix block lands in a port's ring: a time maps to its frame in the block.
struct BlockClock {
    const AudioOutPort* port;
    int64_t firstFrame; // the ring position of the block's first frame
    // Frames from the block's start to where the port sounds time ns (the port's
    // latency after it); false while the port has no clock.
    bool OffsetOf(int64_t ns, int64_t* pOffset) const;
};

// Sound made on the mixer thread and added into each block after the voices, unscaled
// by any bus (the synth). Called from the mixer thread only; must not block or allocate.
class MixSource {
public:
    virtual ~MixSource() = default;
    // pClock is null when the block has no place in a ring (offline rendering, no clock).
    virtual void MixInto(float* pOut, uint32_t nFrames, const BlockClock* pClock) = 0;
};

class Voice {
public:
    // Allocates the sample memory (silence); throws std::bad_alloc.
    Voice(const SourceFormat& format, DWORD dwBytes);
    ~Voice();
    Voice(const Voice&) = delete;
    Voice& operator=(const Voice&) = delete;

    const SourceFormat& Format() const { return m_format; }
    DWORD Bytes() const { return m_bytes; }
    DWORD Frames() const { return m_frames; }
    BYTE* Data() { return m_data.get(); }

    // Application side. Play returns true when the voice was stopped before; a voice
    // that starts sounds from startNs (NowNs() time) on, as the port's clock places it.
    bool Play(bool bLooping, int64_t startNs);
    // Returns true when it was playing (then the stop event has been signalled).
    bool Stop();
    bool Playing() const;
    bool Looping() const;
    void GetPositions(DWORD leadFrames, DWORD* pdwPlay, DWORD* pdwWrite) const;
    void SetPosition(DWORD dwBytes);
    void SetVolume(LONG lVolume);
    void SetPan(LONG lPan);
    void SetFrequency(DWORD dwHz); // already validated; 0 is the format's rate
    LONG Volume() const;
    LONG Pan() const;
    DWORD Frequency() const;
    // Replaces the positions (sorted by offset, DSBPN_OFFSETSTOP last). False while playing.
    bool SetNotifications(const DSBPOSITIONNOTIFY* pItems, DWORD nItems);
    // Marks the application's writes into the sample memory as published to the mixer.
    void Published();

private:
    friend class Mixer;

    SourceFormat m_format;
    DWORD m_bytes;
    DWORD m_frames;
    std::unique_ptr<BYTE[]> m_data;

    mutable std::mutex m_lock;
    // Under m_lock:
    bool m_playing = false;
    bool m_looping = false;
    uint32_t m_generation = 0; // changes on every Play, Stop and position set
    uint64_t m_pos = 0;        // frames, 32.32 fixed point, below m_frames
    int64_t m_startNs = 0;     // when the last Play started it
    bool m_startPending = false; // not mixed since that Play
    LONG m_volume = 0;
    LONG m_pan = 0;
    DWORD m_freq = 0;
    float m_gainL = 1.0f, m_gainR = 1.0f;
    std::vector<DSBPOSITIONNOTIFY> m_notes; // sorted, without the stop entry
    HANDLE m_stopEvent = nullptr;
    uint64_t m_publishCount = 0;
    Bus* m_bus = nullptr; // set once, by AddVoice

    // The mixer's own: the gains the voice's last block ended with, and the generation
    // it was mixed in (a gain change within one generation is ramped over a block).
    float m_mixedL = 0.0f, m_mixedR = 0.0f;
    uint32_t m_mixedGeneration = ~0u;
};

class Mixer {
public:
    // Allocates everything the mixing path uses.
    Mixer(DWORD dwRate, Resampler resampler);
    ~Mixer(); // stops the thread
    Mixer(const Mixer&) = delete;
    Mixer& operator=(const Mixer&) = delete;

    DWORD Rate() const { return m_rate; }
    Resampler Mode() const { return m_mode; }
    uint32_t BlockFrames() const { return m_blockFrames; }

    // False when the mixer holds its maximum of voices. Without a bus the voice is on
    // the mixer's own (SetMasterGains, SetPaused).
    bool AddVoice(Voice* pVoice, Bus* pBus = nullptr);
    // After it returns, the mixer no longer touches the voice.
    void RemoveVoice(Voice* pVoice);
    size_t VoiceCount() const;
    // Pulled in every block from the next one on, until RemoveSource returns.
    bool AddSource(MixSource* pSource);
    void RemoveSource(MixSource* pSource);

    // Mixes nFrames into pOut (stereo interleaved, overwritten, unclipped), in blocks of at
    // most BlockFrames(). Not while the thread runs.
    void Render(float* pOut, uint32_t nFrames);
    // Gain applied to the mix of the mixer's own bus (the primary buffer's volume and pan).
    void SetMasterGains(float left, float right);
    // A paused bus renders silence and moves no voice: cursors and notifications wait.
    void SetPaused(bool bPaused) { m_ownBus.paused.store(bPaused, std::memory_order_relaxed); }
    bool Paused() const { return m_ownBus.paused.load(std::memory_order_relaxed); }
    // Frames mixed so far.
    uint64_t FramesMixed() const { return m_framesMixed.load(std::memory_order_relaxed); }
    // The largest |sample| of each channel of the mix (after the master gain) since the
    // last call, which starts the next span; lock-free, from any thread. The first call
    // turns the meter on (0 until then): a mixer nobody meters spends nothing on it.
    void TakePeak(float& left, float& right);

    // The mixer thread keeps the port's ring filled to its target until StopThread. It
    // counts the ring's frames from the first it writes, so a port with a clock comes
    // to it with a ring never written (a device starts its mixer once, on its own port).
    void StartThread(AudioOutPort* pPort);
    void StopThread();
    bool ThreadRunning() const { return m_thread.joinable(); }

    static constexpr size_t kMaxVoices = 4096;
    static constexpr size_t kMaxSources = 16;

private:
    void WaitForBlock(std::unique_lock<std::mutex>& lock);
    void MixBlock(float* pOut, uint32_t nFrames, const BlockClock* pClock = nullptr);
    void MixVoice(Voice& v, float* pOut, uint32_t nFrames, const BlockClock* pClock);
    void ThreadMain(AudioOutPort* pPort);

    DWORD m_rate;
    Resampler m_mode;
    uint32_t m_blockFrames;
    int m_history; // source frames the resampler reads before the position
    int m_lookahead; // and after it
    std::vector<float> m_scratch; // converted source frames of one voice, stereo
    std::vector<float> m_ramped;  // one voice's block at unity gain, for a gain ramp
    std::vector<float> m_busMix;  // one bus's block before its gains
    std::vector<Voice*> m_snapshot;
    std::vector<Bus*> m_busSnapshot;
    std::vector<MixSource*> m_sourceSnapshot;
    std::atomic<uint64_t> m_framesMixed{0};
    Bus m_ownBus;
    // |sample| as float bits: for non-negative floats their order is the numbers' order.
    std::atomic<uint32_t> m_peakL{0}, m_peakR{0};
    std::atomic<bool> m_peakWanted{false};

    mutable std::mutex m_listLock;
    ClockCondition m_blockDone;
    std::vector<Voice*> m_voices; // under m_listLock
    std::vector<MixSource*> m_sources; // under m_listLock
    bool m_inBlock = false;       // under m_listLock
    uint64_t m_blocksDone = 0;    // under m_listLock

    std::mutex m_threadLock;
    ClockCondition m_threadWake;
    bool m_quit = false; // under m_threadLock
    std::thread m_thread;
};

} // namespace ds
} // namespace qxplat

#endif // QUAVIX_PLATFORM_DSOUND_QXMIXER_H
