// MIDI input, thru, recording and slave sync on the virtual backend.
#include "MidiFixture.h"

namespace {

using qxplat::NowNs;

struct Seen {
    int tag, kind;
    DWORD data;
    int device;
    DWORD time;
};

struct Recorder {
    std::mutex mutex;
    std::vector<Seen> seen;
    std::function<void(int tag)> also; // runs inside the callback, before recording

    static int Proc(DWORD_PTR user, int tag, CQXEventData* e)
    {
        auto* r = reinterpret_cast<Recorder*>(user);
        if (r->also) r->also(tag);
        std::lock_guard<std::mutex> lock(r->mutex);
        r->seen.push_back({tag, e->m_nType, DWORD(e->m_dwData), e->m_nDevice, e->m_dwTimeStamp});
        return 0;
    }
    int Start(CQuavix* q) { return q->StartRecording(Proc, DWORD_PTR(this), 0); }
    bool WaitFor(size_t n)
    {
        return Eventually([&] {
            std::lock_guard<std::mutex> lock(mutex);
            return seen.size() >= n;
        });
    }
    std::vector<Seen> Take()
    {
        std::lock_guard<std::mutex> lock(mutex);
        return std::move(seen);
    }
};

void Send(int n, const Msg& b, int64_t timeNs = 0)
{
    ASSERT_TRUE(qxplat::QXVirtualInjectMidiIn(n, b.data(), b.size(), timeNs));
}

class MidiInTest : public MidiTest {
protected:
    void OpenInput(int n, DWORD dwSyncMode = QX_SYNCMODE_INTERNAL)
    {
        q->SetSyncMode(dwSyncMode);
        q->OpenDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_IN, n);
        q->StartDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_IN, n);
    }
    // The callbacks' objects outlive the manager, which TearDown ends first.
    Recorder rec, a, b, c;
    Perf perf;
};

} // namespace

// Thru echoes on its own channel to its output, or to the default output when that is on.
TEST_F(MidiInTest, StatusTableDecidesWhatIsRecordedEchoedAndSyncedAndThruSetsTheChannel)
{
    rec.Start(q);
    perf.Start(q);
    q->EnableMidiThru(1);
    q->ConnectMidiThru(1, -1);
    q->OpenDevices();
    OpenInput(0);
    // Outside slave mode the transport bytes do nothing at all.
    for (BYTE s : {0xF6, 0xF7, 0xF8, 0xFA, 0xFB, 0xFC, 0xFE, 0xFF, 0xF4, 0xF5, 0xF9, 0xFD, 0xFA, 0xF8}) Send(0, {s});
    // Running status makes the last one another note-on.
    for (Msg m : Msgs{{0xF1, 0x10}, {0xF2, 0x01, 0x02}, {0xF3, 0x05}, {0xC3, 0x05}, {0x92, 0x3C, 0x40}, {0x3D, 0x41}})
        Send(0, m);
    ASSERT_TRUE(rec.WaitFor(7));
    const Msgs echoed = Out(1, 7); // the last echoes: whatever else was recorded is in by now
    std::vector<DWORD> data;
    for (auto& s : rec.Take()) {
        data.push_back(s.data);
        EXPECT_EQ(std::make_pair(s.kind, s.device), std::make_pair(int(QX_EVENT_MIDI), 0));
    }
    EXPECT_EQ(data, (std::vector<DWORD>{0xF4, 0xF5, 0xF9, 0xFD, 0x000005C3, 0x00403C92, 0x00413D92}));
    EXPECT_EQ(echoed, (Msgs{{0xF4}, {0xF5}, {0xF9}, {0xFD}, {0xC3, 0x05}, {0x92, 0x3C, 0x40}, {0x92, 0x3D, 0x41}}));
    EXPECT_TRUE(perf.Get(perf.codes).empty());
    q->ConnectMidiThru(1, 9);
    q->ConnectMidiThru(5, 3); // no output 5: nothing changes
    q->ConnectMidiThru(1, 16);
    EXPECT_EQ(std::make_pair(q->GetMidiThruDevice(), q->GetMidiThruChannel()), std::make_pair(1, 9));
    Send(0, {0x92, 0x3C, 0x40});
    EXPECT_EQ(Out(1, 1), (Msgs{{0x99, 0x3C, 0x40}}));
    q->SetDefaultMidiDevice(2);
    q->EnableDefaultMidiDevice(1);
    Send(0, {0xB2, 0x07, 0x64});
    EXPECT_EQ(Out(2, 1), (Msgs{{0xB9, 0x07, 0x64}}));
    q->EnableMidiThru(0);
    Send(0, {0x92, 0x3C, 0x40});
    ASSERT_TRUE(rec.WaitFor(3)); // thru, had it been on, would have sent before recording
    EXPECT_TRUE(Out(2).empty() && Out(1).empty());
}

TEST_F(MidiInTest, RecordingsSeeEveryMessageInStartOrderWithTheirOwnValues)
{
    const int ta = a.Start(q), tb = b.Start(q);
    q->OpenDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_IN, 1);
    const int64_t before = NowNs();
    q->StartDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_IN, 1);
    Send(1, {0x90, 0x3C, 0x40}, before + 1'500'500'000);
    ASSERT_TRUE(b.WaitFor(1));
    auto sa = a.Take(), sb = b.Take();
    ASSERT_EQ(sa.size(), 1u);
    EXPECT_EQ(std::make_tuple(sa[0].tag, sb[0].tag, sa[0].device, sa[0].data), std::make_tuple(ta, tb, 1, 0x00403C90u));
    EXPECT_NEAR(double(sa[0].time), 1500.5, 0.5);

    // A callback that stops its own recording and starts another, on the input's thread.
    a.also = [&](int tag) {
        q->StopRecording(tag);
        c.Start(q);
    };
    Send(1, {0x80, 0x3C, 0x00});
    ASSERT_TRUE(b.WaitFor(1));
    Send(1, {0x90, 0x3E, 0x40});
    ASSERT_TRUE(b.WaitFor(2) && c.WaitFor(1));
    EXPECT_EQ(a.Take().size(), 1u) << "stopped from inside its own callback";
    EXPECT_EQ(c.Take().at(0).data, 0x00403E90u) << "started inside a callback: from the next message on";
    q->StopRecording(tb);
    q->StopRecording(tb); // a tag held by none: nothing happens
}

TEST_F(MidiInTest, SlaveTimeStampsCountFromPlayStartAndEarlierOnesBecomeZero)
{
    rec.Start(q);
    q->SetSyncMode(QX_SYNCMODE_SLAVE);
    q->OpenDevices();
    const int64_t t0 = NowNs();
    q->StartDevices();
    q->PauseDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_OUT, 0); // the next start takes a new play start
    std::this_thread::sleep_for(std::chrono::milliseconds(150));
    q->StartDevices();
    const DWORD delta = q->GetPlayStartTime() - q->GetRecordStartTime();
    ASSERT_GE(delta, 149u);
    Send(0, {0x90, 0x3C, 0x40}, t0 + 100'000'000);
    Send(0, {0x90, 0x3D, 0x40}, t0 + 600'000'000);
    ASSERT_TRUE(rec.WaitFor(2));
    auto seen = rec.Take();
    EXPECT_EQ(seen[0].time, 0u);
    EXPECT_NEAR(double(seen[1].time), 600.0 - delta, 2.0);
}

TEST_F(MidiInTest, SlaveRunFollowsAnExternalClockFromStartToStop)
{
    OpenInput(0, QX_SYNCMODE_SLAVE);
    // A queued performance that plays a note each period; start or continue, which
    // waits for the next clock; clocks 20.8 ms apart (24 a quarter note at 120 BPM);
    // and stop: it hears each, in order, and then ends.
    for (auto [go, goCode, clocks] : {std::tuple{BYTE(0xFA), QX_SYNC_START, 6}, {BYTE(0xFB), QX_SYNC_CONTINUE, 3}}) {
        Perf run;
        run.fn = [](int tag, DWORD, DWORD e) {
            if (tag > 0) Play({MidiEvent(0x00403C90, e - 100)});
            return 1;
        };
        run.Start(q, 1);
        q->QueueSlavedPerformance();
        EXPECT_TRUE(Out(0).empty()) << "queued, not playing before the external start";
        Send(0, {go});
        std::this_thread::sleep_for(std::chrono::milliseconds(60)); // what is not to come needs a while
        EXPECT_TRUE(run.Get(run.codes).empty()) << "no start before the next clock";
        const int64_t startNs = NowNs();
        for (int i = 0; i < clocks; ++i) Send(0, {0xF8}, startNs + i * 20'833'333);
        const auto played = Sent(0, 1);
        ASSERT_FALSE(played.empty());
        EXPECT_GE(played.front().timeNs, startNs) << "the queued periods start with the external start";
        Send(0, {0xFC});
        ASSERT_TRUE(Eventually([&] { return run.Get(run.codes).size() >= size_t(clocks) + 2 && !q->IsActive(); }));
        std::vector<int> expect(size_t(clocks) + 2, QX_SYNC_CLOCK);
        expect.front() = goCode;
        expect.back() = QX_SYNC_STOP;
        EXPECT_EQ(run.Get(run.codes), expect);
        const auto stamps = run.Get(run.clocks);
        EXPECT_TRUE(std::is_sorted(stamps.begin(), stamps.end())) << "clock stamps rise";
    }
}

TEST_F(MidiInTest, StoppingARecordingFromASyncNotificationCannotDeadlock)
{
    // A recording callback holds the recording lock and needs the device lock, while a
    // performance, notified of a clock with the device lock held, stops that recording.
    std::atomic<bool> inRecording{false}, inSync{false}, syncDone{false};
    rec.also = [&](int) {
        inRecording = true;
        Eventually([&] { return inSync.load(); }, std::chrono::milliseconds(2000));
        q->SendMidiMsg(0, 0x00403C90, 1); // takes the device lock
    };
    const int tag = rec.Start(q);
    a.Start(q); // called after rec
    perf.fn = [&](int code, DWORD, DWORD) {
        if (code == QX_SYNC_CLOCK && !syncDone) {
            Eventually([&] { return inRecording.load(); }, std::chrono::milliseconds(2000));
            inSync = true;
            std::this_thread::sleep_for(std::chrono::milliseconds(20)); // the recording now waits for the lock
            q->StopRecording(tag);
            syncDone = true;
        }
        return 1;
    };
    perf.Start(q);
    OpenInput(0, QX_SYNCMODE_SLAVE);
    Send(0, {0x90, 0x3C, 0x40});
    Send(0, {0xF8});
    ASSERT_TRUE(Eventually([&] { return syncDone.load(); })) << "the sync handler is stuck";
    ASSERT_TRUE(rec.WaitFor(1));
    Send(0, {0x90, 0x3D, 0x40});
    ASSERT_TRUE(a.WaitFor(2));
    EXPECT_EQ(rec.Take().size(), 1u) << "the recording was stopped";
}

TEST_F(MidiInTest, ClosingTheDevicesWhenAThruSendFailsLeavesTheInputForTheNextClose)
{
    // The failure is reported on the input's own thread: a close from there cannot wait
    // for that thread, so the input stays open until the next close.
    static std::atomic<int> closes{0};
    closes = 0;
    q->SetNotificationCallback(
        [](DWORD code, DWORD, DWORD_PTR) {
            if (code == QXN_MIDIOUT_SHORTMSG && closes++ == 0) CQuavix::GetQuavix()->CloseDevices();
        },
        0);
    q->EnableMidiThru(1);
    q->ConnectMidiThru(1, -1);
    q->OpenDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_OUT, 1);
    OpenInput(0);
    QXFaultInject("midiOutShortMsg", MMSYSERR_ERROR);
    Send(0, {0x90, 0x3C, 0x40});
    ASSERT_TRUE(Eventually([&] { return closes.load() > 0; })) << "no failed thru send was reported";
    EXPECT_TRUE(Eventually([&] { return !(q->GetDeviceState(QX_DEVTYPE_MIDI, QX_DEVDIR_OUT, 1) & QX_STATE_OPEN); }));
    EXPECT_TRUE(q->GetDeviceState(QX_DEVTYPE_MIDI, QX_DEVDIR_IN, 0) & QX_STATE_OPEN);
    q->CloseDevices();
    EXPECT_FALSE(q->GetDeviceState(QX_DEVTYPE_MIDI, QX_DEVDIR_IN, 0) & QX_STATE_OPEN);
}
