// A performance: the manager asks for the events of each 100 ms period ahead of the
// sound, and the callback hands them over with PlayBuffer. This one plays two bars of
// arpeggios on MIDI output 0 and then ends itself.
//
//   QUAVIX_BACKEND=virtual ./perform_arpeggio
#include <quavix/Quavix.h>

#include <chrono>
#include <cstdio>
#include <thread>

namespace {

struct Arpeggio {
    CQuavix* manager;
    int step = 0;                 // the next note to hand over
    static constexpr int kSteps = 32;
    static constexpr DWORD kStepMs = 125;
};

// Called on the engine's thread with [start, end) in milliseconds of performance time.
// Everything stamped before `end` must be handed over now; later events may wait.
int OnPeriod(DWORD_PTR user, int tag, DWORD /*start*/, DWORD end)
{
    auto* arp = reinterpret_cast<Arpeggio*>(user);
    if (tag < 0) return 1; // a sync notification: only in slave mode
    static const BYTE chord[4] = {60, 64, 67, 72};
    CQXEventList events;
    while (arp->step < Arpeggio::kSteps && DWORD(arp->step) * Arpeggio::kStepMs < end) {
        const DWORD at = DWORD(arp->step) * Arpeggio::kStepMs;
        const BYTE key = BYTE(chord[arp->step % 4] + (arp->step / 16) * 5); // second bar a fourth up
        auto* on = new CQXEventData;
        on->SetMidiData(0x90 | (key << 8) | (100 << 16)); // note-on, channel 1
        on->SetTimeStamp(at);
        auto* off = new CQXEventData;
        off->SetMidiData(0x80 | (key << 8));
        off->SetTimeStamp(at + Arpeggio::kStepMs - 10);
        events.AddTail(on);
        events.AddTail(off);
        ++arp->step;
    }
    arp->manager->PlayBuffer(events); // the manager owns the events from here
    return arp->step < Arpeggio::kSteps ? 1 : 0; // 0: this performance has ended
}

} // namespace

int main()
{
    CQuavix* q = CQuavix::InitQuavix();
    q->Initialize(QX_INIT_MIDI);
    if (q->GetDeviceCount(QX_DEVTYPE_MIDI, QX_DEVDIR_OUT) == 0) {
        std::fprintf(stderr, "perform_arpeggio: no MIDI output\n");
        CQuavix::ExitQuavix();
        return 1;
    }
    // Only output 0 takes part in the group transport below.
    for (int n = 0; n < q->GetDeviceCount(QX_DEVTYPE_MIDI, QX_DEVDIR_IN); ++n)
        q->EnableDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_IN, n, 0);
    for (int n = 1; n < q->GetDeviceCount(QX_DEVTYPE_MIDI, QX_DEVDIR_OUT); ++n)
        q->EnableDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_OUT, n, 0);

    Arpeggio arp{q};
    q->StartPerformance(OnPeriod, reinterpret_cast<DWORD_PTR>(&arp), 1, 0);
    // Opening writes the first periods from what is already merged; they are asked of
    // no performance, so the first notes go in before.
    OnPeriod(reinterpret_cast<DWORD_PTR>(&arp), 1, 0, q->GetPerformanceLatency());
    q->OpenDevices();
    q->StartDevices(); // output 0 now paces the engine

    const DWORD length = Arpeggio::kSteps * Arpeggio::kStepMs;
    while (q->IsActive() || q->GetElapsedPlayTime() < length + 100)
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    std::printf("played %d notes in %.1f s\n", Arpeggio::kSteps, length / 1000.0);

    q->CloseDevices();
    CQuavix::ExitQuavix();
    return 0;
}
