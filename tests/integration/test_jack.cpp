// The library against a real JACK server and the clients that ship with jackd2.
#include <quavix/Quavix.h>

#include "harness.h"
#include "jack_clients.h"
#include "platform/QXPlatform.h"

#include <gtest/gtest.h>
#include <jack/jack.h>
#include <jack/midiport.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

namespace {

using harness::Child;
using harness::Slurp;

// Index of the device whose name is exactly port, or -1; waits for the port to appear.
int FindDevice(CQuavix* q, int dir, const std::string& port)
{
    for (int n = 0; n < q->GetDeviceCount(QX_DEVTYPE_MIDI, dir); ++n) {
        QX_DevCaps caps;
        if (q->GetDeviceCaps(QX_DEVTYPE_MIDI, dir, n, &caps) &&
            port.compare(0, MAXPNAMELEN - 1, dir == QX_DEVDIR_IN ? caps.midiIn.szPname : caps.midiOut.szPname) == 0)
            return n;
    }
    return -1;
}

// A short message's three bytes as jack_midi_dump prints them.
std::string Hex(DWORD msg)
{
    char s[8];
    std::snprintf(s, sizeof s, "%02x%02x%02x", msg & 0xFF, (msg >> 8) & 0xFF, (msg >> 16) & 0xFF);
    return s;
}

bool WaitForPort(const char* name)
{
    return jackclients::Probe().WaitExists(name);
}

// A receiving client of the test's own, for what jack_midi_dump does not show exactly.
// It listens to the messages a client sends, or ours (port 0), and to our thru's replies
// (port 1); JACK lets an output feed several inputs. It notes every event with its
// absolute frame, size, first bytes and last byte, and each time a cycle starts at a JACK time before one it has
// already handed out (for an earlier cycle or for a message sent): the clock stepping
// back, as it does in the cycles after a late wake-up.
class Watch {
public:
    struct Event {
        int port;
        jack_nframes_t frame;
        size_t size;
        unsigned char bytes[3], last;
    };
    Watch()
    {
        m_events.resize(1 << 16);
        m_client = jack_client_open("qxwatch", JackNoStartServer, nullptr);
        if (m_client == nullptr) return;
        m_ports[0] = jack_port_register(m_client, "sent", JACK_DEFAULT_MIDI_TYPE, JackPortIsInput, 0);
        m_ports[1] = jack_port_register(m_client, "thru", JACK_DEFAULT_MIDI_TYPE, JackPortIsInput, 0);
        jack_set_process_callback(m_client, Process, this);
        jack_set_xrun_callback(m_client, [](void* a) { static_cast<Watch*>(a)->m_xruns.fetch_add(1); return 0; }, this);
        if (m_ports[0] == nullptr || m_ports[1] == nullptr || jack_activate(m_client) != 0) {
            jack_client_close(m_client);
            m_client = nullptr;
        }
    }
    ~Watch()
    {
        if (m_client != nullptr) jack_client_close(m_client);
    }
    bool Connect(const std::string& from, int port)
    {
        return m_client != nullptr && jack_connect(m_client, from.c_str(), jack_port_name(m_ports[port])) == 0;
    }
    std::vector<Event> Take() const
    {
        return std::vector<Event>(m_events.begin(), m_events.begin() + static_cast<long>(m_count.load()));
    }
    int Xruns() const { return m_xruns.load(); }
    int Backs() const { return m_backs.load(); }
    int64_t MaxBackUs() const { return m_maxBackUs.load(); }
    jack_client_t* Client() const { return m_client; }

private:
    static int Process(jack_nframes_t nframes, void* arg)
    {
        auto* self = static_cast<Watch*>(arg);
        const jack_nframes_t start = jack_last_frame_time(self->m_client);
        const auto startUs = static_cast<int64_t>(jack_frames_to_time(self->m_client, start));
        if (startUs < self->m_latestUs) {
            self->m_backs.fetch_add(1);
            self->m_maxBackUs.store(std::max(self->m_maxBackUs.load(), self->m_latestUs - startUs));
        }
        self->m_latestUs = std::max(self->m_latestUs, startUs);
        for (int p = 0; p < 2; ++p) {
            void* buf = jack_port_get_buffer(self->m_ports[p], nframes);
            for (jack_nframes_t i = 0; i < jack_midi_get_event_count(buf); ++i) {
                jack_midi_event_t ev;
                if (jack_midi_event_get(&ev, buf, i) != 0) continue;
                const size_t n = self->m_count.load();
                if (n >= self->m_events.size()) return 0;
                Event& e = self->m_events[n];
                e.port = p;
                e.frame = start + ev.time;
                e.size = ev.size;
                for (size_t k = 0; k < 3; ++k) e.bytes[k] = k < ev.size ? ev.buffer[k] : 0;
                e.last = ev.buffer[ev.size - 1];
                if (p == 0)
                    self->m_latestUs =
                        std::max(self->m_latestUs, static_cast<int64_t>(jack_frames_to_time(self->m_client, e.frame)));
                self->m_count.store(n + 1);
            }
        }
        return 0;
    }
    jack_client_t* m_client = nullptr;
    jack_port_t* m_ports[2] = {nullptr, nullptr};
    std::vector<Event> m_events;
    std::atomic<size_t> m_count{0};
    std::atomic<int> m_xruns{0};
    int64_t m_latestUs = 0; // process callback only
    std::atomic<int> m_backs{0};
    std::atomic<int64_t> m_maxBackUs{0};
};

// A source that sends nothing, for an input to be opened on.
class Silent {
public:
    Silent()
    {
        m_client = jack_client_open("qxsilent", JackNoStartServer, nullptr);
        if (m_client == nullptr) return;
        m_port = jack_port_register(m_client, "out", JACK_DEFAULT_MIDI_TYPE, JackPortIsOutput, 0);
        jack_set_process_callback(
            m_client,
            [](jack_nframes_t n, void* a) {
                jack_midi_clear_buffer(jack_port_get_buffer(static_cast<Silent*>(a)->m_port, n));
                return 0;
            },
            this);
        if (m_port == nullptr || jack_activate(m_client) != 0) {
            jack_client_close(m_client);
            m_client = nullptr;
        }
    }
    ~Silent()
    {
        if (m_client != nullptr) jack_client_close(m_client);
    }
    jack_client_t* Client() const { return m_client; }

private:
    jack_client_t* m_client = nullptr;
    jack_port_t* m_port = nullptr;
};

struct Score {
    std::vector<std::pair<DWORD, DWORD>> notes; // time, message
    int output = 0;
    size_t next = 0;
    static int Proc(DWORD_PTR user, int tag, DWORD start, DWORD end)
    {
        auto* s = reinterpret_cast<Score*>(user);
        if (tag < 0) return 1;
        CQXEventList list;
        while (s->next < s->notes.size() && s->notes[s->next].first < end) {
            auto* e = new CQXEventData;
            e->SetMidiData(s->notes[s->next].second);
            e->SetTimeStamp(std::max(s->notes[s->next].first, start));
            e->SetDevice(s->output);
            list.AddTail(e);
            ++s->next;
        }
        CQuavix::GetQuavix()->PlayBuffer(list);
        return s->next < s->notes.size() ? 1 : 0;
    }
};

class JackTest : public ::testing::Test {
protected:
    void TearDown() override { CQuavix::ExitQuavix(); }
    CQuavix* Manager()
    {
        CQuavix* q = CQuavix::InitQuavix();
        q->Initialize(QX_INIT_MIDI);
        return q;
    }
};

} // namespace

TEST_F(JackTest, PerformanceReachesJackMidiDumpInOrderAtItsFrames)
{
    const harness::TempFile file("dump.txt");
    Child dump({"jack_midi_dump", "-a", "qxdump"}, file);
    ASSERT_TRUE(WaitForPort("qxdump:input"));
    CQuavix* q = Manager();
    int out = FindDevice(q, QX_DEVDIR_OUT, "qxdump:input");
    ASSERT_GE(out, 0) << "jack_midi_dump's port is a MIDI output device";
    Score score;
    score.output = out;
    // Uneven times, chords of equal times, both spread over several periods.
    for (DWORD i = 0; i < 40; ++i) score.notes.push_back({300 + i * 37 + (i % 3) * 11, 0x00400090u | ((48 + i) << 8)});
    score.notes.push_back({score.notes.back().first + 5, 0x00000080u | (48u << 8)});
    q->StartPerformance(Score::Proc, reinterpret_cast<DWORD_PTR>(&score), 1, 0);
    q->EnableDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_OUT, QX_ALL_DEVICES, 0);
    q->EnableDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_IN, QX_ALL_DEVICES, 0);
    q->EnableDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_OUT, out, 1);
    EXPECT_EQ(q->OpenDevices(), 1); // queues the first periods: the engine's clock
    jackclients::Probe watch;
    const int xrunsBefore = watch.Xruns();
    q->StartDevices();
    for (int i = 0; i < 100 && q->IsActive(); ++i) Sleep(50);
    Sleep(500);
    q->CloseDevices();
    dump.Stop();
    // An xrun costs the frame clock the time the server fell behind (our output follows
    // the wall clock across it), and a late client may miss a cycle's events.
    const bool xruns = watch.Xruns() != xrunsBefore;

    std::regex line(R"(^\s*(\d+): ([0-9a-f]{2}) ([0-9a-f]{2}) ([0-9a-f]{2}))");
    std::vector<std::pair<long, std::string>> got;
    std::istringstream in(Slurp(file));
    for (std::string l; std::getline(in, l);) {
        std::smatch m;
        if (std::regex_search(l, m, line)) got.push_back({std::stol(m[1]), m[2].str() + m[3].str() + m[4].str()});
    }
    if (xruns) {
        std::printf("xruns while it played: order and bytes checked, not frames\n");
        size_t k = 0; // what arrived is the score in order, with gaps and repeats at most
        std::string last;
        for (auto& g : got) {
            if (g.second == last) continue; // a late client may read one cycle's buffer twice
            last = g.second;
            while (k < score.notes.size() && g.second != Hex(score.notes[k].second)) ++k;
            ASSERT_LT(k++, score.notes.size()) << g.second << " out of order or not sent";
        }
        EXPECT_GE(got.size(), score.notes.size() / 2);
        return;
    }
    ASSERT_EQ(got.size(), score.notes.size()) << "every event arrives";
    for (size_t i = 0; i < got.size(); ++i) {
        EXPECT_EQ(got[i].second, Hex(score.notes[i].second)) << i;
        // 48 frames a millisecond; within one frame of the intended distance from the first.
        const long intended = static_cast<long>(score.notes[i].first - score.notes[0].first) * 48;
        EXPECT_NEAR(static_cast<double>(got[i].first - got[0].first), static_cast<double>(intended), 1.0) << i;
    }
}

TEST_F(JackTest, WhatJackMidiseqSendsIsRecordedWithItsSpacing)
{
    // A 500 ms loop: note 60 at 0 for 8000 frames, note 63 at 12000 (250 ms) for 8000.
    Child seq({"jack_midiseq", "qxseq", "24000", "0", "60", "8000", "12000", "63", "8000"});
    ASSERT_TRUE(WaitForPort("qxseq:out"));
    CQuavix* q = Manager();
    int in = FindDevice(q, QX_DEVDIR_IN, "qxseq:out");
    ASSERT_GE(in, 0);
    static std::mutex mutex;
    static std::vector<std::pair<DWORD, DWORD>> seen;
    seen.clear();
    q->StartRecording(
        [](DWORD_PTR, int, CQXEventData* e) {
            std::lock_guard<std::mutex> lock(mutex);
            seen.push_back({static_cast<DWORD>(e->m_dwData), e->m_dwTimeStamp});
            return 0;
        },
        0, 0);
    q->OpenDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_IN, in);
    jackclients::Probe watch;
    const int xrunsBefore = watch.Xruns();
    q->StartDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_IN, in);
    Sleep(1600);
    q->CloseDevices();
    // Time stamps come from JACK's time of each frame, which jumps in the cycles after
    // an xrun; then only the alternation is checked.
    const bool xruns = watch.Xruns() != xrunsBefore;
    if (xruns) std::printf("xruns while it recorded: spacing not checked\n");
    std::lock_guard<std::mutex> lock(mutex);
    std::vector<std::pair<DWORD, DWORD>> ons;
    for (auto& s : seen)
        if ((s.first & 0xF0) == 0x90) ons.push_back(s);
    ASSERT_GE(ons.size(), 4u);
    for (size_t i = 1; i < ons.size(); ++i) {
        EXPECT_NE(ons[i].first & 0xFF00, ons[i - 1].first & 0xFF00) << "60 and 63 alternate";
        if (!xruns) {
            EXPECT_NEAR(static_cast<double>(ons[i].second - ons[i - 1].second), 250.0, 1.5) << i;
        }
    }
}

// jack_midi_latency_test sends one message, waits until it comes back, sends the next.
// Its time-out subtracts JACK times as unsigned numbers, so when the dummy driver falls
// behind on a loaded machine and JACK's frame clock steps back, it reports a time-out at
// once although nothing is missing. A listener of ours on the tool's output and on our
// thru output tells a lost message from that: a run that ends early must show the clock
// stepping back or xruns (where JACK itself may drop a late client's events), and
// without xruns every message the tool sent must have come out of our thru, once, in
// order. Runs are repeated until one completes or enough messages have gone through.
TEST_F(JackTest, ThruLatencyMeasuredByJackMidiLatencyTest)
{
    const harness::TempFile file("latency.txt");
    const auto begin = std::chrono::steady_clock::now();
    int total = 0, runs = 0;
    bool complete = false;
    while (!complete && total < 400 && std::chrono::steady_clock::now() - begin < std::chrono::seconds(60)) {
        ++runs;
        // Our input is opened on a silent source and our thru on the watch, so that both
        // are open and the watch sees every reply before the tool, given our port names,
        // connects itself to them and starts.
        Watch watch;
        Silent silent;
        ASSERT_NE(watch.Client(), nullptr);
        ASSERT_NE(silent.Client(), nullptr);
        CQuavix* q = Manager();
        const int in = FindDevice(q, QX_DEVDIR_IN, "qxsilent:out");
        const int out = FindDevice(q, QX_DEVDIR_OUT, "qxwatch:thru");
        ASSERT_GE(in, 0);
        ASSERT_GE(out, 0);
        q->EnableMidiThru(1);
        q->ConnectMidiThru(out, -1);
        ASSERT_EQ(q->OpenDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_IN, in), 1);
        ASSERT_EQ(q->StartDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_IN, in), 1);
        ASSERT_EQ(q->OpenDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_OUT, out), 1);
        const jackclients::Probe probe;
        const std::vector<std::string> ourIn = probe.Connections("qxsilent:out"), ourOut = probe.Connections("qxwatch:thru");
        ASSERT_EQ(ourIn.size(), 1u);
        ASSERT_EQ(ourOut.size(), 1u);
        Child tester({"jack_midi_latency_test", "-s", "200", "-t", "5", ourIn[0], ourOut[0]}, file);
        ASSERT_TRUE(WaitForPort("jack_midi_latency_test:out"));
        ASSERT_TRUE(watch.Connect("jack_midi_latency_test:out", 0));
        const int xrunsBefore = watch.Xruns(); // connecting clients costs xruns of its own
        tester.Wait(std::chrono::seconds(60));
        Sleep(200); // the last message may still be on its way through
        q->CloseDevices();
        CQuavix::ExitQuavix();

        const std::string report = Slurp(file);
        std::smatch sent, received;
        ASSERT_TRUE(std::regex_search(report, sent, std::regex(R"(Messages sent: (\d+))"))) << report;
        ASSERT_TRUE(std::regex_search(report, received, std::regex(R"(Messages received: (\d+))"))) << report;
        const bool toolXruns = report.find("Xruns:") != std::string::npos;
        const int xruns = watch.Xruns() - xrunsBefore;
        const int nReceived = std::stoi(received[1]);
        total += nReceived;
        complete = nReceived == 200;
        std::printf("run %d: the tool sent %s, got %d back; xruns %d (tool: %s); JACK clock stepped back %d times, "
                    "by up to %lld us\n",
                    runs, sent[1].str().c_str(), nReceived, xruns, toolXruns ? "yes" : "no", watch.Backs(),
                    static_cast<long long>(watch.MaxBackUs()));
        if (complete) std::printf("%s\n", report.c_str());
        EXPECT_TRUE(complete || watch.Backs() > 0 || xruns > 0 || toolXruns)
            << "the tool stopped early on a clock that kept time, with no xruns:\n" << report;

        // Sent and thru events alternate: the tool sends the next only after the last came back.
        std::vector<Watch::Event> judged = watch.Take();
        if (!complete && !judged.empty())
            std::printf("  the tool's last message %s out of our thru\n",
                        judged.back().port == 1 ? "came" : "was not seen coming");
        if (xruns != 0) continue; // JACK may skip a late client's cycle: its view has gaps
        // Replies to messages sent before the watch listened to the tool.
        while (!judged.empty() && judged.front().port == 1) judged.erase(judged.begin());
        for (size_t i = 0; i < judged.size(); ++i) {
            const int port = static_cast<int>(i % 2);
            ASSERT_EQ(judged[i].port, port) << (port == 1 ? "a message did not come out of thru" : "thru sent one twice")
                                            << " (event " << i << ")";
            if (port == 1) {
                EXPECT_EQ(judged[i].size, judged[i - 1].size) << i;
                EXPECT_EQ(std::memcmp(judged[i].bytes, judged[i - 1].bytes, 3), 0) << i;
            }
        }
        EXPECT_EQ(judged.size() % 2, 0u) << "the last message did not come out of thru";
        std::printf("  no xruns: %zu round trips watched, each message out of thru once, in order\n", judged.size() / 2);
    }
    EXPECT_GE(total, 100) << "messages through thru in " << runs << " runs of the tool";
}

TEST_F(JackTest, LongSysExAndImmediateMessagesArriveWhole)
{
    Watch recv;
    ASSERT_NE(recv.Client(), nullptr);
    CQuavix* q = Manager();
    int out = FindDevice(q, QX_DEVDIR_OUT, "qxwatch:sent");
    ASSERT_GE(out, 0);
    q->OpenDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_OUT, out);
    std::vector<BYTE> sysex(4096);
    sysex.front() = 0xF0;
    for (size_t i = 1; i + 1 < sysex.size(); ++i) sysex[i] = static_cast<BYTE>(i % 128);
    sysex.back() = 0xF7;
    q->SendMidiMsg(static_cast<UINT>(out), 0x00403C90, 0);
    q->SendSysExMsg(static_cast<UINT>(out), sysex.data(), static_cast<int>(sysex.size()), 0);
    q->SendMidiMsg(static_cast<UINT>(out), 0x00003C80, 0);
    harness::Await([&] { return recv.Take().size() >= 3; });
    auto ev = recv.Take();
    ASSERT_EQ(ev.size(), 3u);
    EXPECT_EQ(ev[0].bytes[0], 0x90);
    EXPECT_EQ(ev[1].size, 4096u);
    EXPECT_EQ(ev[1].bytes[0], 0xF0);
    EXPECT_EQ(ev[1].last, 0xF7);
    EXPECT_EQ(ev[2].bytes[0], 0x80);
}

TEST_F(JackTest, DevicesAreTheOtherClientsMidiPorts)
{
    Watch recv;
    CQuavix* q = Manager();
    EXPECT_GE(FindDevice(q, QX_DEVDIR_OUT, "qxwatch:sent"), 0);
    for (int n = 0; n < q->GetDeviceCount(QX_DEVTYPE_MIDI, QX_DEVDIR_OUT); ++n) {
        QX_DevCaps caps;
        ASSERT_EQ(q->GetDeviceCaps(QX_DEVTYPE_MIDI, QX_DEVDIR_OUT, n, &caps), 1);
        EXPECT_EQ(std::string(caps.midiOut.szPname).rfind("quavix", 0), std::string::npos) << "not our own ports";
    }
}

TEST(JackGone, AServerThatGoesAwayGivesNotificationsAndCleanFailures)
{
    // A server of this test's own, so that the others keep theirs.
    harness::JackServer server("quavix-ctest-gone-" + std::to_string(getpid()));
    ASSERT_TRUE(server.Ready()) << "private server did not start";
    setenv("JACK_DEFAULT_SERVER", server.Name().c_str(), 1);
    Watch recv;
    CQuavix* q = CQuavix::InitQuavix();
    q->Initialize(QX_INIT_MIDI);
    // Notifications come from the library's threads too (the server lost, a peer gone).
    static std::mutex mutex;
    static std::vector<DWORD> codes;
    codes.clear();
    q->SetNotificationCallback(
        [](DWORD c, DWORD, DWORD_PTR) {
            std::lock_guard<std::mutex> lock(mutex);
            codes.push_back(c);
        },
        0);
    int out = FindDevice(q, QX_DEVDIR_OUT, "qxwatch:sent");
    ASSERT_GE(out, 0);
    q->EnableDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_IN, QX_ALL_DEVICES, 0);
    q->OpenDevices();
    q->StartDevices();
    Sleep(200);
    server.Stop(); // the server goes away while the engine runs
    Sleep(500);
    q->SendMidiMsg(static_cast<UINT>(out), 0x00403C90, 0);
    {
        std::lock_guard<std::mutex> lock(mutex);
        EXPECT_NE(std::find(codes.begin(), codes.end(), DWORD{QXN_MIDIOUT_SHORTMSG}), codes.end());
    }
    // Nothing hangs on the way down.
    q->CloseDevices();
    CQuavix::ExitQuavix();
}
