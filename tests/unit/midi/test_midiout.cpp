// The performance engine playing through real MIDI outputs on the virtual backend.
#include "MidiFixture.h"

namespace {

constexpr int64_t kPeriodNs = 100'000'000;
using MidiOutTest = MidiTest;

} // namespace

TEST_F(MidiOutTest, DefaultOutputTakesEveryMidiEventAndSysExIsNotCopied)
{
    const Msg sysex{0xF0, 0x43, 0x10, 0x4C, 0x00, 0xF7};
    q->SetDefaultMidiDevice(1);
    q->EnableDefaultMidiDevice(1);
    q->OpenDevices();
    q->StartDevices();
    const DWORD t = q->GetBufferTime() + 50;
    Play({MidiEvent(0x00403C91, t, 2), SysExEvent(sysex, t)});
    EXPECT_EQ(Out(1, 2), (Msgs{Bytes(0x00403C91), sysex}));
    EXPECT_TRUE(Out(2).empty());
    EXPECT_TRUE(Out(0).empty());
}

TEST_F(MidiOutTest, PeriodsAreAskedOnTheGridAfterThePrefetchAndSurviveAPause)
{
    Perf p;
    p.fn = [&](int, DWORD s, DWORD) {
        Play({MidiEvent(0x00400090 | ((s / 100) << 8), s + 10)});
        return 1;
    };
    p.Start(q, 1);
    q->OpenDevices();
    EXPECT_EQ(q->GetBufferTime(), 200u);
    EXPECT_EQ(p.polls.load(), 0) << "the first periods are written without asking";
    q->StartDevices();
    ASSERT_TRUE(Eventually([&] { return p.polls >= 3; }));
    q->PauseDevices();
    const size_t asked = size_t(p.polls.load());
    std::this_thread::sleep_for(std::chrono::milliseconds(50)); // a pause the stream's times must show
    q->StartDevices();
    auto out = Sent(0, asked + 1);
    q->StopDevices();
    // Every period asked for before the pause was played after it, in order, on the grid.
    ASSERT_GT(out.size(), asked);
    EXPECT_EQ(out[0].bytes[1], 2) << "the first event the performance gave is for 200-300";
    for (size_t i = 1; i < out.size(); ++i) {
        EXPECT_EQ(out[i].bytes[1], out[i - 1].bytes[1] + 1);
        const int64_t gap = out[i].dueNs - out[i - 1].dueNs;
        EXPECT_TRUE(gap == kPeriodNs || gap >= kPeriodNs + 50'000'000) << i << " " << gap;
    }
    for (size_t i = 0; i < p.periods.size(); ++i)
        EXPECT_EQ(p.periods[i], std::make_pair(DWORD(200 + 100 * i), DWORD(300 + 100 * i)));

    // Stop, close, open, start: the buffer time and the periods begin at 0 again.
    p.periods.clear();
    q->CloseDevices();
    EXPECT_EQ(q->GetBufferTime(), 0u);
    const int before = p.polls;
    q->OpenDevices();
    q->StartDevices();
    ASSERT_TRUE(Eventually([&] { return p.polls > before; }));
    q->StopDevices();
    EXPECT_EQ(p.periods.front().first, 200u);
}

TEST_F(MidiOutTest, PerformancesEndByThemselvesOrByStopAlsoFromInsideAPoll)
{
    Perf ends, victim, killer, late;
    ends.fn = [&](int, DWORD, DWORD) { return ends.polls < 3 ? 1 : 0; };
    int victimTag = 0;
    killer.fn = [&](int, DWORD s, DWORD) {
        if (s == 300) {
            q->StopPerformance(victimTag); // one that comes later in the walk
            late.Start(q);
        }
        Play({MidiEvent(0x00403C90, s)}); // from inside the poll
        return 1;
    };
    ends.Start(q, 1);
    killer.Start(q);
    victimTag = victim.Start(q);
    q->OpenDevices();
    q->StartDevices();
    ASSERT_TRUE(Eventually([&] { return late.polls >= 2; }));
    q->StopDevices();
    EXPECT_EQ(ends.polls.load(), 3);
    EXPECT_EQ(q->IsActive(), 0) << "the active one ended itself";
    ASSERT_FALSE(victim.periods.empty());
    EXPECT_EQ(victim.periods.back().first, 200u) << "not called once stopped";
    EXPECT_EQ(late.periods.front().first, 400u) << "a performance started in a poll begins with the next";
    EXPECT_EQ(Out(0, 1).at(0), Bytes(0x00403C90));

    q->StopPerformance(-1);
    const int n = killer.polls;
    Perf probe;
    q->CloseDevices();
    q->OpenDevices();
    q->StartDevices();
    probe.Start(q);
    ASSERT_TRUE(Eventually([&] { return probe.polls >= 2; }));
    q->StopDevices();
    EXPECT_EQ(killer.polls.load(), n) << "StopPerformance(-1) removed every performance";
}

TEST_F(MidiOutTest, QueuedSendsGoFirstIntoTheNextPeriod)
{
    q->OpenDevices(); // buffer time is now 200
    q->SendMidiNote(0, 0x00403C90, 0x00003C80, 250, 1);
    const Msg sysex{0xF0, 1, 2, 3, 4, 0xF7};
    q->SendSysExMsg(0, sysex.data(), int(sysex.size()), 1);
    q->SendMidiMsg(0, 0x000007B0, 1);
    q->StartDevices();
    auto out = Sent(0, 4);
    q->StopDevices();
    ASSERT_EQ(out.size(), 4u);
    Msgs bytes;
    for (auto& m : out) bytes.push_back(m.bytes);
    EXPECT_EQ(bytes, (Msgs{Bytes(0x000007B0), sysex, Bytes(0x00403C90), Bytes(0x00003C80)})) << "each to the head";
    EXPECT_EQ(out[2].dueNs, out[0].dueNs) << "all at the start of the period";
    EXPECT_EQ(out[3].dueNs - out[2].dueNs, 250'000'000);
    EXPECT_TRUE(Out(1).empty()) << "queued SysEx goes to its own output only";
}

TEST_F(MidiOutTest, ImmediateNotesEndByThemselvesUnlessTheOutputGoes)
{
    auto* out = static_cast<CMidiOut*>(q->GetDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_OUT, 0));
    EXPECT_EQ(out->PlayMidi(0x90), 0) << "closed";
    q->OpenDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_OUT, 0);
    q->SendMidiNote(0, 0x00403C90, 0, 300, 0);
    EXPECT_EQ(out->PlayNote(0x00503E90, 2000), 1); // ends with the pending one
    auto msgs = Sent(0, 4);
    ASSERT_EQ(msgs.size(), 4u);
    EXPECT_EQ(msgs[2].bytes, Bytes(0x00003C90));
    EXPECT_EQ(msgs[3].bytes, Bytes(0x00003E90));
    EXPECT_GE(msgs[2].timeNs - msgs[0].timeNs, 290'000'000);
    EXPECT_LT(msgs[3].timeNs - msgs[0].timeNs, 1'900'000'000);
    EXPECT_EQ(out->PlaySysEx(nullptr, 4), 0);
    const BYTE sysex[] = {0xF0, 0x7E, 0xF7};
    q->SendSysExMsg(0, sysex, 3, 0);
    EXPECT_EQ(Out(0), (Msgs{Msg(sysex, sysex + 3)}));
    out->PlayNote(0x00403C90, 100);
    CQuavix::ExitQuavix();
    std::this_thread::sleep_for(std::chrono::milliseconds(300)); // the note-off would have come by now
    EXPECT_EQ(Out(0).size(), 1u) << "pending note-offs die with the output";
}

// Destroyed while open, with a buffer queued or paused: neither leaves its platform
// device open.
TEST_F(MidiOutTest, DevicesDestroyedWhileOpenCloseTheirPlatformDevices)
{
    auto* out = new CMidiOut;
    ASSERT_EQ(out->Open(2), 1);
    CQXEventList list;
    out->PlayData(&list, 0, 100);
    delete out;
    HMIDISTRM h;
    UINT dev = 2;
    ASSERT_EQ(midiStreamOpen(&h, &dev, 1, 0, 0, CALLBACK_NULL), MMSYSERR_NOERROR);
    midiStreamClose(h);
    auto* in = new CMidiIn;
    ASSERT_EQ(in->Open(1) + in->Start() + in->Pause(), 3);
    EXPECT_EQ(in->GetState(), QX_STATE_OPEN | QX_STATE_PAUSED);
    delete in;
    EXPECT_FALSE(qxplat::QXVirtualInjectMidiIn(1, reinterpret_cast<const BYTE*>("\x90\x3C\x40"), 3)) << "closed";
    HMIDIIN hIn;
    EXPECT_EQ(midiInOpen(&hIn, 1, 0, 0, CALLBACK_NULL), MMSYSERR_NOERROR);
    midiInClose(hIn);
}

// More than one stream buffer can hold in one period: it goes out whole, on time, in
// several buffers that pace the engine as one; an event no buffer can hold is reported.
TEST_F(MidiOutTest, ADensePeriodPlaysWholeAndPacesAsOne)
{
    q->SetNotificationCallback(wavetest::ReportLog::Proc, 0);
    wavetest::ReportLog::Take();
    q->SetDefaultMidiDevice(0); // SysEx to output 0 only, not copied to the others
    q->EnableDefaultMidiDevice(1);
    auto big = [](size_t cb, BYTE fill, DWORD time) {
        Msg bytes(cb, fill);
        bytes.front() = 0xF0;
        bytes.back() = 0xF7;
        return SysExEvent(bytes, time);
    };
    // Three 6 MiB messages due at once need two buffers; the split falls between two
    // messages of the same time. 17 MiB fits no buffer.
    Play({big(6 << 20, 0x11, 20), big(6 << 20, 0x22, 20), big(6 << 20, 0x33, 20), big(17 << 20, 0x44, 40),
          MidiEvent(0x00403C90, 50)});
    Perf p;
    std::vector<std::pair<DWORD, int64_t>> asked; // period start, ms since start when asked
    int64_t t0 = 0;
    p.fn = [&](int, DWORD s, DWORD) {
        asked.emplace_back(s, (qxplat::NowNs() - t0) / 1'000'000);
        Play({MidiEvent(0x00400090 | ((s / 100) << 8), s + 10)});
        return 1;
    };
    p.Start(q, 1);
    q->OpenDevices();
    t0 = qxplat::NowNs(); // before the stream starts: the times asked can only seem late
    q->StartDevices();
    auto out = Sent(0, 6);
    q->StopDevices();

    EXPECT_EQ(wavetest::ReportLog::Take(), (wavetest::Log{{QXN_MIDIOUT_PREPARE, MMSYSERR_INVALPARAM, 0}}));
    ASSERT_GE(out.size(), 6u);
    for (size_t i = 0; i < 3; ++i) {
        ASSERT_EQ(out[i].bytes.size(), 6u << 20) << i;
        EXPECT_EQ(out[i].bytes[1], BYTE(0x11 * (i + 1))) << "in their order";
        EXPECT_EQ(out[i].dueNs, out[0].dueNs) << "at the same time across the split";
    }
    EXPECT_EQ(out[3].bytes, Bytes(0x00403C90));
    EXPECT_EQ(out[3].dueNs - out[0].dueNs, 30'000'000) << "the second buffer keeps the period's time";
    EXPECT_EQ(out[4].bytes, Bytes(0x00400290));
    EXPECT_EQ(out[4].dueNs - out[0].dueNs, 190'000'000) << "and so do the periods after it";
    // One poll per period: each is asked for once, in turn, when the one two before it
    // has played, never a period earlier.
    ASSERT_GE(asked.size(), 2u);
    for (size_t i = 0; i < asked.size(); ++i) {
        EXPECT_EQ(asked[i].first, 200 + 100 * i);
        EXPECT_LE(int64_t{asked[i].first} - asked[i].second, 150) << "period " << asked[i].first << " asked early";
    }
}
