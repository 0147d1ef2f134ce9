// The JACK backend: a native client whose MIDI devices are the MIDI ports of the other
// clients. Each open device gets a port of ours, connected to its peer. Timed messages
// are written at the frame of their due time inside the cycle that contains it (not at
// the start of the next period), so the stream engine hands them over ahead of time.
// The process callback never allocates, locks or blocks: producers fill lock-free rings
// that it drains, and input reaches the library through a ring and a semaphore.
//
// Audio: one output while the server answers. Opening it registers a stereo pair of our
// own float ports, connected to the first two physical playback ports when there are any;
// the mixer feeds it through an AudioRing that the process callback de-interleaves.
// Capture is the mirror image: one input, a stereo pair of our float input ports fed by
// the first two physical capture ports, interleaved by the process callback into the
// ring that the wave input's capture thread drains.
#include "platform/backends/jack/QXJack.h"
#include "platform/backends/SinkClock.h"

#include "platform/kernel/QXRealtime.h"

#include <jack/jack.h>
#include <jack/midiport.h>
#include <jack/ringbuffer.h>
#include <semaphore.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace qxplat {

namespace {

constexpr size_t kRingBytes = size_t{1} << 20;
constexpr int kMaxPorts = 64;
constexpr int kMaxAudioOuts = 8;
constexpr int kMaxAudioIns = 8;
// Room for the largest period a server is likely to switch to while an output is open.
constexpr uint32_t kAudioRingFrames = 16384;
// The capture thread that drains an input also runs the application's callbacks: about
// 0.7 s at 48 kHz before frames are dropped.
constexpr uint32_t kCaptureRingFrames = 32768;

std::atomic<uint64_t> g_audioUnderrunFramesAll{0};

struct Header {
    int64_t timeUs; // JACK time: due time out, arrival time in
    uint32_t size;
};
// In the timed ring: what came before it was withdrawn (a header with no message).
constexpr uint32_t kWithdrawnMark = UINT32_MAX;

class JackBackend;
JackBackend* Instance();

// The frame a JACK time falls on: one linear mapping for the whole client, so that
// distances between events are exact in frames whatever the jitter of the cycles' own
// times, and MIDI and audio land on the same frames. Touched by the process callback only.
struct FrameClock {
    bool anchored = false;
    int64_t anchorUs = 0;
    int64_t anchorFrame = 0;
    int64_t frames = 0; // JACK's frame counter, without its 32-bit wrap
    uint32_t last = 0;

    // Once per cycle: re-anchors when the mapping has drifted a period away from the
    // cycle's own estimate (an xrun, a stalled server, the clocks' slow drift).
    void Follow(jack_nframes_t curFrames, int64_t curUs, jack_nframes_t nframes, jack_nframes_t rate)
    {
        frames += anchored ? static_cast<int32_t>(curFrames - last) : curFrames;
        last = curFrames;
        const int64_t drift = FrameAt(curUs, rate) - frames;
        if (!anchored || drift > nframes || -drift > nframes) {
            anchored = true;
            anchorUs = curUs;
            anchorFrame = frames;
        }
    }
    int64_t FrameAt(int64_t us, jack_nframes_t rate) const
    {
        return anchorFrame + (us - anchorUs) * static_cast<int64_t>(rate) / 1'000'000;
    }
};

struct AudioSlot {
    jack_port_t* ports[2] = {nullptr, nullptr};
    AudioRing ring{kAudioRingFrames};
    std::atomic<bool> running{false};
    std::atomic<bool> primed{false}; // the ring has delivered since Start
    std::atomic<uint64_t> underrunFrames{0};
    // The ring's clock: the ring position consumed at JACK time us is
    // clockFrame + (us - clockUs) * rate. Written by the process callback under a
    // sequence count; valid for the start that clockStart names.
    uint64_t readTotal = 0; // the callback's own: frames read from the ring
    std::atomic<uint32_t> clockSeq{0};
    std::atomic<int64_t> clockUs{0}, clockFrame{0};
    std::atomic<uint32_t> clockStart{0};
    std::atomic<uint32_t> starts{0};
};

struct CaptureSlot {
    jack_port_t* ports[2] = {nullptr, nullptr};
    AudioRing ring{kCaptureRingFrames};
    std::atomic<bool> running{false};
    std::atomic<uint64_t> overrunFrames{0};
};

struct OutSlot {
    jack_port_t* port = nullptr;
    jack_ringbuffer_t* timed = nullptr; // in due order, from the stream engine
    jack_ringbuffer_t* now = nullptr;   // at once, from any thread
    std::mutex producers;               // producers only; the process callback never locks
    // Withdrawals asked for (counted before their mark is written) and marks passed (the
    // process callback's): while they differ, timed messages are dropped.
    std::atomic<uint32_t> withdrawals{0};
    uint32_t marksPassed = 0;
};

struct InSlot {
    jack_port_t* port = nullptr;
    jack_ringbuffer_t* ring = nullptr;
    sem_t ready;
    std::atomic<bool> quit{false};
    MidiInSink* sink = nullptr;
    std::thread thread;
};

class JackBackend final : public Backend {
public:
    JackBackend()
    {
        // Looking for a server that is not there is no error worth printing, and later
        // errors reach the application as results and notifications (a server that dies
        // makes libjack print several lines before the shutdown callback says it once).
        jack_set_error_function([](const char*) {});
        jack_set_info_function([](const char*) {});
        jack_status_t status;
        m_client = jack_client_open("quavix", JackNoStartServer, &status);
        if (m_client == nullptr) return;
        m_name = jack_get_client_name(m_client);
        jack_set_process_callback(m_client, &JackBackend::Process, this);
        jack_set_buffer_size_callback(
            m_client,
            [](jack_nframes_t n, void* arg) {
                static_cast<JackBackend*>(arg)->m_period.store(n);
                return 0;
            },
            this);
        jack_on_info_shutdown(m_client, &JackBackend::Shutdown, this);
        // PipeWire's JACK calls only this one when its server goes (jackd only the other).
        jack_on_shutdown(m_client, [](void* arg) { Shutdown(JackFailure, nullptr, arg); }, this);
        jack_set_client_registration_callback(m_client, &JackBackend::ClientRegistration, this);
        jack_set_port_registration_callback(m_client, &JackBackend::PortRegistration, this);
        if (jack_activate(m_client) != 0) {
            jack_client_close(m_client);
            m_client = nullptr;
            return;
        }
        m_rate = jack_get_sample_rate(m_client);
        m_period.store(jack_get_buffer_size(m_client));
        // A client that vanishes without closing stalls the server on its notifications
        // (xruns for every other client), so the process closes it on its way out.
        std::atexit([] { Instance()->CloseClient(); });
    }

    void CloseClient()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_client == nullptr) return;
        m_dead = true; // ports still open fail cleanly from here on
        jack_client_close(m_client);
        m_client = nullptr;
    }

    bool Available() const { return m_client != nullptr && !m_dead.load(); }
    const char* Name() const override { return "jack"; }

    int Count(DeviceKind kind) override
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (kind == DeviceKind::WaveOut || kind == DeviceKind::WaveIn) return Available() ? 1 : 0;
        if (kind != DeviceKind::MidiIn && kind != DeviceKind::MidiOut) return 0;
        auto& list = kind == DeviceKind::MidiOut ? m_outPeers : m_inPeers;
        list = Peers(kind == DeviceKind::MidiOut ? JackPortIsInput : JackPortIsOutput);
        return static_cast<int>(list.size());
    }

    std::string DeviceName(DeviceKind kind, int n) override
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (kind == DeviceKind::WaveOut || kind == DeviceKind::WaveIn)
            return n == 0 && Available() ? AudioDeviceName() : std::string();
        if (kind != DeviceKind::MidiIn && kind != DeviceKind::MidiOut) return {};
        auto& list = kind == DeviceKind::MidiOut ? m_outPeers : m_inPeers;
        if (n < 0 || static_cast<size_t>(n) >= list.size()) return {};
        return list[static_cast<size_t>(n)];
    }

    // A bridge of ALSA's loopback (a2jmidid, PipeWire) only echoes what it gets.
    bool IsExternalMidiOut(int n) override
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (n < 0 || static_cast<size_t>(n) >= m_outPeers.size()) return false;
        const std::string& name = m_outPeers[static_cast<size_t>(n)];
        return name.find("Midi Through") == std::string::npos && name.find("Midi-Through") == std::string::npos;
    }
    MMRESULT OpenMidiOut(int n, std::unique_ptr<MidiOutPort>& port) override;
    MMRESULT OpenMidiIn(int n, MidiInSink* pSink, std::unique_ptr<MidiInPort>& port) override;
    MMRESULT OpenAudioOut(int n, std::unique_ptr<AudioOutPort>& port) override;
    MMRESULT OpenAudioIn(int n, std::unique_ptr<AudioInPort>& port) override;
    bool RegisterStereo(jack_port_t* (&ports)[2], const char* pszKind, int index, bool bOutput);
    template <class Port, class Slot, size_t N, class Base>
    MMRESULT OpenStereo(int n, std::array<std::atomic<Slot*>, N>& slots, const char* pszKind, bool bOutput,
                        std::unique_ptr<Base>& port);

    // The server's name as the user knows it (JACK_DEFAULT_SERVER picks it), for the
    // output and the input alike.
    static std::string AudioDeviceName()
    {
        const char* server = std::getenv("JACK_DEFAULT_SERVER");
        return std::string("JACK (") + (server != nullptr && *server != '\0' ? server : "default") + ")";
    }
    std::string ClientName()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return Available() ? m_name : std::string();
    }
    jack_nframes_t Rate() const { return m_rate; }
    jack_nframes_t Period() const { return m_period.load(); }

    // JACK's clock and the steady clock drift apart slowly (tens of ppm: one is not
    // slewed by NTP), so times are carried over relative to now on both.
    static int64_t ToJackUs(int64_t ns) { return (ns - SteadyMinusJackNs()) / 1000; }
    static int64_t ToSteadyNs(int64_t us) { return us * 1000 + SteadyMinusJackNs(); }
    // The two clocks read as close together as this thread gets them: a thread preempted
    // between two reads (a loaded machine) would move a time stamp by its wait.
    static int64_t SteadyMinusJackNs()
    {
        int64_t best = 0, bestGap = INT64_MAX;
        for (int i = 0; i < 4 && bestGap > 20'000; ++i) {
            const int64_t before = NowNs();
            const auto jack = static_cast<int64_t>(jack_get_time());
            const int64_t after = NowNs();
            if (after - before < bestGap) {
                bestGap = after - before;
                best = before + (after - before) / 2 - jack * 1000;
            }
        }
        return best;
    }
    jack_client_t* Client() const { return m_client; }
    int64_t PeriodNs() const
    {
        if (!Available()) return 0;
        return static_cast<int64_t>(jack_get_buffer_size(m_client)) * 1'000'000'000 /
               static_cast<int64_t>(jack_get_sample_rate(m_client));
    }
    bool Dead() const { return m_dead.load(); }
    // Timed messages due before it may have gone into a cycle's buffer (0: no cycle yet).
    int64_t CycleEndUs() const { return m_cycleEndUs.load(); }

    // A slot no longer in use by the process callback once a full cycle has passed
    // after it was taken out (or the server is gone).
    void WaitCycles(int n)
    {
        const uint64_t start = m_cycles.load();
        for (int i = 0; i < 2000 && !m_dead.load() && m_cycles.load() < start + static_cast<uint64_t>(n); ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }

    // jackd has made a connection when jack_connect returns; PipeWire's JACK a moment
    // later, and what an application sends at once after opening would reach no one.
    void AwaitConnected(jack_port_t* port, const std::string& peer)
    {
        for (int i = 0; i < 1000 && !m_dead.load() && !jack_port_connected_to(port, peer.c_str()); ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }

    // The peer port of each open port, so that its going (or its client's) can be
    // reported, once. JACK's notification thread reads it; nothing is called on JACK while
    // m_peersMutex is held.
    void WatchPeer(const void* slot, bool bOut, int nDevice, const std::string& peerPort)
    {
        std::lock_guard<std::mutex> lock(m_peersMutex);
        m_peers.push_back({slot, bOut, nDevice, peerPort.substr(0, peerPort.find(':')), peerPort});
    }
    void UnwatchPeer(const void* slot)
    {
        std::lock_guard<std::mutex> lock(m_peersMutex);
        std::erase_if(m_peers, [slot](const Peer& p) { return p.slot == slot; });
    }

    std::array<std::atomic<OutSlot*>, kMaxPorts> m_outs{};
    std::array<std::atomic<InSlot*>, kMaxPorts> m_ins{};
    std::array<std::atomic<AudioSlot*>, kMaxAudioOuts> m_audio{};
    std::array<std::atomic<CaptureSlot*>, kMaxAudioIns> m_capture{};
    std::mutex m_mutex; // enumeration, port registration and slot allocation

private:
    std::vector<std::string> Peers(unsigned long flags)
    {
        std::vector<std::string> out;
        if (!Available()) return out;
        const char** ports = jack_get_ports(m_client, nullptr, JACK_DEFAULT_MIDI_TYPE, flags);
        if (ports == nullptr) return out;
        const std::string own = m_name + ":";
        for (const char** p = ports; *p != nullptr; ++p)
            if (std::string(*p).rfind(own, 0) != 0) out.emplace_back(*p);
        jack_free(ports);
        return out;
    }

    static int Process(jack_nframes_t nframes, void* arg);
    static void Shutdown(jack_status_t, const char*, void* arg)
    {
        auto* self = static_cast<JackBackend*>(arg);
        if (self->m_dead.exchange(true)) return;
        for (auto& s : self->m_ins)
            if (InSlot* in = s.load()) sem_post(&in->ready);
        // Not a real-time context: the application learns why its devices went quiet.
        RaiseBackendEvent(BackendEvent::ServerLost, -1, "JACK");
    }
    static void ClientRegistration(const char* name, int bRegistered, void* arg)
    {
        if (bRegistered != 0 || name == nullptr) return;
        static_cast<JackBackend*>(arg)->ReportGonePeers([name](const Peer& p) { return p.client == name; });
    }
    // A client's ports can go while it stays: a netjack2 slave whose master is lost takes
    // its system ports away and waits for another master.
    static void PortRegistration(jack_port_id_t, int bRegistered, void* arg)
    {
        if (bRegistered != 0) return;
        auto* self = static_cast<JackBackend*>(arg);
        std::vector<Peer> peers;
        {
            std::lock_guard<std::mutex> lock(self->m_peersMutex);
            peers = self->m_peers;
        }
        std::erase_if(peers, [self](const Peer& p) { return jack_port_by_name(self->m_client, p.port.c_str()) != nullptr; });
        self->ReportGonePeers([&peers](const Peer& p) {
            return std::any_of(peers.begin(), peers.end(), [&p](const Peer& q) { return q.slot == p.slot; });
        });
    }
    template <class Gone>
    void ReportGonePeers(Gone gone)
    {
        std::vector<Peer> lost;
        {
            std::lock_guard<std::mutex> lock(m_peersMutex);
            for (const Peer& p : m_peers)
                if (gone(p)) lost.push_back(p);
            std::erase_if(m_peers, gone);
        }
        for (const Peer& p : lost)
            RaiseBackendEvent(p.bOut ? BackendEvent::MidiOutLost : BackendEvent::MidiInLost, p.nDevice, "JACK");
    }

    struct Peer {
        const void* slot;
        bool bOut;
        int nDevice;
        std::string client, port;
    };
    std::mutex m_peersMutex;
    std::vector<Peer> m_peers;

    jack_client_t* m_client = nullptr;
    std::string m_name;
    jack_nframes_t m_rate = 48000;
    std::atomic<jack_nframes_t> m_period{1024};
    std::atomic<bool> m_dead{false};
    std::atomic<uint64_t> m_cycles{0};
    FrameClock m_clock; // the process callback's
    std::atomic<int64_t> m_cycleEndUs{0}; // JACK time just past the last cycle begun
    std::vector<std::string> m_outPeers, m_inPeers;
};

// Moves whole messages from a ring into the port buffer; stops at the first message
// not due in this cycle or that no longer fits. Timed messages land on the frame of their
// due time through the client's mapping.
void Drain(jack_ringbuffer_t* ring, void* buf, jack_nframes_t nframes, const FrameClock& clock, jack_nframes_t rate,
           jack_nframes_t& last, OutSlot* pWithdrawing)
{
    const bool bTimed = pWithdrawing != nullptr;
    Header h;
    while (jack_ringbuffer_read_space(ring) >= sizeof h) {
        jack_ringbuffer_peek(ring, reinterpret_cast<char*>(&h), sizeof h);
        if (bTimed && h.size == kWithdrawnMark) {
            jack_ringbuffer_read_advance(ring, sizeof h);
            ++pWithdrawing->marksPassed;
            continue;
        }
        if (jack_ringbuffer_read_space(ring) < sizeof h + h.size) return;
        bool bWithdrawn = bTimed && pWithdrawing->marksPassed != pWithdrawing->withdrawals.load(std::memory_order_acquire);
        if (bWithdrawn && h.size >= 3) {
            // A withdrawn note-off still ends its note, at once: nothing hangs while paused.
            uint8_t m[3];
            jack_ringbuffer_data_t vec[2];
            jack_ringbuffer_get_read_vector(ring, vec);
            for (size_t i = 0; i < 3; ++i) {
                const size_t at = sizeof h + i;
                m[i] = static_cast<uint8_t>(at < vec[0].len ? vec[0].buf[at] : vec[1].buf[at - vec[0].len]);
            }
            bWithdrawn = !((m[0] & 0xF0) == 0x80 || ((m[0] & 0xF0) == 0x90 && m[2] == 0));
            if (!bWithdrawn) h.timeUs = 0;
        }
        if (bWithdrawn) {
            jack_ringbuffer_read_advance(ring, sizeof h + h.size);
            continue;
        }
        jack_nframes_t off = 0;
        if (bTimed && h.timeUs != 0) {
            const int64_t rel = clock.FrameAt(h.timeUs, rate) - clock.frames;
            if (rel >= static_cast<int64_t>(nframes)) return; // a later cycle's
            off = rel > 0 ? static_cast<jack_nframes_t>(rel) : 0;
        }
        if (off < last) off = last; // offsets may not go back within a cycle
        jack_midi_data_t* dst = jack_midi_event_reserve(buf, off, h.size);
        if (dst == nullptr) return; // full: the rest waits for the next cycle
        jack_ringbuffer_read_advance(ring, sizeof h);
        jack_ringbuffer_data_t vec[2];
        jack_ringbuffer_get_read_vector(ring, vec);
        size_t first = std::min<size_t>(vec[0].len, h.size);
        std::memcpy(dst, vec[0].buf, first);
        if (first < h.size) std::memcpy(dst + first, vec[1].buf, h.size - first);
        jack_ringbuffer_read_advance(ring, h.size);
        last = off;
    }
}

// Copies what the ring holds into the two port buffers, clipped (the mix's one clip), and
// pads with silence; a shortfall while running counts as underrun once the ring has
// delivered since Start (the mixer's first blocks may miss the first cycle).
void PlayAudio(AudioSlot* a, float* left, float* right, jack_nframes_t nframes, const FrameClock& clock)
{
    const bool running = a->running.load(std::memory_order_relaxed);
    jack_nframes_t done = 0;
    if (running) {
        // This cycle's frames are the ring's from readTotal on: a ring that ran dry
        // before moves the ring's frames later against JACK's.
        const int64_t frame = clock.anchorFrame + static_cast<int64_t>(a->readTotal) - clock.frames;
        const uint32_t start = a->starts.load(std::memory_order_acquire);
        if (a->clockUs.load() != clock.anchorUs ||
            a->clockFrame.load() != frame ||
            a->clockStart.load() != start) {
            const uint32_t seq = a->clockSeq.load();
            a->clockSeq.store(seq + 1);
            a->clockUs.store(clock.anchorUs);
            a->clockFrame.store(frame);
            a->clockStart.store(start);
            a->clockSeq.store(seq + 2);
        }
        float chunk[2 * 256];
        while (done < nframes) {
            const uint32_t want = std::min<uint32_t>(nframes - done, 256);
            const uint32_t got = a->ring.Read(chunk, want);
            for (uint32_t i = 0; i < got; ++i) {
                left[done + i] = std::clamp(chunk[2 * i], -1.0f, 1.0f);
                right[done + i] = std::clamp(chunk[2 * i + 1], -1.0f, 1.0f);
            }
            done += got;
            if (got < want) break;
        }
        a->readTotal += done;
    }
    if (done < nframes) {
        std::fill(left + done, left + nframes, 0.0f);
        std::fill(right + done, right + nframes, 0.0f);
        if (running && a->primed.load(std::memory_order_relaxed)) {
            a->underrunFrames.fetch_add(nframes - done, std::memory_order_relaxed);
            g_audioUnderrunFramesAll.fetch_add(nframes - done, std::memory_order_relaxed);
        }
    }
    if (done > 0) a->primed.store(true, std::memory_order_relaxed);
}

// Interleaves the two port buffers into the ring; what finds it full is dropped and
// counted. The load of running pairs with the store in Stop (see JackAudioIn::Stop).
void CaptureAudio(CaptureSlot* c, const float* left, const float* right, jack_nframes_t nframes)
{
    if (!c->running.load()) return;
    float chunk[2 * 256];
    for (jack_nframes_t done = 0; done < nframes;) {
        const uint32_t n = std::min<uint32_t>(nframes - done, 256);
        for (uint32_t i = 0; i < n; ++i) {
            chunk[2 * i] = left[done + i];
            chunk[2 * i + 1] = right[done + i];
        }
        const uint32_t put = c->ring.Write(chunk, n);
        if (put < n) c->overrunFrames.fetch_add(n - put, std::memory_order_relaxed);
        done += n;
    }
}

int JackBackend::Process(jack_nframes_t nframes, void* arg)
{
    auto* self = static_cast<JackBackend*>(arg);
    jack_nframes_t curFrames;
    jack_time_t curUs, nextUs;
    float periodUs;
    if (jack_get_cycle_times(self->m_client, &curFrames, &curUs, &nextUs, &periodUs) != 0 || nextUs <= curUs) {
        curFrames = jack_last_frame_time(self->m_client);
        curUs = jack_frames_to_time(self->m_client, curFrames);
    }
    self->m_clock.Follow(curFrames, static_cast<int64_t>(curUs), nframes, self->m_rate);
    self->m_cycleEndUs.store(self->m_clock.anchorUs + (self->m_clock.frames + nframes - self->m_clock.anchorFrame) *
                                                          1'000'000 / static_cast<int64_t>(self->m_rate));
    for (auto& s : self->m_outs) {
        OutSlot* out = s.load(std::memory_order_acquire);
        if (out == nullptr) continue;
        void* buf = jack_port_get_buffer(out->port, nframes);
        jack_midi_clear_buffer(buf);
        jack_nframes_t last = 0;
        Drain(out->now, buf, nframes, self->m_clock, self->m_rate, last, nullptr);
        Drain(out->timed, buf, nframes, self->m_clock, self->m_rate, last, out);
    }
    for (auto& s : self->m_ins) {
        InSlot* in = s.load(std::memory_order_acquire);
        if (in == nullptr) continue;
        void* buf = jack_port_get_buffer(in->port, nframes);
        const jack_nframes_t count = jack_midi_get_event_count(buf);
        bool any = false;
        for (jack_nframes_t i = 0; i < count; ++i) {
            jack_midi_event_t ev;
            if (jack_midi_event_get(&ev, buf, i) != 0) continue;
            Header h{static_cast<int64_t>(jack_frames_to_time(self->m_client, curFrames + ev.time)),
                     static_cast<uint32_t>(ev.size)};
            if (jack_ringbuffer_write_space(in->ring) < sizeof h + ev.size) continue; // reader too slow: dropped
            jack_ringbuffer_write(in->ring, reinterpret_cast<const char*>(&h), sizeof h);
            jack_ringbuffer_write(in->ring, reinterpret_cast<const char*>(ev.buffer), ev.size);
            any = true;
        }
        if (any) sem_post(&in->ready);
    }
    for (auto& s : self->m_audio) {
        AudioSlot* a = s.load(std::memory_order_acquire);
        if (a == nullptr) continue;
        PlayAudio(a, static_cast<float*>(jack_port_get_buffer(a->ports[0], nframes)),
                  static_cast<float*>(jack_port_get_buffer(a->ports[1], nframes)), nframes, self->m_clock);
    }
    for (auto& s : self->m_capture) {
        CaptureSlot* c = s.load(std::memory_order_acquire);
        if (c == nullptr) continue;
        CaptureAudio(c, static_cast<const float*>(jack_port_get_buffer(c->ports[0], nframes)),
                     static_cast<const float*>(jack_port_get_buffer(c->ports[1], nframes)), nframes);
    }
    self->m_cycles.fetch_add(1, std::memory_order_release);
    return 0;
}

class JackMidiOut final : public MidiOutPort {
public:
    JackMidiOut(JackBackend* b, OutSlot* slot, int index) : m_b(b), m_slot(slot), m_index(index) {}

    ~JackMidiOut() override
    {
        m_b->UnwatchPeer(m_slot);
        m_b->m_outs[static_cast<size_t>(m_index)].store(nullptr, std::memory_order_release);
        m_b->WaitCycles(2);
        std::lock_guard<std::mutex> lock(m_b->m_mutex);
        if (!m_b->Dead()) jack_port_unregister(m_b->Client(), m_slot->port);
        jack_ringbuffer_free(m_slot->timed);
        jack_ringbuffer_free(m_slot->now);
        delete m_slot;
    }

    MMRESULT Send(const BYTE* pData, size_t cb, int64_t dueNs) override
    {
        if (pData == nullptr || cb == 0) return MMSYSERR_INVALPARAM;
        if (m_b->Dead()) return MMSYSERR_NODRIVER;
        const bool bTimed = dueNs > NowNs();
        Header h{bTimed ? m_b->ToJackUs(dueNs) : 0, static_cast<uint32_t>(cb)};
        jack_ringbuffer_t* ring = bTimed ? m_slot->timed : m_slot->now;
        std::lock_guard<std::mutex> lock(m_slot->producers);
        if (jack_ringbuffer_write_space(ring) < sizeof h + cb) return MMSYSERR_NOMEM;
        jack_ringbuffer_write(ring, reinterpret_cast<const char*>(&h), sizeof h);
        jack_ringbuffer_write(ring, reinterpret_cast<const char*>(pData), cb);
        return MMSYSERR_NOERROR;
    }

    // Three periods: the cycle that writes it, one for the jitter of the cycles against
    // the wall clock, and one of margin for the stream thread.
    int64_t LeadNs() const override { return 3 * m_b->PeriodNs() + 1'000'000; }

    // The ring is read by the process callback alone: a mark in it says that what came
    // before is dropped (note-offs aside, which go at once).
    void Cancel() override
    {
        int64_t outBeforeNs = 0;
        Withdraw(&outBeforeNs);
    }
    bool Withdraw(int64_t* pOutBeforeNs) override
    {
        const Header mark{0, kWithdrawnMark};
        std::lock_guard<std::mutex> lock(m_slot->producers);
        if (jack_ringbuffer_write_space(m_slot->timed) < sizeof mark) return false;
        m_slot->withdrawals.fetch_add(1);
        jack_ringbuffer_write(m_slot->timed, reinterpret_cast<const char*>(&mark), sizeof mark);
        // A cycle that began before the count went up may still let out what its frames
        // hold: up to its end, which it noted first.
        const int64_t cycleEndUs = m_b->CycleEndUs();
        if (cycleEndUs != 0) *pOutBeforeNs = std::max(*pOutBeforeNs, JackBackend::ToSteadyNs(cycleEndUs));
        return true;
    }

    bool Alive() const override { return !m_b->Dead(); }

private:
    JackBackend* m_b;
    OutSlot* m_slot;
    int m_index;
};

class JackMidiIn final : public MidiInPort {
public:
    JackMidiIn(JackBackend* b, InSlot* slot, int index) : m_b(b), m_slot(slot), m_index(index)
    {
        m_slot->thread = std::thread([this] { Run(); });
    }

    ~JackMidiIn() override
    {
        m_b->UnwatchPeer(m_slot);
        m_b->m_ins[static_cast<size_t>(m_index)].store(nullptr, std::memory_order_release);
        m_b->WaitCycles(2);
        m_slot->quit = true;
        sem_post(&m_slot->ready);
        m_slot->thread.join(); // the sink is called no more once the port is gone
        std::lock_guard<std::mutex> lock(m_b->m_mutex);
        if (!m_b->Dead()) jack_port_unregister(m_b->Client(), m_slot->port);
        jack_ringbuffer_free(m_slot->ring);
        sem_destroy(&m_slot->ready);
        delete m_slot;
    }

private:
    void Run()
    {
        MakeRealtimeThread("qx-jack-in");
        std::vector<BYTE> data;
        for (;;) {
            while (sem_wait(&m_slot->ready) != 0) {
            }
            Header h;
            while (jack_ringbuffer_read_space(m_slot->ring) >= sizeof h) {
                jack_ringbuffer_peek(m_slot->ring, reinterpret_cast<char*>(&h), sizeof h);
                if (jack_ringbuffer_read_space(m_slot->ring) < sizeof h + h.size) break;
                jack_ringbuffer_read_advance(m_slot->ring, sizeof h);
                data.resize(h.size);
                jack_ringbuffer_read(m_slot->ring, reinterpret_cast<char*>(data.data()), h.size);
                if (!m_slot->quit.load()) m_slot->sink->OnMidiData(data.data(), data.size(), m_b->ToSteadyNs(h.timeUs));
            }
            if (m_slot->quit.load()) return;
        }
    }

    JackBackend* m_b;
    InSlot* m_slot;
    int m_index;
};

template <class Slot, size_t N>
int FreeIndex(std::array<std::atomic<Slot*>, N>& slots)
{
    for (int i = 0; i < static_cast<int>(N); ++i)
        if (slots[static_cast<size_t>(i)].load() == nullptr) return i;
    return -1;
}

MMRESULT JackBackend::OpenMidiOut(int n, std::unique_ptr<MidiOutPort>& port)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (!Available()) return MMSYSERR_NODRIVER;
    if (n < 0 || static_cast<size_t>(n) >= m_outPeers.size()) return MMSYSERR_BADDEVICEID;
    int index = FreeIndex(m_outs);
    if (index < 0) return MMSYSERR_ALLOCATED;
    auto* slot = new OutSlot;
    const std::string name = "out_" + std::to_string(n) + "_" + std::to_string(index);
    slot->port = jack_port_register(m_client, name.c_str(), JACK_DEFAULT_MIDI_TYPE, JackPortIsOutput, 0);
    slot->timed = jack_ringbuffer_create(kRingBytes);
    slot->now = jack_ringbuffer_create(kRingBytes);
    if (slot->port == nullptr || slot->timed == nullptr || slot->now == nullptr ||
        jack_connect(m_client, jack_port_name(slot->port), m_outPeers[static_cast<size_t>(n)].c_str()) != 0) {
        if (slot->port != nullptr) jack_port_unregister(m_client, slot->port);
        if (slot->timed != nullptr) jack_ringbuffer_free(slot->timed);
        if (slot->now != nullptr) jack_ringbuffer_free(slot->now);
        delete slot;
        return MMSYSERR_ERROR;
    }
    AwaitConnected(slot->port, m_outPeers[static_cast<size_t>(n)]);
    jack_ringbuffer_mlock(slot->timed);
    jack_ringbuffer_mlock(slot->now);
    m_outs[static_cast<size_t>(index)].store(slot, std::memory_order_release);
    WatchPeer(slot, true, n, m_outPeers[static_cast<size_t>(n)]);
    port = std::make_unique<JackMidiOut>(this, slot, index);
    return MMSYSERR_NOERROR;
}

MMRESULT JackBackend::OpenMidiIn(int n, MidiInSink* pSink, std::unique_ptr<MidiInPort>& port)
{
    if (pSink == nullptr) return MMSYSERR_INVALPARAM;
    std::lock_guard<std::mutex> lock(m_mutex);
    if (!Available()) return MMSYSERR_NODRIVER;
    if (n < 0 || static_cast<size_t>(n) >= m_inPeers.size()) return MMSYSERR_BADDEVICEID;
    int index = FreeIndex(m_ins);
    if (index < 0) return MMSYSERR_ALLOCATED;
    auto* slot = new InSlot;
    sem_init(&slot->ready, 0, 0);
    slot->sink = pSink;
    const std::string name = "in_" + std::to_string(n) + "_" + std::to_string(index);
    slot->port = jack_port_register(m_client, name.c_str(), JACK_DEFAULT_MIDI_TYPE, JackPortIsInput, 0);
    slot->ring = jack_ringbuffer_create(kRingBytes);
    if (slot->port == nullptr || slot->ring == nullptr ||
        jack_connect(m_client, m_inPeers[static_cast<size_t>(n)].c_str(), jack_port_name(slot->port)) != 0) {
        if (slot->port != nullptr) jack_port_unregister(m_client, slot->port);
        if (slot->ring != nullptr) jack_ringbuffer_free(slot->ring);
        sem_destroy(&slot->ready);
        delete slot;
        return MMSYSERR_ERROR;
    }
    AwaitConnected(slot->port, m_inPeers[static_cast<size_t>(n)]);
    jack_ringbuffer_mlock(slot->ring);
    m_ins[static_cast<size_t>(index)].store(slot, std::memory_order_release);
    WatchPeer(slot, false, n, m_inPeers[static_cast<size_t>(n)]);
    port = std::make_unique<JackMidiIn>(this, slot, index);
    return MMSYSERR_NOERROR;
}

class JackAudioOut final : public AudioOutPort {
public:
    JackAudioOut(JackBackend* b, AudioSlot* slot, int index) : m_b(b), m_slot(slot), m_index(index) {}

    // The same scheme as the MIDI ports: out of the callback's sight, a full cycle, then
    // unregistered (not at all once the server is gone: the client is dead).
    ~JackAudioOut() override
    {
        m_slot->running.store(false);
        m_b->m_audio[static_cast<size_t>(m_index)].store(nullptr, std::memory_order_release);
        m_b->WaitCycles(2);
        std::lock_guard<std::mutex> lock(m_b->m_mutex);
        if (!m_b->Dead())
            for (jack_port_t* p : m_slot->ports) jack_port_unregister(m_b->Client(), p);
        delete m_slot;
    }

    DWORD Rate() const override { return m_b->Rate(); }
    // The mixer tops the ring up soon after each cycle has taken its period, looking every
    // 2.5 ms or so: the ring must carry every cycle that can come before its next look, and
    // 1 ms for its wake-up. That is the fewest whole periods covering 3.5 ms (one period from
    // 256 frames at 48 kHz up); anything beyond adds to the latency. The cost: a cycle that
    // comes late and is followed at once by the next (the server catching up) finds the
    // ring short and is padded (counted as underrun); a longer period is the cure, as for
    // the server's own xruns.
    uint32_t TargetFrames() const override
    {
        const uint32_t period = std::max<uint32_t>(m_b->Period(), 1), cover = m_b->Rate() * 7 / 2000;
        return std::min<uint32_t>((cover + period - 1) / period * period, kAudioRingFrames / 2);
    }
    AudioRing& Ring() override { return m_slot->ring; }

    void Start() override
    {
        if (m_slot->running.load()) return;
        m_slot->primed.store(false);
        m_slot->starts.fetch_add(1, std::memory_order_release); // the last start's clock is void
        m_slot->running.store(true);
    }
    void Stop() override { m_slot->running.store(false); }
    uint64_t UnderrunFrames() const override { return m_slot->underrunFrames.load(); }
    // Right after a cycle has taken its period the mixer may write up to the target and
    // one block (5 ms) beyond what is left: a start placed that far after its time is
    // never late. Whole milliseconds, so that a start moved earlier by the latency in ms
    // lands on its frame. The graph's own latency downstream (jack_port_get_latency_range)
    // is left out on purpose: our MIDI ports do not subtract theirs, so it is common to both.
    uint32_t LatencyFrames() const override
    {
        return WholeMsFrames(TargetFrames() + m_b->Period() + m_b->Rate() / 200, m_b->Rate());
    }
    bool HasClock() const override { return true; }
    bool RingPositionAt(int64_t ns, int64_t* pFrame) const override
    {
        if (!m_slot->running.load()) return false;
        for (int tries = 0; tries < 64; ++tries) {
            const uint32_t seq = m_slot->clockSeq.load();
            if (seq & 1) continue;
            const int64_t us = m_slot->clockUs.load();
            const int64_t frame = m_slot->clockFrame.load();
            const uint32_t start = m_slot->clockStart.load();
            if (m_slot->clockSeq.load() != seq) continue;
            if (start != m_slot->starts.load(std::memory_order_acquire)) return false; // no cycle since Start
            *pFrame = frame + (m_b->ToJackUs(ns) - us) * static_cast<int64_t>(m_b->Rate()) / 1'000'000;
            return true;
        }
        return false;
    }

private:
    JackBackend* m_b;
    AudioSlot* m_slot;
    int m_index;
};

// <kind>_1/<kind>_2 for the first port of a direction open at a time, <kind>2_1/<kind>2_2
// for a second, ... Connected at once to the sound card's ports where there is one, so
// that it is heard (or records) without a patchbay; elsewhere the user connects them. A
// single physical port takes or feeds both channels (a mono source is L=R). Under m_mutex.
bool JackBackend::RegisterStereo(jack_port_t* (&ports)[2], const char* pszKind, int index, bool bOutput)
{
    const std::string stem = pszKind + (index == 0 ? std::string() : std::to_string(index + 1)) + "_";
    for (int ch = 0; ch < 2; ++ch)
        ports[ch] = jack_port_register(m_client, (stem + std::to_string(ch + 1)).c_str(), JACK_DEFAULT_AUDIO_TYPE,
                                       bOutput ? JackPortIsOutput : JackPortIsInput, 0);
    if (ports[0] == nullptr || ports[1] == nullptr) {
        for (jack_port_t*& p : ports)
            if (p != nullptr) jack_port_unregister(m_client, std::exchange(p, nullptr));
        return false;
    }
    const unsigned long other = JackPortIsPhysical | (bOutput ? JackPortIsInput : JackPortIsOutput);
    if (const char** phys = jack_get_ports(m_client, nullptr, JACK_DEFAULT_AUDIO_TYPE, other)) {
        for (int ch = 0; ch < 2 && phys[0] != nullptr; ++ch) {
            const char* card = ch == 1 && phys[1] != nullptr ? phys[1] : phys[0];
            const char* ours = jack_port_name(ports[ch]);
            jack_connect(m_client, bOutput ? ours : card, bOutput ? card : ours);
        }
        jack_free(phys);
    }
    return true;
}

// An audio output or input: a free slot, its ports, then the slot in the callback's sight.
template <class Port, class Slot, size_t N, class Base>
MMRESULT JackBackend::OpenStereo(int n, std::array<std::atomic<Slot*>, N>& slots, const char* pszKind, bool bOutput,
                                 std::unique_ptr<Base>& port)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (!Available()) return MMSYSERR_NODRIVER;
    if (n != 0) return MMSYSERR_BADDEVICEID;
    const int index = FreeIndex(slots);
    if (index < 0) return MMSYSERR_ALLOCATED;
    Slot* slot = nullptr;
    try {
        slot = new Slot;
    } catch (const std::bad_alloc&) {
        return MMSYSERR_NOMEM;
    }
    if (!RegisterStereo(slot->ports, pszKind, index, bOutput)) {
        delete slot;
        return MMSYSERR_ERROR;
    }
    slots[static_cast<size_t>(index)].store(slot, std::memory_order_release);
    port = std::make_unique<Port>(this, slot, index);
    return MMSYSERR_NOERROR;
}

MMRESULT JackBackend::OpenAudioOut(int n, std::unique_ptr<AudioOutPort>& port)
{
    return OpenStereo<JackAudioOut>(n, m_audio, "out", true, port);
}

class JackAudioIn final : public AudioInPort {
public:
    JackAudioIn(JackBackend* b, CaptureSlot* slot, int index) : m_b(b), m_slot(slot), m_index(index) {}

    // As the outputs: out of the callback's sight, a full cycle, then unregistered.
    ~JackAudioIn() override
    {
        m_slot->running.store(false);
        m_b->m_capture[static_cast<size_t>(m_index)].store(nullptr, std::memory_order_release);
        m_b->WaitCycles(2);
        std::lock_guard<std::mutex> lock(m_b->m_mutex);
        if (!m_b->Dead())
            for (jack_port_t* p : m_slot->ports) jack_port_unregister(m_b->Client(), p);
        delete m_slot;
    }

    DWORD Rate() const override { return m_b->Rate(); }
    AudioRing& Ring() override { return m_slot->ring; }
    void Start() override { m_slot->running.store(true); }
    // A cycle that saw running before the store may still be writing: once one more cycle
    // has ended (or the server is gone) nothing is. A stalled server holds this up to
    // WaitCycles' limit, never longer.
    void Stop() override
    {
        if (!m_slot->running.exchange(false)) return;
        m_b->WaitCycles(1);
    }
    uint64_t OverrunFrames() const override { return m_slot->overrunFrames.load(); }

private:
    JackBackend* m_b;
    CaptureSlot* m_slot;
    int m_index;
};

MMRESULT JackBackend::OpenAudioIn(int n, std::unique_ptr<AudioInPort>& port)
{
    return OpenStereo<JackAudioIn>(n, m_capture, "in", false, port);
}

JackBackend* Instance()
{
    static JackBackend* s = new JackBackend; // reachable from JACK's threads until exit
    return s;
}

} // namespace

Backend* JackBackendIfAvailable()
{
    JackBackend* b = Instance();
    return b->Available() ? b : nullptr;
}

Backend& JackBackendAlways()
{
    return *Instance();
}

int64_t JackToSteadyNs(int64_t jackUs)
{
    return Instance()->ToSteadyNs(jackUs);
}

std::string JackClientName()
{
    return Instance()->ClientName();
}

uint64_t JackAudioUnderrunFramesAll()
{
    return g_audioUnderrunFramesAll.load();
}

} // namespace qxplat
