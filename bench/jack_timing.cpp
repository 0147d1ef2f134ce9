// One process, one JACK server, one performance played two ways: through the library's
// stream output, and through RtMidi's JACK API by a thread that sleeps until each
// message is due and sends it. A receiving JACK client notes the frame of every event;
// each path's error is the distance of its events from their intended times, counted
// from its first event.
//
//   JACK_DEFAULT_SERVER=... jack_timing [--seconds N]
#include <quavix/Quavix.h>

#include <jack/jack.h>
#include <jack/midiport.h>
#include <rtmidi/RtMidi.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <vector>

namespace {

class Receiver {
public:
    Receiver()
    {
        m_frames[0].resize(100000);
        m_frames[1].resize(100000);
        m_client = jack_client_open("qxbench", JackNoStartServer, nullptr);
        if (m_client == nullptr) return;
        m_ports[0] = jack_port_register(m_client, "ours", JACK_DEFAULT_MIDI_TYPE, JackPortIsInput, 0);
        m_ports[1] = jack_port_register(m_client, "base", JACK_DEFAULT_MIDI_TYPE, JackPortIsInput, 0);
        jack_set_process_callback(m_client, Process, this);
        jack_activate(m_client);
    }
    ~Receiver()
    {
        if (m_client != nullptr) jack_client_close(m_client);
    }
    bool Ok() const { return m_client != nullptr; }
    jack_nframes_t Rate() const { return jack_get_sample_rate(m_client); }
    jack_nframes_t Period() const { return jack_get_buffer_size(m_client); }
    std::vector<jack_nframes_t> Frames(int which) const
    {
        return std::vector<jack_nframes_t>(m_frames[which].begin(),
                                           m_frames[which].begin() + static_cast<long>(m_count[which].load()));
    }

private:
    static int Process(jack_nframes_t nframes, void* arg)
    {
        auto* self = static_cast<Receiver*>(arg);
        const jack_nframes_t start = jack_last_frame_time(self->m_client);
        for (int w = 0; w < 2; ++w) {
            void* buf = jack_port_get_buffer(self->m_ports[w], nframes);
            for (jack_nframes_t i = 0; i < jack_midi_get_event_count(buf); ++i) {
                jack_midi_event_t ev;
                if (jack_midi_event_get(&ev, buf, i) != 0) continue;
                size_t n = self->m_count[w].load();
                if (n < self->m_frames[w].size()) {
                    self->m_frames[w][n] = start + ev.time;
                    self->m_count[w].store(n + 1);
                }
            }
        }
        return 0;
    }
    jack_client_t* m_client = nullptr;
    jack_port_t* m_ports[2] = {nullptr, nullptr};
    std::vector<jack_nframes_t> m_frames[2];
    std::atomic<size_t> m_count[2]{};
};

// One note every 20 ms with a small irregularity, so that events fall anywhere in a period.
std::vector<DWORD> Schedule(int seconds)
{
    std::vector<DWORD> t;
    for (DWORD ms = 300; ms < static_cast<DWORD>(seconds) * 1000 + 300; ms += 20 + (ms / 20) % 7) t.push_back(ms);
    return t;
}

struct Song {
    std::vector<DWORD> times;
    size_t next = 0;
    int output = 0;
    static int Proc(DWORD_PTR user, int tag, DWORD, DWORD end)
    {
        auto* s = reinterpret_cast<Song*>(user);
        if (tag < 0) return 1;
        CQXEventList list;
        for (; s->next < s->times.size() && s->times[s->next] < end; ++s->next) {
            auto* e = new CQXEventData;
            e->SetMidiData(0x00400090u | ((s->next % 64 + 32) << 8));
            e->SetTimeStamp(s->times[s->next]);
            e->SetDevice(s->output);
            list.AddTail(e);
        }
        CQuavix::GetQuavix()->PlayBuffer(list);
        return s->next < s->times.size() ? 1 : 0;
    }
};

void Report(const char* what, const std::vector<jack_nframes_t>& frames, const std::vector<DWORD>& times,
            double rate)
{
    if (frames.size() != times.size()) {
        std::printf("%s: %zu of %zu events arrived\n", what, frames.size(), times.size());
        if (frames.empty()) return;
    }
    std::vector<double> err;
    for (size_t i = 0; i < std::min(frames.size(), times.size()); ++i) {
        const double got = static_cast<int32_t>(frames[i] - frames[0]) * 1e6 / rate;
        const double want = (times[i] - times[0]) * 1000.0;
        err.push_back(got - want);
    }
    std::vector<double> abs(err.size());
    std::transform(err.begin(), err.end(), abs.begin(), [](double e) { return e < 0 ? -e : e; });
    std::sort(abs.begin(), abs.end());
    auto at = [&](double p) { return abs[std::min(abs.size() - 1, static_cast<size_t>(p * (abs.size() - 1) + 0.5))]; };
    std::printf("%s: n=%zu |error| median=%.1f us p99=%.1f us max=%.1f us (one frame = %.1f us)\n", what,
                abs.size(), at(0.5), at(0.99), abs.back(), 1e6 / rate);
}

} // namespace

int main(int argc, char** argv)
{
    int seconds = 20;
    for (int i = 1; i + 1 < argc; i += 2)
        if (std::strcmp(argv[i], "--seconds") == 0) seconds = std::atoi(argv[i + 1]);
    setenv("QUAVIX_BACKEND", "jack", 1);
    Receiver recv;
    if (!recv.Ok()) {
        std::fprintf(stderr, "jack_timing: no JACK server (set JACK_DEFAULT_SERVER)\n");
        return 1;
    }
    std::printf("JACK: %u Hz, %u frames a period (%.2f ms)\n", recv.Rate(), recv.Period(),
                recv.Period() * 1000.0 / recv.Rate());
    const std::vector<DWORD> times = Schedule(seconds);

    // The baseline: RtMidi's JACK output, sent by a sleeping thread at each due time.
    RtMidiOut base(RtMidi::UNIX_JACK, "qxbaseline");
    base.openVirtualPort("out");
    jack_client_t* link = jack_client_open("qxlink", JackNoStartServer, nullptr);
    const char** ports = jack_get_ports(link, "qxbaseline", JACK_DEFAULT_MIDI_TYPE, JackPortIsOutput);
    if (ports != nullptr && ports[0] != nullptr) jack_connect(link, ports[0], "qxbench:base");
    if (ports != nullptr) jack_free(ports);

    CQuavix* q = CQuavix::InitQuavix();
    q->Initialize(QX_INIT_MIDI);
    Song song;
    song.times = times;
    song.output = -1;
    for (int n = 0; n < q->GetDeviceCount(QX_DEVTYPE_MIDI, QX_DEVDIR_OUT); ++n) {
        QX_DevCaps caps;
        if (q->GetDeviceCaps(QX_DEVTYPE_MIDI, QX_DEVDIR_OUT, n, &caps) &&
            std::strcmp(caps.midiOut.szPname, "qxbench:ours") == 0)
            song.output = n;
    }
    if (song.output < 0) {
        std::fprintf(stderr, "jack_timing: the receiving port is not a device\n");
        return 1;
    }
    q->EnableDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_IN, QX_ALL_DEVICES, 0);
    q->EnableDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_OUT, QX_ALL_DEVICES, 0);
    q->EnableDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_OUT, song.output, 1);
    q->StartPerformance(Song::Proc, reinterpret_cast<DWORD_PTR>(&song), 1, 0);
    q->OpenDevices();

    const auto origin = std::chrono::steady_clock::now();
    std::thread baseline([&] {
        std::vector<unsigned char> msg(3);
        for (size_t i = 0; i < times.size(); ++i) {
            std::this_thread::sleep_until(origin + std::chrono::milliseconds(times[i]));
            msg = {0x90, static_cast<unsigned char>(i % 64 + 32), 0x40};
            base.sendMessage(&msg);
        }
    });
    q->StartDevices();
    baseline.join();
    while (q->IsActive()) std::this_thread::sleep_for(std::chrono::milliseconds(50));
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    q->CloseDevices();
    CQuavix::ExitQuavix();
    jack_client_close(link);

    Report("quavix stream output", recv.Frames(0), times, recv.Rate());
    Report("RtMidi JACK, sleeping thread", recv.Frames(1), times, recv.Rate());
    return 0;
}
