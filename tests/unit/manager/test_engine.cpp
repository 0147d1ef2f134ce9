// The order in which the engine merges events into its output lists.
#include "ManagerFixture.h"

#include <random>

namespace {

struct ModelEvent {
    DWORD dwTime;
    bool bNoteOff;
    std::string desc;
};

// The defined merge, one event at a time: walk from the tail; a note-off goes after
// the first event stamped strictly earlier, any other event after the first one
// stamped earlier or at the same time; the head when none is.
void ModelMerge(std::vector<ModelEvent>& list, const ModelEvent& e)
{
    for (size_t i = list.size(); i-- > 0;) {
        if (e.bNoteOff ? list[i].dwTime < e.dwTime : list[i].dwTime <= e.dwTime) {
            list.insert(list.begin() + static_cast<std::ptrdiff_t>(i + 1), e);
            return;
        }
    }
    list.insert(list.begin(), e);
}

bool ModelNoteOff(const CQXEventData* p)
{
    return p->m_nType == QX_EVENT_MIDI && ((p->m_dwData & 0xF0) == 0x80 || (p->m_dwData & 0x00FF00F0) == 0x90);
}

} // namespace

// Random batches with many equal stamps, every kind, outputs that exist and one that
// does not, and queued sends between them: every output takes exactly the order that
// merging one event at a time defines.
TEST_F(ManagerTest, MergedOrderMatchesOneAtATimeInsertion)
{
    constexpr int kOutputs = 3; // the fixture's MIDI outputs
    std::mt19937 rng(4711);
    auto Pick = [&](unsigned n) { return static_cast<unsigned>(rng() % n); };
    for (int round = 0; round < 25; ++round) {
        CQuavix* q = Make(QX_INIT_MIDI);
        ASSERT_EQ(q->GetDeviceCount(QX_DEVTYPE_MIDI, QX_DEVDIR_OUT), kOutputs);
        std::vector<ModelEvent> model[kOutputs];
        uint64_t nextId = 1;
        unsigned nextQueued = 1;
        const int nBatches = 1 + static_cast<int>(Pick(12));
        for (int b = 0; b < nBatches; ++b) {
            if (Pick(3) == 0) {
                // A queued message goes to the head of its output's list.
                const int d = static_cast<int>(Pick(kOutputs));
                const DWORD dwMsg = 0xB0u | (nextQueued++ << 8);
                q->SendMidiMsg(static_cast<UINT>(d), dwMsg, 1);
                CQXEventData probe;
                probe.SetMidiData(dwMsg);
                model[d].insert(model[d].begin(), {0, false, DescribeEvent(&probe)});
            }
            const bool bWide = Pick(4) == 0; // otherwise a handful of stamps, many ties
            const unsigned nEvents = 1 + Pick(bWide ? 200 : 60);
            CQXEventList batch;
            for (unsigned i = 0; i < nEvents; ++i) {
                auto* e = new CQXEventData;
                const uint64_t id = nextId++;
                const DWORD ch = Pick(16), key = Pick(128), vel = 1 + Pick(127);
                switch (Pick(7)) {
                case 0: e->m_nType = QX_EVENT_MIDI, e->m_dwData = 0x90 | ch | key << 8 | vel << 16; break;
                case 1: e->m_nType = QX_EVENT_MIDI, e->m_dwData = 0x80 | ch | key << 8 | vel << 16; break;
                case 2: e->m_nType = QX_EVENT_MIDI, e->m_dwData = 0x90 | ch | key << 8; break;
                case 3: e->m_nType = QX_EVENT_MIDI, e->m_dwData = 0xB0 | ch | key << 8; break;
                case 4: {
                    const BYTE bytes[] = {0xF0, BYTE(id), BYTE(id >> 8), BYTE(id >> 16), 0x80, 0xF7};
                    e->SetSysExData(bytes, sizeof bytes);
                    break;
                }
                case 5: // a wave start: kind 5 with data 1, never a note-off
                    e->m_nType = QX_EVENT_WAVESTART, e->m_dwData = 1, e->m_dwLength = id, e->m_dwStreamWords = 2;
                    break;
                default: e->SetFileMeta(0x80); break; // no output takes it
                }
                if (e->m_nType == QX_EVENT_MIDI) e->m_dwData |= static_cast<DWORD_PTR>(id) << 24; // tells them apart
                e->SetTimeStamp(bWide ? Pick(200) : Pick(6) * 17);
                const int d = static_cast<int>(Pick(kOutputs + 1)); // kOutputs does not exist
                e->SetDevice(d);

                const ModelEvent m{e->m_dwTimeStamp, ModelNoteOff(e), DescribeEvent(e)};
                if (e->m_nType == QX_EVENT_SYSEX) {
                    for (int n = 0; n < kOutputs; ++n) ModelMerge(model[n], m); // own event or its copies
                } else if ((e->m_nType == QX_EVENT_MIDI || e->m_nType == QX_EVENT_WAVESTART) && d < kOutputs) {
                    ModelMerge(model[d], m);
                }
                batch.AddTail(e);
            }
            q->PlayBuffer(batch);
            ASSERT_TRUE(batch.IsEmpty());
        }
        // Two periods cover every stamp used (0..199); each output takes its list in order.
        q->OpenDevices();
        for (int d = 0; d < kOutputs; ++d) {
            std::vector<std::string> expected;
            for (const ModelEvent& m : model[d]) expected.push_back(m.desc);
            ASSERT_EQ(Dev(q, QX_DEVTYPE_MIDI, QX_DEVDIR_OUT, d)->taken, expected) << "round " << round << ", output " << d;
        }
        CQuavix::ExitQuavix();
    }
}
