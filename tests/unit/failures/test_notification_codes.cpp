// Every notification code the library raises, provoked by making the platform call
// behind it fail, with its value and its device checked. Codes provoked elsewhere, by
// test program (tests/unit/<folder>):
//   waveout   100 101 109  WaveOutTest.FailuresOfTheRegistryAreReportedPerDriver
//             102-105      WaveOutTest.TransportFailuresAreReportedWithTheOutputsNumber,
//                          WaveOutTest.PrimaryBufferFollowsTheFormatAndTheTransport
//   waveplay  102 123 124  Offline.BufferCreationFailuresAreReported
//             103 104      Offline.StartAndStopOfThePlayer
//             113 115 117  Offline.RefusedParametersAreReportedAndStoredAllTheSame
//             121 122      Offline.RefillFailuresAreReportedAndChangeNothing
//             800          OnOutput.ThePlayersReportsNameItsOutput
//   wavein    409          WaveInDevice.AnInputHeldUpTooLongReportsTheLoss
//   wavefile  600-614      WaveFile.EachFailingFileCallIsReported, also
//                          WaveFile.BadPathsAreReportedAndLeaveNothingOpen (600 614),
//                          WaveFile.SeekByTimeSamplesAndBytes (602),
//                          WaveFile.WhatIsNotWaveIsRefusedWithTheReason (603 605)
//   midi      300 305 306 308  EngineTest.FailuresAreReportedAndLeaveNoStreamOpen,
//                          EngineTest.ADensePeriodPlaysWholeAndPacesAsOne (305)
//   manager   309 800      ManagerTest.CapabilitiesNameTheBackendsDevices,
//                          ManagerTest.NoTimerMeansNoDeviceStarts
//   integration 310        JackGone.AServerThatGoesAwayGivesNotificationsAndCleanFailures
// Here: 200-204 (MIDI input), 300-310 (MIDI output), 400-408, 803, 804 (wave input).
#include <quavix/Quavix.h>

#include "platform/QXFaults.h"
#include "platform/QXPlatform.h"
#include "platform/backends/virtual/QXVirtual.h"
#include "unit/wavefile/WaveTestUtil.h"

#include <gtest/gtest.h>

namespace {

using wavetest::Log;
using wavetest::Report;
using Reports = wavetest::ReportLog;
using Got = Log;

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
    UINT State(int nDir, int n) { return q->GetDeviceState(QX_DEVTYPE_MIDI, nDir, n); }

    CQuavix* q = nullptr;
};

} // namespace

// Input 1 reports, with its own number, whichever of its calls fails; a failed step
// leaves the input where it was, and the same step succeeds once the fault is gone.
TEST_F(Failures, MidiInputReportsEveryFailingCall)
{
    const int in = QX_DEVDIR_IN;
    QX_DevCaps caps;
    QXFaultInject("midiInGetDevCapsA", MMSYSERR_NODRIVER);
    EXPECT_EQ(CMidiIn::GetDeviceCaps(1, &caps), 0);
    EXPECT_EQ(Reports::Take(), (Got{{QXN_MIDIIN_GETCAPS, MMSYSERR_NODRIVER, 1}}));
    EXPECT_EQ(CMidiIn::GetDeviceCaps(7, &caps), 0) << "no such input";
    EXPECT_EQ(Reports::Take(), (Got{{QXN_MIDIIN_GETCAPS, MMSYSERR_BADDEVICEID, 7}}));
    EXPECT_EQ(CMidiIn::GetDeviceCaps(1, &caps), 1);

    QXFaultInject("midiInOpen", MMSYSERR_ALLOCATED);
    EXPECT_EQ(q->OpenDevice(QX_DEVTYPE_MIDI, in, 1), 0);
    EXPECT_EQ(Reports::Take(), (Got{{QXN_MIDIIN_OPEN, MMSYSERR_ALLOCATED, 1}}));
    EXPECT_EQ(State(in, 1), QX_STATE_CLOSED);
    ASSERT_EQ(q->OpenDevice(QX_DEVTYPE_MIDI, in, 1), 1);

    QXFaultInject("midiInStart", MMSYSERR_NOMEM);
    EXPECT_EQ(q->StartDevice(QX_DEVTYPE_MIDI, in, 1), 0);
    EXPECT_EQ(Reports::Take(), (Got{{QXN_MIDIIN_START, MMSYSERR_NOMEM, 1}}));
    EXPECT_EQ(State(in, 1), QX_STATE_OPEN);
    ASSERT_EQ(q->StartDevice(QX_DEVTYPE_MIDI, in, 1), 1);

    QXFaultInject("midiInStop", MMSYSERR_INVALHANDLE);
    EXPECT_EQ(q->StopDevice(QX_DEVTYPE_MIDI, in, 1), 0);
    EXPECT_EQ(Reports::Take(), (Got{{QXN_MIDIIN_STOP, MMSYSERR_INVALHANDLE, 1}}));
    EXPECT_TRUE(State(in, 1) & QX_STATE_STARTED);
    // A paused input is a stopped one: pausing fails the same way.
    QXFaultInject("midiInStop", MMSYSERR_ERROR);
    EXPECT_EQ(q->PauseDevice(QX_DEVTYPE_MIDI, in, 1), 0);
    EXPECT_EQ(Reports::Take(), (Got{{QXN_MIDIIN_STOP, MMSYSERR_ERROR, 1}}));
    EXPECT_TRUE(State(in, 1) & QX_STATE_STARTED);
    ASSERT_EQ(q->StopDevice(QX_DEVTYPE_MIDI, in, 1), 1);

    QXFaultInject("midiInClose", MMSYSERR_HANDLEBUSY);
    EXPECT_EQ(q->CloseDevice(QX_DEVTYPE_MIDI, in, 1), 0);
    EXPECT_EQ(Reports::Take(), (Got{{QXN_MIDIIN_CLOSE, MMSYSERR_HANDLEBUSY, 1}}));
    EXPECT_TRUE(State(in, 1) & QX_STATE_OPEN);
    EXPECT_EQ(q->CloseDevice(QX_DEVTYPE_MIDI, in, 1), 1);
    EXPECT_EQ(State(in, 1), QX_STATE_CLOSED);
    EXPECT_EQ(Reports::Take(), Got{});
}

// Output 2 reports, with its own number, whichever of its calls fails, from the
// transport, from the periods it queues and gets back, and from immediate output.
TEST_F(Failures, MidiOutputReportsEveryFailingCall)
{
    const int out = QX_DEVDIR_OUT;
    auto* pOut = static_cast<CMidiOut*>(q->GetDevice(QX_DEVTYPE_MIDI, out, 2));
    ASSERT_NE(pOut, nullptr);
    QX_DevCaps caps;
    QXFaultInject("midiOutGetDevCapsA", MMSYSERR_NOTENABLED);
    EXPECT_EQ(CMidiOut::GetDeviceCaps(2, &caps), 0);
    EXPECT_EQ(Reports::Take(), (Got{{QXN_MIDIOUT_GETCAPS, MMSYSERR_NOTENABLED, 2}}));

    QXFaultInject("midiStreamOpen", MMSYSERR_ALLOCATED);
    EXPECT_EQ(q->OpenDevice(QX_DEVTYPE_MIDI, out, 2), 0);
    EXPECT_EQ(Reports::Take(), (Got{{QXN_MIDIOUT_OPEN, MMSYSERR_ALLOCATED, 2}}));
    QXFaultInject("midiStreamProperty", MIDIERR_NOTREADY);
    EXPECT_EQ(q->OpenDevice(QX_DEVTYPE_MIDI, out, 2), 0);
    EXPECT_EQ(Reports::Take(), (Got{{QXN_MIDIOUT_SETTIMING, MIDIERR_NOTREADY, 2}}));
    EXPECT_EQ(State(out, 2), QX_STATE_CLOSED);
    ASSERT_EQ(q->OpenDevice(QX_DEVTYPE_MIDI, out, 2), 1) << "the failed open left no stream behind";

    // Periods: one that cannot be prepared, one the stream refuses, and one that comes
    // back but cannot be unprepared. Each is gone afterwards: the stream holds nothing.
    auto period = [&](DWORD dwStart) {
        CQXEventList list;
        auto* e = new CQXEventData;
        e->SetMidiData(0x00403C90);
        e->SetTimeStamp(dwStart + 10);
        list.AddTail(e);
        const int r = pOut->PlayData(&list, dwStart, dwStart + 100);
        while (CQXEventData* pLeft = list.RemoveHead()) delete pLeft; // refused: the caller's
        return r;
    };
    QXFaultInject("midiOutPrepareHeader", MMSYSERR_NOMEM);
    EXPECT_EQ(period(0), 1) << "the period was taken, if not played";
    EXPECT_EQ(Reports::Take(), (Got{{QXN_MIDIOUT_PREPARE, MMSYSERR_NOMEM, 2}}));
    QXFaultInject("midiStreamOut", MIDIERR_STILLPLAYING);
    EXPECT_EQ(period(0), 1);
    EXPECT_EQ(Reports::Take(), (Got{{QXN_MIDIOUT_SEND, MIDIERR_STILLPLAYING, 2}}));
    ASSERT_EQ(period(0), 1);
    QXFaultInject("midiOutUnprepareHeader", MIDIERR_UNPREPARED);
    ASSERT_EQ(q->StopDevice(QX_DEVTYPE_MIDI, out, 2), 1); // returns the buffer, and waits for it
    EXPECT_EQ(Reports::Take(), (Got{{QXN_MIDIOUT_UNPREPARE, MIDIERR_UNPREPARED, 2}}));
    EXPECT_TRUE(qxplat::QXVirtualTakeMidiOut(2).empty()) << "never started: nothing played";

    QXFaultInject("midiStreamRestart", MMSYSERR_NODRIVER);
    EXPECT_EQ(q->StartDevice(QX_DEVTYPE_MIDI, out, 2), 0);
    EXPECT_EQ(Reports::Take(), (Got{{QXN_MIDIOUT_START, MMSYSERR_NODRIVER, 2}}));
    EXPECT_FALSE(State(out, 2) & QX_STATE_STARTED);
    EXPECT_EQ(period(0), 0) << "a stream that failed to start takes no period";
    ASSERT_EQ(q->StartDevice(QX_DEVTYPE_MIDI, out, 2), 1);

    QXFaultInject("midiStreamPause", MMSYSERR_INVALHANDLE);
    EXPECT_EQ(q->PauseDevice(QX_DEVTYPE_MIDI, out, 2), 0);
    EXPECT_EQ(Reports::Take(), (Got{{QXN_MIDIOUT_PAUSE, MMSYSERR_INVALHANDLE, 2}}));
    EXPECT_TRUE(State(out, 2) & QX_STATE_STARTED);
    QXFaultInject("midiStreamStop", MMSYSERR_ERROR);
    EXPECT_EQ(q->StopDevice(QX_DEVTYPE_MIDI, out, 2), 0);
    EXPECT_EQ(Reports::Take(), (Got{{QXN_MIDIOUT_STOP, MMSYSERR_ERROR, 2}}));
    EXPECT_TRUE(State(out, 2) & QX_STATE_STARTED);

    // Immediate output: a short message, the note-on of a timed note, a SysEx.
    QXFaultInject("midiOutShortMsg", MMSYSERR_NOTSUPPORTED);
    EXPECT_EQ(pOut->PlayMidi(0x00403C90), 0);
    QXFaultInject("midiOutShortMsg", MMSYSERR_NOMEM);
    EXPECT_EQ(pOut->PlayNote(0x00403C90, 50), 0);
    const BYTE sysex[] = {0xF0, 0x7E, 0x7F, 0x09, 0x01, 0xF7};
    QXFaultInject("midiOutLongMsg", MMSYSERR_NODRIVER);
    EXPECT_EQ(pOut->PlaySysEx(sysex, sizeof sysex), 0);
    EXPECT_EQ(Reports::Take(), (Got{{QXN_MIDIOUT_SHORTMSG, MMSYSERR_NOTSUPPORTED, 2},
                                    {QXN_MIDIOUT_SHORTMSG, MMSYSERR_NOMEM, 2},
                                    {QXN_MIDIOUT_SHORTMSG, MMSYSERR_NODRIVER, 2}}));
    EXPECT_TRUE(qxplat::QXVirtualTakeMidiOut(2).empty()) << "nothing went out, no note-off either";

    ASSERT_EQ(q->StopDevice(QX_DEVTYPE_MIDI, out, 2), 1);
    QXFaultInject("midiStreamClose", MMSYSERR_HANDLEBUSY);
    EXPECT_EQ(q->CloseDevice(QX_DEVTYPE_MIDI, out, 2), 0);
    EXPECT_EQ(Reports::Take(), (Got{{QXN_MIDIOUT_CLOSE, MMSYSERR_HANDLEBUSY, 2}}));
    EXPECT_TRUE(State(out, 2) & QX_STATE_OPEN);
    EXPECT_EQ(pOut->PlayMidi(0x000007B0), 1) << "still open after the failed close";
    EXPECT_EQ(q->CloseDevice(QX_DEVTYPE_MIDI, out, 2), 1);
    EXPECT_EQ(State(out, 2), QX_STATE_CLOSED);
    EXPECT_EQ(Reports::Take(), Got{});
}

// Wave input 1 reports, with its own number, whichever of its calls fails. A failed open
// leaves nothing open behind it, so the next open succeeds; a failed stop leaves the
// input stopping until its buffers are back.
TEST_F(Failures, WaveInputReportsEveryFailingCall)
{
    QX_DevCaps caps;
    QXFaultInject("waveInGetDevCapsA", MMSYSERR_NODRIVER);
    EXPECT_EQ(CWaveIn::GetDeviceCaps(1, &caps), 0);
    EXPECT_EQ(Reports::Take(), (Got{{QXN_WAVEIN_GETCAPS, MMSYSERR_NODRIVER, 1}}));
    EXPECT_EQ(CWaveIn::GetDeviceCaps(7, &caps), 0) << "no such input";
    EXPECT_EQ(Reports::Take(), (Got{{QXN_WAVEIN_GETCAPS, MMSYSERR_BADDEVICEID, 7}}));
    EXPECT_EQ(CWaveIn::GetDeviceCaps(1, &caps), 1);

    CWaveIn in;
    struct { const char* call; DWORD result; Report report; } opens[] = {
        {"waveInOpen", MMSYSERR_ALLOCATED, {QXN_WAVEIN_OPEN, MMSYSERR_ALLOCATED, 1}},
        {"VirtualAlloc", ERROR_NOT_ENOUGH_MEMORY, {QXN_WAVEIN_VIRTUALALLOC, 0, 1}},
        {"VirtualLock", ERROR_NOT_ENOUGH_MEMORY, {QXN_WAVEIN_VIRTUALLOCK, 0, 1}},
        {"waveInPrepareHeader", MMSYSERR_NOMEM, {QXN_WAVEIN_PREPARE, MMSYSERR_NOMEM, 1}},
        {"waveInAddBuffer", WAVERR_UNPREPARED, {QXN_WAVEIN_ADDBUFFER, WAVERR_UNPREPARED, 1}},
    };
    for (const auto& o : opens) {
        QXFaultInject(o.call, o.result);
        EXPECT_EQ(in.Open(1), 0) << o.call;
        EXPECT_EQ(Reports::Take(), Got{o.report}) << o.call;
        EXPECT_EQ(in.GetState() & QX_STATE_OPEN, 0u) << o.call;
        EXPECT_EQ(in.GetHandle(), nullptr) << o.call;
    }
    ASSERT_EQ(in.Open(1), 1) << "no failed open left the device behind";

    QXFaultInject("waveInStart", MMSYSERR_NOMEM);
    EXPECT_EQ(in.Start(), 0);
    EXPECT_EQ(Reports::Take(), (Got{{QXN_WAVEIN_START, MMSYSERR_NOMEM, 1}}));
    EXPECT_EQ(in.GetState(), QX_STATE_OPEN);
    ASSERT_EQ(in.Start(), 1);

    // A buffer that comes back and cannot be unprepared is reported from the input's
    // thread; the stop then waits out its limit for it and goes on.
    QXFaultInject("waveInUnprepareHeader", MMSYSERR_INVALHANDLE);
    Got got;
    for (int i = 0; i < 200 && got.empty(); ++i) {
        Sleep(20);
        got = Reports::Take();
    }
    EXPECT_EQ(got, (Got{{QXN_WAVEIN_UNPREPARE, MMSYSERR_INVALHANDLE, 1}}));
    EXPECT_EQ(in.Stop(), 1);
    EXPECT_EQ(in.Close(), 1);
    ASSERT_EQ(in.Start(), 1); // opens device 0 this time: Start opens a closed device

    QXFaultInject("waveInStop", MMSYSERR_INVALHANDLE);
    EXPECT_EQ(in.Stop(), 0);
    QXFaultInject("waveInStop", MMSYSERR_ERROR);
    EXPECT_EQ(in.Pause(), 0);
    QXFaultInject("waveInReset", MMSYSERR_NODRIVER);
    EXPECT_EQ(in.Stop(), 0);
    EXPECT_EQ(Reports::Take(), (Got{{QXN_WAVEIN_STOP, MMSYSERR_INVALHANDLE, 0},
                                    {QXN_WAVEIN_STOP, MMSYSERR_ERROR, 0},
                                    {QXN_WAVEIN_RESET, MMSYSERR_NODRIVER, 0}}));
    EXPECT_TRUE(in.GetState() & QX_STATE_STOPPING);
    ASSERT_EQ(in.Stop(), 1);

    QXFaultInject("waveInClose", MMSYSERR_HANDLEBUSY);
    EXPECT_EQ(in.Close(), 0);
    EXPECT_EQ(Reports::Take(), (Got{{QXN_WAVEIN_CLOSE, MMSYSERR_HANDLEBUSY, 0}}));
    EXPECT_TRUE(in.GetState() & QX_STATE_OPEN);
    EXPECT_EQ(in.Close(), 1);
    EXPECT_EQ(in.GetState(), QX_STATE_CLOSED);
    EXPECT_EQ(Reports::Take(), Got{});
}
