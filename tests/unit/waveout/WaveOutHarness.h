// A manager on the virtual backend's wave outputs and a recorder of done callbacks,
// shared by the wave output, player and wave input tests. A deadlock in any of them ends
// by the test's CTest timeout.
#ifndef QUAVIX_TESTS_UNIT_WAVEOUT_WAVEOUTHARNESS_H
#define QUAVIX_TESTS_UNIT_WAVEOUT_WAVEOUTHARNESS_H

#include <quavix/QXPlayerRegistry.h>
#include <quavix/Quavix.h>

#include "platform/backends/virtual/QXVirtual.h"
#include "unit/dsound/DSTestUtil.h"
#include "unit/wavefile/WaveTestUtil.h"

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

} // namespace wotest

#endif // QUAVIX_TESTS_UNIT_WAVEOUT_WAVEOUTHARNESS_H
