// A recording: every message a started MIDI input receives is handed to the recording
// callbacks. On the virtual backend MIDI output 0 loops back into input 0, so the notes
// this program sends come back as recorded events.
//
//   QUAVIX_BACKEND=virtual ./record_midi_input
#include <quavix/Quavix.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <thread>

namespace {

std::atomic<int> g_received{0};

// Runs on the input's thread. The event belongs to the input and lives only during the
// call: copy what you keep.
int OnRecorded(DWORD_PTR /*user*/, int /*tag*/, CQXEventData* event)
{
    if (event->m_nType != QX_EVENT_MIDI) return 0;
    const DWORD msg = static_cast<DWORD>(event->m_dwData);
    std::printf("  %5u ms  input %d  %02X %02X %02X\n", event->m_dwTimeStamp, event->m_nDevice, msg & 0xFF,
                (msg >> 8) & 0xFF, (msg >> 16) & 0xFF);
    ++g_received;
    return 0;
}

} // namespace

int main()
{
    CQuavix* q = CQuavix::InitQuavix();
    q->Initialize(QX_INIT_MIDI);
    if (q->GetDeviceCount(QX_DEVTYPE_MIDI, QX_DEVDIR_IN) == 0 || q->GetDeviceCount(QX_DEVTYPE_MIDI, QX_DEVDIR_OUT) == 0) {
        std::fprintf(stderr, "record_midi_input: needs a MIDI input and a MIDI output\n");
        CQuavix::ExitQuavix();
        return 1;
    }
    const int tag = q->StartRecording(OnRecorded, 0, 1);
    q->OpenDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_IN, 0);
    q->StartDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_IN, 0); // time stamps count from here
    q->OpenDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_OUT, 0);

    std::printf("recording MIDI input 0:\n");
    for (BYTE key : {60, 62, 64}) {
        // A note that ends by itself: the output sends its note-off 150 ms later.
        q->SendMidiNote(0, 0x90 | (key << 8) | (90 << 16), 0, 150, 0);
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(300));

    q->StopRecording(tag);
    std::printf("%d messages recorded\n", g_received.load());
    q->CloseDevices();
    CQuavix::ExitQuavix();
    return 0;
}
