// The virtual backend's MIDI ports, for the backend object itself.
#ifndef QUAVIX_PLATFORM_BACKENDS_VIRTUAL_QXVIRTUALPORTS_H
#define QUAVIX_PLATFORM_BACKENDS_VIRTUAL_QXVIRTUALPORTS_H

#include "platform/backends/virtual/QXVirtual.h"

namespace qxplat {

MMRESULT OpenVirtualMidiOut(int n, std::unique_ptr<MidiOutPort>& port);
MMRESULT OpenVirtualMidiIn(int n, MidiInSink* pSink, std::unique_ptr<MidiInPort>& port);

} // namespace qxplat

#endif // QUAVIX_PLATFORM_BACKENDS_VIRTUAL_QXVIRTUALPORTS_H
