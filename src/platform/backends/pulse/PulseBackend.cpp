#include "platform/backends/SinkClock.h"
#include "platform/backends/pulse/QXPulse.h"

#include "platform/kernel/QXRealtime.h"

#include <pulse/pulseaudio.h>
#include <pulse/rtclock.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace qxplat {

namespace {

constexpr pa_usec_t kWaitUs = 3'000'000; // a server that answers does so well within this
constexpr uint32_t kBytesPerFrame = 2 * sizeof(float);

std::atomic<uint64_t> g_underrunFramesAll{0};

// A sink or a source.
struct DeviceEntry {
    std::string name; // empty: the server's default
    std::string description;
    uint32_t rate;
};

// One connection to a server: a threaded main loop and its context. Open outputs hold
// it, so it outlives the backend's switch to a new connection after a server was lost.
// Lock order: the main loop's lock, then m_lostLock.
class Connection {
public:
    static std::shared_ptr<Connection> Open()
    {
        auto c = std::make_shared<Connection>();
        return c->Connect() ? c : nullptr;
    }

    ~Connection()
    {
        if (m_loop != nullptr) pa_threaded_mainloop_stop(m_loop);
        if (m_context != nullptr) {
            pa_context_disconnect(m_context);
            pa_context_unref(m_context);
        }
        if (m_loop != nullptr) pa_threaded_mainloop_free(m_loop);
        {
            std::lock_guard<std::mutex> lock(m_lostLock);
            m_quit = true;
        }
        m_lostWake.notify_all();
        // The last reference can go inside the ServerLost handler, on the reporter itself;
        // that thread touches nothing of ours once the handler returns.
        if (m_reporter.joinable()) {
            if (m_reporter.get_id() == std::this_thread::get_id())
                m_reporter.detach();
            else
                m_reporter.join();
        }
    }

    bool Alive() const { return !m_lost.load(); }
    pa_threaded_mainloop* Loop() const { return m_loop; }
    pa_context* Context() const { return m_context; }

    // Waits (main loop locked) until done() holds, the server is lost, or the time-out.
    template <typename Done>
    bool WaitLocked(Done done)
    {
        struct Timer {
            bool expired = false;
            pa_threaded_mainloop* loop;
        } t{false, m_loop};
        pa_time_event* timer = pa_context_rttime_new(
            m_context, pa_rtclock_now() + kWaitUs,
            [](pa_mainloop_api*, pa_time_event*, const struct timeval*, void* user) {
                auto* t = static_cast<Timer*>(user);
                t->expired = true;
                pa_threaded_mainloop_signal(t->loop, 0);
            },
            &t);
        while (!done() && !t.expired && Alive()) pa_threaded_mainloop_wait(m_loop);
        if (timer != nullptr) pa_threaded_mainloop_get_api(m_loop)->time_free(timer);
        return done();
    }

    // The sinks (or the sources, monitors included), the default first; false when the
    // server does not answer.
    bool ListDevices(bool bSources, std::vector<DeviceEntry>& out)
    {
        Query q{this, {}, {}, 2, bSources};
        pa_threaded_mainloop_lock(m_loop);
        if (!Alive()) {
            pa_threaded_mainloop_unlock(m_loop);
            return false;
        }
        pa_operation* info = pa_context_get_server_info(
            m_context,
            [](pa_context*, const pa_server_info* i, void* user) {
                auto* q = static_cast<Query*>(user);
                const char* def = i == nullptr ? nullptr : q->bSources ? i->default_source_name : i->default_sink_name;
                if (def != nullptr) q->defaultName = def;
                --q->pending;
                pa_threaded_mainloop_signal(q->self->m_loop, 0);
            },
            &q);
        pa_operation* list = bSources
                                 ? pa_context_get_source_info_list(m_context, &Connection::OnDevice<pa_source_info>, &q)
                                 : pa_context_get_sink_info_list(m_context, &Connection::OnDevice<pa_sink_info>, &q);
        bool ok = info != nullptr && list != nullptr;
        if (ok) ok = WaitLocked([&] { return q.pending == 0; });
        // Not done: the callbacks must not reach q after this returns.
        for (pa_operation* op : {info, list}) {
            if (op == nullptr) continue;
            if (pa_operation_get_state(op) == PA_OPERATION_RUNNING) pa_operation_cancel(op);
            pa_operation_unref(op);
        }
        pa_threaded_mainloop_unlock(m_loop);
        if (!ok) return false;
        const std::string word = bSources ? "Default input" : "Default output";
        DeviceEntry def{"", word, 48000};
        for (const DeviceEntry& d : q.devices) {
            if (d.name != q.defaultName) continue;
            def.description = word + " (" + d.description + ")";
            def.rate = d.rate;
        }
        out.clear();
        out.push_back(def);
        out.insert(out.end(), q.devices.begin(), q.devices.end());
        return true;
    }

private:
    struct Query {
        Connection* self;
        std::vector<DeviceEntry> devices;
        std::string defaultName;
        int pending;
        bool bSources = false;
    };

    // A pa_sink_info or a pa_source_info: the fields read are the same.
    template <typename Info>
    static void OnDevice(pa_context*, const Info* i, int eol, void* user)
    {
        auto* q = static_cast<Query*>(user);
        if (eol != 0) {
            --q->pending;
            pa_threaded_mainloop_signal(q->self->m_loop, 0);
            return;
        }
        if (i == nullptr || i->name == nullptr) return;
        q->devices.push_back({i->name, i->description != nullptr ? i->description : i->name, i->sample_spec.rate});
    }

    bool Connect()
    {
        m_loop = pa_threaded_mainloop_new();
        if (m_loop == nullptr) return false;
        pa_proplist* props = pa_proplist_new();
        pa_proplist_sets(props, PA_PROP_APPLICATION_NAME, "quavix");
        pa_proplist_sets(props, PA_PROP_MEDIA_ROLE, "music");
        m_context = pa_context_new_with_proplist(pa_threaded_mainloop_get_api(m_loop), "quavix", props);
        pa_proplist_free(props);
        if (m_context == nullptr) return false;
        pa_context_set_state_callback(m_context, &Connection::OnState, this);
        if (pa_context_connect(m_context, nullptr, PA_CONTEXT_NOAUTOSPAWN, nullptr) < 0) return false;
        if (pa_threaded_mainloop_start(m_loop) < 0) return false;
        pa_threaded_mainloop_lock(m_loop);
        const bool ready = WaitLocked([this] {
            const pa_context_state_t st = pa_context_get_state(m_context);
            return st == PA_CONTEXT_READY || !PA_CONTEXT_IS_GOOD(st);
        }) && pa_context_get_state(m_context) == PA_CONTEXT_READY;
        m_ready = ready;
        pa_threaded_mainloop_unlock(m_loop);
        if (!ready) {
            m_lost = true; // never reported: it never answered
            return false;
        }
        m_reporter = std::thread([this] { Report(); });
        return true;
    }

    static void OnState(pa_context* c, void* user)
    {
        auto* self = static_cast<Connection*>(user);
        if (!PA_CONTEXT_IS_GOOD(pa_context_get_state(c))) {
            const bool wasUp = !self->m_lost.exchange(true);
            if (wasUp && self->m_ready) {
                std::lock_guard<std::mutex> lock(self->m_lostLock);
                self->m_lostPending = true;
                self->m_lostWake.notify_all();
            }
        }
        pa_threaded_mainloop_signal(self->m_loop, 0);
    }

    // Raises ServerLost outside libpulse's thread: the handler may call back into us,
    // which needs the main loop's lock that libpulse's thread holds in a callback.
    void Report()
    {
        std::unique_lock<std::mutex> lock(m_lostLock);
        m_lostWake.wait(lock, [this] { return m_quit || m_lostPending; });
        if (m_quit) return;
        lock.unlock();
        RaiseBackendEvent(BackendEvent::ServerLost, -1, "PulseAudio");
    }

    pa_threaded_mainloop* m_loop = nullptr;
    pa_context* m_context = nullptr;
    bool m_ready = false;
    std::atomic<bool> m_lost{false};

    std::mutex m_lostLock;
    std::condition_variable m_lostWake;
    bool m_lostPending = false; // under m_lostLock
    bool m_quit = false;        // under m_lostLock
    std::thread m_reporter;
};

class PulseAudioOut final : public AudioOutPort {
public:
    PulseAudioOut(std::shared_ptr<Connection> conn, uint32_t rate)
        : m_conn(std::move(conn)), m_rate(rate), m_ring(std::max<uint32_t>(rate / 5, 4096)), m_clock(rate)
    {
    }

    ~PulseAudioOut() override
    {
        if (m_stream == nullptr) return;
        pa_threaded_mainloop_lock(m_conn->Loop());
        // No callback reaches this object once they are cleared under the lock.
        pa_stream_set_write_callback(m_stream, nullptr, nullptr);
        pa_stream_set_underflow_callback(m_stream, nullptr, nullptr);
        pa_stream_set_state_callback(m_stream, nullptr, nullptr);
        if (PA_STREAM_IS_GOOD(pa_stream_get_state(m_stream))) pa_stream_disconnect(m_stream);
        pa_stream_unref(m_stream);
        pa_threaded_mainloop_unlock(m_conn->Loop());
    }

    // sinkName empty: the server's default sink.
    MMRESULT Connect(const std::string& sinkName)
    {
        pa_threaded_mainloop* loop = m_conn->Loop();
        const pa_sample_spec sampleSpec{PA_SAMPLE_FLOAT32LE, m_rate, 2};
        pa_channel_map map;
        pa_channel_map_init_stereo(&map);
        pa_threaded_mainloop_lock(loop);
        if (!m_conn->Alive()) {
            pa_threaded_mainloop_unlock(loop);
            return MMSYSERR_NODRIVER;
        }
        m_stream = pa_stream_new(m_conn->Context(), "quavix", &sampleSpec, &map);
        if (m_stream == nullptr) {
            pa_threaded_mainloop_unlock(loop);
            return MMSYSERR_NOMEM;
        }
        pa_stream_set_state_callback(m_stream, &PulseAudioOut::OnState, this);
        pa_stream_set_write_callback(m_stream, &PulseAudioOut::OnWrite, this);
        pa_stream_set_underflow_callback(m_stream, &PulseAudioOut::OnUnderflow, this);
        pa_buffer_attr attr;
        attr.maxlength = static_cast<uint32_t>(-1);
        attr.tlength = static_cast<uint32_t>(pa_usec_to_bytes(kPulseTargetMs * 1000, &sampleSpec));
        attr.prebuf = static_cast<uint32_t>(-1);
        attr.minreq = static_cast<uint32_t>(pa_usec_to_bytes(kPulseRequestMs * 1000, &sampleSpec));
        attr.fragsize = static_cast<uint32_t>(-1);
        const auto flags = static_cast<pa_stream_flags_t>(PA_STREAM_START_CORKED | PA_STREAM_ADJUST_LATENCY |
                                                          PA_STREAM_AUTO_TIMING_UPDATE | PA_STREAM_INTERPOLATE_TIMING);
        MMRESULT r = MMSYSERR_NOERROR;
        if (pa_stream_connect_playback(m_stream, sinkName.empty() ? nullptr : sinkName.c_str(), &attr, flags, nullptr,
                                       nullptr) < 0) {
            r = MMSYSERR_ERROR;
        } else if (!m_conn->WaitLocked([this] { return pa_stream_get_state(m_stream) != PA_STREAM_CREATING; }) ||
                   pa_stream_get_state(m_stream) != PA_STREAM_READY) {
            r = m_conn->Alive() ? MMSYSERR_ERROR : MMSYSERR_NODRIVER;
        } else if (const pa_buffer_attr* got = pa_stream_get_buffer_attr(m_stream)) {
            m_requestFrames = std::max<uint32_t>(got->minreq / kBytesPerFrame, 1);
        }
        pa_threaded_mainloop_unlock(loop);
        return r;
    }

    DWORD Rate() const override { return m_rate; }
    // One server request and one mix block (5 ms) on top of what the server holds. A
    // server may ask for more at once than the minreq it granted (PipeWire asks for a
    // whole graph cycle, 1024 frames on many desktops): the largest request seen counts.
    uint32_t TargetFrames() const override
    {
        const uint32_t request = std::max(m_requestFrames, m_largestRequest.load(std::memory_order_relaxed));
        return std::min(request + m_rate / 200, m_ring.Capacity() / 2);
    }
    AudioRing& Ring() override { return m_ring; }

    void Start() override { Cork(false); }
    void Stop() override { Cork(true); }

    uint64_t UnderrunFrames() const override { return m_underrunFrames.load(); }

    // The ring's frames are placed by when the stream says they will be heard. Between a
    // start's ring position and the last frame mixed lie at most the ring's target, one
    // mix block and what the server holds: the server's target length, or the largest
    // latency it has reported, if more.
    uint32_t LatencyFrames() const override
    {
        const uint32_t held = std::max(m_rate * kPulseTargetMs / 1000, m_largestLatency.load(std::memory_order_relaxed));
        return WholeMsFrames(TargetFrames() + m_rate / 200 + held, m_rate);
    }
    bool HasClock() const override { return true; }
    bool RingPositionAt(int64_t ns, int64_t* pFrame) const override
    {
        return m_running.load() && m_clock.PositionAt(ns, pFrame);
    }

    bool Latency(int64_t* pUs, uint32_t* pUnderflows)
    {
        bool ok = false;
        pa_threaded_mainloop_lock(m_conn->Loop());
        if (m_conn->Alive() && PA_STREAM_IS_GOOD(pa_stream_get_state(m_stream))) {
            pa_usec_t us = 0;
            int negative = 0;
            if (pa_stream_get_latency(m_stream, &us, &negative) == 0) {
                if (pUs != nullptr) *pUs = negative != 0 ? -static_cast<int64_t>(us) : static_cast<int64_t>(us);
                ok = true;
            }
        }
        pa_threaded_mainloop_unlock(m_conn->Loop());
        if (pUnderflows != nullptr) *pUnderflows = m_underflows.load();
        return ok;
    }

private:
    void Cork(bool bCork)
    {
        pa_threaded_mainloop_lock(m_conn->Loop());
        if (!bCork && !m_running.load()) {
            m_primed.store(false);
            m_clock.Reset();
        }
        m_running.store(!bCork);
        // Not waited for: a server that stopped answering must not hang the caller.
        if (m_conn->Alive() && pa_stream_get_state(m_stream) == PA_STREAM_READY) {
            if (pa_operation* op = pa_stream_cork(m_stream, bCork ? 1 : 0, nullptr, nullptr)) pa_operation_unref(op);
        }
        pa_threaded_mainloop_unlock(m_conn->Loop());
    }

    static void OnState(pa_stream*, void* user)
    {
        auto* self = static_cast<PulseAudioOut*>(user);
        pa_threaded_mainloop_signal(self->m_conn->Loop(), 0);
    }

    // libpulse's thread, main loop locked. Copies and pads only.
    static void OnWrite(pa_stream* s, size_t nbytes, void* user)
    {
        auto* self = static_cast<PulseAudioOut*>(user);
        if (!self->m_named) {
            self->m_named = true;
            MakeRealtimeThread("qx-pulse");
        }
        const bool running = self->m_running.load(std::memory_order_relaxed);
        const auto asked = static_cast<uint32_t>(std::min<size_t>(nbytes / kBytesPerFrame, UINT32_MAX));
        if (asked > self->m_largestRequest.load(std::memory_order_relaxed))
            self->m_largestRequest.store(asked, std::memory_order_relaxed);
        while (nbytes >= kBytesPerFrame) {
            void* data = nullptr;
            size_t n = nbytes;
            if (pa_stream_begin_write(s, &data, &n) < 0 || data == nullptr) return;
            const uint32_t frames = static_cast<uint32_t>(std::min(n, nbytes) / kBytesPerFrame);
            if (frames == 0) {
                pa_stream_cancel_write(s);
                return;
            }
            auto* out = static_cast<float*>(data);
            const uint32_t got = running ? self->m_ring.Read(out, frames) : 0;
            if (got > 0) self->Heard(s);
            self->m_readTotal += got;
            if (got < frames) {
                std::memset(out + size_t{got} * 2, 0, size_t{frames - got} * kBytesPerFrame);
                if (running && self->m_primed.load(std::memory_order_relaxed)) {
                    self->m_underrunFrames.fetch_add(frames - got, std::memory_order_relaxed);
                    g_underrunFramesAll.fetch_add(frames - got, std::memory_order_relaxed);
                }
            }
            if (got > 0) {
                self->m_primed.store(true, std::memory_order_relaxed);
                for (uint32_t i = 0; i < 2 * got; ++i) out[i] = std::clamp(out[i], -1.0f, 1.0f); // the mix's one clip
            }
            if (pa_stream_write(s, data, size_t{frames} * kBytesPerFrame, nullptr, 0, PA_SEEK_RELATIVE) < 0) return;
            nbytes -= size_t{frames} * kBytesPerFrame;
        }
    }

    // The frames about to be written are heard after the stream's whole latency.
    void Heard(pa_stream* s)
    {
        pa_usec_t us = 0;
        int negative = 0;
        if (pa_stream_get_latency(s, &us, &negative) != 0) return; // no timing yet
        const int64_t latencyNs = (negative != 0 ? -1 : 1) * static_cast<int64_t>(us) * 1000;
        m_clock.Observe(static_cast<int64_t>(m_readTotal), NowNs() + latencyNs);
        const auto frames = static_cast<uint32_t>(std::clamp<int64_t>(latencyNs * m_rate / 1'000'000'000, 0, m_rate));
        if (frames > m_largestLatency.load(std::memory_order_relaxed))
            m_largestLatency.store(frames, std::memory_order_relaxed);
    }

    static void OnUnderflow(pa_stream*, void* user)
    {
        auto* self = static_cast<PulseAudioOut*>(user);
        if (!self->m_running.load(std::memory_order_relaxed) || !self->m_primed.load(std::memory_order_relaxed)) return;
        self->m_underflows.fetch_add(1, std::memory_order_relaxed);
        self->m_underrunFrames.fetch_add(self->m_requestFrames, std::memory_order_relaxed);
        g_underrunFramesAll.fetch_add(self->m_requestFrames, std::memory_order_relaxed);
    }

    std::shared_ptr<Connection> m_conn;
    const uint32_t m_rate;
    AudioRing m_ring;
    pa_stream* m_stream = nullptr;
    uint32_t m_requestFrames = 480;
    std::atomic<uint32_t> m_largestRequest{0}; // written by the write callback only
    bool m_named = false; // libpulse's thread only
    std::atomic<bool> m_running{false};
    std::atomic<bool> m_primed{false};
    std::atomic<uint64_t> m_underrunFrames{0};
    std::atomic<uint32_t> m_underflows{0};
    SinkClock m_clock;
    uint64_t m_readTotal = 0; // frames read from the ring; the write callback's
    std::atomic<uint32_t> m_largestLatency{0}; // written by the write callback only
};

// A record stream. Its flags live under the main loop's lock, which the read callback
// holds too: once Stop has taken and left it, the callback writes nothing more.
class PulseAudioIn final : public AudioInPort {
public:
    PulseAudioIn(std::shared_ptr<Connection> conn, uint32_t rate)
        : m_conn(std::move(conn)), m_rate(rate), m_ring(std::max<uint32_t>(rate / 2, 16384))
    {
    }

    ~PulseAudioIn() override
    {
        if (m_stream == nullptr) return;
        pa_threaded_mainloop_lock(m_conn->Loop());
        pa_stream_set_read_callback(m_stream, nullptr, nullptr);
        pa_stream_set_state_callback(m_stream, nullptr, nullptr);
        DropCorkOp();
        if (PA_STREAM_IS_GOOD(pa_stream_get_state(m_stream))) pa_stream_disconnect(m_stream);
        pa_stream_unref(m_stream);
        pa_threaded_mainloop_unlock(m_conn->Loop());
    }

    // sourceName empty: the server's default source.
    MMRESULT Connect(const std::string& sourceName)
    {
        pa_threaded_mainloop* loop = m_conn->Loop();
        const pa_sample_spec sampleSpec{PA_SAMPLE_FLOAT32LE, m_rate, 2};
        pa_channel_map map;
        pa_channel_map_init_stereo(&map);
        pa_threaded_mainloop_lock(loop);
        if (!m_conn->Alive()) {
            pa_threaded_mainloop_unlock(loop);
            return MMSYSERR_NODRIVER;
        }
        m_stream = pa_stream_new(m_conn->Context(), "quavix input", &sampleSpec, &map);
        if (m_stream == nullptr) {
            pa_threaded_mainloop_unlock(loop);
            return MMSYSERR_NOMEM;
        }
        pa_stream_set_state_callback(m_stream, &PulseAudioIn::OnState, this);
        pa_stream_set_read_callback(m_stream, &PulseAudioIn::OnRead, this);
        pa_buffer_attr attr;
        attr.maxlength = static_cast<uint32_t>(-1);
        attr.tlength = static_cast<uint32_t>(-1);
        attr.prebuf = static_cast<uint32_t>(-1);
        attr.minreq = static_cast<uint32_t>(-1);
        attr.fragsize = static_cast<uint32_t>(pa_usec_to_bytes(kPulseFragmentMs * 1000, &sampleSpec));
        const auto flags = static_cast<pa_stream_flags_t>(PA_STREAM_START_CORKED | PA_STREAM_ADJUST_LATENCY);
        MMRESULT r = MMSYSERR_NOERROR;
        if (pa_stream_connect_record(m_stream, sourceName.empty() ? nullptr : sourceName.c_str(), &attr, flags) < 0) {
            r = MMSYSERR_ERROR;
        } else if (!m_conn->WaitLocked([this] { return pa_stream_get_state(m_stream) != PA_STREAM_CREATING; }) ||
                   pa_stream_get_state(m_stream) != PA_STREAM_READY) {
            r = m_conn->Alive() ? MMSYSERR_ERROR : MMSYSERR_NODRIVER;
        }
        pa_threaded_mainloop_unlock(loop);
        return r;
    }

    DWORD Rate() const override { return m_rate; }
    AudioRing& Ring() override { return m_ring; }
    uint64_t OverrunFrames() const override { return m_overrunFrames.load(); }

    void Start() override
    {
        pa_threaded_mainloop_lock(m_conn->Loop());
        if (!m_running) {
            m_running = true;
            // Not waited for: a server that stopped answering must not hang the caller.
            if (m_conn->Alive() && pa_stream_get_state(m_stream) == PA_STREAM_READY)
                if (pa_operation* op = pa_stream_cork(m_stream, 0, nullptr, nullptr)) pa_operation_unref(op);
        }
        pa_threaded_mainloop_unlock(m_conn->Loop());
    }

    // What the server sent before it took the cork arrives before the cork's reply, and
    // is no part of the next run: it is dropped until the reply comes.
    void Stop() override
    {
        pa_threaded_mainloop_lock(m_conn->Loop());
        if (m_running) {
            m_running = false;
            DropCorkOp();
            if (m_conn->Alive() && pa_stream_get_state(m_stream) == PA_STREAM_READY) {
                m_corkOp = pa_stream_cork(m_stream, 1, &PulseAudioIn::OnCorked, this);
                m_corkPending = m_corkOp != nullptr;
            }
        }
        pa_threaded_mainloop_unlock(m_conn->Loop());
    }

private:
    // Main loop locked.
    void DropCorkOp()
    {
        if (m_corkOp == nullptr) return;
        if (pa_operation_get_state(m_corkOp) == PA_OPERATION_RUNNING) pa_operation_cancel(m_corkOp);
        pa_operation_unref(m_corkOp);
        m_corkOp = nullptr;
        m_corkPending = false;
    }

    static void OnCorked(pa_stream*, int, void* user) { static_cast<PulseAudioIn*>(user)->m_corkPending = false; }

    static void OnState(pa_stream*, void* user)
    {
        auto* self = static_cast<PulseAudioIn*>(user);
        pa_threaded_mainloop_signal(self->m_conn->Loop(), 0);
    }

    // libpulse's thread, main loop locked. Copies only; a hole in the stream is silence.
    static void OnRead(pa_stream* s, size_t, void* user)
    {
        auto* self = static_cast<PulseAudioIn*>(user);
        if (!self->m_named) {
            self->m_named = true;
            MakeRealtimeThread("qx-pulse");
        }
        const bool keep = self->m_running && !self->m_corkPending;
        for (;;) {
            const void* data = nullptr;
            size_t n = 0;
            if (pa_stream_peek(s, &data, &n) < 0 || n == 0) return;
            if (keep) self->Put(static_cast<const float*>(data), static_cast<uint32_t>(n / kBytesPerFrame));
            pa_stream_drop(s);
        }
    }

    // Fragments of a record stream are whole frames. Null: that many frames of silence.
    void Put(const float* frames, uint32_t n)
    {
        static const float kSilence[2 * 256] = {};
        uint32_t put = 0;
        if (frames != nullptr) {
            put = m_ring.Write(frames, n);
        } else {
            while (put < n) {
                const uint32_t chunk = std::min<uint32_t>(n - put, 256), w = m_ring.Write(kSilence, chunk);
                put += w;
                if (w < chunk) break;
            }
        }
        if (put < n) m_overrunFrames.fetch_add(n - put, std::memory_order_relaxed);
    }

    std::shared_ptr<Connection> m_conn;
    const uint32_t m_rate;
    AudioRing m_ring;
    pa_stream* m_stream = nullptr;
    // Under the main loop's lock:
    bool m_running = false;
    bool m_corkPending = false;
    pa_operation* m_corkOp = nullptr;
    bool m_named = false;
    std::atomic<uint64_t> m_overrunFrames{0};
};

class PulseBackend final : public Backend {
public:
    const char* Name() const override { return "pulse"; }

    int Count(DeviceKind kind) override
    {
        if (kind != DeviceKind::WaveOut && kind != DeviceKind::WaveIn) return 0;
        std::lock_guard<std::mutex> lock(m_mutex);
        return static_cast<int>(ListLocked(kind == DeviceKind::WaveIn).size());
    }

    std::string DeviceName(DeviceKind kind, int n) override
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (kind != DeviceKind::WaveOut && kind != DeviceKind::WaveIn) return {};
        const std::vector<DeviceEntry>& list = kind == DeviceKind::WaveIn ? m_sources : m_sinks;
        if (n < 0 || static_cast<size_t>(n) >= list.size()) return {};
        return list[static_cast<size_t>(n)].description;
    }

    MMRESULT OpenMidiOut(int, std::unique_ptr<MidiOutPort>&) override { return MMSYSERR_BADDEVICEID; }
    MMRESULT OpenMidiIn(int, MidiInSink*, std::unique_ptr<MidiInPort>&) override { return MMSYSERR_BADDEVICEID; }

    MMRESULT OpenAudioOut(int n, std::unique_ptr<AudioOutPort>& port) override
    {
        std::shared_ptr<Connection> conn;
        DeviceEntry sink;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            if (n < 0 || static_cast<size_t>(n) >= m_sinks.size()) return MMSYSERR_BADDEVICEID;
            conn = m_conn;
            sink = m_sinks[static_cast<size_t>(n)];
        }
        if (conn == nullptr || !conn->Alive()) return MMSYSERR_NODRIVER;
        const uint32_t rate = sink.rate >= 8000 && sink.rate <= 384000 ? sink.rate : 48000;
        std::unique_ptr<PulseAudioOut> p;
        try {
            p = std::make_unique<PulseAudioOut>(conn, rate);
        } catch (const std::bad_alloc&) {
            return MMSYSERR_NOMEM;
        }
        const MMRESULT r = p->Connect(sink.name);
        if (r != MMSYSERR_NOERROR) return r;
        port = std::move(p);
        return MMSYSERR_NOERROR;
    }

    MMRESULT OpenAudioIn(int n, std::unique_ptr<AudioInPort>& port) override
    {
        std::shared_ptr<Connection> conn;
        DeviceEntry source;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            // waveInOpen may come without a count before it: the list is read then.
            if (m_sources.empty()) ListLocked(true);
            if (n < 0 || static_cast<size_t>(n) >= m_sources.size()) return MMSYSERR_BADDEVICEID;
            conn = m_conn;
            source = m_sources[static_cast<size_t>(n)];
        }
        if (conn == nullptr || !conn->Alive()) return MMSYSERR_NODRIVER;
        const uint32_t rate = source.rate >= 8000 && source.rate <= 384000 ? source.rate : 48000;
        std::unique_ptr<PulseAudioIn> p;
        try {
            p = std::make_unique<PulseAudioIn>(conn, rate);
        } catch (const std::bad_alloc&) {
            return MMSYSERR_NOMEM;
        }
        const MMRESULT r = p->Connect(source.name);
        if (r != MMSYSERR_NOERROR) return r;
        port = std::move(p);
        return MMSYSERR_NOERROR;
    }

    // At exit: the connection's threads are ended and joined. Outputs still open keep
    // theirs; a later question connects anew.
    void Shutdown()
    {
        std::shared_ptr<Connection> last;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            last = std::move(m_conn);
        }
        // Released outside the lock: a ServerLost handler running on the connection's
        // reporter may be asking us something.
        last.reset();
    }

    bool Answers()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return ConnectionLocked() != nullptr;
    }

private:
    // Reads the sinks or the sources anew (none when no server answers).
    const std::vector<DeviceEntry>& ListLocked(bool bSources)
    {
        std::shared_ptr<Connection> conn = ConnectionLocked();
        std::vector<DeviceEntry> found;
        if (conn == nullptr || !conn->ListDevices(bSources, found)) found.clear();
        std::vector<DeviceEntry>& list = bSources ? m_sources : m_sinks;
        list = std::move(found);
        return list;
    }

    // A lost connection is replaced on the next question; outputs still open on it keep
    // it until they close.
    std::shared_ptr<Connection> ConnectionLocked()
    {
        if (m_conn == nullptr || !m_conn->Alive()) m_conn = Connection::Open();
        return m_conn;
    }

    std::mutex m_mutex; // Count, names and opening; never held while a callback runs
    std::shared_ptr<Connection> m_conn;
    std::vector<DeviceEntry> m_sinks;
    std::vector<DeviceEntry> m_sources;
};

PulseBackend& Instance()
{
    static PulseBackend* s_backend = [] {
        auto* b = new PulseBackend; // reachable from threads during exit
        std::atexit([] { Instance().Shutdown(); });
        return b;
    }();
    return *s_backend;
}

} // namespace

Backend* PulseBackendIfServer()
{
    return Instance().Answers() ? &Instance() : nullptr;
}

Backend& PulseBackendAlways()
{
    return Instance();
}

uint64_t PulseUnderrunFramesAll()
{
    return g_underrunFramesAll.load();
}

bool PulseOutputLatency(AudioOutPort* pPort, int64_t* pLatencyUs, uint32_t* pUnderflows)
{
    auto* p = dynamic_cast<PulseAudioOut*>(pPort);
    return p != nullptr && p->Latency(pLatencyUs, pUnderflows);
}

} // namespace qxplat
