// MIDI input, thru, recording and slave sync on the virtual backend.
#include <quavix/Quavix.h>

#include "platform/QXPlatform.h"
#include "platform/backends/virtual/QXVirtual.h"

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

namespace {

using qxplat::NowNs;
using qxplat::QXVirtualInjectMidiIn;
using qxplat::QXVirtualTakeMidiOut;

struct Seen {
    DWORD_PTR user;
    int tag;
    int kind;
    DWORD data;
    int device;
    DWORD time;
};

struct Recorder {
    std::mutex mutex;
    std::condition_variable cv;
    std::vector<Seen> seen;
    std::function<void(int tag)> also; // runs inside the callback, after recording

    static int Proc(DWORD_PTR user, int tag, CQXEventData* e)
    {
        auto* r = reinterpret_cast<Recorder*>(user);
        if (r->also) r->also(tag);
        // Last, under the lock: a waiter may finish its test once this returns.
        std::lock_guard<std::mutex> lock(r->mutex);
        r->seen.push_back({user, tag, e->m_nType, static_cast<DWORD>(e->m_dwData), e->m_nDevice, e->m_dwTimeStamp});
        r->cv.notify_all();
        return 0;
    }
    bool WaitFor(size_t n, int ms = 3000)
    {
        std::unique_lock<std::mutex> lock(mutex);
        return cv.wait_for(lock, std::chrono::milliseconds(ms), [&] { return seen.size() >= n; });
    }
    std::vector<Seen> Take()
    {
        std::lock_guard<std::mutex> lock(mutex);
        return std::move(seen);
    }
};

// A performance that notes the codes and values it is called with.
struct SyncLog {
    std::mutex mutex;
    std::vector<std::pair<int, DWORD>> calls; // tag or code, and dwEnd (the stamp of a clock)
    std::function<void(int)> also;
    static int Proc(DWORD_PTR user, int tag, DWORD, DWORD end)
    {
        auto* s = reinterpret_cast<SyncLog*>(user);
        {
            std::lock_guard<std::mutex> lock(s->mutex);
            s->calls.emplace_back(tag, end);
        }
        if (s->also) s->also(tag);
        if (tag > 0) { // playing: one note per period
            CQXEventList l;
            auto* e = new CQXEventData;
            e->SetMidiData(0x00403C90);
            e->SetTimeStamp(end - 100);
            l.AddTail(e);
            CQuavix::GetQuavix()->PlayBuffer(l);
        }
        return 1;
    }
    std::vector<int> Codes()
    {
        std::lock_guard<std::mutex> lock(mutex);
        std::vector<int> out;
        for (auto& c : calls)
            if (c.first < 0) out.push_back(c.first);
        return out;
    }
};

void Send(int n, std::initializer_list<BYTE> bytes, int64_t timeNs = 0)
{
    std::vector<BYTE> b(bytes);
    ASSERT_TRUE(QXVirtualInjectMidiIn(n, b.data(), b.size(), timeNs));
}

class MidiInTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        // Output n loops back into input n: thru from input 0 never goes to output 0.
        qxplat::QXVirtualSetDevices(2, 3, 0, 0);
        for (int n = 0; n < 3; ++n) QXVirtualTakeMidiOut(n);
        q = CQuavix::InitQuavix();
        q->Initialize(QX_INIT_MIDI);
    }
    void TearDown() override
    {
        CQuavix::ExitQuavix();
        qxplat::QXVirtualSetDevices(1, 1, 1, 1);
    }
    // What output n sent, once it holds `count` messages or three seconds have passed.
    std::vector<std::vector<BYTE>> Out(int n, size_t count = 0)
    {
        std::vector<std::vector<BYTE>> v;
        for (int i = 0; i < 3000; ++i, Sleep(1)) {
            for (auto& m : QXVirtualTakeMidiOut(n)) v.push_back(m.bytes);
            if (v.size() >= count) break;
        }
        return v;
    }
    CQuavix* q = nullptr;
    // The callbacks' objects outlive the manager, which TearDown ends first.
    Recorder rec, a, b, c;
    SyncLog log, first, second, perf;
};

} // namespace

TEST_F(MidiInTest, StatusTableDecidesWhatIsRecordedAndEchoed)
{
    q->StartRecording(Recorder::Proc, reinterpret_cast<DWORD_PTR>(&rec), 1);
    q->EnableMidiThru(1);
    q->ConnectMidiThru(1, -1);
    q->OpenDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_OUT, 1);
    q->OpenDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_IN, 0);
    q->StartDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_IN, 0);
    for (BYTE s : {0xF6, 0xF7, 0xF8, 0xFA, 0xFB, 0xFC, 0xFE, 0xFF, 0xF4, 0xF5, 0xF9, 0xFD}) Send(0, {s});
    Send(0, {0xF1, 0x10});
    Send(0, {0xF2, 0x01, 0x02});
    Send(0, {0xF3, 0x05});
    Send(0, {0xC3, 0x05});
    Send(0, {0x92, 0x3C, 0x40});
    Send(0, {0x3D, 0x41}); // running status: another note-on
    ASSERT_TRUE(rec.WaitFor(7));
    // The echoes of the last messages: whatever else was recorded is in by now.
    const auto echoed = Out(1, 7);
    auto seen = rec.Take();
    std::vector<DWORD> data;
    for (auto& s : seen) data.push_back(s.data);
    EXPECT_EQ(data, (std::vector<DWORD>{0xF4, 0xF5, 0xF9, 0xFD, 0x000005C3, 0x00403C92, 0x00413D92}));
    for (auto& s : seen) {
        EXPECT_EQ(s.kind, QX_EVENT_MIDI);
        EXPECT_EQ(s.device, 0);
    }
    EXPECT_EQ(echoed, (std::vector<std::vector<BYTE>>{{0xF4}, {0xF5}, {0xF9}, {0xFD}, {0xC3, 0x05},
                                                      {0x92, 0x3C, 0x40}, {0x92, 0x3D, 0x41}}));
}

TEST_F(MidiInTest, ThruRewritesTheChannelAndFollowsTheDefaultOutput)
{
    q->EnableMidiThru(1);
    q->ConnectMidiThru(5, 3); // no output 5: nothing changes
    EXPECT_EQ(q->GetMidiThruDevice(), 0);
    q->ConnectMidiThru(1, 16);
    EXPECT_EQ(q->GetMidiThruChannel(), -1);
    q->ConnectMidiThru(1, 9);
    q->OpenDevices();
    q->StartDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_IN, 0);
    Send(0, {0x92, 0x3C, 0x40});
    EXPECT_EQ(Out(1, 1), (std::vector<std::vector<BYTE>>{{0x99, 0x3C, 0x40}}));
    q->SetDefaultMidiDevice(2);
    q->EnableDefaultMidiDevice(1);
    Send(0, {0xB2, 0x07, 0x64});
    EXPECT_EQ(Out(2, 1), (std::vector<std::vector<BYTE>>{{0xB9, 0x07, 0x64}}));
    EXPECT_TRUE(Out(1).empty());
    q->EnableMidiThru(0);
    Send(0, {0x92, 0x3C, 0x40});
    Sleep(50);
    EXPECT_TRUE(Out(2).empty());
}

TEST_F(MidiInTest, RecordingsSeeEveryMessageInStartOrderWithTheirOwnValues)
{
    int ta = q->StartRecording(Recorder::Proc, reinterpret_cast<DWORD_PTR>(&a), 0);
    int tb = q->StartRecording(Recorder::Proc, reinterpret_cast<DWORD_PTR>(&b), 0);
    q->OpenDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_IN, 1);
    const int64_t before = NowNs();
    q->StartDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_IN, 1);
    Send(1, {0x90, 0x3C, 0x40}, before + 1'500'500'000);
    ASSERT_TRUE(b.WaitFor(1));
    auto sa = a.Take(), sb = b.Take();
    ASSERT_EQ(sa.size(), 1u);
    EXPECT_EQ(sa[0].tag, ta);
    EXPECT_EQ(sb[0].tag, tb);
    EXPECT_EQ(sa[0].user, reinterpret_cast<DWORD_PTR>(&a));
    EXPECT_EQ(sa[0].device, 1);
    EXPECT_GE(sa[0].time, 1500u);
    EXPECT_LE(sa[0].time, 1501u);
    EXPECT_EQ(sa[0].data, 0x00403C90u);

    // A callback that stops its own recording and starts another, on the input's thread.
    a.also = [&](int tag) {
        q->StopRecording(tag);
        q->StartRecording(Recorder::Proc, reinterpret_cast<DWORD_PTR>(&c), 0);
    };
    Send(1, {0x80, 0x3C, 0x00});
    ASSERT_TRUE(b.WaitFor(1));
    Send(1, {0x90, 0x3E, 0x40});
    ASSERT_TRUE(c.WaitFor(1));
    ASSERT_TRUE(b.WaitFor(2));
    EXPECT_EQ(a.Take().size(), 1u) << "stopped from inside its own callback";
    EXPECT_EQ(c.Take().size(), 1u) << "started inside a callback: from the next message on";
    q->StopRecording(tb);
    q->StopRecording(tb); // a tag held by none: nothing happens
}

TEST_F(MidiInTest, SlaveTimeStampsCountFromPlayStartAndEarlierOnesBecomeZero)
{
    q->StartRecording(Recorder::Proc, reinterpret_cast<DWORD_PTR>(&rec), 0);
    q->SetSyncMode(QX_SYNCMODE_SLAVE);
    q->OpenDevices();
    const int64_t t0 = NowNs();
    q->StartDevices();
    q->PauseDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_OUT, 0); // the next start takes a new play start
    Sleep(300);
    q->StartDevices();
    const DWORD delta = q->GetPlayStartTime() - q->GetRecordStartTime();
    ASSERT_GE(delta, 299u);
    Send(0, {0x90, 0x3C, 0x40}, t0 + 100'000'000);
    Send(0, {0x90, 0x3D, 0x40}, t0 + 600'000'000);
    ASSERT_TRUE(rec.WaitFor(2));
    auto seen = rec.Take();
    EXPECT_EQ(seen[0].time, 0u);
    EXPECT_NEAR(static_cast<double>(seen[1].time), 600.0 - delta, 2.0);
}

TEST_F(MidiInTest, StartAndContinueWaitForTheNextClock)
{
    q->SetSyncMode(QX_SYNCMODE_SLAVE);
    q->StartPerformance(SyncLog::Proc, reinterpret_cast<DWORD_PTR>(&log), 1, 0);
    q->OpenDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_IN, 0);
    q->StartDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_IN, 0);
    Send(0, {0xFA});
    Sleep(60); // what is not to come can only be looked for after a while
    EXPECT_TRUE(log.Codes().empty());
    Send(0, {0xF8});
    Send(0, {0xF8});
    for (int i = 0; i < 3000 && log.Codes().size() < 3; ++i) Sleep(1);
    EXPECT_EQ(log.Codes(), (std::vector<int>{QX_SYNC_START, QX_SYNC_CLOCK, QX_SYNC_CLOCK}));

    // Outside slave mode the same bytes do nothing at all.
    q->SetSyncMode(QX_SYNCMODE_INTERNAL);
    q->StartRecording(Recorder::Proc, reinterpret_cast<DWORD_PTR>(&rec), 0);
    size_t n = log.Codes().size();
    for (BYTE s : {0xFA, 0xF8, 0xFB, 0xF8, 0xFC}) Send(0, {s});
    Send(0, {0x90, 0x3C, 0x40});
    ASSERT_TRUE(rec.WaitFor(1));
    EXPECT_EQ(rec.Take().size(), 1u);
    EXPECT_EQ(log.Codes().size(), n);
}

TEST_F(MidiInTest, SlaveRunFollowsAnExternalClockFromStartToStop)
{
    q->SetSyncMode(QX_SYNCMODE_SLAVE);
    q->OpenDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_IN, 0);
    q->StartDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_IN, 0);
    // A queued performance, then start or continue, 24 clocks a quarter note at 120 BPM
    // as a drum machine sends them, and stop: it hears each, in order, and then ends.
    auto run = [&](SyncLog& perf, BYTE go, int goCode, int clocks) {
        q->StartPerformance(SyncLog::Proc, reinterpret_cast<DWORD_PTR>(&perf), 1, 0);
        q->QueueSlavedPerformance();
        EXPECT_TRUE(Out(0).empty()) << "queued, not playing before the external start";
        Send(0, {go});
        const int64_t startNs = NowNs();
        for (int i = 0; i < clocks; ++i) {
            Send(0, {0xF8});
            std::this_thread::sleep_for(std::chrono::microseconds(20833));
        }
        Send(0, {0xFC});
        for (int i = 0; i < 3000 && (perf.Codes().size() < size_t(clocks) + 2 || q->IsActive() != 0); ++i) Sleep(1);
        auto played = QXVirtualTakeMidiOut(0);
        ASSERT_FALSE(played.empty());
        EXPECT_GE(played.front().timeNs, startNs) << "the queued periods start with the external start";
        EXPECT_EQ(q->IsActive(), 0) << "no performance remains after the external stop";
        std::vector<int> expect{goCode};
        expect.insert(expect.end(), clocks, QX_SYNC_CLOCK);
        expect.push_back(QX_SYNC_STOP);
        EXPECT_EQ(perf.Codes(), expect);
        std::lock_guard<std::mutex> lock(perf.mutex);
        DWORD last = 0;
        for (auto& c : perf.calls)
            if (c.first == QX_SYNC_CLOCK) {
                EXPECT_GE(c.second, last) << "clock stamps rise";
                last = c.second;
            }
    };
    run(first, 0xFA, QX_SYNC_START, 48);
    run(second, 0xFB, QX_SYNC_CONTINUE, 24); // play again
}

TEST_F(MidiInTest, StoppingARecordingFromASyncNotificationCannotDeadlock)
{
    // A recording callback holds the recording lock and needs the device lock, while a
    // performance, notified of a clock with the device lock held, stops that recording.
    q->SetSyncMode(QX_SYNCMODE_SLAVE);
    std::atomic<bool> inRecording{false}, inSync{false}, syncDone{false};
    int tag = 0;
    rec.also = [&](int) {
        inRecording = true;
        for (int i = 0; i < 2000 && !inSync; ++i) Sleep(1);
        q->SendMidiMsg(0, 0x00403C90, 1); // takes the device lock
    };
    tag = q->StartRecording(Recorder::Proc, reinterpret_cast<DWORD_PTR>(&rec), 0);
    q->StartRecording(Recorder::Proc, reinterpret_cast<DWORD_PTR>(&a), 0); // called after rec
    perf.also = [&](int code) {
        if (code != QX_SYNC_CLOCK || syncDone) return;
        for (int i = 0; i < 2000 && !inRecording; ++i) Sleep(1);
        inSync = true;
        Sleep(20); // the recording callback is now waiting for the device lock
        q->StopRecording(tag);
        syncDone = true;
    };
    q->StartPerformance(SyncLog::Proc, reinterpret_cast<DWORD_PTR>(&perf), 0, 0);
    q->OpenDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_IN, 0);
    q->StartDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_IN, 0);
    Send(0, {0x90, 0x3C, 0x40});
    Send(0, {0xF8});
    for (int i = 0; i < 3000 && !syncDone; ++i) Sleep(1);
    ASSERT_TRUE(syncDone) << "the sync handler is stuck";
    ASSERT_TRUE(rec.WaitFor(1));
    Send(0, {0x90, 0x3D, 0x40});
    ASSERT_TRUE(a.WaitFor(2));
    EXPECT_EQ(rec.Take().size(), 1u) << "the recording was stopped";
}

TEST_F(MidiInTest, DestroyingAnOpenInputLeavesNoOpenPlatformInput)
{
    auto* in = new CMidiIn;
    ASSERT_EQ(in->Open(1), 1);
    ASSERT_EQ(in->Start(), 1);
    ASSERT_EQ(in->Pause(), 1);
    EXPECT_EQ(in->GetState(), QX_STATE_OPEN | QX_STATE_PAUSED);
    delete in;
    EXPECT_FALSE(QXVirtualInjectMidiIn(1, reinterpret_cast<const BYTE*>("\x90\x3C\x40"), 3)) << "closed";
    HMIDIIN h;
    EXPECT_EQ(midiInOpen(&h, 1, 0, 0, CALLBACK_NULL), MMSYSERR_NOERROR);
    midiInClose(h);
    QX_DevCaps caps;
    EXPECT_EQ(CMidiIn::GetDeviceCaps(1, &caps), 1);
    EXPECT_STREQ(caps.midiIn.szPname, "Quavix Virtual MIDI In 2");
    EXPECT_EQ(CMidiIn::GetDeviceCaps(2, &caps), 0);
}
