#include <gtest/gtest.h>

#include <quavix/QXEventData.h>

#include <list>
#include <random>
#include <tuple>
#include <vector>

TEST(EventData, SysExIsCopiedIntoWholeStreamWordsAndOnlyMessagesTakeAChannel)
{
    BYTE msg[] = {0xF0, 0x43, 0x10, 0x4C, 0xF7};
    CQXEventData e, four, none;
    e.SetSysExData(msg, 5);
    four.SetSysExData(msg, 4);
    none.SetSysExData(msg, 0);
    none.SetSysExData(nullptr, 3);
    msg[1] = 0;
    const BYTE* copy = reinterpret_cast<const BYTE*>(e.m_dwData);
    EXPECT_EQ(std::vector<BYTE>(copy, copy + 5), (std::vector<BYTE>{0xF0, 0x43, 0x10, 0x4C, 0xF7}));
    EXPECT_EQ(std::tuple(e.m_nType, e.m_dwLength, e.m_dwStreamWords, four.m_dwStreamWords, none.m_nType),
              std::tuple(QX_EVENT_SYSEX, 5u, 2u, 1u, QX_EVENT_NONE));
    EXPECT_EQ(none.m_dwData | none.m_dwLength | none.m_dwStreamWords, 0u);

    // A SysEx pointer keeps its low bits; a message gets the new channel.
    e.SetDevChan(3, 0xF);
    EXPECT_EQ(reinterpret_cast<const BYTE*>(e.m_dwData), copy);
    EXPECT_EQ(e.m_nDevice, 3);
    CQXEventData note;
    note.SetMidiData(0x00403C90);
    note.SetDevChan(2, 5);
    EXPECT_EQ(std::tuple(note.m_dwData, note.m_nDevice), std::tuple(0x00403C95u, 2));
    note.SetDevChan(0, 0x13);
    EXPECT_EQ(note.m_dwData, 0x00403C93u);
}

TEST(EventData, WaveStartNamesThePlayerAndWaveDataOwnsItsParams)
{
    QX_WaveParams params{};
    params.dsParams.pWavePlay = reinterpret_cast<CWavePlay*>(static_cast<uintptr_t>(0x123456789A0));
    CQXEventData start;
    start.SetWaveStart(&params); // not kept: freeing a stack record would fail under ASan
    start.SetWaveStart(nullptr);
    // The length holds the whole 64-bit pointer.
    EXPECT_EQ(std::tuple(start.m_nType, start.m_dwData, start.m_dwStreamWords, start.m_dwLength),
              std::tuple(QX_EVENT_WAVESTART, 1u, 2u, 0x123456789A0u));
    CQXEventData data;
    data.SetWaveData(new QX_WaveParams{1, 2, {}}); // a leak if the record does not delete it
}

// Random edits against std::list: both walks and both ends must agree after each
// burst, across many small blocks and after the list has been emptied and refilled.
TEST(EventList, MatchesAModelAcrossManyBlocksAndReuse)
{
    std::vector<CQXEventData> events(64);
    CQXPtrList<CQXEventData> list(3);
    std::list<CQXEventData*> model;
    auto at = [&](size_t i) {
        POSITION pos = list.GetHeadPosition();
        while (i-- > 0) list.GetNext(pos);
        return pos;
    };
    auto check = [&] {
        ASSERT_EQ(list.GetCount(), static_cast<int>(model.size()));
        std::vector<CQXEventData*> fwd, back;
        for (POSITION pos = list.GetHeadPosition(); pos != nullptr;) fwd.push_back(list.GetNext(pos));
        for (POSITION pos = list.GetTailPosition(); pos != nullptr;) back.insert(back.begin(), list.GetPrev(pos));
        ASSERT_EQ(fwd, std::vector<CQXEventData*>(model.begin(), model.end()));
        ASSERT_EQ(back, fwd);
        if (!model.empty()) {
            ASSERT_EQ(list.GetHead(), model.front());
            ASSERT_EQ(list.GetTail(), model.back());
        }
    };
    std::mt19937 rng(12345);
    for (int round = 0; round < 3; ++round) {
        for (int step = 1; step <= 2000; ++step) {
            CQXEventData* p = &events[rng() % events.size()];
            const size_t i = model.empty() ? 0 : rng() % model.size();
            const auto it = std::next(model.begin(), static_cast<long>(i));
            switch (model.empty() ? 0 : rng() % 8) { // five adds to three removals
            case 0: ASSERT_NE(list.AddHead(p), nullptr); model.push_front(p); break;
            case 1: list.AddTail(p); model.push_back(p); break;
            case 2:
            case 3: list.InsertBefore(at(i), p); model.insert(it, p); break;
            case 4: list.InsertAfter(at(i), p); model.insert(std::next(it), p); break;
            case 5: list.RemoveAt(at(i)); model.erase(it); break;
            case 6: ASSERT_EQ(list.RemoveHead(), model.front()); model.pop_front(); break;
            default: ASSERT_EQ(list.RemoveTail(), model.back()); model.pop_back();
            }
            if (step % 100 == 0) {
                ASSERT_NO_FATAL_FAILURE(check());
            }
        }
        EXPECT_GT(list.GetCount(), 300);
        while (!model.empty()) {
            ASSERT_EQ(list.RemoveHead(), model.front());
            model.pop_front();
        }
        ASSERT_NO_FATAL_FAILURE(check());
        EXPECT_EQ(list.GetTailPosition(), nullptr);
        EXPECT_EQ(list.RemoveHead(), nullptr);
        EXPECT_EQ(list.RemoveTail(), nullptr);
    }
}
