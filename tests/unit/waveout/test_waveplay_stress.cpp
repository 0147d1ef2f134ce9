// Many streaming players on one real-time virtual output, started and stopped in random
// order from several threads, some through PlayWaveFile (they delete themselves), some
// owned by the test (stopped, played again, deleted); then everything closed, and
// nothing of them may be left: threads, sound objects, kernel handles, windows.
#include "WaveOutHarness.h"

#include "platform/kernel/QXKernel.h"
#include "platform/kernel/QXWindow.h"

#include <array>
#include <random>

using namespace wotest;

namespace {

constexpr int kPlayers = 64;
constexpr int kThreads = 4;
// Owned players get performances of their own, far from the manager's tags.
constexpr int kOwnedPerformance = 0x40000000;

// A slot holds none, a player the test owns, or one of PlayWaveFile, which the done
// callback gives back. Each slot belongs to one worker; the done callback is the only
// other writer, and only of a slot in the Auto state.
enum class Slot { Empty, Owned, Auto };

struct Slots {
    std::array<std::atomic<Slot>, kPlayers> state{};
    std::array<std::atomic<uint32_t>, kPlayers> generation{};
    std::array<CWavePlay*, kPlayers> owned{};
    std::atomic<int> autoStarted{0}, autoDone{0}, strayDone{0}, ownedPlays{0}, stops{0}, deletes{0}, failed{0};
};

Slots* g_slots = nullptr;

void AutoDone(DWORD_PTR dwUser, DWORD)
{
    const auto slot = static_cast<size_t>(dwUser & 0xFF);
    Slot expected = Slot::Auto;
    if (dwUser >> 8 == g_slots->generation[slot].load() && g_slots->state[slot].compare_exchange_strong(expected, Slot::Empty))
        ++g_slots->autoDone;
    else
        ++g_slots->strayDone; // a second call, or one for a player that never was
}

class WavePlayStress : public ScratchTest {
protected:
    std::string File(const char* name, WORD channels, DWORD rate, WORD bits, double seconds)
    {
        return Make(name, Wave(WAVE_FORMAT_PCM, channels, rate, bits, Sine(bits, rate, 330, size_t(seconds * rate), channels, 0.1)));
    }
    static CQuavix* Open()
    {
        CQuavix* q = CQuavix::InitQuavix();
        q->Initialize(QX_INIT_WAVE);
        EXPECT_EQ(q->OpenDevices(), 1);
        EXPECT_EQ(q->StartDevices(), 1);
        return q;
    }
};

} // namespace

TEST_F(WavePlayStress, ManyPlayersStartedAndStoppedFromSeveralThreadsLeaveNothingBehind)
{
    ASSERT_EQ(dstest::kVirtual, 0);
    qxplat::QXVirtualSetDevices(1, 1, 1, 1);
    // Short ones end by themselves while others start and stop around them.
    const std::string shortFiles[] = {File("a.wav", 2, 44100, 16, 0.3), File("b.wav", 1, 22050, 8, 0.6),
                                      File("c.wav", 1, 48000, 16, 1.2)};
    const std::string longFiles[] = {File("d.wav", 2, 48000, 16, 3.0), File("e.wav", 1, 11025, 16, 2.0)};
    // The lazily made services (timer thread, player registry) stay for the process:
    // made once before anything is counted.
    CQuavix* q = Open();
    ASSERT_GT(q->PlayWaveFile(shortFiles[0].c_str(), 0, DoneLog::Proc, 0), 0);
    ASSERT_TRUE(Eventually([&] { return DoneLog::Count() == 1; }));
    auto* warm = new CWavePlay;
    QX_WaveParams params = WaveParams(kOwnedPerformance, 0, shortFiles[0]);
    ASSERT_EQ(warm->Play(&params, 0, timeGetTime() - q->GetPlayStartTime() + 20, nullptr, 0, 0), 1);
    delete warm;
    CQuavix::ExitQuavix();
    const size_t threads = ThreadCount(), handles = qxplat::LiveHandleCount(), windows = qxplat::LiveWindowCount();
    ASSERT_EQ(qxplat::LiveDirectSoundObjects(), 0u);

    q = Open();
    Slots slots;
    g_slots = &slots;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(std::getenv("QUAVIX_SOAK") ? 60 : 5);
    auto worker = [&](int nWorker) {
        std::mt19937 random(static_cast<unsigned>(1000 + nWorker));
        auto pick = [&](int n) { return std::uniform_int_distribution<int>(0, n - 1)(random); };
        while (std::chrono::steady_clock::now() < deadline) {
            const auto slot = static_cast<size_t>(nWorker + kThreads * pick(kPlayers / kThreads));
            CWavePlay*& p = slots.owned[slot];
            const int action = pick(5);
            if (slots.state[slot] == Slot::Empty && action < 2) {
                const uint32_t gen = ++slots.generation[slot];
                slots.state[slot] = Slot::Auto;
                const std::string& path = shortFiles[static_cast<size_t>(pick(3))];
                if (q->PlayWaveFile(path.c_str(), 0, AutoDone, (DWORD_PTR(gen) << 8) | slot) > 0) {
                    ++slots.autoStarted;
                } else {
                    ++slots.failed;
                    slots.state[slot] = Slot::Empty;
                }
            } else if (slots.state[slot] == Slot::Empty) {
                p = new CWavePlay;
                slots.state[slot] = Slot::Owned;
            } else if (slots.state[slot] == Slot::Owned && action < 2) {
                // At once or a little ahead, by the start timer; played again if it played before.
                QX_WaveParams own = WaveParams(kOwnedPerformance + static_cast<int>(slot), 0, longFiles[pick(2)]);
                const DWORD dwStart = pick(2) == 0 ? 0 : timeGetTime() - q->GetPlayStartTime() + 1 + pick(40);
                if (p->Play(&own, 0, dwStart, nullptr, 0, 0) == 1)
                    ++slots.ownedPlays;
                else
                    ++slots.failed;
            } else if (slots.state[slot] == Slot::Owned && action < 4) {
                p->Stop();
                ++slots.stops;
            } else if (slots.state[slot] == Slot::Owned) {
                delete p;
                p = nullptr;
                slots.state[slot] = Slot::Empty;
                ++slots.deletes;
            }
            std::this_thread::sleep_for(std::chrono::microseconds(pick(3000)));
        }
    };
    std::vector<std::thread> workers;
    for (int t = 0; t < kThreads; ++t) workers.emplace_back(worker, t);
    for (std::thread& t : workers) t.join();
    for (size_t s = 0; s < kPlayers; ++s)
        if (slots.state[s] == Slot::Owned) delete slots.owned[s];
    // Every self-deleting player ends by itself and calls back once.
    EXPECT_TRUE(Eventually([&] { return slots.autoDone == slots.autoStarted; }, std::chrono::seconds(60)))
        << slots.autoDone << " of " << slots.autoStarted << " self-deleting players called back";
    CQuavix::ExitQuavix();
    g_slots = nullptr;

    EXPECT_TRUE(slots.autoStarted > 0 && slots.ownedPlays > 0 && slots.stops > 0 && slots.deletes > 0);
    EXPECT_EQ(slots.failed, 0);
    EXPECT_EQ(slots.strayDone, 0);
    EXPECT_TRUE(Eventually([&] { return ThreadCount() <= threads; }, std::chrono::seconds(30)))
        << ThreadCount() << " threads, " << threads << " before";
    EXPECT_EQ(qxplat::LiveDirectSoundObjects(), 0u);
    EXPECT_EQ(qxplat::LiveHandleCount(), handles);
    EXPECT_EQ(qxplat::LiveWindowCount(), windows);
}
