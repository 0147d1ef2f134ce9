// The DirectSound driver registry, the wave output device and the manager's share of
// them, on the virtual backend's real-time outputs.
#include "WaveOutHarness.h"

#include "platform/QXFaults.h"

using namespace wotest;

namespace {

class WaveOutTest : public ManagerTest {
protected:
    void Make(int nWaveOut, DWORD dwFlags = QX_INIT_WAVE) { Init(nWaveOut, dwFlags, false); }
    // Output 0's primary buffer: rate, bits, channels, and whether it plays.
    static std::tuple<DWORD, WORD, WORD, bool> Primary()
    {
        WAVEFORMATEX f{};
        DWORD status = 0;
        CQuavix::s_DSDevices.at(0)->pPrimaryBuffer->GetFormat(&f, sizeof f, nullptr);
        CQuavix::s_DSDevices.at(0)->pPrimaryBuffer->GetStatus(&status);
        return {f.nSamplesPerSec, f.wBitsPerSample, f.nChannels, status & DSBSTATUS_PLAYING};
    }
};

} // namespace

TEST_F(WaveOutTest, RegistryHasOneDriverPerOutputAndIsFilledOnce)
{
    Make(3);
    EXPECT_EQ(q->GetDeviceCount(QX_DEVTYPE_WAVE, QX_DEVDIR_OUT), 3);
    ASSERT_EQ(CWaveOut::DSNumDrivers(), 3);
    for (int n = 0; n < 3; ++n) EXPECT_NE(CWaveOut::DSGetDevice(n), nullptr);
    EXPECT_STREQ(CWaveOut::DSGetModule(2), "virtual");
    EXPECT_STREQ(CWaveOut::DSGetDescription(2), "Quavix Virtual Wave Out 3");
    EXPECT_EQ(CWaveOut::DSGetDescription(3), nullptr);

    // A filled registry answers at once: an enumeration that would fail is not made.
    QXFaultInject("DirectSoundEnumerateA", static_cast<DWORD>(DSERR_GENERIC));
    EXPECT_EQ(CWaveOut::DSInit(), 1);
    QXFaultClear();

    // Emptied, it enumerates anew on the next DSInit, and only then.
    EXPECT_EQ(CWaveOut::DSExit(), 1);
    EXPECT_EQ(CWaveOut::DSGetDevice(0), nullptr); // out of range: no enumeration starts
    QXFaultInject("DirectSoundEnumerateA", static_cast<DWORD>(DSERR_GENERIC));
    EXPECT_EQ(CWaveOut::DSInit(), 0);
    EXPECT_EQ(CWaveOut::DSInit(), 1);
    EXPECT_NE(CWaveOut::DSGetDevice(2), nullptr);
}

TEST_F(WaveOutTest, NoDriverMeansNoWaveOutputAndMidiAloneLeavesDirectSoundAlone)
{
    Make(0); // only the default driver without a GUID is reported
    EXPECT_EQ(CWaveOut::DSInit(), 0);
    EXPECT_EQ(q->GetDeviceCount(QX_DEVTYPE_WAVE, QX_DEVDIR_OUT), 0);
    CQuavix::ExitQuavix();

    Make(2, QX_INIT_MIDI);
    EXPECT_EQ(CWaveOut::DSNumDrivers(), 0);
    // A later wave initialisation of the same manager changes nothing.
    q->Initialize(QX_INIT_WAVE);
    EXPECT_EQ(q->GetDeviceCount(QX_DEVTYPE_WAVE, QX_DEVDIR_OUT), 0);
}

TEST_F(WaveOutTest, FailuresOfTheRegistryAreReportedPerDriver)
{
    // Driver 1's device object cannot be made; driver 0 refuses the cooperative level
    // and is used all the same.
    qxplat::QXVirtualSetDevices(1, 1, 1, 2);
    q = CQuavix::InitQuavix();
    q->SetNotificationCallback(ReportLog::Proc, 0);
    QXFaultInject("IDirectSound::SetCooperativeLevel", static_cast<DWORD>(DSERR_GENERIC), 1);
    QXFaultInject("DirectSoundCreate", static_cast<DWORD>(DSERR_NODRIVER), 2);
    q->Initialize(QX_INIT_WAVE);
    EXPECT_TRUE(Reported(QXN_DS_SETCOOPLEVEL, DSERR_GENERIC, 0));
    EXPECT_TRUE(Reported(QXN_DS_CREATE, DSERR_NODRIVER, 1));
    EXPECT_EQ(q->GetDeviceCount(QX_DEVTYPE_WAVE, QX_DEVDIR_OUT), 2);
    EXPECT_EQ(CWaveOut::DSGetDevice(1), nullptr);
    QX_DevCaps caps{};
    EXPECT_EQ(q->GetDeviceCaps(QX_DEVTYPE_WAVE, QX_DEVDIR_OUT, 1, &caps), 0);
    EXPECT_EQ(q->OpenDevice(QX_DEVTYPE_WAVE, QX_DEVDIR_OUT, 1), 0);
    // Without the priority level the primary buffer's format cannot be set, as on
    // DirectSound itself: the output does not open.
    EXPECT_EQ(q->OpenDevice(QX_DEVTYPE_WAVE, QX_DEVDIR_OUT, 0), 0);
    EXPECT_TRUE(Reported(QXN_DS_SETFORMAT, DSERR_PRIOLEVELNEEDED, 0));

    // The capabilities of a working driver are its DSCAPS.
    ASSERT_EQ(q->GetDeviceCaps(QX_DEVTYPE_WAVE, QX_DEVDIR_OUT, 0, &caps), 1);
    EXPECT_EQ(caps.dsOut.dwMaxSecondarySampleRate, 100000u);
    QXFaultInject("IDirectSound::GetCaps", static_cast<DWORD>(DSERR_GENERIC));
    EXPECT_EQ(q->GetDeviceCaps(QX_DEVTYPE_WAVE, QX_DEVDIR_OUT, 0, &caps), 0);
    EXPECT_TRUE(Reported(QXN_DS_GETCAPS, DSERR_GENERIC, 0));
}

TEST_F(WaveOutTest, WithoutAMainWindowTheDriversStayUnmadeUntilTheRegistryIsEmptied)
{
    qxplat::QXVirtualSetDevices(1, 1, 1, 2);
    q = CQuavix::InitQuavix();
    QXFaultInject("QXGetHostMainWindow", 0);
    q->Initialize(QX_INIT_WAVE);
    // The records stay, so the outputs exist, but no driver has a device object.
    EXPECT_EQ(CWaveOut::DSNumDrivers(), 2);
    EXPECT_EQ(CWaveOut::DSInit(), 1);
    EXPECT_EQ(CWaveOut::DSGetDevice(0), nullptr);
    EXPECT_EQ(q->OpenDevice(QX_DEVTYPE_WAVE, QX_DEVDIR_OUT, 0), 0);
    // CloseDevices empties the registry; the next open enumerates and makes them.
    q->CloseDevices();
    EXPECT_EQ(CWaveOut::DSNumDrivers(), 0);
    EXPECT_EQ(q->OpenDevice(QX_DEVTYPE_WAVE, QX_DEVDIR_OUT, 0), 1);
    EXPECT_NE(CWaveOut::DSGetDevice(0), nullptr);
}

TEST(WaveOutTracks, RecommendedTrackCountFollowsTheMachine)
{
    struct Row { DWORD platform; WORD arch, level; DWORD type; int expected; };
    for (const Row& r : {Row{2, 0, 3, 0, 2}, {2, 0, 4, 0, 4}, {2, 0, 5, 0, 8}, {2, 0, 6, 0, 12}, {2, 3, 0, 0, 12},
                         {2, 2, 0, 0, 16}, {2, 9, 6, 0, 16}, {1, 0, 5, 386, 2}, {1, 9, 0, 486, 4}, {1, 0, 0, 586, 8},
                         {1, 0, 0, 8664, 12}}) {
        OSVERSIONINFOA v{};
        v.dwPlatformId = r.platform;
        SYSTEM_INFO s{};
        s.wProcessorArchitecture = r.arch;
        s.wProcessorLevel = r.level;
        s.dwProcessorType = r.type;
        QXSetSystemInfoOverride(&v, &s);
        EXPECT_EQ(CWaveOut::GetRecommendedTrackCount(), r.expected)
            << "platform " << r.platform << " arch " << r.arch << " level " << r.level << " type " << r.type;
    }
    QXSetSystemInfoOverride(nullptr, nullptr);
    EXPECT_EQ(CWaveOut::GetRecommendedTrackCount(), 16) << "this machine: 64-bit NT family";
}

TEST_F(WaveOutTest, PerformancesAndTracksAreMadeOnceOnDemandAndDeletedByNumber)
{
    Make(1);
    CWaveOut* out = Out(0);
    ASSERT_NE(out, nullptr);
    EXPECT_EQ(out->IsActive(), 0);
    QX_WaveParams params{};
    params.nPerformance = 42;
    params.nTrack = 3;
    EXPECT_EQ(q->SetWaveParams(&params), 1); // no player there: only empty records remain
    EXPECT_EQ(out->IsActive(), 1);

    DSPerformance* p7 = out->GetPerformance(7);
    EXPECT_EQ(out->GetPerformance(7), p7);
    DSTrack* t1 = out->GetTrack(p7, 1);
    EXPECT_EQ(out->GetTrack(p7, 1), t1);
    DSTrack* t2 = out->GetTrack(p7, 2);
    EXPECT_EQ(std::tuple(t2->nTrack, t2->pWavePlay, t2->lVolume), std::tuple(2, nullptr, 0));
    out->DeleteTrack(p7, 2, 1);
    EXPECT_EQ(p7->tracks.GetCount(), 1);
    EXPECT_EQ(out->GetTrack(p7, 2)->nTrack, 2);
    EXPECT_EQ(p7->tracks.GetCount(), 2);

    out->GetPerformance(8);
    out->DeletePerformance(7, 1);
    EXPECT_EQ(out->IsActive(), 1); // 42 and 8 remain
    q->StopPerformance(42);        // a stopped performance leaves every output
    q->StopPerformance(8);
    EXPECT_EQ(out->IsActive(), 0);

    for (int n : {1, 2, 3}) out->GetPerformance(n);
    ASSERT_EQ(q->OpenDevice(QX_DEVTYPE_WAVE, QX_DEVDIR_OUT, 0), 1);
    ASSERT_EQ(q->CloseDevice(QX_DEVTYPE_WAVE, QX_DEVDIR_OUT, 0), 1);
    EXPECT_EQ(out->IsActive(), 0) << "a close deletes them all";
}

TEST_F(WaveOutTest, PrimaryBufferFollowsTheFormatAndTheTransport)
{
    Make(2);
    CWaveOut* out = Out(0);
    ASSERT_NE(out, nullptr);
    QX_DevFormat f = StdFormat(13);
    EXPECT_EQ(q->SetDeviceFormat(QX_DEVTYPE_WAVE, QX_DEVDIR_OUT, 0, &f), 1);
    EXPECT_EQ(out->SetFormat(nullptr), 0); // the format goes; open uses the default
    EXPECT_EQ(out->GetFormat(), nullptr);
    ASSERT_EQ(q->OpenDevice(QX_DEVTYPE_WAVE, QX_DEVDIR_OUT, 0), 1);
    EXPECT_EQ(Primary(), std::tuple(22050u, 16, 2, false));

    // An open output passes a new format on; a refused one is reported and kept.
    EXPECT_EQ(out->SetFormat(&f), 1);
    EXPECT_EQ(std::get<0>(Primary()), 44100u);
    QXFaultInject("IDirectSoundBuffer::SetFormat", static_cast<DWORD>(DSERR_BADFORMAT));
    EXPECT_EQ(out->SetFormat(&f), 0);
    EXPECT_TRUE(Reported(QXN_DS_SETFORMAT, DSERR_BADFORMAT, 0));
    ASSERT_NE(out->GetFormat(), nullptr);

    // Open but not started, the output keeps events in the list for the start; closed, it
    // refuses them.
    CQXEventList events;
    events.AddTail(new CQXEventData);
    events.GetHead()->SetMidiData(0x90);
    EXPECT_EQ(out->PlayData(&events, 0, 100), 1);
    EXPECT_EQ(Out(1)->PlayData(&events, 0, 100), 0);
    EXPECT_EQ(events.GetCount(), 1);
    delete events.RemoveHead();

    ASSERT_EQ(q->StartDevice(QX_DEVTYPE_WAVE, QX_DEVDIR_OUT, 0), 1);
    EXPECT_TRUE(std::get<3>(Primary()));
    ASSERT_EQ(q->StopDevice(QX_DEVTYPE_WAVE, QX_DEVDIR_OUT, 0), 1);
    EXPECT_FALSE(std::get<3>(Primary()));
}

TEST_F(WaveOutTest, TransportFailuresAreReportedWithTheOutputsNumber)
{
    Make(2);
    QXFaultInject("IDirectSound::CreateSoundBuffer", static_cast<DWORD>(DSERR_OUTOFMEMORY));
    EXPECT_EQ(q->OpenDevice(QX_DEVTYPE_WAVE, QX_DEVDIR_OUT, 1), 0);
    EXPECT_TRUE(Reported(QXN_DS_CREATEBUFFER, DSERR_OUTOFMEMORY, 1));

    // A format refused at open leaves the primary buffer in the record; a second open
    // takes it up instead of making another.
    QXFaultInject("IDirectSoundBuffer::SetFormat", static_cast<DWORD>(DSERR_BADFORMAT));
    EXPECT_EQ(q->OpenDevice(QX_DEVTYPE_WAVE, QX_DEVDIR_OUT, 1), 0);
    EXPECT_TRUE(Reported(QXN_DS_SETFORMAT, DSERR_BADFORMAT, 1));
    EXPECT_NE(CQuavix::s_DSDevices[1]->pPrimaryBuffer, nullptr);
    ASSERT_EQ(q->OpenDevice(QX_DEVTYPE_WAVE, QX_DEVDIR_OUT, 1), 1);

    QXFaultInject("IDirectSoundBuffer::Play", static_cast<DWORD>(DSERR_BUFFERLOST));
    EXPECT_EQ(q->StartDevice(QX_DEVTYPE_WAVE, QX_DEVDIR_OUT, 1), 0);
    EXPECT_TRUE(Reported(QXN_DS_START, DSERR_BUFFERLOST, 1));
    ASSERT_EQ(q->StartDevice(QX_DEVTYPE_WAVE, QX_DEVDIR_OUT, 1), 1);
    QXFaultInject("IDirectSoundBuffer::Stop", static_cast<DWORD>(DSERR_GENERIC));
    EXPECT_EQ(q->StopDevice(QX_DEVTYPE_WAVE, QX_DEVDIR_OUT, 1), 0);
    EXPECT_TRUE(Reported(QXN_DS_STOP, DSERR_GENERIC, 1));
}

TEST_F(WaveOutTest, APausedOutputHoldsItsMixAndGoesOnWhereItWas)
{
    Make(1);
    ASSERT_EQ(q->OpenDevice(QX_DEVTYPE_WAVE, QX_DEVDIR_OUT, 0), 1);
    ASSERT_EQ(q->StartDevice(QX_DEVTYPE_WAVE, QX_DEVDIR_OUT, 0), 1);
    IDirectSoundBuffer* b = dstest::MakeBuffer(CWaveOut::DSGetDevice(0), dstest::Pcm(22050, 2, 16), 88200,
                                               DSBCAPS_GETCURRENTPOSITION2);
    ASSERT_NE(b, nullptr);
    ASSERT_EQ(b->Play(0, 0, DSBPLAY_LOOPING), DS_OK);
    auto cursor = [&] {
        DWORD play = 0;
        b->GetCurrentPosition(&play, nullptr);
        return play;
    };
    ASSERT_TRUE(Eventually([&] { return cursor() != 0; }));
    ASSERT_EQ(q->PauseDevice(QX_DEVTYPE_WAVE, QX_DEVDIR_OUT, 0), 1);
    DWORD held = 0;
    ASSERT_TRUE(Eventually([&] { // once the block in flight is done
        held = cursor();
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        return cursor() == held;
    }));
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(cursor(), held);
    ASSERT_EQ(q->StartDevice(QX_DEVTYPE_WAVE, QX_DEVDIR_OUT, 0), 1);
    EXPECT_TRUE(Eventually([&] { return cursor() != held; }));
    b->Release();
}
