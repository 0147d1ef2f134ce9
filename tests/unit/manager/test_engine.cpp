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
void ModelMerge(std::vector<ModelEvent>& list, const CQXEventData* e)
{
    const bool bNoteOff =
        e->m_nType == QX_EVENT_MIDI && ((e->m_dwData & 0xF0) == 0x80 || (e->m_dwData & 0x00FF00F0) == 0x90);
    const DWORD t = e->m_dwTimeStamp;
    size_t i = list.size();
    while (i > 0 && (bNoteOff ? list[i - 1].dwTime >= t : list[i - 1].dwTime > t)) --i;
    list.insert(list.begin() + std::ptrdiff_t(i), {t, bNoteOff, DescribeEvent(e)});
}

} // namespace

// Random batches with many equal stamps, every kind, outputs that exist and one that
// does not, and queued sends between them: every output takes exactly the order that
// merging one event at a time defines; SysEx goes to every output.
TEST_F(ManagerTest, MergedOrderMatchesOneAtATimeInsertion)
{
    constexpr int kOutputs = 3; // the fixture's MIDI outputs
    std::mt19937 rng(4711);
    auto Pick = [&](unsigned n) { return unsigned(rng() % n); };
    for (int round = 0; round < 25; ++round) {
        CQuavix* q = Make(QX_INIT_MIDI);
        std::vector<ModelEvent> model[kOutputs];
        uint64_t nextId = 1;
        for (int b = 1 + int(Pick(12)); b > 0; --b) {
            if (Pick(3) == 0) { // a queued message goes to the head of its output's list
                const int d = int(Pick(kOutputs));
                const DWORD dwMsg = 0xB0u | DWORD(nextId++ << 8);
                q->SendMidiMsg(UINT(d), dwMsg, 1);
                CQXEventData probe;
                probe.SetMidiData(dwMsg);
                model[d].insert(model[d].begin(), {0, false, DescribeEvent(&probe)});
            }
            const bool bWide = Pick(4) == 0; // otherwise a handful of stamps, many ties
            CQXEventList batch;
            for (unsigned i = 1 + Pick(bWide ? 200 : 60); i > 0; --i) {
                auto* e = new CQXEventData;
                const uint64_t id = nextId++;
                const DWORD ch = Pick(16), key = Pick(128) << 8, vel = (1 + Pick(127)) << 16;
                const DWORD_PTR tag = DWORD_PTR(id) << 24; // tells MIDI events apart
                const BYTE bytes[] = {0xF0, BYTE(id), BYTE(id >> 8), BYTE(id >> 16), 0x80, 0xF7};
                switch (Pick(7)) {
                case 0: e->m_nType = QX_EVENT_MIDI, e->m_dwData = 0x90 | ch | key | vel | tag; break;
                case 1: e->m_nType = QX_EVENT_MIDI, e->m_dwData = 0x80 | ch | key | vel | tag; break;
                case 2: e->m_nType = QX_EVENT_MIDI, e->m_dwData = 0x90 | ch | key | tag; break; // velocity 0
                case 3: e->m_nType = QX_EVENT_MIDI, e->m_dwData = 0xB0 | ch | key | tag; break;
                case 4: e->SetSysExData(bytes, sizeof bytes); break;
                case 5: // a wave start: kind 5 with data 1, never a note-off
                    e->m_nType = QX_EVENT_WAVESTART, e->m_dwData = 1, e->m_dwLength = id, e->m_dwStreamWords = 2;
                    break;
                default: e->SetFileMeta(0x80); break; // no output takes it
                }
                e->SetTimeStamp(bWide ? Pick(200) : Pick(6) * 17);
                const int d = int(Pick(kOutputs + 1)); // kOutputs does not exist
                e->SetDevice(d);
                if (e->m_nType == QX_EVENT_SYSEX) {
                    for (auto& list : model) ModelMerge(list, e); // its own event or its copies
                } else if (e->m_nType != QX_EVENT_FILEMETA && d < kOutputs) {
                    ModelMerge(model[d], e);
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
