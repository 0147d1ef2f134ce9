// Immediate output: messages that go out at once, past the performance engine. Sends a
// General MIDI reset, a program change, a chord whose notes end by themselves, and
// finally the panic button, which silences every MIDI output.
//
//   QUAVIX_BACKEND=virtual ./immediate_notes
#include <quavix/Quavix.h>

#include <chrono>
#include <cstdio>
#include <thread>

int main()
{
    CQuavix* q = CQuavix::InitQuavix();
    q->Initialize(QX_INIT_MIDI);
    if (q->GetDeviceCount(QX_DEVTYPE_MIDI, QX_DEVDIR_OUT) == 0) {
        std::fprintf(stderr, "immediate_notes: no MIDI output\n");
        CQuavix::ExitQuavix();
        return 1;
    }
    // An output must be open to send; it need not be started.
    if (!q->OpenDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_OUT, 0)) {
        std::fprintf(stderr, "immediate_notes: cannot open MIDI output 0\n");
        CQuavix::ExitQuavix();
        return 1;
    }

    const BYTE gmOn[] = {0xF0, 0x7E, 0x7F, 0x09, 0x01, 0xF7};
    q->SendSysExMsg(0, gmOn, sizeof gmOn, 0);
    q->SendMidiMsg(0, 0x00C0, 0); // program change to 0 (piano) on channel 1
    // Short messages pack as status | data1 << 8 | data2 << 16.
    for (DWORD key : {60u, 64u, 67u}) q->SendMidiNote(0, 0x90 | (key << 8) | (80u << 16), 0, 600, 0);
    std::printf("chord sounding\n");
    std::this_thread::sleep_for(std::chrono::milliseconds(800)); // the note-offs went out at 600 ms

    q->SendMidiMsg(0, 0x7BB0, 0); // All Notes Off on channel 1

    q->OnPanicButton(); // 2081 messages per open output
    std::printf("silenced\n");
    q->CloseDevices();
    CQuavix::ExitQuavix();
    return 0;
}
