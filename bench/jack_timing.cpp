// One JACK server, one performance played two ways, several rounds: through the library's
// stream output, and through RtMidi's JACK API by a thread that sleeps until each message
// is due and sends it. A receiving JACK client notes the frame of every event. Each event
// carries its index, so an event that never arrives is counted as lost, not paired with
// its neighbour. A path's error is each event's offset from its intended time, less the
// median offset of the path in that round: a constant latency (or one odd first event)
// is not error, jitter is.
//
//   JACK_DEFAULT_SERVER=... jack_timing [--seconds N] [--rounds R]
#include <quavix/Quavix.h>

#include <jack/jack.h>
#include <jack/midiport.h>
#include <rtmidi/RtMidi.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <thread>
#include <vector>

namespace {

constexpr int kPaths = 2; // 0: ours, 1: RtMidi
const char* const kPathNames[kPaths] = {"quavix stream output", "RtMidi JACK, sleeping thread"};

struct Arrival {
    jack_nframes_t frame;
    uint32_t index; // from the message's two data bytes
};

// One client per round, so that a round's counts start from nothing without touching
// storage the process callback writes.
class Receiver {
public:
    Receiver()
    {
        for (auto& a : m_arrivals) a.resize(1 << 16);
        m_client = jack_client_open("qxbench", JackNoStartServer, nullptr);
        if (m_client == nullptr) return;
        m_ports[0] = jack_port_register(m_client, "ours", JACK_DEFAULT_MIDI_TYPE, JackPortIsInput, 0);
        m_ports[1] = jack_port_register(m_client, "base", JACK_DEFAULT_MIDI_TYPE, JackPortIsInput, 0);
        jack_set_process_callback(m_client, Process, this);
        jack_set_xrun_callback(m_client, [](void* a) { static_cast<Receiver*>(a)->m_xruns.fetch_add(1); return 0; }, this);
        if (m_ports[0] == nullptr || m_ports[1] == nullptr || jack_activate(m_client) != 0) {
            jack_client_close(m_client);
            m_client = nullptr;
        }
    }
    ~Receiver()
    {
        if (m_client != nullptr) jack_client_close(m_client);
    }
    bool Ok() const { return m_client != nullptr; }
    jack_nframes_t Rate() const { return jack_get_sample_rate(m_client); }
    jack_nframes_t Period() const { return jack_get_buffer_size(m_client); }
    int Xruns() const { return m_xruns.load(); }
    std::vector<Arrival> Take(int which) const
    {
        const auto n = static_cast<long>(m_count[which].load(std::memory_order_acquire));
        return std::vector<Arrival>(m_arrivals[which].begin(), m_arrivals[which].begin() + n);
    }

private:
    static int Process(jack_nframes_t nframes, void* arg)
    {
        auto* self = static_cast<Receiver*>(arg);
        const jack_nframes_t start = jack_last_frame_time(self->m_client);
        for (int w = 0; w < kPaths; ++w) {
            void* buf = jack_port_get_buffer(self->m_ports[w], nframes);
            for (jack_nframes_t i = 0; i < jack_midi_get_event_count(buf); ++i) {
                jack_midi_event_t ev;
                if (jack_midi_event_get(&ev, buf, i) != 0 || ev.size != 3) continue;
                const size_t n = self->m_count[w].load(std::memory_order_relaxed);
                if (n >= self->m_arrivals[w].size()) continue;
                self->m_arrivals[w][n] = {start + ev.time, ev.buffer[1] | (static_cast<uint32_t>(ev.buffer[2] - 1) << 7)};
                self->m_count[w].store(n + 1, std::memory_order_release);
            }
        }
        return 0;
    }
    jack_client_t* m_client = nullptr;
    jack_port_t* m_ports[kPaths] = {nullptr, nullptr};
    std::vector<Arrival> m_arrivals[kPaths];
    std::atomic<size_t> m_count[kPaths]{};
    std::atomic<int> m_xruns{0};
};

// Note on with the event's index in key (low 7 bits) and velocity (high bits, plus one so
// that no message is a note off).
std::vector<unsigned char> Message(size_t i)
{
    return {0x90, static_cast<unsigned char>(i & 0x7F), static_cast<unsigned char>(1 + ((i >> 7) % 127))};
}

// One note every 20 to 26 ms, so that events fall anywhere in a period.
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
            const auto m = Message(s->next);
            auto* e = new CQXEventData;
            e->SetMidiData(m[0] | (DWORD{m[1]} << 8) | (DWORD{m[2]} << 16));
            e->SetTimeStamp(s->times[s->next]);
            e->SetDevice(s->output);
            list.AddTail(e);
        }
        CQuavix::GetQuavix()->PlayBuffer(list);
        return s->next < s->times.size() ? 1 : 0;
    }
};

struct PathResult {
    std::vector<double> absErrUs; // |offset - median offset|
    size_t planned = 0, lost = 0, extra = 0;
    size_t worst = 0; // index of the event furthest off
};

double Quantile(const std::vector<double>& sorted, double p)
{
    if (sorted.empty()) return 0;
    return sorted[std::min(sorted.size() - 1, static_cast<size_t>(p * static_cast<double>(sorted.size() - 1) + 0.5))];
}

// Frames are unwrapped against the first arrival (they count on modulo 2^32).
PathResult Measure(const std::vector<Arrival>& arrivals, const std::vector<DWORD>& times, double rate)
{
    PathResult r;
    r.planned = times.size();
    std::vector<int> seen(times.size(), 0);
    std::vector<std::pair<size_t, double>> offsets; // index, offset in us
    for (const Arrival& a : arrivals) {
        if (a.index >= times.size() || seen[a.index]++ != 0) {
            ++r.extra;
            continue;
        }
        const double got = static_cast<int32_t>(a.frame - arrivals.front().frame) * 1e6 / rate;
        offsets.push_back({a.index, got - times[a.index] * 1000.0});
    }
    r.lost = static_cast<size_t>(std::count(seen.begin(), seen.end(), 0));
    if (offsets.empty()) return r;
    std::vector<double> sorted;
    for (auto& o : offsets) sorted.push_back(o.second);
    std::sort(sorted.begin(), sorted.end());
    const double median = Quantile(sorted, 0.5);
    double worst = -1;
    for (auto& o : offsets) {
        // Rounded to a nanosecond: frames and milliseconds do not divide exactly in binary.
        const double e = std::round(std::fabs(o.second - median) * 1000.0) / 1000.0;
        r.absErrUs.push_back(e);
        if (e > worst) {
            worst = e;
            r.worst = o.first;
        }
    }
    std::sort(r.absErrUs.begin(), r.absErrUs.end());
    return r;
}

void Print(const char* what, const PathResult& r)
{
    const auto& v = r.absErrUs;
    std::printf("  %-30s n=%zu lost=%zu", what, v.size(), r.lost);
    if (r.extra != 0) std::printf(" extra=%zu", r.extra);
    if (!v.empty())
        std::printf(" |error| median=%.1f us p99=%.1f us max=%.1f us (event #%zu)", Quantile(v, 0.5), Quantile(v, 0.99),
                    v.back(), r.worst);
    std::printf("\n");
}

// A round: both paths play the same schedule at the same time into the receiver.
bool Round(int seconds, PathResult out[kPaths], int& xruns)
{
    auto recv = std::make_unique<Receiver>();
    if (!recv->Ok()) {
        std::fprintf(stderr, "jack_timing: no JACK server (set JACK_DEFAULT_SERVER)\n");
        return false;
    }
    const std::vector<DWORD> times = Schedule(seconds);

    auto base = std::make_unique<RtMidiOut>(RtMidi::UNIX_JACK, "qxbaseline");
    base->openVirtualPort("out");
    jack_client_t* link = jack_client_open("qxlink", JackNoStartServer, nullptr);
    if (link != nullptr) {
        const char** ports = jack_get_ports(link, "qxbaseline", JACK_DEFAULT_MIDI_TYPE, JackPortIsOutput);
        if (ports != nullptr && ports[0] != nullptr) jack_connect(link, ports[0], "qxbench:base");
        if (ports != nullptr) jack_free(ports);
        jack_client_close(link);
    }

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
        CQuavix::ExitQuavix();
        return false;
    }
    q->EnableDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_IN, QX_ALL_DEVICES, 0);
    q->EnableDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_OUT, QX_ALL_DEVICES, 0);
    q->EnableDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_OUT, song.output, 1);
    q->StartPerformance(Song::Proc, reinterpret_cast<DWORD_PTR>(&song), 1, 0);
    q->OpenDevices();

    // Connecting clients costs xruns of its own; those before the first event do not count.
    const int xrunsBefore = recv->Xruns();
    const auto origin = std::chrono::steady_clock::now();
    std::thread baseline([&] {
        for (size_t i = 0; i < times.size(); ++i) {
            std::this_thread::sleep_until(origin + std::chrono::milliseconds(times[i]));
            auto msg = Message(i);
            base->sendMessage(&msg);
        }
    });
    q->StartDevices();
    baseline.join();
    // Generous: the performance ends with its last event; a stalled one is reported lost.
    for (int i = 0; i < 200 && q->IsActive(); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(50));
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    xruns = recv->Xruns() - xrunsBefore;
    q->CloseDevices();
    CQuavix::ExitQuavix();
    base.reset();

    for (int w = 0; w < kPaths; ++w) out[w] = Measure(recv->Take(w), times, recv->Rate());
    return true;
}

void Ratio(const char* what, double ours, double base)
{
    if (ours > 0.05) std::printf("  %-8s %9.1f us %9.1f us   %6.1fx\n", what, ours, base, base / ours);
    else std::printf("  %-8s %9.1f us %9.1f us   (ours exact)\n", what, ours, base);
}

void Add(PathResult& sum, const PathResult& r)
{
    sum.absErrUs.insert(sum.absErrUs.end(), r.absErrUs.begin(), r.absErrUs.end());
    sum.planned += r.planned;
    sum.lost += r.lost;
    sum.extra += r.extra;
}

void Summary(PathResult (&sum)[kPaths])
{
    for (auto& a : sum) std::sort(a.absErrUs.begin(), a.absErrUs.end());
    std::printf("  %-8s %12s %12s   %s\n", "", "quavix", "RtMidi", "RtMidi/quavix");
    Ratio("median", Quantile(sum[0].absErrUs, 0.5), Quantile(sum[1].absErrUs, 0.5));
    Ratio("p99", Quantile(sum[0].absErrUs, 0.99), Quantile(sum[1].absErrUs, 0.99));
    Ratio("max", sum[0].absErrUs.empty() ? 0 : sum[0].absErrUs.back(), sum[1].absErrUs.empty() ? 0 : sum[1].absErrUs.back());
    std::printf("  %-8s %9zu/%zu %9zu/%zu\n", "lost", sum[0].lost, sum[0].planned, sum[1].lost, sum[1].planned);
}

} // namespace

int main(int argc, char** argv)
{
    int seconds = 10, rounds = 5;
    for (int i = 1; i + 1 < argc; i += 2) {
        if (std::strcmp(argv[i], "--seconds") == 0) seconds = std::max(1, std::atoi(argv[i + 1]));
        if (std::strcmp(argv[i], "--rounds") == 0) rounds = std::max(1, std::atoi(argv[i + 1]));
    }
    setenv("QUAVIX_BACKEND", "jack", 1);
    {
        Receiver probe;
        if (!probe.Ok()) {
            std::fprintf(stderr, "jack_timing: no JACK server (set JACK_DEFAULT_SERVER)\n");
            return 1;
        }
        std::printf("JACK: %u Hz, %u frames a period (%.2f ms); one frame = %.1f us; %d rounds of %d s\n",
                    probe.Rate(), probe.Period(), probe.Period() * 1000.0 / probe.Rate(), 1e6 / probe.Rate(), rounds,
                    seconds);
    }

    // An xrun moves the frame clock against the wall clock for the rest of a round, which
    // no sender can follow; such rounds are shown, and summed apart from the clean ones.
    PathResult clean[kPaths], all[kPaths];
    int nClean = 0, allXruns = 0;
    for (int r = 1; r <= rounds; ++r) {
        PathResult res[kPaths];
        int xruns = 0;
        if (!Round(seconds, res, xruns)) return 1;
        std::printf("round %d (xruns while it played: %d)\n", r, xruns);
        allXruns += xruns;
        nClean += xruns == 0 ? 1 : 0;
        for (int w = 0; w < kPaths; ++w) {
            Print(kPathNames[w], res[w]);
            Add(all[w], res[w]);
            if (xruns == 0) Add(clean[w], res[w]);
        }
    }
    if (nClean > 0) {
        std::printf("%d clean rounds of %d, |error| against each round's median offset:\n", nClean, rounds);
        Summary(clean);
    }
    if (nClean < rounds) {
        std::printf("all %d rounds (%d xruns), |error| against each round's median offset:\n", rounds, allXruns);
        Summary(all);
    }
    return 0;
}
