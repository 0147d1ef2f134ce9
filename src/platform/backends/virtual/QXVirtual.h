// The in-process virtual backend: always available, deterministic enough for tests.
#ifndef QUAVIX_PLATFORM_BACKENDS_VIRTUAL_QXVIRTUAL_H
#define QUAVIX_PLATFORM_BACKENDS_VIRTUAL_QXVIRTUAL_H

#include "platform/backends/QXBackend.h"

namespace qxplat {

Backend& VirtualBackend();

// Device counts of the virtual backend. They start from QUAVIX_VIRTUAL_DEVICES, e.g.
// "midi-in=2,midi-out=3,wave-in=1,wave-out=1" (one of each by default); tests change
// them here. A manager sees the counts that held when it was initialised.
void QXVirtualSetDevices(int nMidiIn, int nMidiOut, int nWaveIn, int nWaveOut);
// Parses a QUAVIX_VIRTUAL_DEVICES value into counts[4] (midi-in, midi-out, wave-in,
// wave-out); entries left out keep their value. False for a malformed value.
bool QXVirtualParseDevices(const char* pszText, int counts[4]);

} // namespace qxplat

#endif // QUAVIX_PLATFORM_BACKENDS_VIRTUAL_QXVIRTUAL_H
