// Many streaming players on one real-time virtual output, started and stopped in random
// order from several threads, some through PlayWaveFile (they delete themselves), some
// owned by the test (stopped, played again, deleted); then everything closed, and
// nothing of them may be left: threads, sound objects, kernel handles, windows.
#include <quavix/Quavix.h>

#include "platform/QXPlatform.h"
#include "platform/backends/virtual/QXVirtual.h"
#include "platform/dsound/QXDSound.h"
#include "platform/kernel/QXKernel.h"
#include "platform/kernel/QXWindow.h"
#include "unit/wavefile/WaveTestUtil.h"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

using namespace wavetest;

namespace {

const int kVirtual = setenv("QUAVIX_BACKEND", "virtual", 1);

constexpr int kPlayers = 64;
constexpr int kThreads = 4;
constexpr int kSeconds = 20;
constexpr int kSoakSeconds = 60;
// Owned players get performances of their own, far from the manager's tags.
constexpr int kOwnedPerformance = 0x40000000;

// A slot holds at most one player at a time: none, one the test owns, or one of
// PlayWaveFile, which the done callback gives back. Each slot belongs to one worker; the
// done callback is the only other writer, and only of a slot in the Auto state.
enum class Slot { Empty, Owned, Auto };

struct Slots {
    std::array<std::atomic<Slot>, kPlayers> state{};
    std::array<std::atomic<uint32_t>, kPlayers> generation{};
    std::array<CWavePlay*, kPlayers> owned{};
    std::atomic<int> autoStarted{0}, autoDone{0}, strayDone{0};
    std::atomic<int> ownedPlays{0}, ownedFailed{0}, autoFailed{0}, stops{0}, deletes{0};
};

Slots* g_slots = nullptr;

void AutoDone(DWORD_PTR dwUser, DWORD)
{
    const auto slot = static_cast<size_t>(dwUser & 0xFF);
    const auto gen = static_cast<uint32_t>(dwUser >> 8);
    Slot expected = Slot::Auto;
    if (gen == g_slots->generation[slot].load() && g_slots->state[slot].compare_exchange_strong(expected, Slot::Empty))
        ++g_slots->autoDone;
    else
        ++g_slots->strayDone; // a second call, or one for a player that never was
}

class WavePlayStress : public ScratchTest {
protected:
    void SetUp() override
    {
        ASSERT_EQ(kVirtual, 0);
        ScratchTest::SetUp();
        qxplat::QXVirtualSetDevices(1, 1, 1, 1);
        // Short ones end by themselves while others start and stop around them.
        m_shortFiles = {File("a.wav", 2, 44100, 16, 0.3), File("b.wav", 1, 22050, 8, 0.6),
                        File("c.wav", 1, 48000, 16, 1.2)};
        m_longFiles = {File("d.wav", 2, 48000, 16, 3.0), File("e.wav", 1, 11025, 16, 2.0)};
    }
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

    std::vector<std::string> m_shortFiles, m_longFiles;
};

} // namespace

TEST_F(WavePlayStress, ManyPlayersStartedAndStoppedFromSeveralThreadsLeaveNothingBehind)
{
    // The lazily made services (timer thread, player registry) stay for the process:
    // made once before anything is counted.
    {
        CQuavix* q = Open();
        std::atomic<int> done{0};
        ASSERT_GT(q->PlayWaveFile(m_shortFiles[0].c_str(), 0,
                                  [](DWORD_PTR user, DWORD) { ++*reinterpret_cast<std::atomic<int>*>(user); },
                                  reinterpret_cast<DWORD_PTR>(&done)),
                  0);
        ASSERT_TRUE(Eventually([&] { return done.load() == 1; }, std::chrono::seconds(30)));
        auto* p = new CWavePlay;
        QX_WaveParams params{};
        params.nPerformance = kOwnedPerformance;
        params.dsParams.lpszFileName = m_shortFiles[0].c_str();
        ASSERT_EQ(p->Play(&params, 0, timeGetTime() - q->GetPlayStartTime() + 20, nullptr, 0, 0), 1);
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        delete p;
        CQuavix::ExitQuavix();
    }
    const size_t threads = ThreadCount(), handles = qxplat::LiveHandleCount(), windows = qxplat::LiveWindowCount();
    ASSERT_EQ(qxplat::LiveDirectSoundObjects(), 0u);

    CQuavix* q = Open();
    Slots slots;
    g_slots = &slots;
    const int seconds = std::getenv("QUAVIX_SOAK") != nullptr ? kSoakSeconds : kSeconds;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);

    auto worker = [&](int nWorker) {
        std::mt19937 random(static_cast<unsigned>(1000 + nWorker));
        auto pick = [&](int n) { return std::uniform_int_distribution<int>(0, n - 1)(random); };
        while (std::chrono::steady_clock::now() < deadline) {
            const auto slot = static_cast<size_t>(nWorker + kThreads * pick(kPlayers / kThreads));
            CWavePlay*& p = slots.owned[slot];
            switch (slots.state[slot].load()) {
            case Slot::Auto:
                break; // its player is its own until the done callback
            case Slot::Empty:
                if (pick(2) == 0) {
                    const uint32_t gen = ++slots.generation[slot];
                    slots.state[slot] = Slot::Auto;
                    const std::string& path = m_shortFiles[static_cast<size_t>(pick(3))];
                    if (q->PlayWaveFile(path.c_str(), 0, AutoDone, (DWORD_PTR(gen) << 8) | slot) > 0) {
                        ++slots.autoStarted;
                    } else {
                        ++slots.autoFailed;
                        slots.state[slot] = Slot::Empty;
                    }
                } else {
                    p = new CWavePlay;
                    slots.state[slot] = Slot::Owned;
                }
                break;
            case Slot::Owned:
                switch (pick(5)) {
                case 0:
                case 1: {
                    // At once or a little ahead, by the start timer; played again if it
                    // played before.
                    QX_WaveParams params{};
                    params.nPerformance = kOwnedPerformance + static_cast<int>(slot);
                    params.dsParams.lpszFileName = m_longFiles[static_cast<size_t>(pick(2))].c_str();
                    const DWORD dwStart = pick(2) == 0 ? 0 : timeGetTime() - q->GetPlayStartTime() + 1 + pick(40);
                    if (p->Play(&params, 0, dwStart, nullptr, 0, 0) == 1)
                        ++slots.ownedPlays;
                    else
                        ++slots.ownedFailed;
                    break;
                }
                case 2:
                case 3:
                    p->Stop();
                    ++slots.stops;
                    break;
                default:
                    delete p;
                    p = nullptr;
                    slots.state[slot] = Slot::Empty;
                    ++slots.deletes;
                    break;
                }
                break;
            }
            std::this_thread::sleep_for(std::chrono::microseconds(pick(3000)));
        }
    };
    std::vector<std::thread> workers;
    for (int t = 0; t < kThreads; ++t) workers.emplace_back(worker, t);
    for (std::thread& t : workers) t.join();

    for (size_t s = 0; s < kPlayers; ++s) {
        if (slots.state[s].load() != Slot::Owned) continue;
        delete slots.owned[s];
        slots.state[s] = Slot::Empty;
    }
    // Every self-deleting player ends by itself and calls back once.
    EXPECT_TRUE(Eventually([&] { return slots.autoDone.load() == slots.autoStarted.load(); },
                           std::chrono::seconds(60)))
        << slots.autoDone.load() << " of " << slots.autoStarted.load() << " self-deleting players called back";
    CQuavix::ExitQuavix();
    g_slots = nullptr;

    EXPECT_GT(slots.autoStarted.load(), 0);
    EXPECT_GT(slots.ownedPlays.load(), 0);
    EXPECT_GT(slots.stops.load(), 0);
    EXPECT_GT(slots.deletes.load(), 0);
    EXPECT_EQ(slots.autoFailed.load(), 0);
    EXPECT_EQ(slots.ownedFailed.load(), 0);
    EXPECT_EQ(slots.strayDone.load(), 0);
    EXPECT_TRUE(Eventually([&] { return ThreadCount() <= threads; }, std::chrono::seconds(30)))
        << ThreadCount() << " threads, " << threads << " before";
    EXPECT_EQ(qxplat::LiveDirectSoundObjects(), 0u);
    EXPECT_EQ(qxplat::LiveHandleCount(), handles);
    EXPECT_EQ(qxplat::LiveWindowCount(), windows);
    RecordProperty("self_deleting_players", slots.autoStarted.load());
    RecordProperty("owned_plays", slots.ownedPlays.load());
}
