// Many streaming players on one real-time virtual output, started and stopped in random
// order from several threads, some through PlayWaveFile (they delete themselves), some
// owned by the test (stopped, played again, deleted); then everything closed, and
// nothing of them may be left: threads, sound objects, kernel handles, windows.
#include "WaveOutHarness.h"

#include "platform/kernel/QXKernel.h"
#include "platform/kernel/QXWindow.h"

#include <random>
#include <set>

using namespace wotest;

namespace {

class WavePlayStress : public ManagerTest {
protected:
    std::string File(const char* name, WORD channels, DWORD rate, WORD bits, double seconds)
    {
        return Make(name, Wave(WAVE_FORMAT_PCM, channels, rate, bits, Sine(bits, rate, 330, size_t(seconds * rate), channels, 0.1)));
    }
};

} // namespace

TEST_F(WavePlayStress, ManyPlayersStartedAndStoppedFromSeveralThreadsLeaveNothingBehind)
{
    // Short ones end by themselves while others start and stop around them.
    const std::string shortFiles[] = {File("a.wav", 2, 44100, 16, 0.3), File("b.wav", 1, 22050, 8, 0.6),
                                      File("c.wav", 1, 48000, 16, 1.2)};
    const std::string longFiles[] = {File("d.wav", 2, 48000, 16, 3.0), File("e.wav", 1, 11025, 16, 2.0)};
    // The lazily made services (timer thread, player registry) stay for the process:
    // made once before anything is counted.
    Init(1);
    ASSERT_GT(q->PlayWaveFile(shortFiles[0].c_str(), 0, DoneLog::Proc, 0), 0);
    ASSERT_TRUE(Eventually([&] { return DoneLog::Peek().size() == 1; }));
    auto* warm = new CWavePlay;
    QX_WaveParams params = WaveParams(0x40000000, 0, shortFiles[0]);
    ASSERT_EQ(warm->Play(&params, 0, timeGetTime() - q->GetPlayStartTime() + 20, nullptr, 0, 0), 1);
    delete warm;
    CQuavix::ExitQuavix();
    const size_t threads = ThreadCount(), handles = qxplat::LiveHandleCount(), windows = qxplat::LiveWindowCount();
    ASSERT_EQ(qxplat::LiveDirectSoundObjects(), 0u);

    Init(1);
    std::atomic<int> autoStarted{0}, ownedPlays{0}, stops{0}, deletes{0}, failed{0};
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(std::getenv("QUAVIX_SOAK") ? 60 : 5);
    auto worker = [&](int nWorker) {
        std::mt19937 random(static_cast<unsigned>(1000 + nWorker));
        auto pick = [&](int n) { return std::uniform_int_distribution<int>(0, n - 1)(random); };
        CWavePlay* owned[16] = {};
        while (std::chrono::steady_clock::now() < deadline) {
            const int slot = pick(16), action = pick(5);
            CWavePlay*& p = owned[slot];
            if (p == nullptr && action < 2) {
                const DWORD_PTR id = static_cast<DWORD_PTR>(nWorker) << 24 | static_cast<DWORD_PTR>(autoStarted + 1);
                if (q->PlayWaveFile(shortFiles[pick(3)].c_str(), 0, DoneLog::Proc, id) > 0)
                    ++autoStarted;
                else
                    ++failed;
            } else if (p == nullptr) {
                p = new CWavePlay;
            } else if (action < 2) {
                // At once or a little ahead, by the start timer; played again if it played before.
                QX_WaveParams own = WaveParams(0x40000000 + 16 * nWorker + slot, 0, longFiles[pick(2)]);
                const DWORD dwStart = pick(2) == 0 ? 0 : timeGetTime() - q->GetPlayStartTime() + 1 + pick(40);
                if (p->Play(&own, 0, dwStart, nullptr, 0, 0) == 1)
                    ++ownedPlays;
                else
                    ++failed;
            } else if (action < 4) {
                p->Stop();
                ++stops;
            } else {
                delete p;
                p = nullptr;
                ++deletes;
            }
            std::this_thread::sleep_for(std::chrono::microseconds(pick(3000)));
        }
        for (CWavePlay* left : owned) delete left;
    };
    std::vector<std::thread> workers;
    for (int t = 0; t < 4; ++t) workers.emplace_back(worker, t);
    for (std::thread& t : workers) t.join();
    EXPECT_TRUE(Eventually([&] { return DoneLog::Peek().size() >= size_t(autoStarted); }, std::chrono::seconds(60)))
        << DoneLog::Peek().size() << " of " << autoStarted << " self-deleting players called back";
    CQuavix::ExitQuavix();

    EXPECT_TRUE(autoStarted > 0 && ownedPlays > 0 && stops > 0 && deletes > 0);
    EXPECT_EQ(failed, 0);
    std::set<DWORD_PTR> once; // each self-deleting player calls back once, with the number it was started with
    for (const auto& call : DoneLog::Peek()) EXPECT_TRUE(once.insert(std::get<0>(call)).second) << "a done callback came twice";
    EXPECT_TRUE(Eventually([&] { return ThreadCount() <= threads; }, std::chrono::seconds(30)))
        << ThreadCount() << " threads, " << threads << " before";
    EXPECT_EQ(qxplat::LiveDirectSoundObjects(), 0u);
    EXPECT_EQ(qxplat::LiveHandleCount(), handles);
    EXPECT_EQ(qxplat::LiveWindowCount(), windows);
}
