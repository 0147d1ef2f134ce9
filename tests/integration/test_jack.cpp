// MIDI through a real JACK server: our devices against jack_midiseq and a listening
// client of the test's own.
#include <quavix/Quavix.h>

#include "harness.h"
#include "devices.h"
#include "platform/backends/QXBackend.h"

#include <gtest/gtest.h>
#include <jack/midiport.h>

#include <algorithm>
#include <cstring>
#include <mutex>

namespace {

using harness::Child;

// Index of the device whose name is exactly port, or -1.
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

// A receiving client: every event on its two inputs with its absolute frame, size, first
// bytes and last byte, and the server's xruns.
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
    std::vector<Event> Take(int port) const
    {
        std::vector<Event> out;
        for (size_t i = 0; i < m_count.load(); ++i)
            if (m_events[i].port == port) out.push_back(m_events[i]);
        return out;
    }
    int Xruns() const { return m_xruns.load(); }
    jack_client_t* Client() const { return m_client; }

private:
    static int Process(jack_nframes_t nframes, void* arg)
    {
        auto* self = static_cast<Watch*>(arg);
        const jack_nframes_t start = jack_last_frame_time(self->m_client);
        for (int p = 0; p < 2; ++p) {
            void* buf = jack_port_get_buffer(self->m_ports[p], nframes);
            for (jack_nframes_t i = 0; i < jack_midi_get_event_count(buf); ++i) {
                jack_midi_event_t ev;
                const size_t n = self->m_count.load();
                if (jack_midi_event_get(&ev, buf, i) != 0 || n >= self->m_events.size()) continue;
                Event& e = self->m_events[n];
                e = {p, start + ev.time, ev.size, {0, 0, 0}, ev.buffer[ev.size - 1]};
                for (size_t k = 0; k < 3 && k < ev.size; ++k) e.bytes[k] = ev.buffer[k];
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

TEST_F(JackTest, PerformanceReachesItsDestinationInOrderAtItsFrames)
{
    Watch watch;
    ASSERT_NE(watch.Client(), nullptr);
    CQuavix* q = Manager();
    Score score;
    score.output = FindDevice(q, QX_DEVDIR_OUT, "qxwatch:sent");
    ASSERT_GE(score.output, 0);
    // Uneven times and chords of equal times, over several periods.
    for (DWORD i = 0; i < 40; ++i) score.notes.push_back({300 + i * 37 + (i % 3) * 11, 0x00400090u | ((48 + i) << 8)});
    score.notes.push_back({score.notes.back().first + 5, 0x00000080u | (48u << 8)});
    q->StartPerformance(Score::Proc, reinterpret_cast<DWORD_PTR>(&score), 1, 0);
    q->EnableDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_OUT, QX_ALL_DEVICES, 0);
    q->EnableDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_IN, QX_ALL_DEVICES, 0);
    q->EnableDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_OUT, score.output, 1);
    EXPECT_EQ(q->OpenDevices(), 1);
    const int xrunsBefore = watch.Xruns();
    q->StartDevices();
    harness::Await([&] { return watch.Take(0).size() >= score.notes.size(); });
    std::vector<Watch::Event> got = watch.Take(0);
    q->CloseDevices();
    std::erase_if(got, [](const Watch::Event& e) { return e.size != 3; }); // what closing sends
    auto bytes = [](const Watch::Event& e) { return DWORD(e.bytes[0] | e.bytes[1] << 8 | e.bytes[2] << 16); };
    // A late client may miss a cycle's events, and the frame clock loses what the server
    // fell behind: then order and bytes are what can be asked.
    if (watch.Xruns() != xrunsBefore) {
        size_t k = 0;
        for (const auto& e : got) {
            while (k < score.notes.size() && bytes(e) != score.notes[k].second) ++k;
            ASSERT_LT(k++, score.notes.size()) << std::hex << bytes(e) << " out of order or not sent";
        }
        return;
    }
    ASSERT_EQ(got.size(), score.notes.size()) << "every event arrives";
    for (size_t i = 0; i < got.size(); ++i) {
        EXPECT_EQ(bytes(got[i]), score.notes[i].second) << i;
        const long intended = static_cast<long>(score.notes[i].first - score.notes[0].first) * 48; // frames
        EXPECT_NEAR(static_cast<double>(got[i].frame - got[0].frame), static_cast<double>(intended), 1.0) << i;
    }
}

// jack_midiseq loops note 60 at 0 and note 63 at 250 ms every 500 ms into our input, and
// into the watch: what is recorded keeps the spacing, and our thru passes every message
// once, in order and soon.
TEST_F(JackTest, WhatJackMidiseqSendsIsRecordedWithItsSpacingAndPassedOnceByThru)
{
    Watch watch;
    ASSERT_NE(watch.Client(), nullptr);
    Child seq({"jack_midiseq", "qxseq", "24000", "0", "60", "8000", "12000", "63", "8000"});
    ASSERT_TRUE(dev::Probe().WaitExists("qxseq:out"));
    ASSERT_TRUE(watch.Connect("qxseq:out", 0));
    CQuavix* q = Manager();
    const int in = FindDevice(q, QX_DEVDIR_IN, "qxseq:out"), out = FindDevice(q, QX_DEVDIR_OUT, "qxwatch:thru");
    ASSERT_GE(in, 0);
    ASSERT_GE(out, 0);
    static std::mutex mutex;
    static std::vector<std::pair<DWORD, DWORD>> seen; // message, time stamp
    seen.clear();
    q->StartRecording(
        [](DWORD_PTR, int, CQXEventData* e) {
            std::lock_guard<std::mutex> lock(mutex);
            seen.push_back({static_cast<DWORD>(e->m_dwData), e->m_dwTimeStamp});
            return 0;
        },
        0, 0);
    q->EnableMidiThru(1);
    q->ConnectMidiThru(out, -1);
    ASSERT_EQ(q->OpenDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_OUT, out), 1);
    ASSERT_EQ(q->OpenDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_IN, in), 1);
    const int xrunsBefore = watch.Xruns();
    q->StartDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_IN, in);
    harness::Await([&] { return watch.Take(1).size() >= 12; });
    q->CloseDevices();
    seq.Stop();
    // After an xrun JACK's frame times jump, and a late client may lose a cycle.
    if (watch.Xruns() != xrunsBefore) GTEST_SKIP() << "xruns while it recorded: nothing to judge by";

    std::lock_guard<std::mutex> lock(mutex);
    std::vector<std::pair<DWORD, DWORD>> ons;
    for (auto& s : seen)
        if ((s.first & 0xF0) == 0x90) ons.push_back(s);
    ASSERT_GE(ons.size(), 4u);
    for (size_t i = 1; i < ons.size(); ++i) {
        EXPECT_NE(ons[i].first & 0xFF00, ons[i - 1].first & 0xFF00) << "60 and 63 alternate";
        EXPECT_NEAR(static_cast<double>(ons[i].second - ons[i - 1].second), 250.0, 1.5) << i;
    }
    const std::vector<Watch::Event> sent = watch.Take(0), thru = watch.Take(1);
    ASSERT_GE(thru.size(), 12u);
    size_t j = 0; // the sent message the first one passed on answers to: the pattern repeats every 500 ms
    while (j < sent.size() && (sent[j].frame > thru[0].frame || thru[0].frame - sent[j].frame > 2400 ||
                               std::memcmp(sent[j].bytes, thru[0].bytes, 3) != 0))
        ++j;
    for (size_t i = 0; i < thru.size(); ++i, ++j) {
        ASSERT_LT(j, sent.size()) << "thru passed on more than was sent";
        EXPECT_EQ(std::memcmp(sent[j].bytes, thru[i].bytes, 3), 0) << "message " << i << " lost or passed twice";
        EXPECT_LT(thru[i].frame - sent[j].frame, 2400u) << "message " << i << " took over 50 ms";
    }
}

TEST_F(JackTest, LongSysExAndImmediateMessagesArriveWhole)
{
    Watch recv;
    ASSERT_NE(recv.Client(), nullptr);
    CQuavix* q = Manager();
    const int out = FindDevice(q, QX_DEVDIR_OUT, "qxwatch:sent");
    ASSERT_GE(out, 0);
    q->OpenDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_OUT, out);
    std::vector<BYTE> sysex(4096);
    for (size_t i = 1; i + 1 < sysex.size(); ++i) sysex[i] = static_cast<BYTE>(i % 128);
    sysex.front() = 0xF0;
    sysex.back() = 0xF7;
    q->SendMidiMsg(static_cast<UINT>(out), 0x00403C90, 0);
    q->SendSysExMsg(static_cast<UINT>(out), sysex.data(), static_cast<int>(sysex.size()), 0);
    q->SendMidiMsg(static_cast<UINT>(out), 0x00003C80, 0);
    harness::Await([&] { return recv.Take(0).size() >= 3; });
    const auto ev = recv.Take(0);
    ASSERT_EQ(ev.size(), 3u);
    EXPECT_EQ(ev[0].bytes[0], 0x90);
    EXPECT_EQ(ev[1].size, 4096u);
    EXPECT_EQ(ev[1].bytes[0], 0xF0);
    EXPECT_EQ(ev[1].last, 0xF7);
    EXPECT_EQ(ev[2].bytes[0], 0x80);
}

TEST_F(JackTest, DevicesAreTheOtherClientsMidiPortsNotOurOwn)
{
    Watch recv;
    CQuavix* q = Manager();
    EXPECT_GE(FindDevice(q, QX_DEVDIR_OUT, "qxwatch:sent"), 0);
    for (int n = 0; n < q->GetDeviceCount(QX_DEVTYPE_MIDI, QX_DEVDIR_OUT); ++n) {
        QX_DevCaps caps;
        ASSERT_EQ(q->GetDeviceCaps(QX_DEVTYPE_MIDI, QX_DEVDIR_OUT, n, &caps), 1);
        EXPECT_EQ(std::string(caps.midiOut.szPname).rfind("quavix", 0), std::string::npos);
    }
}

// On a server of its own, so that the others keep theirs.
TEST(JackGone, AServerThatGoesAwayGivesNotificationsAndCleanFailures)
{
    harness::JackServer server("quavix-ctest-gone-" + std::to_string(getpid()));
    ASSERT_TRUE(server.Ready()) << "private server did not start";
    setenv("JACK_DEFAULT_SERVER", server.Name().c_str(), 1);
    Watch recv;
    CQuavix* q = CQuavix::InitQuavix();
    q->Initialize(QX_INIT_MIDI);
    static std::mutex mutex; // notifications come from the library's threads too
    static std::vector<DWORD> codes;
    q->SetNotificationCallback(
        [](DWORD c, DWORD, DWORD_PTR) {
            std::lock_guard<std::mutex> lock(mutex);
            codes.push_back(c);
        },
        0);
    const int out = FindDevice(q, QX_DEVDIR_OUT, "qxwatch:sent");
    ASSERT_GE(out, 0);
    q->EnableDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_IN, QX_ALL_DEVICES, 0);
    q->OpenDevices();
    q->StartDevices();
    server.Stop();
    EXPECT_TRUE(harness::Await([] { return qxplat::CurrentBackend().Count(qxplat::DeviceKind::MidiOut) == 0; }));
    q->SendMidiMsg(static_cast<UINT>(out), 0x00403C90, 0);
    {
        std::lock_guard<std::mutex> lock(mutex);
        EXPECT_NE(std::find(codes.begin(), codes.end(), DWORD{QXN_MIDIOUT_SHORTMSG}), codes.end());
    }
    q->CloseDevices(); // nothing hangs on the way down
    CQuavix::ExitQuavix();
}
