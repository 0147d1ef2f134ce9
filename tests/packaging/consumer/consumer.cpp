// Uses the installed library through its public header only: a manager on the virtual
// backend, its devices, and a message sent at once.
#include <quavix/Quavix.h>

#include <cstdio>

int main()
{
    CQuavix* q = CQuavix::InitQuavix();
    if (q == nullptr) return 1;
    q->Initialize(QX_INIT_MIDI);
    const int outs = q->GetDeviceCount(QX_DEVTYPE_MIDI, QX_DEVDIR_OUT);
    if (outs < 1 || !q->OpenDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_OUT, 0)) return 2;
    q->SendMidiMsg(0, 0x00403C90, 0);
    q->CloseDevices();
    CQuavix::ExitQuavix();
    std::printf("quavix %s: %d MIDI output%s\n", QUAVIX_VERSION_STRING, outs, outs == 1 ? "" : "s");
    return 0;
}
