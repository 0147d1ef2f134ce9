// Uses the installed library through its public header only: a manager on the virtual
// backend, its devices, a message sent at once, and the fault injection an
// application's own tests use.
#include <quavix/Quavix.h>

#include <cstdio>

int main()
{
    CQuavix* q = CQuavix::InitQuavix();
    if (q == nullptr) return 1;
    q->Initialize(QX_INIT_MIDI);
    const int outs = q->GetDeviceCount(QX_DEVTYPE_MIDI, QX_DEVDIR_OUT);
    QXFaultInject("midiStreamOpen", MMSYSERR_NOMEM);
    if (outs < 1 || q->OpenDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_OUT, 0)) return 2; // the armed fault refuses it
    QXFaultClear();
    if (!q->OpenDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_OUT, 0)) return 3;
    q->SendMidiMsg(0, 0x00403C90, 0);
    q->CloseDevices();
    CQuavix::ExitQuavix();
    std::printf("quavix %s: %d MIDI output%s\n", QUAVIX_VERSION_STRING, outs, outs == 1 ? "" : "s");
    return 0;
}
