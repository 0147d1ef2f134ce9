// A manager whose devices are test devices: each records its hook calls in one shared
// log, and can be told to fail or to take periods.
#ifndef QUAVIX_TESTS_MANAGERFIXTURE_H
#define QUAVIX_TESTS_MANAGERFIXTURE_H

#include <quavix/QXQuavix.h>

#include "manager/QXDeviceFactory.h"
#include "platform/QXFaults.h"
#include "platform/QXPlatform.h"
#include "platform/backends/virtual/QXVirtual.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

// One line per event an output takes: its kind's payload (what tells events apart) and
// its time stamp.
inline std::string DescribeEvent(const CQXEventData* p)
{
    char buf[64];
    if (p->m_nType == QX_EVENT_SYSEX) {
        std::string s = "sx";
        const auto* b = reinterpret_cast<const BYTE*>(p->m_dwData);
        for (DWORD_PTR i = 0; i < p->m_dwLength; ++i) {
            std::snprintf(buf, sizeof buf, ".%02x", b[i]);
            s += buf;
        }
        std::snprintf(buf, sizeof buf, "@%u", p->m_dwTimeStamp);
        return s + buf;
    }
    std::snprintf(buf, sizeof buf, "k%d:%llx:%llx@%u", p->m_nType, static_cast<unsigned long long>(p->m_dwData),
                  static_cast<unsigned long long>(p->m_dwLength), p->m_dwTimeStamp);
    return buf;
}

// Posted to a fake device: it reports notification 777 from its own thread.
constexpr UINT kFakeNotifyFromThread = 0x0400 + 77;

class FakeDevice : public CQXDevice {
public:
    FakeDevice(int nType, int nDir) : m_nType(nType), m_nDir(nDir) {}
    ~FakeDevice() override { ThreadStop(); }

    static inline std::mutex s_logMutex;
    static inline std::vector<std::string> s_log;
    static void ClearLog()
    {
        std::lock_guard<std::mutex> lock(s_logMutex);
        s_log.clear();
    }
    static std::vector<std::string> Log()
    {
        std::lock_guard<std::mutex> lock(s_logMutex);
        return s_log;
    }

    bool failOpen = false;
    bool takePeriods = true; // PlayData keeps the events stamped before the period's end
    std::atomic<int> priorityHigh{0};
    std::vector<std::pair<DWORD, DWORD>> periods; // written on the polling thread
    std::vector<DWORD> played;                    // m_dwData of the events taken
    std::vector<std::string> taken;               // DescribeEvent of the events taken

    int PlayData(CQXEventList* pEvents, DWORD dwStart, DWORD dwEnd) override
    {
        if (!takePeriods || !TestState(QX_STATE_OPEN)) return 0;
        periods.emplace_back(dwStart, dwEnd);
        while (!pEvents->IsEmpty() && static_cast<int32_t>(pEvents->GetHead()->m_dwTimeStamp - dwEnd) < 0) {
            CQXEventData* p = pEvents->RemoveHead();
            played.push_back(static_cast<DWORD>(p->m_dwData));
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
        if (uMsg == kFakeNotifyFromThread) {
            QXNotifyShared(777, 0, 0);
            return 0;
        }
        return CQXDevice::WndProc(uMsg, wParam, lParam);
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
        FakeDevice::ClearLog();
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

    CQuavix* Make(DWORD dwFlags = QX_INIT_MIDI | QX_INIT_WAVE)
    {
        CQuavix* q = CQuavix::InitQuavix();
        q->Initialize(dwFlags);
        return q;
    }

    // The manager's notifications from now on, as code, value, device.
    static std::vector<DWORD>& Reports(CQuavix* q)
    {
        static std::vector<DWORD> r;
        r.clear();
        q->SetNotificationCallback([](DWORD c, DWORD v, DWORD_PTR d) { r.insert(r.end(), {c, v, DWORD(d)}); }, 0);
        return r;
    }

    static FakeDevice* Dev(CQuavix* q, int t, int d, int n) { return static_cast<FakeDevice*>(q->GetDevice(t, d, n)); }

    // Waits (generously) for a condition that another thread makes true.
    template <class Pred>
    static bool Eventually(Pred pred, int ms = 5000)
    {
        for (int i = 0; i < ms; ++i) {
            if (pred()) return true;
            Sleep(1);
        }
        return pred();
    }
};

#endif // QUAVIX_TESTS_MANAGERFIXTURE_H
