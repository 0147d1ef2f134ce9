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
#include <string>
#include <vector>

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/asan_interface.h>
#endif

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

CQXEventData* SysEx(DWORD dwTime, std::vector<BYTE> bytes)
{
    auto* e = new CQXEventData;
    e->SetSysExData(bytes.data(), static_cast<DWORD>(bytes.size()));
    e->SetTimeStamp(dwTime);
    return e;
}

Words Packed(CMidiStreamBuffer& b)
{
    const MIDIHDR* h = b.GetStreamHeader();
    if (h->lpData == nullptr) return {};
    Words w(h->dwBufferLength / 4);
    std::memcpy(w.data(), h->lpData, w.size() * 4);
    return w;
}

// Packs the events and checks the header of the capped buffer.
Words Cap(DWORD dwStart, DWORD dwEnd, const Events& events)
{
    auto b = std::make_unique<CMidiStreamBuffer>(dwStart, dwEnd);
    for (CQXEventData* e : events) b->AddStreamData(e);
    b->CapStreamBuffer();
    MIDIHDR* h = b->GetStreamHeader();
    EXPECT_NE(h->lpData, nullptr);
    EXPECT_EQ(h->dwBytesRecorded, h->dwBufferLength);
    EXPECT_EQ(h->dwFlags, 0u);
    EXPECT_EQ(CMidiStreamBuffer::GetBufferFromHeader(h), b.get());
    return Packed(*b);
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

TEST(StreamBuffer, PacksEventsWordForWord)
{
    struct Case {
        const char* name;
        DWORD start, end;
        std::function<Events()> events;
        Words expected;
        bool readable = true; // tiles into events by the byte counts
    };
    const Case cases[] = {
        {"empty period", 1000, 1100, [] { return Events{}; }, {100, 0, NOP}},
        {"note on and off", 1000, 1100, [] { return Events{Midi(1000, NOTE_ON), Midi(1050, NOTE_OFF)}; },
         {0, 0, NOTE_ON, 50, 0, NOTE_OFF, 50, 0, NOP}},
        {"before the start", 1000, 1100, [] { return Events{Midi(990, NOTE_ON), Midi(1020, NOTE_OFF)}; },
         {0, 0, NOTE_ON, 20, 0, NOTE_OFF, 80, 0, NOP}},
        {"equal stamps", 1000, 1100, [] { return Events{Midi(1010, NOTE_ON), Midi(1010, NOTE_OFF)}; },
         {10, 0, NOTE_ON, 0, 0, NOTE_OFF, 90, 0, NOP}},
        {"out of order", 1000, 1100, [] { return Events{Midi(1050, NOTE_ON), Midi(1030, NOTE_OFF)}; },
         {50, 0, NOTE_ON, 0, 0, NOTE_OFF, 50, 0, NOP}},
        {"6-byte sysex", 1000, 1100, [] { return Events{SysEx(1020, {0xF0, 0x41, 0x10, 0x42, 0x12, 0xF7})}; },
         {20, 0, 0x80000006, 0x421041F0, 0x0000F712, 80, 0, NOP}},
        // 12 bytes claiming one word: the rest would land on the no-op's stream id.
        {"sysex longer than its words", 1000, 1100,
         [] {
             CQXEventData* e = SysEx(1020, {0xF0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 0xF7});
             e->m_dwStreamWords = 1;
             return Events{e};
         },
         {20, 0, 0x80000004, 0x030201F0, 80, 0, NOP}},
        {"sysex without bytes", 1000, 1100, [] { return Events{Raw(QX_EVENT_SYSEX, 1020, 2, 0, 6)}; },
         {20, 0, 0x80000006, 0, 0, 80, 0, NOP}},
        // The high byte would turn the short message into a long one.
        {"midi with stray high bits", 1000, 1100, [] { return Events{Raw(QX_EVENT_MIDI, 1000, 0, 0xAB80403C90)}; },
         {0, 0, NOTE_ON, 100, 0, NOP}},
        {"no stream form", 1000, 1100, [] { return Events{Raw(QX_EVENT_FILEMETA, 1030, 2, 0xDEADBEEF, 7)}; },
         {30, 0, 0, 0, 0, 70, 0, NOP}, false},
        {"at the end", 1000, 1100, [] { return Events{Midi(1100, NOTE_ON)}; }, {100, 0, NOTE_ON, 0, 0, NOP}},
        {"past the end", 1000, 1100, [] { return Events{Midi(1150, NOTE_ON), Midi(1120, NOTE_OFF)}; },
         {150, 0, NOTE_ON, 0, 0, NOTE_OFF, 0, 0, NOP}},
        {"across the clock wrap", 0xFFFFFFF0, 0x10,
         [] { return Events{Midi(0xFFFFFFE0, NOTE_ON), Midi(0x5, NOTE_OFF)}; },
         {0, 0, NOTE_ON, 0x15, 0, NOTE_OFF, 0xB, 0, NOP}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const Words w = Cap(c.start, c.end, c.events());
        EXPECT_EQ(w, c.expected);
        if (c.readable) {
            EXPECT_TRUE(WalkedTotal(w).has_value());
        }
    }
}

TEST(StreamBuffer, DeltasAddUpToThePeriod)
{
    std::mt19937 rng(20240611);
    for (int round = 0; round < 300; ++round) {
        const DWORD start = rng(), length = rng() % 2000;
        Events events;
        for (DWORD k = rng() % 8; k > 0; --k) {
            const DWORD t = start - 50 + rng() % (length + 50); // some before the start, none at the end
            if (rng() % 3 == 0)
                events.push_back(SysEx(t, std::vector<BYTE>(1 + rng() % 20, 0x7F)));
            else
                events.push_back(Midi(t, NOTE_ON));
        }
        SCOPED_TRACE(round);
        EXPECT_EQ(WalkedTotal(Cap(start, start + length, events)), length);
    }
}

TEST(StreamBuffer, WaveStartCarriesThePlayersHandle)
{
    int signals = 0;
    const DWORD handle = QXRegisterPlayer(&signals, [](void* p) { ++*static_cast<int*>(p); });
    ASSERT_NE(handle, 0u);
    QX_WaveParams params{};
    auto start = [&](CWavePlay* player) {
        params.dsParams.pWavePlay = player;
        auto* e = new CQXEventData;
        e->SetWaveStart(&params);
        e->SetTimeStamp(1040);
        return e;
    };
    const Words live = Cap(1000, 1100, {start(reinterpret_cast<CWavePlay*>(&signals))});
    EXPECT_EQ(live, (Words{40, 0, 0xC2000008, 1, handle, 60, 0, NOP}));
    EXPECT_TRUE(QXSignalPlayer(live[4]));
    EXPECT_EQ(signals, 1);

    // Not a live player: the low half of the pointer must not pass for a handle.
    QXUnregisterPlayer(&signals);
    const Words stale = Cap(1000, 1100, {start(reinterpret_cast<CWavePlay*>(&signals))});
    const Words unknown = Cap(1000, 1100, {start(reinterpret_cast<CWavePlay*>(uintptr_t{0x123456789A0}))});
    EXPECT_EQ(stale, (Words{40, 0, 0xC2000008, 1, 0, 60, 0, NOP}));
    EXPECT_EQ(unknown, stale);
}

TEST(StreamBuffer, DefaultBufferCapsOnceAndIgnoresNull)
{
    CMidiStreamBuffer b;
    EXPECT_EQ(b.GetStreamHeader()->lpData, nullptr);
    b.AddStreamData(nullptr);
    b.CapStreamBuffer();
    const LPSTR data = b.GetStreamHeader()->lpData;
    EXPECT_EQ(Packed(b), (Words{0, 0, NOP}));
    EXPECT_EQ(b.GetStreamHeader()->dwUser, reinterpret_cast<DWORD_PTR>(&b));
    b.CapStreamBuffer();
    EXPECT_EQ(b.GetStreamHeader()->lpData, data);
}

TEST(StreamBuffer, CappingDeletesTheAddedEvents)
{
    const Events added = {Midi(1000, NOTE_ON), SysEx(1010, {0xF0, 0xF7}), Raw(QX_EVENT_FILEMETA, 1020, 0)};
    auto b = std::make_unique<CMidiStreamBuffer>(1000, 1100);
    for (CQXEventData* e : added) b->AddStreamData(e);
    b->CapStreamBuffer();
#if defined(__SANITIZE_ADDRESS__)
    size_t freed = 0;
    for (CQXEventData* e : added) freed += __asan_address_is_poisoned(e) ? 1 : 0;
    EXPECT_EQ(freed, added.size());
#endif
    b.reset(); // a list still holding them would delete them a second time
}

TEST(StreamBuffer, AllocationFailureKeepsTheEvents)
{
    auto b = std::make_unique<CMidiStreamBuffer>(1000, 1100);
    b->AddStreamData(Midi(1010, NOTE_ON));
    b->AddStreamData(SysEx(1020, {0xF0, 0xF7}));
    QXFaultInject("VirtualAlloc", ERROR_NOT_ENOUGH_MEMORY);
    testing::internal::CaptureStderr();
    b->CapStreamBuffer();
    EXPECT_EQ(testing::internal::GetCapturedStderr(), kAllocLine);
    const MIDIHDR* h = b->GetStreamHeader();
    EXPECT_EQ(h->lpData, nullptr);
    EXPECT_EQ(h->dwBufferLength | h->dwBytesRecorded | h->dwFlags, 0u);
    EXPECT_EQ(h->dwUser, 0u);

    b->CapStreamBuffer(); // all events are still there to pack
    EXPECT_EQ(Packed(*b), (Words{10, 0, NOTE_ON, 10, 0, 0x80000002, 0xF7F0, 80, 0, NOP}));

    // Never capped: its destructor frees the events (a leak under ASan otherwise).
    auto never = std::make_unique<CMidiStreamBuffer>(1000, 1100);
    never->AddStreamData(SysEx(1020, {0xF0, 0xF7}));
    QXFaultInject("VirtualAlloc", ERROR_NOT_ENOUGH_MEMORY);
    testing::internal::CaptureStderr();
    never->CapStreamBuffer();
    EXPECT_EQ(testing::internal::GetCapturedStderr(), kAllocLine);
    never.reset();
    QXFaultClear();
}

TEST(StreamBuffer, SizesBeyond32BitsFailLikeAllocation)
{
    // The first pair wraps a 32-bit word count to a tiny buffer that packing would overrun.
    const std::vector<std::vector<DWORD>> cases = {{0x7FFFFFFE, 0x7FFFFFFE}, {0x3FFFFFFD}};
    for (const auto& words : cases) {
        CMidiStreamBuffer b(1000, 1100);
        for (DWORD n : words) b.AddStreamData(Raw(QX_EVENT_FILEMETA, 1000, n));
        testing::internal::CaptureStderr();
        b.CapStreamBuffer();
        EXPECT_EQ(testing::internal::GetCapturedStderr(), kAllocLine);
        EXPECT_EQ(b.GetStreamHeader()->lpData, nullptr);
    }
}
