// The synth's engine (a FluidSynth instance the mixer pulls), its MIDI port and the backend
// that offers it.
//
// Threads: any number of senders, serialised by the engine's send lock (held only to copy
// one message in), hand messages to a lock-free ring with one consumer, the mixer thread,
// which alone calls FluidSynth after the engine is made. SysEx goes in preallocated slots,
// so nothing on the mixing path allocates or waits. Lock order: the send lock is taken on
// its own (under a stream's lock at most); the mixer thread takes none of it.
#include "platform/backends/synth/QXSynth.h"

#include "platform/dsound/QXMixer.h"
#include "platform/dsound/QXOutput.h"

#include <fluidsynth.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

namespace qxplat {

namespace {

constexpr const char* kSynthName = "Quavix GM Synth";
constexpr const char* kDefaultSoundFont = "/usr/share/sounds/sf2/default-GM.sf2";
constexpr uint32_t kQueueSize = 4096; // a power of two
constexpr int kSysExSlots = 32;
constexpr size_t kSysExBytes = 1024; // FluidSynth acts on nothing longer (tuning dumps are 408)
// Beyond the output's latency, a mix block and a stream thread's wake-up delay on a busy
// machine: a message handed over that far ahead waits in the queue for its frame instead
// of coming late.
constexpr int64_t kMarginNs = 20'000'000;
// How long a pause waits for the mixer to take a cancel: a block, unless the output stands.
constexpr int64_t kWithdrawWaitNs = 50'000'000;
// A due time this far past (or 0: at once) has no frame to keep.
constexpr int64_t kStaleNs = 1'000'000'000;
// FluidSynth renders 64 frames at a time and acts on a message at the next such block.
constexpr uint64_t kSynthGrid = 64;
// Below this the synth is silent: its grid may move without a sound being cut.
constexpr float kSilence = 1e-5f;
// The longest an engine put aside renders what still sounds into nothing.
constexpr uint32_t kSpareDrainSeconds = 5;

std::string SoundFontPath()
{
    const char* env = std::getenv("QUAVIX_SOUNDFONT");
    return env != nullptr ? env : kDefaultSoundFont;
}

bool Readable(const std::string& path)
{
    struct stat st{};
    return !path.empty() && ::stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode) && ::access(path.c_str(), R_OK) == 0;
}

// A SoundFont 2 file is a RIFF form of type "sfbk". What is not, FluidSynth's loader
// would complain about on stderr before failing.
bool LooksLikeSoundFont(const std::string& path)
{
    char head[12] = {};
    FILE* f = std::fopen(path.c_str(), "rb");
    if (f == nullptr) return false;
    const size_t n = std::fread(head, 1, sizeof head, f);
    std::fclose(f);
    return n == sizeof head && std::memcmp(head, "RIFF", 4) == 0 && std::memcmp(head + 8, "sfbk", 4) == 0;
}

struct Event {
    int64_t dueNs;
    uint32_t seq;    // its place in the ring's count
    uint16_t length;
    int16_t slot;    // the SysEx slot, -1 for a short message
    BYTE msg[4];
};

std::atomic<uint64_t> g_lateMessages{0};

// True when sequence number a comes before b (the counts wrap).
bool Before(uint32_t a, uint32_t b)
{
    return static_cast<int32_t>(a - b) < 0;
}

class SynthEngine final : public ds::MixSource {
public:
    // Null when FluidSynth cannot be made or the SoundFont does not load.
    static std::unique_ptr<SynthEngine> Create(DWORD rate, uint32_t maxFrames, const std::string& soundFont)
    {
        if (!LooksLikeSoundFont(soundFont)) return nullptr;
        std::unique_ptr<SynthEngine> e(new SynthEngine(maxFrames, rate));
        e->m_settings = new_fluid_settings();
        if (e->m_settings == nullptr) return nullptr;
        fluid_settings_setnum(e->m_settings, "synth.sample-rate", static_cast<double>(rate));
        // Only the mixer thread calls it once made: FluidSynth's own lock would be waste.
        fluid_settings_setint(e->m_settings, "synth.threadsafe-api", 0);
        fluid_settings_setint(e->m_settings, "synth.polyphony", kSynthPolyphony);
        e->m_synth = new_fluid_synth(e->m_settings);
        if (e->m_synth == nullptr) return nullptr;
        // FluidSynth loads samples with OpenMP, whose helper threads belong to the thread
        // that loads: on a thread of our own, joined here, they end with the load.
        bool loaded = false;
        std::thread loader([&] { loaded = fluid_synth_sfload(e->m_synth, soundFont.c_str(), 1) != FLUID_FAILED; });
        loader.join();
        return loaded ? std::move(e) : nullptr;
    }

    ~SynthEngine() override
    {
        if (m_synth != nullptr) delete_fluid_synth(m_synth);
        if (m_settings != nullptr) delete_fluid_settings(m_settings);
    }

    MMRESULT Send(const BYTE* pData, size_t cb, int64_t dueNs)
    {
        if (pData == nullptr || cb == 0) return MMSYSERR_INVALPARAM;
        std::lock_guard<std::mutex> lock(m_sendLock);
        const uint32_t w = m_write.load(std::memory_order_relaxed);
        if (w - m_read.load(std::memory_order_acquire) >= kQueueSize) return MIDIERR_NOTREADY;
        Event& e = m_ring[w & (kQueueSize - 1)];
        e.dueNs = dueNs;
        e.seq = w;
        e.slot = -1;
        if (pData[0] == 0xF0) {
            if (cb > kSysExBytes) return MMSYSERR_NOERROR; // nothing a GM synth understands
            int slot = 0;
            while (slot < kSysExSlots && m_slots[slot].busy.load(std::memory_order_acquire)) ++slot;
            if (slot == kSysExSlots) return MIDIERR_NOTREADY;
            std::memcpy(m_slots[slot].data, pData, cb);
            m_slots[slot].busy.store(true, std::memory_order_relaxed);
            e.slot = static_cast<int16_t>(slot);
            e.length = static_cast<uint16_t>(cb);
        } else {
            e.length = static_cast<uint16_t>(std::min<size_t>(cb, 3));
            std::memset(e.msg, 0, sizeof e.msg);
            std::memcpy(e.msg, pData, e.length);
        }
        m_write.store(w + 1, std::memory_order_release);
        return MMSYSERR_NOERROR;
    }

    // Between uses, on no mixer: as new, with the SoundFont still loaded.
    void Reset()
    {
        m_write.store(0);
        m_read.store(0);
        m_cancelTo.store(0);
        m_cancels.store(0);
        m_cancelsDone.store(0);
        m_appliedDueNs.store(INT64_MIN);
        for (Slot& slot : m_slots) slot.busy.store(false);
        m_pendingCount = 0;
        m_cancelsSeen = 0;
        m_dropBefore = 0;
        m_dropping = false;
        m_volume.store(0xFFFFFFFFu);
        m_master = 1.0f;
        fluid_synth_system_reset(m_synth);
        // What the reset leaves sounding (the rest of a block rendered before, voices
        // and effects dying away) is rendered into nothing, so that the next user of
        // the engine starts in silence.
        Discard((kSynthGrid - m_synthFrames % kSynthGrid) % kSynthGrid);
        for (uint64_t n = 0; n < uint64_t{kSpareDrainSeconds} * m_rate && Discard(m_maxFrames) >= kSilence;)
            n += m_maxFrames;
        m_quietFrames = kSynthGrid;
    }

    void SetVolume(DWORD dwVolume) { m_volume.store(dwVolume, std::memory_order_relaxed); }
    DWORD Volume() const { return m_volume.load(std::memory_order_relaxed); }

    // Returns the cancel's number, for AwaitCancel.
    uint32_t Cancel()
    {
        std::lock_guard<std::mutex> lock(m_sendLock);
        m_cancelTo.store(m_write.load(std::memory_order_relaxed), std::memory_order_relaxed);
        return m_cancels.fetch_add(1, std::memory_order_release) + 1;
    }

    // Waits (a mix block, at most timeoutNs) for the mixer thread to take a cancel, and
    // returns the latest due time of a message it had applied by then.
    int64_t AwaitCancel(uint32_t n, int64_t timeoutNs)
    {
        const int64_t until = NowNs() + timeoutNs;
        while (Before(m_cancelsDone.load(std::memory_order_acquire), n) && NowNs() < until)
            ClockSleepFor(200'000);
        return m_appliedDueNs.load(std::memory_order_acquire);
    }

    void MixInto(float* pOut, uint32_t nFrames, const ds::BlockClock* pClock) override
    {
        TakeEvents();
        const int64_t now = NowNs();
        size_t head = 0;
        uint32_t pos = 0;
        while (pos < nFrames) {
            uint32_t next = nFrames;
            while (head < m_pendingCount) {
                const Event& e = m_pending[head];
                const int64_t offset = OffsetOf(e.dueNs, now, nFrames, pClock);
                // Its frame was mixed before it came: it sounds late.
                if (offset < 0) g_lateMessages.fetch_add(1, std::memory_order_relaxed);
                if (offset > pos) {
                    next = static_cast<uint32_t>(std::min<int64_t>(offset, nFrames));
                    break;
                }
                if (e.slot < 0 && (e.msg[0] & 0xF0) == 0x90 && e.msg[2] != 0) Rephase();
                Apply(e);
                ++head;
            }
            Render(pOut + size_t{pos} * 2, next - pos);
            pos = next;
        }
        std::copy(m_pending.get() + head, m_pending.get() + m_pendingCount, m_pending.get());
        m_pendingCount -= head;
    }

private:
    SynthEngine(uint32_t maxFrames, DWORD rate)
        : m_ring(new Event[kQueueSize]), m_pending(new Event[kQueueSize]), m_scratch(new float[size_t{maxFrames} * 2]), m_maxFrames(maxFrames), m_rate(rate)
    {
    }

    // Frames from the block's start to where a message due at dueNs plays.
    static int64_t OffsetOf(int64_t dueNs, int64_t now, uint32_t nFrames, const ds::BlockClock* pClock)
    {
        if (dueNs < now - kStaleNs) return 0;
        // A wave start is handed over a latency early to sound at its time; a message
        // comes early by the port's lead instead, and sounds at its time too.
        int64_t offset = 0;
        if (pClock != nullptr && pClock->OffsetOf(dueNs, &offset)) return offset - pClock->port->LatencyFrames();
        return dueNs <= now ? 0 : nFrames;
    }

    // The mixer thread: moves what was sent into the pending list, in due order (messages
    // due at one time keep the order they were sent in).
    void TakeEvents()
    {
        const uint32_t cancels = m_cancels.load(std::memory_order_acquire);
        if (cancels != m_cancelsSeen) {
            m_cancelsSeen = cancels;
            m_dropBefore = m_cancelTo.load(std::memory_order_relaxed);
            m_dropping = Before(m_read.load(std::memory_order_relaxed), m_dropBefore);
            for (size_t i = 0; i < m_pendingCount; ++i) FreeSlot(m_pending[i]);
            m_pendingCount = 0;
            fluid_synth_all_sounds_off(m_synth, -1);
            m_cancelsDone.store(cancels, std::memory_order_release);
        }
        uint32_t r = m_read.load(std::memory_order_relaxed);
        const uint32_t w = m_write.load(std::memory_order_acquire);
        for (; r != w && m_pendingCount < kQueueSize; ++r) {
            const Event& e = m_ring[r & (kQueueSize - 1)];
            if (m_dropping && Before(e.seq, m_dropBefore)) {
                FreeSlot(e);
                continue;
            }
            m_dropping = false;
            size_t at = m_pendingCount;
            while (at > 0 && m_pending[at - 1].dueNs > e.dueNs) {
                m_pending[at] = m_pending[at - 1];
                --at;
            }
            m_pending[at] = e;
            ++m_pendingCount;
        }
        m_read.store(r, std::memory_order_release);
    }

    void FreeSlot(const Event& e)
    {
        if (e.slot >= 0) m_slots[e.slot].busy.store(false, std::memory_order_release);
    }

    void Apply(const Event& e)
    {
        if (e.dueNs > m_appliedDueNs.load(std::memory_order_relaxed)) m_appliedDueNs.store(e.dueNs, std::memory_order_release);
        if (e.slot >= 0) {
            // FluidSynth takes the message without its F0 and F7.
            const BYTE* body = m_slots[e.slot].data + 1;
            int len = e.length - 1;
            if (len > 0 && body[len - 1] == 0xF7) --len;
            // Universal messages to any device: master volume, which FluidSynth leaves
            // alone, and GM System On, which brings it back.
            if (len >= 6 && body[0] == 0x7F && body[2] == 0x04 && body[3] == 0x01)
                m_master = static_cast<float>((body[4] & 0x7F) | (body[5] & 0x7F) << 7) / 16383.0f;
            else if (len >= 4 && body[0] == 0x7E && body[2] == 0x09 && (body[3] == 0x01 || body[3] == 0x03))
                m_master = 1.0f;
            if (len > 0) fluid_synth_sysex(m_synth, reinterpret_cast<const char*>(body), len, nullptr, nullptr, nullptr, 0);
            FreeSlot(e);
            return;
        }
        const int chan = e.msg[0] & 0x0F, d1 = e.msg[1] & 0x7F, d2 = e.msg[2] & 0x7F;
        switch (e.msg[0] & 0xF0) {
        case 0x80: fluid_synth_noteoff(m_synth, chan, d1); break;
        case 0x90: fluid_synth_noteon(m_synth, chan, d1, d2); break; // velocity 0 is a note-off
        case 0xA0: fluid_synth_key_pressure(m_synth, chan, d1, d2); break;
        case 0xB0: fluid_synth_cc(m_synth, chan, d1, d2); break;
        case 0xC0: fluid_synth_program_change(m_synth, chan, d1); break;
        case 0xD0: fluid_synth_channel_pressure(m_synth, chan, d1); break;
        case 0xE0: fluid_synth_pitch_bend(m_synth, chan, d1 | (d2 << 7)); break;
        default:
            if (e.msg[0] == 0xFF) fluid_synth_system_reset(m_synth);
            break;
        }
    }

    void Render(float* pOut, uint32_t nFrames)
    {
        if (nFrames == 0) return;
        float* s = m_scratch.get();
        fluid_synth_write_float(m_synth, static_cast<int>(nFrames), s, 0, 2, s, 1, 2);
        m_synthFrames += nFrames;
        const DWORD v = m_volume.load(std::memory_order_relaxed);
        const float left = m_master * static_cast<float>(v & 0xFFFF) / 65535.0f;
        const float right = m_master * static_cast<float>(v >> 16) / 65535.0f;
        for (size_t i = 0; i < size_t{nFrames} * 2; i += 2) {
            pOut[i] += left * s[i];
            pOut[i + 1] += right * s[i + 1];
        }
        // Silent frames in a row up to here, whatever the cut of the blocks: back from the
        // end to the last one that sounds.
        size_t loud = nFrames;
        while (loud > 0 && std::max(std::fabs(s[2 * loud - 2]), std::fabs(s[2 * loud - 1])) < kSilence) --loud;
        m_quietFrames = loud == 0 ? m_quietFrames + nFrames : nFrames - loud;
    }

    // A note that starts out of silence starts on its own frame: the synth's grid is
    // moved there by rendering silence that is thrown away. So later notes keep their
    // distance from it to the frame, whenever the performance started against the
    // output's frame count (which real time decides).
    void Rephase()
    {
        const uint64_t k = (kSynthGrid - m_synthFrames % kSynthGrid) % kSynthGrid;
        if (k != 0 && m_quietFrames >= kSynthGrid && fluid_synth_get_active_voice_count(m_synth) == 0) Discard(k);
    }

    // Renders frames into nothing; returns their peak.
    float Discard(uint64_t nFrames)
    {
        float* s = m_scratch.get();
        float peak = 0;
        for (uint64_t n = 0; n < nFrames;) {
            const auto k = static_cast<int>(std::min<uint64_t>(nFrames - n, m_maxFrames));
            fluid_synth_write_float(m_synth, k, s, 0, 2, s, 1, 2);
            for (int i = 0; i < 2 * k; ++i) peak = std::max(peak, std::fabs(s[i]));
            n += static_cast<uint64_t>(k);
        }
        m_synthFrames += nFrames;
        return peak;
    }

    fluid_settings_t* m_settings = nullptr;
    fluid_synth_t* m_synth = nullptr;

    std::mutex m_sendLock; // senders only
    std::unique_ptr<Event[]> m_ring;
    alignas(64) std::atomic<uint32_t> m_write{0}; // under m_sendLock for writers
    alignas(64) std::atomic<uint32_t> m_read{0};
    struct Slot {
        std::atomic<bool> busy{false}; // set by a sender, cleared by the mixer thread
        BYTE data[kSysExBytes];
    };
    Slot m_slots[kSysExSlots];
    std::atomic<uint32_t> m_cancelTo{0}; // the ring count at the last Cancel
    std::atomic<uint32_t> m_cancels{0};
    std::atomic<uint32_t> m_cancelsDone{0};         // written by the mixer thread
    std::atomic<int64_t> m_appliedDueNs{INT64_MIN}; // likewise
    std::atomic<DWORD> m_volume{0xFFFFFFFFu};       // left in the low word

    // The mixer thread's own.
    std::unique_ptr<Event[]> m_pending; // sorted by due time
    size_t m_pendingCount = 0;
    std::unique_ptr<float[]> m_scratch;
    const uint32_t m_maxFrames;
    const DWORD m_rate;
    uint32_t m_cancelsSeen = 0;
    uint32_t m_dropBefore = 0;
    bool m_dropping = false;
    float m_master = 1.0f; // the GM master volume
    uint64_t m_synthFrames = 0; // what FluidSynth rendered, thrown away or not
    uint64_t m_quietFrames = kSynthGrid; // silent frames last rendered, in a row
};

// A closed synth's engine, kept with its SoundFont for the next open of the same font at
// the same rate: a new run is begun by closing and opening the devices, and a GM
// SoundFont can take a second to load.
struct Spare {
    std::mutex lock;
    std::unique_ptr<SynthEngine> engine;
    std::string path;
    DWORD rate = 0;
    uint32_t frames = 0;
};

Spare& TheSpare()
{
    static Spare* s = new Spare; // kept until exit, like the SoundFont it holds
    return *s;
}

void KeepSpare(std::unique_ptr<SynthEngine> engine, const std::string& path, DWORD rate, uint32_t frames)
{
    Spare& spare = TheSpare();
    std::lock_guard<std::mutex> lock(spare.lock);
    spare.engine = std::move(engine); // one is enough: a second open loads its own
    spare.path = path;
    spare.rate = rate;
    spare.frames = frames;
}

std::unique_ptr<SynthEngine> TakeSpare(const std::string& path, DWORD rate, uint32_t frames)
{
    Spare& spare = TheSpare();
    std::lock_guard<std::mutex> lock(spare.lock);
    if (!spare.engine || spare.path != path || spare.rate != rate || spare.frames != frames) return nullptr;
    // Reset when taken, not when kept: a program that ends does not drain it for no one.
    spare.engine->Reset();
    return std::move(spare.engine);
}

class SynthPort final : public MidiOutPort {
public:
    SynthPort(ds::Output* pOutput, std::unique_ptr<SynthEngine> engine, std::string path)
        : m_output(pOutput), m_engine(std::move(engine)), m_path(std::move(path))
    {
    }
    ~SynthPort() override
    {
        m_output->Mix().RemoveSource(m_engine.get());
        KeepSpare(std::move(m_engine), m_path, m_output->Mix().Rate(), m_output->Mix().BlockFrames());
        m_output->Release();
    }
    MMRESULT Send(const BYTE* pData, size_t cb, int64_t dueNs) override { return m_engine->Send(pData, cb, dueNs); }
    // The output's latency (which may grow while it runs) and a margin, on an output
    // with a clock; elsewhere a message plays from the first block after its time.
    int64_t LeadNs() const override
    {
        const AudioOutPort* p = m_output->Port();
        if (!p->HasClock() || p->Rate() == 0) return 0;
        return int64_t{p->LatencyFrames()} * 1'000'000'000 / p->Rate() + kMarginNs;
    }
    void Cancel() override { m_engine->Cancel(); }
    // What the mixer applied before it took the cancel went out: it was mixed ahead.
    bool Withdraw(int64_t* pOutBeforeNs) override
    {
        const int64_t applied = m_engine->AwaitCancel(m_engine->Cancel(), kWithdrawWaitNs);
        if (applied != INT64_MIN) *pOutBeforeNs = std::max(*pOutBeforeNs, applied + 1);
        return true;
    }
    MMRESULT SetVolume(DWORD dwVolume) override
    {
        m_engine->SetVolume(dwVolume);
        return MMSYSERR_NOERROR;
    }
    MMRESULT GetVolume(DWORD* pdwVolume) const override
    {
        *pdwVolume = m_engine->Volume();
        return MMSYSERR_NOERROR;
    }

private:
    ds::Output* m_output;
    std::unique_ptr<SynthEngine> m_engine;
    const std::string m_path;
};

MMRESULT OpenSynth(std::unique_ptr<MidiOutPort>& port)
{
    const std::string path = SoundFontPath();
    if (!Readable(path)) return MMSYSERR_NODRIVER;
    ds::Output* out = ds::Output::Acquire(0);
    if (out == nullptr) return MMSYSERR_NODRIVER;
    std::unique_ptr<SynthEngine> engine = TakeSpare(path, out->Mix().Rate(), out->Mix().BlockFrames());
    try {
        if (!engine) engine = SynthEngine::Create(out->Mix().Rate(), out->Mix().BlockFrames(), path);
    } catch (const std::bad_alloc&) {
        out->Release();
        return MMSYSERR_NOMEM;
    }
    if (!engine) {
        out->Release();
        return MMSYSERR_NODRIVER;
    }
    if (!out->Mix().AddSource(engine.get())) {
        out->Release();
        return MMSYSERR_ALLOCATED;
    }
    // What it plays is heard from now on: a virtual output's capture starts as with a
    // primary buffer.
    out->Activate(true);
    port = std::make_unique<SynthPort>(out, std::move(engine), path);
    return MMSYSERR_NOERROR;
}

class WithSynthBackend final : public Backend {
public:
    explicit WithSynthBackend(Backend& inner) : m_inner(inner) {}
    const char* Name() const override { return m_inner.Name(); }
    int Count(DeviceKind kind) override
    {
        const int n = m_inner.Count(kind);
        return kind == DeviceKind::MidiOut && Offered() ? n + 1 : n;
    }
    std::string DeviceName(DeviceKind kind, int n) override
    {
        if (IsSynth(kind, n)) return kSynthName;
        return m_inner.DeviceName(kind, n);
    }
    bool IsExternalMidiOut(int n) override { return !IsSynth(DeviceKind::MidiOut, n) && m_inner.IsExternalMidiOut(n); }
    MMRESULT OpenMidiOut(int n, std::unique_ptr<MidiOutPort>& port) override
    {
        if (IsSynth(DeviceKind::MidiOut, n)) return OpenSynth(port);
        return m_inner.OpenMidiOut(n, port);
    }
    MMRESULT OpenMidiIn(int n, MidiInSink* pSink, std::unique_ptr<MidiInPort>& port) override
    {
        return m_inner.OpenMidiIn(n, pSink, port);
    }
    MMRESULT OpenAudioOut(int n, std::unique_ptr<AudioOutPort>& port) override { return m_inner.OpenAudioOut(n, port); }
    MMRESULT OpenAudioIn(int n, std::unique_ptr<AudioInPort>& port) override { return m_inner.OpenAudioIn(n, port); }

    bool IsSynthOut(int n) { return IsSynth(DeviceKind::MidiOut, n); }

    int DefaultMidiOut()
    {
        const int n = m_inner.Count(DeviceKind::MidiOut);
        for (int i = 0; i < n; ++i)
            if (m_inner.IsExternalMidiOut(i)) return i;
        return Offered() ? n : 0;
    }

    std::string Missing()
    {
        if (m_inner.Count(DeviceKind::WaveOut) == 0) return "no wave output to play on";
        const std::string path = SoundFontPath();
        if (!Readable(path)) return "no readable SoundFont at \"" + path + "\" (QUAVIX_SOUNDFONT names one)";
        return {};
    }

private:
    bool Offered() { return m_inner.Count(DeviceKind::WaveOut) > 0 && Readable(SoundFontPath()); }
    bool IsSynth(DeviceKind kind, int n)
    {
        return kind == DeviceKind::MidiOut && n == m_inner.Count(DeviceKind::MidiOut) && Offered();
    }

    Backend& m_inner;
};

} // namespace

Backend& WithSynth(Backend& inner)
{
    static WithSynthBackend* s = new WithSynthBackend(inner); // reachable by threads still running at exit
    return *s;
}

int DefaultMidiOut()
{
    auto* backend = dynamic_cast<WithSynthBackend*>(&CurrentBackend());
    return backend != nullptr ? backend->DefaultMidiOut() : 0;
}

uint64_t SynthLateMessages()
{
    return g_lateMessages.load(std::memory_order_relaxed);
}

std::string SynthUnavailableReason()
{
    auto* backend = dynamic_cast<WithSynthBackend*>(&CurrentBackend());
    return backend != nullptr ? backend->Missing() : "the backend offers no synth";
}

bool IsSynthMidiOut(int n)
{
    auto* backend = dynamic_cast<WithSynthBackend*>(&CurrentBackend());
    return backend != nullptr && backend->IsSynthOut(n);
}

} // namespace qxplat
