// The performance engine playing through real MIDI outputs on the virtual backend.
#include <quavix/Quavix.h>

#include "platform/QXFaults.h"
#include "platform/QXPlatform.h"
#include "platform/backends/QXBackend.h"
#include "platform/backends/virtual/QXVirtual.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <mutex>
#include <vector>

namespace {

using qxplat::QXVirtualTakeMidiOut;
using Msg = std::vector<BYTE>;

CQXEventData* Midi(DWORD msg, DWORD time, int device = 0)
{
    auto* e = new CQXEventData;
    e->SetMidiData(msg);
    e->SetTimeStamp(time);
    e->SetDevice(device);
    return e;
}

Msg Bytes(DWORD msg)
{
    BYTE s = static_cast<BYTE>(msg);
    Msg m{s, static_cast<BYTE>(msg >> 8), static_cast<BYTE>(msg >> 16)};
    if ((s & 0xF0) == 0xC0 || (s & 0xF0) == 0xD0) m.resize(2);
    if (s >= 0xF8) m.resize(1);
    return m;
}

std::vector<Msg> Messages(int n)
{
    std::vector<Msg> out;
    for (auto& m : QXVirtualTakeMidiOut(n)) out.push_back(m.bytes);
    return out;
}

// Performances whose callbacks are std::functions, so that each test says what they do.
struct Perf {
    std::function<int(int, DWORD, DWORD)> fn;
    std::vector<std::pair<DWORD, DWORD>> periods; // written under the device lock
    static int Proc(DWORD_PTR user, int tag, DWORD s, DWORD e)
    {
        auto* p = reinterpret_cast<Perf*>(user);
        if (tag > 0) p->periods.emplace_back(s, e);
        return p->fn ? p->fn(tag, s, e) : 1;
    }
};

class EngineTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        QXFaultClear();
        qxplat::QXVirtualSetDevices(0, 3, 0, 0);
        for (int n = 0; n < 3; ++n) QXVirtualTakeMidiOut(n);
        q = CQuavix::InitQuavix();
        q->Initialize(QX_INIT_MIDI);
    }
    void TearDown() override
    {
        CQuavix::ExitQuavix();
        QXFaultClear();
        qxplat::QXVirtualSetDevices(1, 1, 1, 1);
    }
    void Play(std::initializer_list<CQXEventData*> events)
    {
        CQXEventList list;
        for (auto* e : events) list.AddTail(e);
        q->PlayBuffer(list);
    }
    // The manager's notifications from now on, as code, value, device.
    std::vector<DWORD>& Reports()
    {
        static std::vector<DWORD> r;
        r.clear();
        q->SetNotificationCallback([](DWORD c, DWORD v, DWORD_PTR d) { r.insert(r.end(), {c, v, DWORD(d)}); }, 0);
        return r;
    }
    // Runs the engine for a while on the first output (the timing device).
    void Run(int ms)
    {
        q->OpenDevices();
        q->StartDevices();
        Sleep(static_cast<DWORD>(ms));
        q->StopDevices(); // takes the device lock: what the polls wrote is visible after
    }

    CQuavix* q = nullptr;
};

} // namespace

TEST_F(EngineTest, MergeKeepsTimeOrderAndPutsNoteOffsFirstAmongEquals)
{
    Play({Midi(0x00403C90, 150), Midi(0x00403D90, 150), Midi(0x00003C80, 150), Midi(0x00003D90, 150),
          Midi(0x000007B0, 150), Midi(0x00403E90, 120), Midi(0x00003E80, 180)});
    Run(350);
    std::vector<Msg> expect{Bytes(0x00403E90), Bytes(0x00003D90), Bytes(0x00003C80), Bytes(0x00403C90),
                            Bytes(0x00403D90), Bytes(0x000007B0), Bytes(0x00003E80)};
    EXPECT_EQ(Messages(0), expect);
}

TEST_F(EngineTest, RoutingFollowsKindDefaultOutputAndCopiesSysEx)
{
    const BYTE sysex[] = {0xF0, 0x43, 0x10, 0x4C, 0x00, 0xF7};
    auto* s = new CQXEventData;
    s->SetSysExData(sysex, sizeof sysex);
    s->SetDevice(1);
    s->SetTimeStamp(110);
    auto* header = new CQXEventData;
    header->SetWaveHeader(nullptr);
    auto* meta = new CQXEventData;
    meta->SetFileMeta(5);
    Play({Midi(0x00403C90, 100, 2), Midi(0x00403C90, 100, 7), s, header, meta});
    q->OpenDevices();
    q->StartDevices();
    Sleep(300);
    auto o0 = Messages(0), o1 = Messages(1), o2 = Messages(2);
    EXPECT_EQ(o0, (std::vector<Msg>{Msg(sysex, sysex + 6)})) << "a copy on each other output";
    EXPECT_EQ(o1, (std::vector<Msg>{Msg(sysex, sysex + 6)}));
    EXPECT_EQ(o2, (std::vector<Msg>{Bytes(0x00403C90), Msg(sysex, sysex + 6)}));

    // With the default output in force, every MIDI event goes there.
    q->SetDefaultMidiDevice(1);
    q->EnableDefaultMidiDevice(1);
    auto* s2 = new CQXEventData;
    s2->SetSysExData(sysex, sizeof sysex);
    s2->SetTimeStamp(q->GetBufferTime() + 50);
    Play({Midi(0x00403C91, q->GetBufferTime() + 50, 2), s2});
    Sleep(400);
    EXPECT_EQ(Messages(1), (std::vector<Msg>{Bytes(0x00403C91), Msg(sysex, sysex + 6)}));
    EXPECT_TRUE(Messages(2).empty());
    EXPECT_TRUE(Messages(0).empty());
}

TEST_F(EngineTest, PrefetchIsWrittenAtOpenAndPerformancesFillTheFollowingPeriods)
{
    Perf p;
    p.fn = [&](int, DWORD s, DWORD) {
        Play({Midi(0x00400090 | ((s / 100) << 8), s + 10)});
        return 1;
    };
    q->StartPerformance(Perf::Proc, reinterpret_cast<DWORD_PTR>(&p), 1, 0);
    q->OpenDevices();
    EXPECT_EQ(q->GetBufferTime(), 200u);
    EXPECT_TRUE(p.periods.empty()) << "the first periods are written without asking";
    q->StartDevices();
    Sleep(650);
    q->StopDevices();
    ASSERT_GE(p.periods.size(), 4u);
    for (size_t i = 0; i < p.periods.size(); ++i)
        EXPECT_EQ(p.periods[i], std::make_pair(DWORD(200 + 100 * i), DWORD(300 + 100 * i)));
    auto out = QXVirtualTakeMidiOut(0);
    ASSERT_GE(out.size(), 3u);
    for (size_t i = 1; i < out.size(); ++i) EXPECT_EQ(out[i].dueNs - out[i - 1].dueNs, 100'000'000);
    EXPECT_EQ(out[0].bytes[1], 2) << "the first event the performance gave is for 200-300";
}

TEST_F(EngineTest, PerformancesEndByThemselvesOrByStopAlsoFromInsideAPoll)
{
    Perf ends, victim, killer, late;
    int calls = 0;
    ends.fn = [&](int, DWORD, DWORD) { return ++calls < 3 ? 1 : 0; };
    int victimTag = 0;
    bool started = false;
    killer.fn = [&](int, DWORD s, DWORD) {
        if (s == 300) q->StopPerformance(victimTag); // stops one that comes later in the walk
        if (s == 300 && !started) {
            started = true;
            q->StartPerformance(Perf::Proc, reinterpret_cast<DWORD_PTR>(&late), 0, 0);
        }
        Play({Midi(0x00403C90, s)}); // from inside the poll
        return 1;
    };
    q->StartPerformance(Perf::Proc, reinterpret_cast<DWORD_PTR>(&ends), 1, 0);
    q->StartPerformance(Perf::Proc, reinterpret_cast<DWORD_PTR>(&killer), 0, 0);
    victimTag = q->StartPerformance(Perf::Proc, reinterpret_cast<DWORD_PTR>(&victim), 0, 0);
    Run(750);
    EXPECT_EQ(calls, 3);
    EXPECT_EQ(q->IsActive(), 0) << "the active one ended itself";
    ASSERT_FALSE(victim.periods.empty());
    EXPECT_EQ(victim.periods.back().first, 200u) << "not called once stopped";
    ASSERT_FALSE(late.periods.empty());
    EXPECT_EQ(late.periods.front().first, 400u) << "a performance started in a poll begins with the next";
    q->StopPerformance(-1);
    size_t n = killer.periods.size();
    Run(350);
    EXPECT_EQ(killer.periods.size(), n) << "StopPerformance(-1) removed every performance";
}

TEST_F(EngineTest, PauseKeepsQueuedBuffersAndANewRunStartsAtTimeZero)
{
    Perf p;
    p.fn = [&](int, DWORD s, DWORD) {
        Play({Midi(0x00403C90, s + 50)});
        return 1;
    };
    q->StartPerformance(Perf::Proc, reinterpret_cast<DWORD_PTR>(&p), 0, 0);
    q->OpenDevices();
    q->StartDevices();
    Sleep(250);
    q->PauseDevices();
    size_t polled = p.periods.size();
    Sleep(300);
    q->StartDevices();
    Sleep(260);
    q->StopDevices();
    auto out = QXVirtualTakeMidiOut(0);
    // Every period asked for up to the pause, plus those after it, was played: the
    // queued ones survived the pause, in order and on the 100 ms grid.
    ASSERT_GE(out.size(), polled);
    for (size_t i = 1; i < out.size(); ++i) {
        int64_t gap = out[i].dueNs - out[i - 1].dueNs;
        EXPECT_TRUE(gap == 100'000'000 || gap >= 300'000'000) << i << " " << gap;
    }

    // Stop, close, open, start: the buffer time and the periods begin at 0 again.
    p.periods.clear();
    q->CloseDevices();
    EXPECT_EQ(q->GetBufferTime(), 0u);
    Run(300);
    ASSERT_FALSE(p.periods.empty());
    EXPECT_EQ(p.periods.front().first, 200u);
}

TEST_F(EngineTest, QueuedSendsGoFirstIntoTheNextPeriod)
{
    q->OpenDevices(); // buffer time is now 200
    q->SendMidiNote(0, 0x00403C90, 0x00003C80, 250, 1);
    const BYTE sysex[] = {0xF0, 1, 2, 3, 4, 0xF7};
    q->SendSysExMsg(0, sysex, sizeof sysex, 1);
    q->SendMidiMsg(0, 0x000007B0, 1);
    q->StartDevices();
    Sleep(650);
    q->StopDevices();
    auto out = QXVirtualTakeMidiOut(0);
    ASSERT_EQ(out.size(), 4u);
    EXPECT_EQ(out[0].bytes, Bytes(0x000007B0)) << "each queued send goes to the head";
    EXPECT_EQ(out[1].bytes.size(), 6u);
    EXPECT_EQ(out[2].bytes, Bytes(0x00403C90));
    EXPECT_EQ(out[3].bytes, Bytes(0x00003C80));
    EXPECT_EQ(out[2].dueNs, out[0].dueNs) << "all at the start of the period";
    EXPECT_EQ(out[3].dueNs - out[2].dueNs, 250'000'000);
    EXPECT_TRUE(Messages(1).empty()) << "queued SysEx goes to its own output only";
}

TEST_F(EngineTest, PanicSendsEveryNoteOffAndResetToOpenOutputs)
{
    q->OpenDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_OUT, 0);
    q->OpenDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_OUT, 2);
    q->OnPanicButton();
    for (int n : {0, 2}) {
        auto out = Messages(n);
        ASSERT_EQ(out.size(), 2081u);
        size_t i = 0;
        for (DWORD ch = 0; ch < 16; ++ch) {
            for (DWORD k = 0; k < 128; ++k) ASSERT_EQ(out[i++], Bytes(0x90 | ch | (k << 8)));
            EXPECT_EQ(out[i++], Bytes(0x79B0 | ch));
            EXPECT_EQ(out[i++], Bytes(0x7BB0 | ch));
        }
        EXPECT_EQ(out[i], Msg{0xFF});
    }
    EXPECT_TRUE(Messages(1).empty()) << "a closed output sends nothing";
}

TEST_F(EngineTest, ImmediateNotesEndByThemselves)
{
    auto* out = static_cast<CMidiOut*>(q->GetDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_OUT, 0));
    EXPECT_EQ(out->PlayMidi(0x90), 0) << "closed";
    q->OpenDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_OUT, 0);
    q->SendMidiNote(0, 0x00403C90, 0, 300, 0);
    Sleep(100);
    EXPECT_EQ(out->PlayNote(0x00503E90, 2000), 1); // ends with the pending one
    Sleep(400);
    auto msgs = QXVirtualTakeMidiOut(0);
    ASSERT_EQ(msgs.size(), 4u);
    EXPECT_EQ(msgs[2].bytes, Bytes(0x00003C90));
    EXPECT_EQ(msgs[3].bytes, Bytes(0x00003E90));
    EXPECT_GE(msgs[2].timeNs - msgs[0].timeNs, 290'000'000);
    EXPECT_LT(msgs[3].timeNs - msgs[0].timeNs, 1'000'000'000);
    EXPECT_EQ(out->PlaySysEx(nullptr, 4), 0);
    const BYTE sysex[] = {0xF0, 0x7E, 0xF7};
    q->SendSysExMsg(0, sysex, 3, 0);
    EXPECT_EQ(Messages(0), (std::vector<Msg>{Msg(sysex, sysex + 3)}));
    // Pending note-offs die with the output.
    out->PlayNote(0x00403C90, 300);
    CQuavix::ExitQuavix();
    q = nullptr;
    Sleep(400);
    EXPECT_EQ(Messages(0).size(), 1u);
}

TEST_F(EngineTest, FailuresAreReportedAndLeaveNoStreamOpen)
{
    std::vector<DWORD>& reports = Reports();
    QXFaultInject("midiStreamOpen", MMSYSERR_NOMEM);
    EXPECT_EQ(q->OpenDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_OUT, 1), 0);
    EXPECT_EQ(reports, (std::vector<DWORD>{QXN_MIDIOUT_OPEN, MMSYSERR_NOMEM, 1}));
    reports.clear();
    QXFaultInject("midiStreamProperty", MMSYSERR_NOTSUPPORTED);
    EXPECT_EQ(q->OpenDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_OUT, 1), 0);
    EXPECT_EQ(reports, (std::vector<DWORD>{QXN_MIDIOUT_SETTIMING, MMSYSERR_NOTSUPPORTED, 1}));
    reports.clear();
    EXPECT_EQ(q->OpenDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_OUT, 1), 1) << "the failed open closed its stream";

    // A stream that refuses a buffer: reported, and the period is gone, not leaked.
    reports.clear();
    QXFaultInject("midiStreamOut", MMSYSERR_NOMEM);
    q->OpenDevices();
    EXPECT_EQ(reports[0], DWORD(QXN_MIDIOUT_SEND));

    // An output destroyed while open with buffers queued closes its stream.
    q->CloseDevices();
    auto* out = new CMidiOut;
    ASSERT_EQ(out->Open(2), 1);
    CQXEventList list;
    out->PlayData(&list, 0, 100);
    delete out;
    HMIDISTRM h;
    UINT dev = 2;
    ASSERT_EQ(midiStreamOpen(&h, &dev, 1, 0, 0, CALLBACK_NULL), MMSYSERR_NOERROR);
    midiStreamClose(h);
}

namespace {

CQXEventData* SysEx(size_t cb, BYTE fill, DWORD time)
{
    std::vector<BYTE> bytes(cb, fill);
    bytes.front() = 0xF0;
    bytes.back() = 0xF7;
    auto* e = new CQXEventData;
    e->SetSysExData(bytes.data(), static_cast<DWORD>(cb));
    e->SetTimeStamp(time);
    return e;
}

} // namespace

// More than one stream buffer can hold in one period: it goes out whole, on time, in
// several buffers that pace the engine as one; an event no buffer can hold is reported.
TEST_F(EngineTest, ADensePeriodPlaysWholeAndPacesAsOne)
{
    std::vector<DWORD>& reports = Reports();
    q->SetDefaultMidiDevice(0); // SysEx to output 0 only, not copied to the others
    q->EnableDefaultMidiDevice(1);
    const size_t big = 6u << 20;
    // Three 6 MiB messages due at once need two buffers; the split falls between two
    // messages of the same time. 17 MiB fits no buffer.
    Play({SysEx(big, 0x11, 20), SysEx(big, 0x22, 20), SysEx(big, 0x33, 20), SysEx(17u << 20, 0x44, 40),
          Midi(0x00403C90, 50)});
    Perf p;
    std::vector<std::pair<DWORD, int64_t>> asked; // period start, ms since start when asked
    int64_t t0 = 0;
    p.fn = [&](int, DWORD s, DWORD) {
        asked.emplace_back(s, (qxplat::NowNs() - t0) / 1'000'000);
        Play({Midi(0x00400090 | ((s / 100) << 8), s + 10)});
        return 1;
    };
    q->StartPerformance(Perf::Proc, reinterpret_cast<DWORD_PTR>(&p), 1, 0);
    q->OpenDevices();
    t0 = qxplat::NowNs(); // before the stream starts: the times asked can only seem late
    q->StartDevices();
    Sleep(650);
    q->StopDevices();

    EXPECT_EQ(reports, (std::vector<DWORD>{QXN_MIDIOUT_PREPARE, MMSYSERR_INVALPARAM, 0}));
    auto out = QXVirtualTakeMidiOut(0);
    ASSERT_GE(out.size(), 6u);
    for (size_t i = 0; i < 3; ++i) {
        ASSERT_EQ(out[i].bytes.size(), big) << i;
        EXPECT_EQ(out[i].bytes[1], BYTE(0x11 * (i + 1))) << "in their order";
        EXPECT_EQ(out[i].dueNs, out[0].dueNs) << "at the same time across the split";
    }
    EXPECT_EQ(out[3].bytes, Bytes(0x00403C90));
    EXPECT_EQ(out[3].dueNs - out[0].dueNs, 30'000'000) << "the second buffer keeps the period's time";
    EXPECT_EQ(out[4].bytes, Bytes(0x00400290));
    EXPECT_EQ(out[4].dueNs - out[0].dueNs, 190'000'000) << "and so do the periods after it";

    // One poll per period: each is asked for once, in turn, when the one two before it
    // has played, never a period earlier.
    ASSERT_GE(asked.size(), 3u);
    for (size_t i = 0; i < asked.size(); ++i) {
        EXPECT_EQ(asked[i].first, 200 + 100 * i);
        EXPECT_LE(int64_t{asked[i].first} - asked[i].second, 150) << "period " << asked[i].first << " asked early";
    }
}
