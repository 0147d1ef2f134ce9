// The audio half driven as a hostile or a long-running application drives it. Run
// under AddressSanitizer and ThreadSanitizer; a deadlock fails by the CTest timeout.
#include "WaveOutHarness.h"

#include "platform/QXFaults.h"

using namespace wotest;

namespace {

std::atomic<DWORD> g_closeOnReport{0};

void CloseOnReport(DWORD dwCode, DWORD dwValue, DWORD_PTR dwDevice)
{
    ReportLog::Proc(dwCode, dwValue, dwDevice);
    if (dwCode == g_closeOnReport) CQuavix::GetQuavix()->CloseDevices();
}

int ReportCount(DWORD dwCode)
{
    const Log log = ReportLog::Peek();
    return static_cast<int>(std::count_if(log.begin(), log.end(), [&](const Report& r) { return std::get<0>(r) == dwCode; }));
}

class Abuse : public ManagerTest {
protected:
    void SetUp() override
    {
        ManagerTest::SetUp();
        g_closeOnReport = 0;
        Init(1, QX_INIT_WAVE | QX_INIT_MIDI);
        q->SetNotificationCallback(CloseOnReport, 0);
        m_short = Make("short.wav", Wave(WAVE_FORMAT_PCM, 2, 48000, 16, Pattern(960 * 4))); // 20 ms
        m_long = Make("long.wav", Wave(WAVE_FORMAT_PCM, 2, 48000, 16, Pattern(48000 * 20 * 4)));
    }

    std::string m_short, m_long;
};

std::atomic<int> g_done{0};

void CloseFromDone(DWORD_PTR, DWORD)
{
    CQuavix* pManager = CQuavix::GetQuavix();
    pManager->SendMidiMsg(0, 0x403C90, 0);
    CQuavix::ExitQuavix(); // refused: this is a callback of the library
    pManager->StopDevices();
    pManager->CloseDevices();
    ++g_done;
}

} // namespace

// A done callback may close the group, send MIDI or try to end the manager, whichever
// thread stopped its player: the notification thread at the end of the file, the
// application's CloseDevices, a notification callback's, or its ExitQuavix.
TEST_F(Abuse, DoneCallbacksThatCloseOrExitTheManagerAreSafe)
{
    g_done = 0;
    ASSERT_NE(q->PlayWaveFile(m_short.c_str(), 0, CloseFromDone, 0), 0);
    ASSERT_TRUE(Eventually([] { return g_done == 1; })) << "the file ended";
    EXPECT_EQ(CQuavix::GetQuavix(), q) << "ExitQuavix inside a done callback does nothing";

    ASSERT_TRUE(q->OpenDevices() == 1 && q->StartDevices() == 1);
    ASSERT_NE(q->PlayWaveFile(m_long.c_str(), 0, CloseFromDone, 0), 0);
    EXPECT_EQ(q->CloseDevices(), 1);
    EXPECT_EQ(g_done, 2) << "the close destroyed the player, and its callback closed again inside";

    // A report the player makes while it holds its lock (its sound does not start)
    // reaches a notification callback that closes the group, which destroys the player.
    ASSERT_TRUE(q->OpenDevices() == 1 && q->StartDevices() == 1);
    g_closeOnReport = QXN_DS_START;
    QXFaultInject("IDirectSoundBuffer::Play", static_cast<DWORD>(DSERR_BUFFERLOST));
    q->PlayWaveFile(m_long.c_str(), 0, CloseFromDone, 0);
    EXPECT_EQ(ReportCount(QXN_DS_START), 1);
    EXPECT_TRUE(Eventually([] { return g_done == 3; }));
    g_closeOnReport = 0;

    ASSERT_TRUE(q->OpenDevices() == 1 && q->StartDevices() == 1);
    ASSERT_NE(q->PlayWaveFile(m_long.c_str(), 0, CloseFromDone, 0), 0);
    CQuavix::ExitQuavix();
    EXPECT_EQ(g_done, 4);
    EXPECT_EQ(CQuavix::GetQuavix(), nullptr);
}

namespace {

struct OwnPlayer {
    CWavePlay* p = nullptr;
    std::atomic<int> done{0};
};

void DeleteFromDone(DWORD_PTR dwUser, DWORD)
{
    auto* own = reinterpret_cast<OwnPlayer*>(dwUser);
    delete own->p;
    ++own->done;
}

void CountDone(DWORD_PTR dwUser, DWORD) { ++reinterpret_cast<OwnPlayer*>(dwUser)->done; }

} // namespace

// An application's own player: deleted in its own done callback, and given new
// parameters from another thread just as its file ends and its buffer goes.
TEST_F(Abuse, OwnPlayersSurviveDeletionInTheirCallbackAndParametersAtTheirEnd)
{
    for (int i = 0; i < 5; ++i) {
        OwnPlayer own;
        own.p = new CWavePlay;
        QX_WaveParams params = WaveParams(0x40000000, i, m_short);
        ASSERT_EQ(own.p->Play(&params, 0, 0, DeleteFromDone, reinterpret_cast<DWORD_PTR>(&own), 0), 1);
        ASSERT_TRUE(Eventually([&] { return own.done == 1; })) << "round " << i;
    }

    OwnPlayer own;
    CWavePlay player;
    own.p = &player;
    for (int round = 0; round < 20; ++round) {
        own.done = 0;
        QX_WaveParams params = WaveParams(0x40000001, 1, m_short);
        ASSERT_EQ(player.Play(&params, 0, 0, CountDone, reinterpret_cast<DWORD_PTR>(&own), 0), 1);
        std::thread setter([&] {
            for (LONG v = 0; own.done == 0; v = (v + 37) % 5000) {
                QX_DSParams ds{}, now{};
                ds.lVolume = -v, ds.lPan = v - 2500, ds.lFrequency = v;
                player.SetBufferParameters(ds);
                Out()->GetTrackParameters(0x40000001, 1, &now);
            }
        });
        setter.join();
    }
}

// PlayWaveFile on four threads while the main thread closes, opens and starts the group
// over and over: a prepare thread must never use a device object the close let go, and a
// player that a close claimed is deleted by it alone.
TEST_F(Abuse, PlayingWhileTheGroupClosesAndOpensAgain)
{
    std::atomic<bool> stop{false};
    std::atomic<int> plays{0};
    std::vector<std::thread> players;
    for (int t = 0; t < 4; ++t)
        players.emplace_back([&] {
            while (!stop) {
                if (q->PlayWaveFile(m_short.c_str(), 0, nullptr, 0) != 0) ++plays;
            }
        });
    for (int i = 0; i < 40; ++i) {
        q->CloseDevices();
        q->OpenDevices();
        q->StartDevices();
        std::this_thread::sleep_for(std::chrono::milliseconds(i % 5));
    }
    stop = true;
    for (std::thread& t : players) t.join();
    EXPECT_GT(plays, 0);
}

// Play, Stop, Start and timed starts on one player from four threads: serialised, and
// never a deadlock (the manager's thread, which runs the timed starts, stays free too).
TEST_F(Abuse, OnePlayerDrivenFromFourThreadsNeverDeadlocks)
{
    CWavePlay player;
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&, t] {
            for (unsigned n = 0; !stop; ++n) {
                QX_WaveParams params = WaveParams(0x40000002, 1, n % 3 == 0 ? m_long : m_short);
                switch ((n + t) % 4) {
                case 0: player.Play(&params, 0, 0, nullptr, 0, 0); break;
                case 1: player.Stop(); break;
                case 2: player.Start(); break;
                default: player.Play(&params, 0, timeGetTime() - q->GetPlayStartTime() + 30, nullptr, 0, 0); break;
                }
            }
        });
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    stop = true;
    for (std::thread& t : threads) t.join();
    player.Stop();
    // The manager's thread still answers: a timed start is handled.
    QX_WaveParams params = WaveParams(0x40000002, 1, m_long);
    ASSERT_EQ(player.Play(&params, 0, timeGetTime() - q->GetPlayStartTime() + 100, nullptr, 0, 0), 1);
    EXPECT_TRUE(Eventually([&] { return Out()->GetTrackParameters(0x40000002, 1, nullptr) == 1; }));
}

namespace {

struct OneShots {
    std::string path;
    int nPerPeriod = 3;
    std::atomic<int> periods{0};
};

// Several short files on track 0 in every period, spread over it.
int OneShotPerformance(DWORD_PTR dwUser, int nTag, DWORD dwStart, DWORD)
{
    auto* s = reinterpret_cast<OneShots*>(dwUser);
    if (nTag < 0) return 1;
    CQXEventList events;
    for (int i = 0; i < s->nPerPeriod; ++i) {
        events.AddTail(new CQXEventData);
        events.GetTail()->SetWaveData(new QX_WaveParams(WaveParams(nTag, 0, s->path))); // the event owns them now
        events.GetTail()->SetTimeStamp(dwStart + DWORD(i * 100 / s->nPerPeriod));
    }
    CQuavix::GetQuavix()->PlayBuffer(events);
    ++s->periods;
    return 1;
}

} // namespace

// One-shot samples on one track: each displaces the one before, finished or not, so
// players and their threads stay few however many files have played.
TEST_F(Abuse, OneShotsOnOneTrackReplaceEachOtherInsteadOfPilingUp)
{
    // 8 channels of 32-bit samples at 96 kHz: a segment lasts under 3 ms, so each file
    // has played out, and its player stopped, long before the next one starts.
    OneShots shots;
    shots.path = Make("blip.wav", Wave(WAVE_FORMAT_PCM, 8, 96000, 32, Pattern(100 * 32)));
    const size_t nThreads = ThreadCount();
    ASSERT_NE(q->StartPerformance(OneShotPerformance, reinterpret_cast<DWORD_PTR>(&shots), 1, 0), 0);
    size_t nMostPlayers = 0, nMostThreads = 0;
    while (shots.periods < 30) {
        nMostPlayers = std::max(nMostPlayers, QXLivePlayerCount());
        nMostThreads = std::max(nMostThreads, ThreadCount());
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    // A player still preparing, one timed to start, the one sounding and the one it
    // displaces, and a displaced one still ending on its own thread on a busy machine;
    // piled up, they would be three more every period.
    EXPECT_LE(nMostPlayers, 12u) << "after " << shots.periods * shots.nPerPeriod << " files";
    // Each of those has a notification thread, and one may be preparing; finished ones used
    // to keep theirs, 3 more every period.
    EXPECT_LE(nMostThreads, nThreads + 24) << "threads of finished players were not joined";
    CQuavix::ExitQuavix(); // before the file name goes
}

// Events that reach an output that ran and is now paused, or stopped, are dropped: they
// must not all sound at once when it runs again, nor after a restart without their song.
TEST_F(Abuse, WaveEventsOfAPausedOrRestartedGroupAreDroppedNotPlayedLater)
{
    // Wave outputs alone: the manager's timer then drives the engine, also while paused.
    CQuavix::ExitQuavix();
    q = CQuavix::InitQuavix();
    q->Initialize(QX_INIT_WAVE);
    ASSERT_TRUE(q->OpenDevices() == 1 && q->StartDevices() == 1);
    OneShots shots;
    shots.path = m_short;
    shots.nPerPeriod = 1;
    ASSERT_NE(q->StartPerformance(OneShotPerformance, reinterpret_cast<DWORD_PTR>(&shots), 1, 0), 0);
    ASSERT_TRUE(Eventually([&] { return shots.periods >= 5; }));
    ASSERT_EQ(q->PauseDevices(), 1);
    const int nAtPause = shots.periods;
    ASSERT_TRUE(Eventually([&] { return shots.periods >= nAtPause + 10; })) << "the engine polls on while paused";
    uint64_t nStarts = qxplat::DirectSoundBufferStarts();
    ASSERT_EQ(q->StartDevices(), 1);
    const int nAtResume = shots.periods;
    ASSERT_TRUE(Eventually([&] { return shots.periods >= nAtResume + 10; }));
    // Each period polled since holds one event; two more may be written ahead.
    EXPECT_LE(qxplat::DirectSoundBufferStarts() - nStarts, uint64_t(shots.periods - nAtResume + 2))
        << "events written while paused sounded after the resume";
    EXPECT_GT(qxplat::DirectSoundBufferStarts(), nStarts) << "the events since sound";

    // Paused again, then stopped and closed: a restart with no performance left plays
    // nothing of the old song.
    ASSERT_EQ(q->PauseDevices(), 1);
    const int nAtPause2 = shots.periods;
    ASSERT_TRUE(Eventually([&] { return shots.periods >= nAtPause2 + 10; }));
    ASSERT_EQ(q->StopDevices(), 1);
    ASSERT_EQ(q->CloseDevices(), 1);
    q->StopPerformance(-1);
    ASSERT_EQ(q->OpenDevices(), 1);
    nStarts = qxplat::DirectSoundBufferStarts();
    ASSERT_EQ(q->StartDevices(), 1);
    std::this_thread::sleep_for(std::chrono::milliseconds(1000)); // nothing to await: nothing may happen
    EXPECT_EQ(qxplat::DirectSoundBufferStarts() - nStarts, 0u) << "the old song's events sounded after the restart";
    CQuavix::ExitQuavix(); // before the file name goes
}

// A Play that fails after its player joined the output's set, while the output deletes
// every performance: the player is deleted once, by whoever holds it.
TEST_F(Abuse, AFailedPlayRacingADeletedTrackIsDeletedOnce)
{
    std::atomic<bool> stop{false};
    std::thread deleter([&] {
        while (!stop) Out()->DeletePerformance(-1, 1);
    });
    for (int i = 0; i < 100; ++i) {
        QXFaultInject("IDirectSound::CreateSoundBuffer", static_cast<DWORD>(DSERR_OUTOFMEMORY));
        EXPECT_EQ(q->PlayWaveFile(m_short.c_str(), 0, nullptr, 0), 0);
        auto* p = new CWavePlay;
        QX_WaveParams params = WaveParams(0x40000003, 1, m_short);
        QXFaultInject("IDirectSound::CreateSoundBuffer", static_cast<DWORD>(DSERR_OUTOFMEMORY));
        int bYours = 1;
        if (p->_Play(&params, 0, 0, nullptr, 0, 0, &bYours) == 0 && bYours) delete p;
    }
    stop = true;
    deleter.join();
    EXPECT_EQ(ReportCount(QXN_DS_CREATEBUFFER), 200);
}

// A file whose extensible header names a sample type no buffer takes is refused with a
// report; so is an 18-byte device format record with that tag and a cbSize of 22,
// without anything read past it.
TEST_F(Abuse, NoExtensibleFormatRecordIsReadPastItsSize)
{
    const std::string alaw = Make("alaw.wav", Riff(FmtExtensible(2, 44100, 8, 6) + Chunk("data", Pattern(8820))));
    EXPECT_EQ(q->PlayWaveFile(alaw.c_str(), 0, nullptr, 0), 0);
    EXPECT_EQ(ReportCount(QXN_DS_CREATEBUFFER), 1);

    auto* pFormat = new QX_DevFormat{WAVE_FORMAT_EXTENSIBLE, 2, 48000, 192000, 4, 16, 22};
    ASSERT_EQ(q->CloseDevices(), 1);
    q->SetDeviceFormat(QX_DEVTYPE_WAVE, QX_DEVDIR_OUT, 0, pFormat);
    q->OpenDevices();
    EXPECT_EQ(ReportCount(QXN_DS_SETFORMAT), 1) << "refused with a report";
    delete pFormat;
}
