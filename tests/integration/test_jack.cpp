// The library against a real JACK server and the clients that ship with jackd2.
#include <quavix/Quavix.h>

#include "platform/QXPlatform.h"

#include <gtest/gtest.h>
#include <jack/jack.h>
#include <jack/midiport.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <fcntl.h>

#include <atomic>
#include <mutex>
#include <cstdio>
#include <algorithm>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

extern char** environ;

namespace {

// A jackd2 client run for the length of a test.
class Child {
public:
    explicit Child(std::vector<std::string> argv, const std::string& outFile)
    {
        std::vector<char*> args;
        for (auto& a : argv) args.push_back(a.data());
        args.push_back(nullptr);
        posix_spawn_file_actions_t fa;
        posix_spawn_file_actions_init(&fa);
        posix_spawn_file_actions_addopen(&fa, 1, outFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        posix_spawn_file_actions_adddup2(&fa, 1, 2);
        if (posix_spawnp(&m_pid, args[0], &fa, nullptr, args.data(), environ) != 0) m_pid = -1;
        posix_spawn_file_actions_destroy(&fa);
    }
    ~Child() { Stop(); }
    int Wait() // its exit status
    {
        if (m_pid <= 0) return -1;
        int status = 0;
        waitpid(m_pid, &status, 0);
        m_pid = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    void Stop()
    {
        if (m_pid <= 0) return;
        kill(m_pid, SIGTERM);
        Wait();
    }
    bool Running() const { return m_pid > 0; }

private:
    pid_t m_pid = -1;
};

std::string Slurp(const std::string& path)
{
    std::ifstream f(path);
    std::stringstream ss;
    ss << f.rdbuf();
    return ss.str();
}

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

bool WaitForPort(const char* name)
{
    jack_client_t* c = jack_client_open("qxprobe", JackNoStartServer, nullptr);
    if (c == nullptr) return false;
    bool found = false;
    for (int i = 0; i < 100 && !found; ++i) {
        found = jack_port_by_name(c, name) != nullptr;
        if (!found) Sleep(50);
    }
    jack_client_close(c);
    return found;
}

// A receiving client of the test's own, for what jack_midi_dump does not show exactly:
// every event with its absolute frame and its bytes. The process callback only appends
// to preallocated storage.
class Receiver {
public:
    Receiver()
    {
        m_events.resize(4096);
        m_client = jack_client_open("qxrecv", JackNoStartServer, nullptr);
        if (m_client == nullptr) return;
        m_port = jack_port_register(m_client, "in", JACK_DEFAULT_MIDI_TYPE, JackPortIsInput, 0);
        jack_set_process_callback(m_client, Process, this);
        jack_activate(m_client);
    }
    ~Receiver()
    {
        if (m_client != nullptr) jack_client_close(m_client);
    }
    struct Event {
        jack_nframes_t frame;
        size_t size;
        unsigned char first[4];
        unsigned char last;
    };
    std::vector<Event> Take()
    {
        size_t n = m_count.load();
        return std::vector<Event>(m_events.begin(), m_events.begin() + static_cast<long>(n));
    }
    jack_client_t* Client() const { return m_client; }

private:
    static int Process(jack_nframes_t nframes, void* arg)
    {
        auto* self = static_cast<Receiver*>(arg);
        void* buf = jack_port_get_buffer(self->m_port, nframes);
        const jack_nframes_t start = jack_last_frame_time(self->m_client);
        for (jack_nframes_t i = 0; i < jack_midi_get_event_count(buf); ++i) {
            jack_midi_event_t ev;
            if (jack_midi_event_get(&ev, buf, i) != 0) continue;
            size_t n = self->m_count.load();
            if (n >= self->m_events.size()) return 0;
            Event& e = self->m_events[n];
            e.frame = start + ev.time;
            e.size = ev.size;
            for (size_t k = 0; k < 4; ++k) e.first[k] = k < ev.size ? ev.buffer[k] : 0;
            e.last = ev.buffer[ev.size - 1];
            self->m_count.store(n + 1);
        }
        return 0;
    }
    jack_client_t* m_client = nullptr;
    jack_port_t* m_port = nullptr;
    std::vector<Event> m_events;
    std::atomic<size_t> m_count{0};
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
    Child dump({"jack_midi_dump", "-a", "qxdump"}, "/tmp/quavix-jack-dump.txt");
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
    q->StartDevices();
    for (int i = 0; i < 100 && q->IsActive(); ++i) Sleep(50);
    Sleep(500);
    q->CloseDevices();
    dump.Stop();

    std::regex line(R"(^\s*(\d+): ([0-9a-f]{2}) ([0-9a-f]{2}) ([0-9a-f]{2}))");
    std::vector<std::pair<long, std::string>> got;
    std::istringstream in(Slurp("/tmp/quavix-jack-dump.txt"));
    for (std::string l; std::getline(in, l);) {
        std::smatch m;
        if (std::regex_search(l, m, line)) got.push_back({std::stol(m[1]), m[2].str() + m[3].str() + m[4].str()});
    }
    ASSERT_EQ(got.size(), score.notes.size()) << "every event arrives";
    for (size_t i = 0; i < got.size(); ++i) {
        char expect[8];
        DWORD msg = score.notes[i].second;
        std::snprintf(expect, sizeof expect, "%02x%02x%02x", msg & 0xFF, (msg >> 8) & 0xFF, (msg >> 16) & 0xFF);
        EXPECT_EQ(got[i].second, expect) << i;
        // 48 frames a millisecond; within one frame of the intended distance from the first.
        const long intended = static_cast<long>(score.notes[i].first - score.notes[0].first) * 48;
        EXPECT_NEAR(static_cast<double>(got[i].first - got[0].first), static_cast<double>(intended), 1.0) << i;
    }
}

TEST_F(JackTest, WhatJackMidiseqSendsIsRecordedWithItsSpacing)
{
    // A 500 ms loop: note 60 at 0 for 8000 frames, note 63 at 12000 (250 ms) for 8000.
    Child seq({"jack_midiseq", "qxseq", "24000", "0", "60", "8000", "12000", "63", "8000"}, "/tmp/quavix-seq.txt");
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
    q->StartDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_IN, in);
    Sleep(1600);
    q->CloseDevices();
    std::lock_guard<std::mutex> lock(mutex);
    std::vector<std::pair<DWORD, DWORD>> ons;
    for (auto& s : seen)
        if ((s.first & 0xF0) == 0x90) ons.push_back(s);
    ASSERT_GE(ons.size(), 4u);
    for (size_t i = 1; i < ons.size(); ++i) {
        EXPECT_NE(ons[i].first & 0xFF00, ons[i - 1].first & 0xFF00) << "60 and 63 alternate";
        EXPECT_NEAR(static_cast<double>(ons[i].second - ons[i - 1].second), 250.0, 1.5) << i;
    }
}

TEST_F(JackTest, ThruLatencyMeasuredByJackMidiLatencyTest)
{
    Child tester({"jack_midi_latency_test", "-s", "500", "-t", "20"}, "/tmp/quavix-latency.txt");
    ASSERT_TRUE(WaitForPort("jack_midi_latency_test:in"));
    CQuavix* q = Manager();
    int in = FindDevice(q, QX_DEVDIR_IN, "jack_midi_latency_test:out");
    int out = FindDevice(q, QX_DEVDIR_OUT, "jack_midi_latency_test:in");
    ASSERT_GE(in, 0);
    ASSERT_GE(out, 0);
    q->EnableMidiThru(1);
    q->ConnectMidiThru(out, -1);
    q->OpenDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_OUT, out);
    q->OpenDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_IN, in);
    q->StartDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_IN, in);
    tester.Wait();
    q->CloseDevices();
    const std::string report = Slurp("/tmp/quavix-latency.txt");
    std::printf("jack_midi_latency_test through our thru:\n%s\n", report.c_str());
    std::smatch sent, received;
    ASSERT_TRUE(std::regex_search(report, sent, std::regex(R"(Messages sent: (\d+))"))) << report;
    ASSERT_TRUE(std::regex_search(report, received, std::regex(R"(Messages received: (\d+))"))) << report;
    // The dummy driver is not real-time: on a loaded machine an xrun may cost the tool a
    // message. Thru itself must pass on everything else.
    EXPECT_GE(std::stoi(sent[1]), 100);
    EXPECT_GE(std::stoi(received[1]), std::stoi(sent[1]) - 2);
}

TEST_F(JackTest, LongSysExAndImmediateMessagesArriveWhole)
{
    Receiver recv;
    ASSERT_NE(recv.Client(), nullptr);
    CQuavix* q = Manager();
    int out = FindDevice(q, QX_DEVDIR_OUT, "qxrecv:in");
    ASSERT_GE(out, 0);
    q->OpenDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_OUT, out);
    std::vector<BYTE> sysex(4096);
    sysex.front() = 0xF0;
    for (size_t i = 1; i + 1 < sysex.size(); ++i) sysex[i] = static_cast<BYTE>(i % 128);
    sysex.back() = 0xF7;
    q->SendMidiMsg(static_cast<UINT>(out), 0x00403C90, 0);
    q->SendSysExMsg(static_cast<UINT>(out), sysex.data(), static_cast<int>(sysex.size()), 0);
    q->SendMidiMsg(static_cast<UINT>(out), 0x00003C80, 0);
    Sleep(300);
    auto ev = recv.Take();
    ASSERT_EQ(ev.size(), 3u);
    EXPECT_EQ(ev[0].first[0], 0x90);
    EXPECT_EQ(ev[1].size, 4096u);
    EXPECT_EQ(ev[1].first[0], 0xF0);
    EXPECT_EQ(ev[1].last, 0xF7);
    EXPECT_EQ(ev[2].first[0], 0x80);
}

TEST_F(JackTest, DevicesAreTheOtherClientsMidiPorts)
{
    Receiver recv;
    CQuavix* q = Manager();
    EXPECT_GE(FindDevice(q, QX_DEVDIR_OUT, "qxrecv:in"), 0);
    for (int n = 0; n < q->GetDeviceCount(QX_DEVTYPE_MIDI, QX_DEVDIR_OUT); ++n) {
        QX_DevCaps caps;
        ASSERT_EQ(q->GetDeviceCaps(QX_DEVTYPE_MIDI, QX_DEVDIR_OUT, n, &caps), 1);
        EXPECT_EQ(std::string(caps.midiOut.szPname).rfind("quavix", 0), std::string::npos) << "not our own ports";
    }
}

TEST(JackGone, AServerThatGoesAwayGivesNotificationsAndCleanFailures)
{
    // A server of this test's own, so that the others keep theirs.
    setenv("JACK_DEFAULT_SERVER", "quavix-ctest-gone", 1);
    Child server({"jackd", "-n", "quavix-ctest-gone", "-r", "-d", "dummy", "-r", "48000", "-p", "256"},
                 "/tmp/quavix-jackd-gone.txt");
    Sleep(300);
    ASSERT_TRUE(WaitForPort("system:playback_1")) << "private server did not start";
    Receiver recv;
    CQuavix* q = CQuavix::InitQuavix();
    q->Initialize(QX_INIT_MIDI);
    static std::vector<DWORD> codes;
    codes.clear();
    q->SetNotificationCallback([](DWORD c, DWORD, DWORD_PTR) { codes.push_back(c); }, 0);
    int out = FindDevice(q, QX_DEVDIR_OUT, "qxrecv:in");
    ASSERT_GE(out, 0);
    q->EnableDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_IN, QX_ALL_DEVICES, 0);
    q->OpenDevices();
    q->StartDevices();
    Sleep(200);
    server.Stop(); // the server goes away while the engine runs
    Sleep(500);
    q->SendMidiMsg(static_cast<UINT>(out), 0x00403C90, 0);
    EXPECT_NE(std::find(codes.begin(), codes.end(), DWORD{QXN_MIDIOUT_SHORTMSG}), codes.end());
    // Nothing hangs on the way down.
    q->CloseDevices();
    CQuavix::ExitQuavix();
}
