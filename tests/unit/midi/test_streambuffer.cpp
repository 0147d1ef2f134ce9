#include <gtest/gtest.h>

#include <quavix/QXMidiStreamBuffer.h>
#include <quavix/QXPlayerRegistry.h>

#include "platform/QXFaults.h"
#include "platform/QXPlatform.h"

#include <cstring>
#include <functional>
#include <memory>
#include <optional>
#include <random>
#include <vector>

namespace {

using Words = std::vector<DWORD>;
using Events = std::vector<CQXEventData*>;
constexpr DWORD NOP = CMidiStreamBuffer::STRMBUF_SHORT_NO_OP;
constexpr DWORD NOTE_ON = 0x00403C90, NOTE_OFF = 0x00003C80;
const char* const kAllocLine = "Midi Out Error: CMidiStreamBuffer: can't allocate memory!\n";

CQXEventData* Raw(int nType, DWORD dwTime, DWORD dwWords, DWORD_PTR dwData = 0, DWORD_PTR dwLength = 0)
{
    auto* e = new CQXEventData;
    e->m_nType = nType;
    e->m_dwTimeStamp = dwTime;
    e->m_dwStreamWords = dwWords;
    e->m_dwData = dwData;
    e->m_dwLength = dwLength;
    return e;
}

CQXEventData* Midi(DWORD dwTime, DWORD dwMsg) { return Raw(QX_EVENT_MIDI, dwTime, 0, dwMsg); }

CQXEventData* SysEx(DWORD dwTime, std::vector<BYTE> bytes, DWORD dwWords = 0)
{
    auto* e = new CQXEventData;
    e->SetSysExData(bytes.data(), DWORD(bytes.size()));
    e->SetTimeStamp(dwTime);
    if (dwWords != 0) e->m_dwStreamWords = dwWords;
    return e;
}

Words Packed(const MIDIHDR* h)
{
    const auto* p = reinterpret_cast<const DWORD*>(h->lpData);
    return p == nullptr ? Words{} : Words(p, p + h->dwBufferLength / 4);
}

// Packs the events into a capped buffer and checks its header; its words.
Words Cap(DWORD dwStart, DWORD dwEnd, const Events& events)
{
    auto b = std::make_unique<CMidiStreamBuffer>(dwStart, dwEnd);
    for (CQXEventData* e : events) b->AddStreamData(e);
    b->CapStreamBuffer();
    MIDIHDR* h = b->GetStreamHeader();
    EXPECT_EQ(h->dwBytesRecorded, h->dwBufferLength);
    EXPECT_EQ(h->dwFlags, 0u);
    EXPECT_EQ(CMidiStreamBuffer::GetBufferFromHeader(h), b.get());
    return Packed(h);
}

// Reads the words as a stream reader does (a long event's parameters are its byte count
// rounded up to words): the sum of the deltas, or nothing when the events do not end
// exactly at the buffer's end with the closing no-op.
std::optional<DWORD> WalkedTotal(const Words& w)
{
    DWORD total = 0;
    size_t i = 0, last = 0;
    while (i + 3 <= w.size()) {
        total += w[i];
        last = i;
        const DWORD ev = w[i + 2];
        i += 3 + ((ev & 0x80000000u) ? ((ev & 0x00FFFFFFu) + 3) / 4 : 0);
    }
    if (w.empty() || i != w.size() || w[last + 2] != NOP) return std::nullopt;
    return total;
}

} // namespace

TEST(StreamBuffer, PacksEventsWordForWordWithDeltasThatAddUpToThePeriod)
{
    const struct {
        const char* name;
        DWORD start, end;
        std::function<Events()> events;
        Words expected;
    } cases[] = {
        {"empty period", 1000, 1100, [] { return Events{}; }, {100, 0, NOP}},
        {"note on and off", 1000, 1100, [] { return Events{Midi(1000, NOTE_ON), Midi(1050, NOTE_OFF)}; },
         {0, 0, NOTE_ON, 50, 0, NOTE_OFF, 50, 0, NOP}},
        {"before the start", 1000, 1100, [] { return Events{Midi(990, NOTE_ON), Midi(1020, NOTE_OFF)}; },
         {0, 0, NOTE_ON, 20, 0, NOTE_OFF, 80, 0, NOP}},
        {"out of order", 1000, 1100, [] { return Events{Midi(1050, NOTE_ON), Midi(1030, NOTE_OFF)}; },
         {50, 0, NOTE_ON, 0, 0, NOTE_OFF, 50, 0, NOP}},
        {"6-byte sysex", 1000, 1100, [] { return Events{SysEx(1020, {0xF0, 0x41, 0x10, 0x42, 0x12, 0xF7})}; },
         {20, 0, 0x80000006, 0x421041F0, 0x0000F712, 80, 0, NOP}},
        // 12 bytes claiming one word: the rest would land on the no-op's stream id.
        {"sysex longer than its words", 1000, 1100,
         [] { return Events{SysEx(1020, {0xF0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 0xF7}, 1)}; },
         {20, 0, 0x80000004, 0x030201F0, 80, 0, NOP}},
        {"sysex without bytes", 1000, 1100, [] { return Events{Raw(QX_EVENT_SYSEX, 1020, 2, 0, 6)}; },
         {20, 0, 0x80000006, 0, 0, 80, 0, NOP}},
        // The high byte would turn the short message into a long one.
        {"midi with stray high bits", 1000, 1100, [] { return Events{Raw(QX_EVENT_MIDI, 1000, 0, 0xAB80403C90)}; },
         {0, 0, NOTE_ON, 100, 0, NOP}},
        {"no stream form", 1000, 1100, [] { return Events{Raw(QX_EVENT_FILEMETA, 1030, 2, 0xDEADBEEF, 7)}; },
         {30, 0, 0, 0, 0, 70, 0, NOP}},
        {"past the end", 1000, 1100, [] { return Events{Midi(1150, NOTE_ON), Midi(1120, NOTE_OFF)}; },
         {150, 0, NOTE_ON, 0, 0, NOTE_OFF, 0, 0, NOP}},
        {"across the clock wrap", 0xFFFFFFF0, 0x10,
         [] { return Events{Midi(0xFFFFFFE0, NOTE_ON), Midi(0x5, NOTE_OFF)}; },
         {0, 0, NOTE_ON, 0x15, 0, NOTE_OFF, 0xB, 0, NOP}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(Cap(c.start, c.end, c.events()), c.expected);
    }
    // Random periods, some events before the start, none at the end: the words tile
    // into events and their deltas add up to the period.
    std::mt19937 rng(20240611);
    for (int round = 0; round < 300; ++round) {
        const DWORD start = rng(), length = rng() % 2000;
        Events events;
        for (DWORD k = rng() % 8; k > 0; --k) {
            const DWORD t = start - 50 + rng() % (length + 50);
            events.push_back(rng() % 3 ? Midi(t, NOTE_ON) : SysEx(t, std::vector<BYTE>(1 + rng() % 20, 0x7F)));
        }
        SCOPED_TRACE(round);
        EXPECT_EQ(WalkedTotal(Cap(start, start + length, events)), length);
    }
}

TEST(StreamBuffer, WaveStartCarriesTheHandleOfALivePlayerOnly)
{
    int signals = 0;
    const DWORD handle = QXRegisterPlayer(&signals, [](void* p) { ++*static_cast<int*>(p); });
    ASSERT_NE(handle, 0u);
    QX_WaveParams params{};
    auto start = [&](uintptr_t player) {
        params.dsParams.pWavePlay = reinterpret_cast<CWavePlay*>(player);
        auto* e = new CQXEventData;
        e->SetWaveStart(&params);
        e->SetTimeStamp(1040);
        return Cap(1000, 1100, {e});
    };
    const Words live = start(uintptr_t(&signals));
    EXPECT_EQ(live, (Words{40, 0, 0xC2000008, 1, handle, 60, 0, NOP}));
    EXPECT_TRUE(QXSignalPlayer(live[4]));
    EXPECT_EQ(signals, 1);
    // The low half of a pointer that names no live player must not pass for a handle.
    QXUnregisterPlayer(&signals);
    for (uintptr_t stale : {uintptr_t(&signals), uintptr_t{0x123456789A0}})
        EXPECT_EQ(start(stale), (Words{40, 0, 0xC2000008, 1, 0, 60, 0, NOP}));
}

// A failed allocation keeps the events for the next cap; a cap that worked is not redone.
TEST(StreamBuffer, CapsOnceIgnoresNullAndAFailedAllocationKeepsTheEvents)
{
    CMidiStreamBuffer b(1000, 1100);
    const MIDIHDR* h = b.GetStreamHeader();
    EXPECT_EQ(h->lpData, nullptr);
    b.AddStreamData(nullptr);
    b.AddStreamData(Midi(1010, NOTE_ON));
    b.AddStreamData(SysEx(1020, {0xF0, 0xF7})); // freed by the cap: a list still holding it frees it twice
    QXFaultInject("VirtualAlloc", ERROR_NOT_ENOUGH_MEMORY);
    testing::internal::CaptureStderr();
    b.CapStreamBuffer();
    EXPECT_EQ(testing::internal::GetCapturedStderr(), kAllocLine);
    EXPECT_EQ(h->lpData, nullptr);
    EXPECT_EQ(h->dwBufferLength | h->dwBytesRecorded | h->dwFlags | h->dwUser, 0u);
    b.CapStreamBuffer();
    EXPECT_EQ(Packed(h), (Words{10, 0, NOTE_ON, 10, 0, 0x80000002, 0xF7F0, 80, 0, NOP}));
    EXPECT_EQ(h->dwUser, reinterpret_cast<DWORD_PTR>(&b));
    const LPSTR data = h->lpData;
    b.CapStreamBuffer();
    EXPECT_EQ(h->lpData, data);

    // Never capped: the destructor frees the events (a leak under ASan otherwise). The
    // first pair of word counts wraps 32 bits to a tiny buffer that packing would overrun.
    for (Words counts : {Words{0}, Words{0x7FFFFFFE, 0x7FFFFFFE}, Words{0x3FFFFFFD}}) {
        CMidiStreamBuffer never(1000, 1100);
        for (DWORD n : counts) never.AddStreamData(n == 0 ? SysEx(1020, {0xF0, 0xF7}) : Raw(QX_EVENT_FILEMETA, 1000, n));
        if (counts[0] == 0) QXFaultInject("VirtualAlloc", ERROR_NOT_ENOUGH_MEMORY);
        testing::internal::CaptureStderr();
        never.CapStreamBuffer();
        EXPECT_EQ(testing::internal::GetCapturedStderr(), kAllocLine);
        EXPECT_EQ(never.GetStreamHeader()->lpData, nullptr);
    }
    QXFaultClear();
}
