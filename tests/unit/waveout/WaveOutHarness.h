// A manager on the virtual backend's wave outputs, a recorder of done callbacks and a
// deadlock watchdog, shared by the wave output and player tests.
#ifndef QUAVIX_TESTS_UNIT_WAVEOUT_WAVEOUTHARNESS_H
#define QUAVIX_TESTS_UNIT_WAVEOUT_WAVEOUTHARNESS_H

#include <quavix/QXPlayerRegistry.h>
#include <quavix/Quavix.h>

#include "platform/backends/virtual/QXVirtual.h"
#include "unit/dsound/DSTestUtil.h"
#include "unit/wavefile/WaveTestUtil.h"

#include <cstdio>
#include <future>

namespace wotest {

using namespace wavetest;

// Done callbacks: (user value, player handle).
using DoneLog = CallLog<DWORD_PTR, DWORD>;

inline bool Reported(DWORD code, HRESULT hr, DWORD_PTR device)
{
    const Log log = ReportLog::Peek();
    return std::find(log.begin(), log.end(), Report{code, static_cast<DWORD>(hr), device}) != log.end();
}

// A manager with nWaveOut virtual outputs (and nWaveIn inputs), made by Init and torn down after; nothing
// of the sound layer may outlive it.
class ManagerTest : public ScratchTest {
protected:
    void Init(int nWaveOut, DWORD dwFlags = QX_INIT_WAVE, bool bRun = true, int nWaveIn = 1)
    {
        ASSERT_EQ(dstest::kVirtualBackendSet, 0);
        qxplat::QXVirtualSetDevices(1, 1, nWaveIn, nWaveOut);
        q = CQuavix::InitQuavix();
        q->SetNotificationCallback(ReportLog::Proc, 0);
        q->Initialize(dwFlags);
        if (bRun) {
            ASSERT_EQ(q->OpenDevices(), 1);
            ASSERT_EQ(q->StartDevices(), 1);
        }
        ReportLog::Take();
        DoneLog::Take();
    }
    void TearDown() override
    {
        CQuavix::ExitQuavix();
        qxplat::QXVirtualSetDevices(1, 1, 1, 1);
        EXPECT_EQ(CWaveOut::DSNumDrivers(), 0);
        // Self-deleting players finish their last steps on their own threads.
        EXPECT_TRUE(Eventually([] { return QXLivePlayerCount() == 0; })) << QXLivePlayerCount() << " players left";
        EXPECT_EQ(qxplat::LiveDirectSoundObjects(), 0u);
        ScratchTest::TearDown();
    }
    CWaveOut* Out(int n = 0) { return dynamic_cast<CWaveOut*>(q->GetDevice(QX_DEVTYPE_WAVE, QX_DEVDIR_OUT, n)); }
    DWORD Now() const { return timeGetTime() - q->GetPlayStartTime(); }
    static bool Gone(DWORD dwHandle)
    {
        void* p = QXAcquirePlayer(dwHandle);
        if (p != nullptr) QXReleasePlayer(dwHandle);
        return p == nullptr;
    }

    CQuavix* q = nullptr;
};

// Aborts the process when a test does not end in time: a deadlock must fail the run,
// not hang it.
struct Watchdog {
    explicit Watchdog(std::chrono::seconds limit)
        : thread([f = done.get_future(), limit] {
              if (f.wait_for(limit) == std::future_status::ready) return;
              std::fprintf(stderr, "deadlock: %s\n", ::testing::UnitTest::GetInstance()->current_test_info()->name());
              std::abort();
          })
    {
    }
    ~Watchdog()
    {
        done.set_value();
        thread.join();
    }
    std::promise<void> done;
    std::thread thread;
};

} // namespace wotest

#endif // QUAVIX_TESTS_UNIT_WAVEOUT_WAVEOUTHARNESS_H
