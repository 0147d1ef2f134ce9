// Every notification code a failing platform call makes a device raise, with its value
// and its device. Codes provoked elsewhere are checked by the tests of their devices.
#include <quavix/Quavix.h>

#include "platform/QXFaults.h"
#include "platform/QXPlatform.h"
#include "platform/backends/virtual/QXVirtual.h"
#include "unit/wavefile/WaveTestUtil.h"

#include <functional>

namespace {

using Reports = wavetest::ReportLog;
using Got = wavetest::Log;

class Failures : public ::testing::Test {
protected:
    void SetUp() override
    {
        QXFaultClear();
        qxplat::QXVirtualSetDevices(3, 3, 2, 0);
        for (int n = 0; n < 3; ++n) qxplat::QXVirtualTakeMidiOut(n);
        q = CQuavix::InitQuavix();
        q->Initialize(QX_INIT_MIDI);
        Reports::Take();
        q->SetNotificationCallback(Reports::Proc, 0);
    }
    void TearDown() override
    {
        QXFaultClear();
        CQuavix::ExitQuavix();
        EXPECT_EQ(Reports::Take(), Got{}) << "closing at exit reports nothing";
        qxplat::QXVirtualSetDevices(1, 1, 1, 1);
    }
    // The step fails while the call is made to fail, and reports it once.
    static void Fails(const char* call, DWORD result, const std::function<int()>& step, DWORD code, DWORD_PTR dev)
    {
        SCOPED_TRACE(call);
        QXFaultInject(call, result);
        EXPECT_EQ(step(), 0);
        EXPECT_EQ(Reports::Take(), (Got{{code, result, dev}}));
    }
    std::function<int()> Step(int (CQuavix::*step)(int, int, int), int nDir, int n)
    {
        return [=, this] { return (q->*step)(QX_DEVTYPE_MIDI, nDir, n); };
    }
    UINT State(int nDir, int n) { return q->GetDeviceState(QX_DEVTYPE_MIDI, nDir, n); }

    CQuavix* q = nullptr;
};

} // namespace

// A failed step leaves the input where it was, and succeeds once the fault is gone. A
// paused input is a stopped one: pausing fails the same way.
TEST_F(Failures, MidiInputReportsEveryFailingCallWithItsNumber)
{
    QX_DevCaps caps;
    Fails("midiInGetDevCapsA", MMSYSERR_NODRIVER, [&] { return CMidiIn::GetDeviceCaps(1, &caps); },
          QXN_MIDIIN_GETCAPS, 1);
    EXPECT_EQ(CMidiIn::GetDeviceCaps(7, &caps), 0) << "no such input";
    EXPECT_EQ(Reports::Take(), (Got{{QXN_MIDIIN_GETCAPS, MMSYSERR_BADDEVICEID, 7}}));
    EXPECT_EQ(CMidiIn::GetDeviceCaps(1, &caps), 1);
    const struct {
        const char* call;
        DWORD result, code;
        int (CQuavix::*step)(int, int, int);
    } steps[] = {{"midiInOpen", MMSYSERR_ALLOCATED, QXN_MIDIIN_OPEN, &CQuavix::OpenDevice},
                 {"midiInStart", MMSYSERR_NOMEM, QXN_MIDIIN_START, &CQuavix::StartDevice},
                 {"midiInStop", MMSYSERR_ERROR, QXN_MIDIIN_STOP, &CQuavix::PauseDevice},
                 {"midiInStop", MMSYSERR_INVALHANDLE, QXN_MIDIIN_STOP, &CQuavix::StopDevice},
                 {"midiInClose", MMSYSERR_HANDLEBUSY, QXN_MIDIIN_CLOSE, &CQuavix::CloseDevice}};
    for (const auto& s : steps) {
        const UINT before = State(QX_DEVDIR_IN, 1);
        Fails(s.call, s.result, Step(s.step, QX_DEVDIR_IN, 1), s.code, 1);
        EXPECT_EQ(State(QX_DEVDIR_IN, 1), before) << s.call;
        if (s.step != &CQuavix::PauseDevice) {
            ASSERT_EQ(Step(s.step, QX_DEVDIR_IN, 1)(), 1);
        }
    }
    EXPECT_EQ(State(QX_DEVDIR_IN, 1), QX_STATE_CLOSED);
    EXPECT_EQ(Reports::Take(), Got{});
}

// From the transport, from the periods an output queues and gets back, and from
// immediate output.
TEST_F(Failures, MidiOutputReportsEveryFailingCallWithItsNumber)
{
    const int out = QX_DEVDIR_OUT;
    auto* pOut = static_cast<CMidiOut*>(q->GetDevice(QX_DEVTYPE_MIDI, out, 2));
    ASSERT_NE(pOut, nullptr);
    QX_DevCaps caps;
    Fails("midiOutGetDevCapsA", MMSYSERR_NOTENABLED, [&] { return CMidiOut::GetDeviceCaps(2, &caps); },
          QXN_MIDIOUT_GETCAPS, 2);
    auto open = Step(&CQuavix::OpenDevice, out, 2);
    Fails("midiStreamOpen", MMSYSERR_ALLOCATED, open, QXN_MIDIOUT_OPEN, 2);
    Fails("midiStreamProperty", MIDIERR_NOTREADY, open, QXN_MIDIOUT_SETTIMING, 2);
    EXPECT_EQ(State(out, 2), QX_STATE_CLOSED);
    ASSERT_EQ(open(), 1) << "the failed open left no stream behind";

    // A period that cannot be prepared, one the stream refuses, and one that comes back
    // but cannot be unprepared: each is taken, if not played, and gone afterwards.
    auto period = [&] {
        CQXEventList list;
        list.AddTail(new CQXEventData);
        list.GetHead()->SetMidiData(0x00403C90);
        const int r = pOut->PlayData(&list, 0, 100);
        while (CQXEventData* pLeft = list.RemoveHead()) delete pLeft; // refused: the caller's
        return r;
    };
    for (auto [call, result, code] : {std::tuple{"midiOutPrepareHeader", MMSYSERR_NOMEM, QXN_MIDIOUT_PREPARE},
                                      {"midiStreamOut", MIDIERR_STILLPLAYING, QXN_MIDIOUT_SEND}}) {
        QXFaultInject(call, result);
        EXPECT_EQ(period(), 1);
        EXPECT_EQ(Reports::Take(), (Got{{code, result, 2}}));
    }
    ASSERT_EQ(period(), 1);
    QXFaultInject("midiOutUnprepareHeader", MIDIERR_UNPREPARED);
    ASSERT_EQ(Step(&CQuavix::StopDevice, out, 2)(), 1); // returns the buffer, and waits for it
    EXPECT_EQ(Reports::Take(), (Got{{QXN_MIDIOUT_UNPREPARE, MIDIERR_UNPREPARED, 2}}));
    EXPECT_TRUE(qxplat::QXVirtualTakeMidiOut(2).empty()) << "never started: nothing played";

    Fails("midiStreamRestart", MMSYSERR_NODRIVER, Step(&CQuavix::StartDevice, out, 2), QXN_MIDIOUT_START, 2);
    EXPECT_EQ(period(), 0) << "a stream that failed to start takes no period";
    ASSERT_EQ(Step(&CQuavix::StartDevice, out, 2)(), 1);
    Fails("midiStreamPause", MMSYSERR_INVALHANDLE, Step(&CQuavix::PauseDevice, out, 2), QXN_MIDIOUT_PAUSE, 2);
    Fails("midiStreamStop", MMSYSERR_ERROR, Step(&CQuavix::StopDevice, out, 2), QXN_MIDIOUT_STOP, 2);
    EXPECT_TRUE(State(out, 2) & QX_STATE_STARTED);

    // A short message, the note-on of a timed note, a SysEx: nothing goes out, no
    // note-off either.
    const BYTE sysex[] = {0xF0, 0x7E, 0x7F, 0x09, 0x01, 0xF7};
    Fails("midiOutShortMsg", MMSYSERR_NOTSUPPORTED, [&] { return pOut->PlayMidi(0x00403C90); },
          QXN_MIDIOUT_SHORTMSG, 2);
    Fails("midiOutShortMsg", MMSYSERR_NOMEM, [&] { return pOut->PlayNote(0x00403C90, 50); }, QXN_MIDIOUT_SHORTMSG, 2);
    Fails("midiOutLongMsg", MMSYSERR_NODRIVER, [&] { return pOut->PlaySysEx(sysex, sizeof sysex); },
          QXN_MIDIOUT_SHORTMSG, 2);
    EXPECT_TRUE(qxplat::QXVirtualTakeMidiOut(2).empty());

    ASSERT_EQ(Step(&CQuavix::StopDevice, out, 2)(), 1);
    Fails("midiStreamClose", MMSYSERR_HANDLEBUSY, Step(&CQuavix::CloseDevice, out, 2), QXN_MIDIOUT_CLOSE, 2);
    EXPECT_EQ(pOut->PlayMidi(0x000007B0), 1) << "still open after the failed close";
    EXPECT_EQ(Step(&CQuavix::CloseDevice, out, 2)(), 1);
    EXPECT_EQ(Reports::Take(), Got{});
}

// A failed open leaves nothing open behind it, so the next open succeeds; a failed stop
// leaves the input stopping until its buffers are back.
TEST_F(Failures, WaveInputReportsEveryFailingCallWithItsNumber)
{
    QX_DevCaps caps;
    Fails("waveInGetDevCapsA", MMSYSERR_NODRIVER, [&] { return CWaveIn::GetDeviceCaps(1, &caps); },
          QXN_WAVEIN_GETCAPS, 1);
    EXPECT_EQ(CWaveIn::GetDeviceCaps(7, &caps), 0) << "no such input";
    EXPECT_EQ(Reports::Take(), (Got{{QXN_WAVEIN_GETCAPS, MMSYSERR_BADDEVICEID, 7}}));

    CWaveIn in;
    const struct {
        const char* call;
        DWORD result;
        wavetest::Report report;
    } opens[] = {
        {"waveInOpen", MMSYSERR_ALLOCATED, {QXN_WAVEIN_OPEN, MMSYSERR_ALLOCATED, 1}},
        {"VirtualAlloc", ERROR_NOT_ENOUGH_MEMORY, {QXN_WAVEIN_VIRTUALALLOC, 0, 1}},
        {"VirtualLock", ERROR_NOT_ENOUGH_MEMORY, {QXN_WAVEIN_VIRTUALLOCK, 0, 1}},
        {"waveInPrepareHeader", MMSYSERR_NOMEM, {QXN_WAVEIN_PREPARE, MMSYSERR_NOMEM, 1}},
        {"waveInAddBuffer", WAVERR_UNPREPARED, {QXN_WAVEIN_ADDBUFFER, WAVERR_UNPREPARED, 1}},
    };
    for (const auto& o : opens) {
        SCOPED_TRACE(o.call);
        QXFaultInject(o.call, o.result);
        EXPECT_EQ(in.Open(1), 0);
        EXPECT_EQ(Reports::Take(), Got{o.report});
        EXPECT_EQ(in.GetState(), QX_STATE_CLOSED);
        EXPECT_EQ(in.GetHandle(), nullptr);
    }
    ASSERT_EQ(in.Open(1), 1);
    Fails("waveInStart", MMSYSERR_NOMEM, [&] { return in.Start(); }, QXN_WAVEIN_START, 1);
    EXPECT_EQ(in.GetState(), QX_STATE_OPEN);
    ASSERT_EQ(in.Start(), 1);

    // A buffer that comes back and cannot be unprepared is reported from the input's
    // thread; the stop then waits out its limit for it and goes on.
    QXFaultInject("waveInUnprepareHeader", MMSYSERR_INVALHANDLE);
    ASSERT_TRUE(wavetest::Eventually([] { return !Reports::Peek().empty(); }));
    EXPECT_EQ(Reports::Take(), (Got{{QXN_WAVEIN_UNPREPARE, MMSYSERR_INVALHANDLE, 1}}));
    EXPECT_EQ(in.Stop(), 1);
    EXPECT_EQ(in.Close(), 1);
    ASSERT_EQ(in.Start(), 1); // opens device 0 this time: Start opens a closed device

    Fails("waveInStop", MMSYSERR_INVALHANDLE, [&] { return in.Stop(); }, QXN_WAVEIN_STOP, 0);
    Fails("waveInStop", MMSYSERR_ERROR, [&] { return in.Pause(); }, QXN_WAVEIN_STOP, 0);
    Fails("waveInReset", MMSYSERR_NODRIVER, [&] { return in.Stop(); }, QXN_WAVEIN_RESET, 0);
    EXPECT_TRUE(in.GetState() & QX_STATE_STOPPING);
    ASSERT_EQ(in.Stop(), 1);
    Fails("waveInClose", MMSYSERR_HANDLEBUSY, [&] { return in.Close(); }, QXN_WAVEIN_CLOSE, 0);
    EXPECT_TRUE(in.GetState() & QX_STATE_OPEN);
    EXPECT_EQ(in.Close(), 1);
    EXPECT_EQ(Reports::Take(), Got{});
}
