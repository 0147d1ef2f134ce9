// MIDI against wave events of one performance on JACK: every 200 to 300 ms a note-on and
// a wave click stamped with the same performance time. A receiving JACK client, its MIDI
// input on our MIDI output and its audio input on our out_1, notes the note's frame and
// the click's first frame; offset = click - note, over all pairs.
//
//   JACK_DEFAULT_SERVER=... av_sync [PAIRS]     (default 100)
//
// Target: |median| within one period, p99 of |offset| within one period plus 1 ms.
#include <quavix/Quavix.h>

#include "platform/backends/jack/QXJack.h"

#include "BenchStats.h"

#include <jack/jack.h>
#include <jack/midiport.h>

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr size_t kMaxMarks = 4096;

// Process callback: fixed arrays and atomics only.
class Receiver {
public:
    Receiver()
    {
        m_client = jack_client_open("qxavsync", JackNoStartServer, nullptr);
        if (m_client == nullptr) return;
        m_midi = jack_port_register(m_client, "midi", JACK_DEFAULT_MIDI_TYPE, JackPortIsInput, 0);
        m_audio = jack_port_register(m_client, "audio", JACK_DEFAULT_AUDIO_TYPE, JackPortIsInput, 0);
        jack_set_process_callback(m_client, Process, this);
        jack_set_xrun_callback(
            m_client, [](void* a) { return static_cast<Receiver*>(a)->m_xruns.fetch_add(1), 0; }, this);
        if (m_midi == nullptr || m_audio == nullptr || jack_activate(m_client) != 0) {
            jack_client_close(m_client);
            m_client = nullptr;
        }
    }
    ~Receiver()
    {
        if (m_client != nullptr) jack_client_close(m_client);
    }
    Receiver(const Receiver&) = delete;
    Receiver& operator=(const Receiver&) = delete;

    bool Ok() const { return m_client != nullptr; }
    jack_nframes_t Rate() const { return jack_get_sample_rate(m_client); }
    jack_nframes_t Period() const { return jack_get_buffer_size(m_client); }
    int Xruns() const { return m_xruns.load(); }
    bool ConnectAudio(const std::string& from)
    {
        return jack_connect(m_client, from.c_str(), jack_port_name(m_audio)) == 0;
    }
    std::vector<jack_nframes_t> Notes() const { return Take(m_notes, m_nNotes); }
    std::vector<jack_nframes_t> Clicks() const { return Take(m_clicks, m_nClicks); }

private:
    static std::vector<jack_nframes_t> Take(const jack_nframes_t (&a)[kMaxMarks], const std::atomic<size_t>& n)
    {
        return std::vector<jack_nframes_t>(a, a + n.load(std::memory_order_acquire));
    }
    static void Mark(jack_nframes_t (&a)[kMaxMarks], std::atomic<size_t>& n, jack_nframes_t frame)
    {
        const size_t i = n.load(std::memory_order_relaxed);
        if (i >= kMaxMarks) return;
        a[i] = frame;
        n.store(i + 1, std::memory_order_release);
    }
    // Our output's buffer comes over through JACK's own semaphores, unseen by ThreadSanitizer.
    __attribute__((no_sanitize("thread"))) static int Process(jack_nframes_t nframes, void* arg)
    {
        auto* self = static_cast<Receiver*>(arg);
        const jack_nframes_t start = jack_last_frame_time(self->m_client);
        void* mb = jack_port_get_buffer(self->m_midi, nframes);
        for (jack_nframes_t i = 0; i < jack_midi_get_event_count(mb); ++i) {
            jack_midi_event_t ev;
            if (jack_midi_event_get(&ev, mb, i) != 0 || ev.size != 3) continue;
            if ((ev.buffer[0] & 0xF0) == 0x90 && ev.buffer[2] != 0) Mark(self->m_notes, self->m_nNotes, start + ev.time);
        }
        // A click is the first loud frame after at least 50 ms of quiet.
        const auto* in = static_cast<const float*>(jack_port_get_buffer(self->m_audio, nframes));
        const jack_nframes_t gap = jack_get_sample_rate(self->m_client) / 20;
        for (jack_nframes_t i = 0; i < nframes; ++i) {
            if (std::fabs(in[i]) < 0.1f) continue;
            const jack_nframes_t f = start + i;
            if (!self->m_heard || static_cast<int32_t>(f - self->m_lastLoud) > static_cast<int32_t>(gap))
                Mark(self->m_clicks, self->m_nClicks, f);
            self->m_heard = true;
            self->m_lastLoud = f;
        }
        return 0;
    }

    jack_client_t* m_client = nullptr;
    jack_port_t* m_midi = nullptr;
    jack_port_t* m_audio = nullptr;
    jack_nframes_t m_notes[kMaxMarks] = {};
    jack_nframes_t m_clicks[kMaxMarks] = {};
    std::atomic<size_t> m_nNotes{0}, m_nClicks{0};
    bool m_heard = false;
    jack_nframes_t m_lastLoud = 0;
    std::atomic<int> m_xruns{0};
};

// 2 ms of a full-scale 2 kHz square, mono 16-bit, loud from its first frame.
bool WriteClick(const std::string& path, uint32_t rate)
{
    const uint32_t frames = rate / 500, bytes = frames * 2, riff = 36 + bytes, fmtSize = 16, byteRate = rate * 2;
    const uint16_t pcm = 1, channels = 1, align = 2, bits = 16;
    std::FILE* f = std::fopen(path.c_str(), "wb");
    if (f == nullptr) return false;
    std::fwrite("RIFF", 1, 4, f);
    std::fwrite(&riff, 4, 1, f);
    std::fwrite("WAVEfmt ", 1, 8, f);
    std::fwrite(&fmtSize, 4, 1, f);
    std::fwrite(&pcm, 2, 1, f);
    std::fwrite(&channels, 2, 1, f);
    std::fwrite(&rate, 4, 1, f);
    std::fwrite(&byteRate, 4, 1, f);
    std::fwrite(&align, 2, 1, f);
    std::fwrite(&bits, 2, 1, f);
    std::fwrite("data", 1, 4, f);
    std::fwrite(&bytes, 4, 1, f);
    const uint32_t half = std::max<uint32_t>(1, rate / 4000);
    for (uint32_t i = 0; i < frames; ++i) {
        const int16_t s = (i / half) % 2 == 0 ? 32767 : -32767;
        std::fwrite(&s, 2, 1, f);
    }
    return std::fclose(f) == 0;
}

struct Show {
    std::vector<DWORD> times;
    std::string click;
    int midiOut = -1;
    size_t next = 0;

    static int Proc(DWORD_PTR user, int tag, DWORD, DWORD end)
    {
        auto* s = reinterpret_cast<Show*>(user);
        if (tag < 0) return 1;
        CQXEventList list;
        for (; s->next < s->times.size() && s->times[s->next] < end; ++s->next) {
            auto* params = new QX_WaveParams{};
            params->nPerformance = tag;
            params->nTrack = 1 + static_cast<int>(s->next % 4);
            params->dsParams.lpszFileName = s->click.c_str();
            auto* wave = new CQXEventData;
            wave->SetWaveData(params);
            wave->SetTimeStamp(s->times[s->next]);
            wave->SetDevice(0);
            list.AddTail(wave);
            auto* on = new CQXEventData;
            on->SetMidiData(0x90 | (DWORD{60} << 8) | (DWORD{100} << 16));
            on->SetTimeStamp(s->times[s->next]);
            on->SetDevice(s->midiOut);
            list.AddTail(on);
        }
        CQuavix::GetQuavix()->PlayBuffer(list);
        // Runs on past the last event so that its player is not ended with the performance.
        return 1;
    }
};

double Quantile(const std::vector<double>& sorted, double p)
{
    return sorted[std::min(sorted.size() - 1, static_cast<size_t>(p * static_cast<double>(sorted.size() - 1) + 0.5))];
}

} // namespace

int main(int argc, char** argv)
{
    const int pairs = argc > 1 ? std::max(1, std::atoi(argv[1])) : 100;
    setenv("QUAVIX_BACKEND", "jack", 1);
    Receiver recv;
    if (!recv.Ok()) {
        std::fprintf(stderr, "av_sync: no JACK server answers (JACK_DEFAULT_SERVER)\n");
        return 1;
    }
    const jack_nframes_t rate = recv.Rate(), period = recv.Period();

    Show show;
    show.click = "/tmp/quavix-avsync-click-" + std::to_string(getpid()) + ".wav";
    if (!WriteClick(show.click, rate)) {
        std::fprintf(stderr, "av_sync: cannot write %s\n", show.click.c_str());
        return 1;
    }
    // Steps of 200 to 300 ms that do not divide the period: events fall anywhere in a cycle.
    for (DWORD t = 500, i = 0; i < static_cast<DWORD>(pairs); ++i, t += 200 + (i * 37) % 101) show.times.push_back(t);

    CQuavix* q = CQuavix::InitQuavix();
    q->Initialize(QX_INIT_MIDI | QX_INIT_WAVE);
    for (int n = 0; n < q->GetDeviceCount(QX_DEVTYPE_MIDI, QX_DEVDIR_OUT); ++n) {
        QX_DevCaps caps;
        if (q->GetDeviceCaps(QX_DEVTYPE_MIDI, QX_DEVDIR_OUT, n, &caps) &&
            std::strcmp(caps.midiOut.szPname, "qxavsync:midi") == 0)
            show.midiOut = n;
    }
    int status = 1;
    if (show.midiOut < 0 || q->GetDeviceCount(QX_DEVTYPE_WAVE, QX_DEVDIR_OUT) < 1) {
        std::fprintf(stderr, "av_sync: the receiving MIDI port or the wave output is not a device\n");
    } else {
        q->EnableDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_IN, QX_ALL_DEVICES, 0);
        q->EnableDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_OUT, QX_ALL_DEVICES, 0);
        q->EnableDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_OUT, show.midiOut, 1);
        q->EnableDevice(QX_DEVTYPE_WAVE, QX_DEVDIR_OUT, QX_ALL_DEVICES, 0);
        q->EnableDevice(QX_DEVTYPE_WAVE, QX_DEVDIR_OUT, 0, 1);
        const int tag = q->StartPerformance(Show::Proc, reinterpret_cast<DWORD_PTR>(&show), 1, 0);
        Show::Proc(reinterpret_cast<DWORD_PTR>(&show), tag, 0, q->GetPerformanceLatency());
        q->OpenDevices();
        if (!recv.ConnectAudio(qxplat::JackClientName() + ":out_1")) {
            std::fprintf(stderr, "av_sync: cannot connect to %s:out_1\n", qxplat::JackClientName().c_str());
        } else {
            std::this_thread::sleep_for(std::chrono::milliseconds(200)); // the connection holds
            const int xrunsBefore = recv.Xruns();
            q->StartDevices();
            const DWORD last = show.times.back() + 500;
            for (int i = 0; i < 2000 && q->GetElapsedPlayTime() < last; ++i)
                std::this_thread::sleep_for(std::chrono::milliseconds(50));
            const int xruns = recv.Xruns() - xrunsBefore;
            q->StopPerformance(tag);
            q->CloseDevices();

            const std::vector<jack_nframes_t> notes = recv.Notes(), clicks = recv.Clicks();
            std::vector<double> frames, us;
            size_t unpaired = 0;
            const auto window = static_cast<int32_t>(rate / 10);
            for (jack_nframes_t n : notes) {
                bool found = false;
                for (jack_nframes_t c : clicks) {
                    const auto d = static_cast<int32_t>(c - n); // frame times wrap
                    if (d > -window && d < window) {
                        frames.push_back(d);
                        us.push_back(d * 1e6 / rate);
                        found = true;
                        break;
                    }
                }
                unpaired += found ? 0 : 1;
            }
            std::printf("server: %u Hz, period %u frames (%.2f ms)\n", rate, period, period * 1000.0 / rate);
            std::printf("events %d, notes heard %zu, clicks heard %zu, pairs %zu, notes without a click %zu, xruns %d\n",
                        pairs, notes.size(), clicks.size(), frames.size(), unpaired, xruns);
            if (!frames.empty()) {
                PrintStats("offset click - note", us);
                std::vector<double> f = frames, a;
                std::sort(f.begin(), f.end());
                for (double v : f) a.push_back(std::fabs(v));
                std::sort(a.begin(), a.end());
                std::printf("in frames: min=%.0f p1=%.0f p10=%.0f median=%.0f p90=%.0f p99=%.0f max=%.0f; |offset| "
                            "p99=%.0f max=%.0f\n",
                            f.front(), Quantile(f, 0.01), Quantile(f, 0.1), Quantile(f, 0.5), Quantile(f, 0.9),
                            Quantile(f, 0.99), f.back(), Quantile(a, 0.99), a.back());
                const double limit99 = period + rate / 1000.0;
                const bool medianOk = std::fabs(Quantile(f, 0.5)) <= period, p99Ok = Quantile(a, 0.99) <= limit99;
                std::printf("target: |median| <= one period (%u frames): %s; p99 |offset| <= one period + 1 ms (%.0f "
                            "frames): %s\n",
                            period, medianOk ? "met" : "MISSED", limit99, p99Ok ? "met" : "MISSED");
                status = unpaired == 0 && static_cast<int>(frames.size()) == pairs ? 0 : 1;
            }
        }
    }
    CQuavix::ExitQuavix();
    std::remove(show.click.c_str());
    return status;
}
