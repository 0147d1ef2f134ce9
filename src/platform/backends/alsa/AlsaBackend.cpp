// The ALSA backend: the sequencer, through alsa-lib directly rather than RtMidi, because
// its real-time queue schedules each timed message with nanosecond time stamps; RtMidi
// only sends at once. Outputs are sequencer ports that accept subscriptions for writing,
// inputs those that offer them for reading. One sequencer client writes (with its queue)
// and one reads, since a sequencer handle must not be used from two threads at once.
#include "platform/backends/alsa/QXAlsa.h"

#include "platform/kernel/QXRealtime.h"

#include <alsa/asoundlib.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace qxplat {

namespace {

struct PortAddr {
    int client;
    int port;
    std::string name;
    bool loopback = false; // the kernel's "Midi Through": what goes in comes out again
};

void SilentError(const char*, int, const char*, int, const char*, ...) {}

class AlsaBackend;

class AlsaMidiOut final : public MidiOutPort {
public:
    AlsaMidiOut(AlsaBackend* b, int port, const PortAddr& peer) : m_b(b), m_port(port), m_peer(peer) {}
    ~AlsaMidiOut() override;
    MMRESULT Send(const BYTE* pData, size_t cb, int64_t dueNs) override;
    int64_t LeadNs() const override { return 20'000'000; } // the queue keeps the time
    void Cancel() override;
    // Note-offs stay queued and come again after the restart: a second one is harmless.
    // The queue has let out only what was due by now.
    bool Withdraw(int64_t*) override
    {
        Cancel();
        return true;
    }

private:
    AlsaBackend* m_b;
    int m_port;
    PortAddr m_peer;
};

class AlsaMidiIn final : public MidiInPort {
public:
    AlsaMidiIn(AlsaBackend* b, int port) : m_b(b), m_port(port) {}
    ~AlsaMidiIn() override;

private:
    AlsaBackend* m_b;
    int m_port;
};

class AlsaBackend final : public Backend {
public:
    AlsaBackend()
    {
        snd_lib_error_set_handler(SilentError); // no sequencer is no error worth printing
        if (snd_seq_open(&m_out, "default", SND_SEQ_OPEN_OUTPUT, 0) < 0) {
            m_out = nullptr;
            return;
        }
        if (snd_seq_open(&m_in, "default", SND_SEQ_OPEN_INPUT, 0) < 0) {
            snd_seq_close(m_out);
            m_out = m_in = nullptr;
            return;
        }
        snd_lib_error_set_handler(nullptr);
        snd_seq_set_client_name(m_out, "quavix");
        snd_seq_set_client_name(m_in, "quavix-in");
        snd_seq_set_client_pool_output(m_out, 4000); // the default of 200 runs dry
        m_queue = snd_seq_alloc_named_queue(m_out, "quavix");
        snd_seq_start_queue(m_out, m_queue, nullptr);
        snd_seq_drain_output(m_out);
        m_queueStartNs = NowNs();
    }

    bool Available() const { return m_out != nullptr; }
    const char* Name() const override { return "alsa"; }

    int Count(DeviceKind kind) override
    {
        if (kind != DeviceKind::MidiIn && kind != DeviceKind::MidiOut) return 0;
        std::lock_guard<std::mutex> lock(m_mutex);
        auto& list = kind == DeviceKind::MidiOut ? m_outPeers : m_inPeers;
        list = Peers(kind == DeviceKind::MidiOut);
        return static_cast<int>(list.size());
    }

    std::string DeviceName(DeviceKind kind, int n) override
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (kind != DeviceKind::MidiIn && kind != DeviceKind::MidiOut) return {};
        auto& list = kind == DeviceKind::MidiOut ? m_outPeers : m_inPeers;
        if (n < 0 || static_cast<size_t>(n) >= list.size()) return {};
        return list[static_cast<size_t>(n)].name;
    }

    bool IsExternalMidiOut(int n) override
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return n >= 0 && static_cast<size_t>(n) < m_outPeers.size() && !m_outPeers[static_cast<size_t>(n)].loopback;
    }

    MMRESULT OpenMidiOut(int n, std::unique_ptr<MidiOutPort>& port) override
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (!Available()) return MMSYSERR_NODRIVER;
        if (n < 0 || static_cast<size_t>(n) >= m_outPeers.size()) return MMSYSERR_BADDEVICEID;
        const PortAddr& peer = m_outPeers[static_cast<size_t>(n)];
        int p = snd_seq_create_simple_port(m_out, ("out " + std::to_string(n)).c_str(),
                                           SND_SEQ_PORT_CAP_READ | SND_SEQ_PORT_CAP_SUBS_READ,
                                           SND_SEQ_PORT_TYPE_MIDI_GENERIC | SND_SEQ_PORT_TYPE_APPLICATION);
        if (p < 0) return MMSYSERR_NOMEM;
        if (snd_seq_connect_to(m_out, p, peer.client, peer.port) < 0) {
            snd_seq_delete_simple_port(m_out, p);
            return MMSYSERR_ERROR;
        }
        port = std::make_unique<AlsaMidiOut>(this, p, peer);
        return MMSYSERR_NOERROR;
    }

    MMRESULT OpenMidiIn(int n, MidiInSink* pSink, std::unique_ptr<MidiInPort>& port) override
    {
        if (pSink == nullptr) return MMSYSERR_INVALPARAM;
        std::lock_guard<std::mutex> lock(m_mutex);
        if (!Available()) return MMSYSERR_NODRIVER;
        if (n < 0 || static_cast<size_t>(n) >= m_inPeers.size()) return MMSYSERR_BADDEVICEID;
        const PortAddr& peer = m_inPeers[static_cast<size_t>(n)];
        std::lock_guard<std::mutex> inLock(m_inMutex);
        int p = snd_seq_create_simple_port(m_in, ("in " + std::to_string(n)).c_str(),
                                           SND_SEQ_PORT_CAP_WRITE | SND_SEQ_PORT_CAP_SUBS_WRITE,
                                           SND_SEQ_PORT_TYPE_MIDI_GENERIC | SND_SEQ_PORT_TYPE_APPLICATION);
        if (p < 0) return MMSYSERR_NOMEM;
        if (snd_seq_connect_from(m_in, p, peer.client, peer.port) < 0) {
            snd_seq_delete_simple_port(m_in, p);
            return MMSYSERR_ERROR;
        }
        m_sinks[p] = pSink;
        StartReader();
        port = std::make_unique<AlsaMidiIn>(this, p);
        return MMSYSERR_NOERROR;
    }

    MMRESULT Send(int port, const PortAddr& peer, const BYTE* pData, size_t cb, int64_t dueNs)
    {
        snd_seq_event_t ev;
        snd_seq_ev_clear(&ev);
        std::lock_guard<std::mutex> lock(m_outMutex);
        if (pData[0] == 0xF0) {
            snd_seq_ev_set_sysex(&ev, static_cast<unsigned>(cb), const_cast<BYTE*>(pData));
        } else {
            if (m_encoder == nullptr && snd_midi_event_new(16, &m_encoder) < 0) return MMSYSERR_NOMEM;
            snd_midi_event_reset_encode(m_encoder);
            if (snd_midi_event_encode(m_encoder, pData, static_cast<long>(cb), &ev) <= 0 ||
                ev.type == SND_SEQ_EVENT_NONE)
                return MMSYSERR_INVALPARAM;
        }
        AlsaAddressEvent(&ev, port, peer.client, peer.port);
        const int64_t rel = dueNs - m_queueStartNs;
        if (dueNs > NowNs() && rel > 0) {
            snd_seq_real_time_t t{static_cast<unsigned>(rel / 1'000'000'000), static_cast<unsigned>(rel % 1'000'000'000)};
            snd_seq_ev_schedule_real(&ev, m_queue, 0, &t);
        } else {
            snd_seq_ev_set_direct(&ev);
        }
        if (snd_seq_event_output(m_out, &ev) < 0 || snd_seq_drain_output(m_out) < 0) return MMSYSERR_ERROR;
        return MMSYSERR_NOERROR;
    }

    void Cancel(int port, const PortAddr& peer)
    {
        std::lock_guard<std::mutex> lock(m_outMutex);
        snd_seq_remove_events_t* rm;
        if (snd_seq_remove_events_malloc(&rm) < 0) return;
        AlsaCancelCriteria(rm, m_queue, port, peer.client, peer.port);
        snd_seq_remove_events(m_out, rm);
        snd_seq_remove_events_free(rm);
    }

    void ClosePort(int port, bool bInput)
    {
        if (bInput) {
            std::lock_guard<std::mutex> lock(m_inMutex);
            m_sinks.erase(port); // the reader looks sinks up under this lock: none after here
            snd_seq_delete_simple_port(m_in, port);
        } else {
            std::lock_guard<std::mutex> lock(m_outMutex);
            snd_seq_delete_simple_port(m_out, port);
        }
    }

private:
    std::vector<PortAddr> Peers(bool bOutputs)
    {
        std::vector<PortAddr> out;
        if (!Available()) return out;
        const unsigned need = bOutputs ? (SND_SEQ_PORT_CAP_WRITE | SND_SEQ_PORT_CAP_SUBS_WRITE)
                                       : (SND_SEQ_PORT_CAP_READ | SND_SEQ_PORT_CAP_SUBS_READ);
        snd_seq_client_info_t* ci;
        snd_seq_port_info_t* pi;
        snd_seq_client_info_alloca(&ci);
        snd_seq_port_info_alloca(&pi);
        snd_seq_client_info_set_client(ci, -1);
        const int self[2] = {snd_seq_client_id(m_out), snd_seq_client_id(m_in)};
        std::lock_guard<std::mutex> lock(m_outMutex);
        while (snd_seq_query_next_client(m_out, ci) >= 0) {
            const int client = snd_seq_client_info_get_client(ci);
            if (client == SND_SEQ_CLIENT_SYSTEM || client == self[0] || client == self[1]) continue;
            snd_seq_port_info_set_client(pi, client);
            snd_seq_port_info_set_port(pi, -1);
            while (snd_seq_query_next_port(m_out, pi) >= 0) {
                if ((snd_seq_port_info_get_capability(pi) & need) != need) continue;
                if (!(snd_seq_port_info_get_type(pi) & SND_SEQ_PORT_TYPE_MIDI_GENERIC)) continue;
                const bool through = snd_seq_client_info_get_type(ci) == SND_SEQ_KERNEL_CLIENT &&
                                     std::strcmp(snd_seq_client_info_get_name(ci), "Midi Through") == 0;
                out.push_back({client, snd_seq_port_info_get_port(pi), snd_seq_port_info_get_name(pi), through});
            }
        }
        return out;
    }

    void StartReader()
    {
        if (m_reader.joinable()) return;
        m_wake = eventfd(0, EFD_CLOEXEC);
        m_reader = std::thread([this] { Read(); });
    }

    void Read()
    {
        MakeRealtimeThread("qx-alsa-in");
        snd_midi_event_t* decoder = nullptr;
        if (snd_midi_event_new(256, &decoder) < 0) return;
        snd_midi_event_no_status(decoder, 1); // whole messages, no running status
        std::vector<pollfd> fds(static_cast<size_t>(snd_seq_poll_descriptors_count(m_in, POLLIN)) + 1);
        snd_seq_poll_descriptors(m_in, fds.data(), static_cast<unsigned>(fds.size() - 1), POLLIN);
        fds.back() = {m_wake, POLLIN, 0};
        BYTE buf[256];
        for (;;) {
            if (poll(fds.data(), fds.size(), -1) < 0) continue;
            if (fds.back().revents & POLLIN) return; // never woken but to end
            snd_seq_event_t* ev = nullptr;
            while (snd_seq_event_input(m_in, &ev) >= 0 && ev != nullptr) {
                const int64_t now = NowNs();
                std::lock_guard<std::mutex> lock(m_inMutex);
                auto it = m_sinks.find(ev->dest.port);
                if (it == m_sinks.end()) continue;
                if (ev->type == SND_SEQ_EVENT_SYSEX) {
                    it->second->OnMidiData(static_cast<const BYTE*>(ev->data.ext.ptr), ev->data.ext.len, now);
                    continue;
                }
                long n = snd_midi_event_decode(decoder, buf, sizeof buf, ev);
                if (n > 0) it->second->OnMidiData(buf, static_cast<size_t>(n), now);
            }
        }
    }

    snd_seq_t* m_out = nullptr;
    snd_seq_t* m_in = nullptr;
    int m_queue = -1;
    int64_t m_queueStartNs = 0;
    snd_midi_event_t* m_encoder = nullptr;
    std::mutex m_mutex;    // enumeration and opening
    std::mutex m_outMutex; // the writing client
    std::mutex m_inMutex;  // the reading client's ports and sinks
    std::map<int, MidiInSink*> m_sinks;
    std::vector<PortAddr> m_outPeers, m_inPeers;
    std::thread m_reader; // lives as long as the backend, which lives as long as the process
    int m_wake = -1;
};

AlsaMidiOut::~AlsaMidiOut()
{
    m_b->ClosePort(m_port, false);
}

MMRESULT AlsaMidiOut::Send(const BYTE* pData, size_t cb, int64_t dueNs)
{
    if (pData == nullptr || cb == 0) return MMSYSERR_INVALPARAM;
    return m_b->Send(m_port, m_peer, pData, cb, dueNs);
}

void AlsaMidiOut::Cancel()
{
    m_b->Cancel(m_port, m_peer);
}

AlsaMidiIn::~AlsaMidiIn()
{
    m_b->ClosePort(m_port, true);
}

AlsaBackend* Instance()
{
    static AlsaBackend* s = new AlsaBackend;
    return s;
}

} // namespace

// Straight to the peer rather than to our port's subscribers: events for subscribers
// all carry the same destination, so no removal could tell one output's from another's.
// The connection to the peer is still made, so that tools show it.
void AlsaAddressEvent(snd_seq_event_t* ev, int ourPort, int peerClient, int peerPort)
{
    snd_seq_ev_set_source(ev, ourPort);
    snd_seq_ev_set_dest(ev, peerClient, peerPort);
    snd_seq_ev_set_tag(ev, static_cast<unsigned char>(ourPort));
}

// Every condition set narrows the removal (they combine as "and"); the destination
// condition also restricts it to the given queue. The tag separates two of our outputs
// open on the same peer. Note-offs stay, so that a note already sounding still ends.
void AlsaCancelCriteria(snd_seq_remove_events_t* rm, int queue, int ourPort, int peerClient, int peerPort)
{
    snd_seq_addr_t dest{static_cast<unsigned char>(peerClient), static_cast<unsigned char>(peerPort)};
    snd_seq_remove_events_set_condition(rm, SND_SEQ_REMOVE_OUTPUT | SND_SEQ_REMOVE_DEST | SND_SEQ_REMOVE_TAG_MATCH |
                                                SND_SEQ_REMOVE_IGNORE_OFF);
    snd_seq_remove_events_set_queue(rm, queue);
    snd_seq_remove_events_set_dest(rm, &dest);
    snd_seq_remove_events_set_tag(rm, static_cast<unsigned char>(ourPort));
}

Backend* AlsaBackendIfDevices()
{
    AlsaBackend* b = Instance();
    if (!b->Available()) return nullptr;
    return b->Count(DeviceKind::MidiOut) + b->Count(DeviceKind::MidiIn) > 0 ? b : nullptr;
}

Backend& AlsaBackendAlways()
{
    return *Instance();
}

} // namespace qxplat
