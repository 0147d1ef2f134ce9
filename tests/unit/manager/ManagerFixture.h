// A manager whose devices are test devices: each records its hook calls in one shared
// log, and can be told to fail or to take periods.
#ifndef QUAVIX_TESTS_MANAGERFIXTURE_H
#define QUAVIX_TESTS_MANAGERFIXTURE_H

#include <quavix/QXQuavix.h>

#include "manager/QXDeviceFactory.h"
#include "platform/QXFaults.h"
#include "platform/QXPlatform.h"
#include "platform/backends/virtual/QXVirtual.h"
#include "unit/wavefile/WaveTestUtil.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

// What tells events apart: the kind's payload, and the time stamp.
inline std::string DescribeEvent(const CQXEventData* p)
{
    std::string s = "k" + std::to_string(p->m_nType);
    if (p->m_nType != QX_EVENT_SYSEX) s += ":" + std::to_string(p->m_dwData) + ":" + std::to_string(p->m_dwLength);
    for (DWORD_PTR i = 0; p->m_nType == QX_EVENT_SYSEX && i < p->m_dwLength; ++i)
        s += "." + std::to_string(reinterpret_cast<const BYTE*>(p->m_dwData)[i]);
    return s + "@" + std::to_string(p->m_dwTimeStamp);
}

using wavetest::Eventually;

// Posted to a fake device: it reports notification 777 from its own thread.
constexpr UINT kFakeNotifyFromThread = 0x0400 + 77;

class FakeDevice : public CQXDevice {
public:
    FakeDevice(int nType, int nDir) : m_nType(nType), m_nDir(nDir) {}
    ~FakeDevice() override { ThreadStop(); }

    static inline std::mutex s_logMutex;
    static inline std::vector<std::string> s_log;
    static void Clear()
    {
        std::lock_guard<std::mutex> lock(s_logMutex);
        s_log.clear();
    }
    // The hook calls whose text begins with prefix.
    static std::vector<std::string> Log(const std::string& prefix = "")
    {
        std::lock_guard<std::mutex> lock(s_logMutex);
        std::vector<std::string> out;
        for (auto& s : s_log)
            if (s.rfind(prefix, 0) == 0) out.push_back(s);
        return out;
    }

    bool failOpen = false;
    std::atomic<int> priorityHigh{0};
    std::vector<std::pair<DWORD, DWORD>> periods; // written on the polling thread
    std::vector<std::string> taken;               // DescribeEvent of the events taken

    // Keeps the events stamped before the period's end.
    int PlayData(CQXEventList* pEvents, DWORD dwStart, DWORD dwEnd) override
    {
        if (!TestState(QX_STATE_OPEN)) return 0;
        periods.emplace_back(dwStart, dwEnd);
        while (!pEvents->IsEmpty() && int32_t(pEvents->GetHead()->m_dwTimeStamp - dwEnd) < 0) {
            CQXEventData* p = pEvents->RemoveHead();
            taken.push_back(DescribeEvent(p));
            delete p;
        }
        return 1;
    }

protected:
    int DevOpen() override { return Hook("open", !failOpen); }
    int DevStart() override { return Hook("start", true); }
    int DevPause() override { return Hook("pause", true); }
    int DevStop() override { return Hook("stop", true); }
    int DevClose() override { return Hook("close", true); }
    LRESULT WndProc(UINT uMsg, WPARAM wParam, LPARAM lParam) override
    {
        if (uMsg == QXM_PRIORITYHIGH) ++priorityHigh;
        if (uMsg != kFakeNotifyFromThread) return CQXDevice::WndProc(uMsg, wParam, lParam);
        QXNotifyShared(777, 0, 0);
        return 0;
    }

private:
    int Hook(const char* what, bool ok)
    {
        static const char* const kinds[2][2] = {{"mi", "mo"}, {"wi", "wo"}};
        std::lock_guard<std::mutex> lock(s_logMutex);
        s_log.push_back(std::string(what) + " " + kinds[m_nType][m_nDir] + std::to_string(GetDevice()));
        return ok ? 1 : 0;
    }

    int m_nType, m_nDir;
};

class ManagerTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        QXFaultClear();
        FakeDevice::Clear();
        QXSetDeviceFactory([](int t, int d) -> CQXDevice* { return new FakeDevice(t, d); });
        qxplat::QXVirtualSetDevices(2, 3, 1, 0);
    }
    void TearDown() override
    {
        CQuavix::ExitQuavix();
        QXSetDeviceFactory(nullptr);
        QXFaultClear();
        qxplat::QXVirtualSetDevices(1, 1, 1, 1);
    }

    static CQuavix* Make(DWORD dwFlags = QX_INIT_MIDI | QX_INIT_WAVE)
    {
        CQuavix* q = CQuavix::InitQuavix();
        q->Initialize(dwFlags);
        return q;
    }

    static FakeDevice* Dev(CQuavix* q, int t, int d, int n) { return static_cast<FakeDevice*>(q->GetDevice(t, d, n)); }

    // Waits until the manager's thread has handled every message posted before: a
    // delayed start posted behind them has run.
    static void Drain(CQuavix* q)
    {
        q->DelayStart(QX_DEVTYPE_WAVE, QX_DEVDIR_IN, 0, 10);
        EXPECT_TRUE(Eventually([&] { return q->GetDeviceState(QX_DEVTYPE_WAVE, QX_DEVDIR_IN, 0) == 0x0012u; }));
    }
};

#endif // QUAVIX_TESTS_MANAGERFIXTURE_H
