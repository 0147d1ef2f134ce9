// The ALSA sequencer backend, for the backend choice.
#ifndef QUAVIX_PLATFORM_BACKENDS_ALSA_QXALSA_H
#define QUAVIX_PLATFORM_BACKENDS_ALSA_QXALSA_H

#include "platform/backends/QXBackend.h"

namespace qxplat {

// The ALSA backend when the sequencer offers at least one MIDI device, else null.
Backend* AlsaBackendIfDevices();
// The ALSA backend whether or not a sequencer is there (then it has no devices).
Backend& AlsaBackendAlways();

} // namespace qxplat

#endif // QUAVIX_PLATFORM_BACKENDS_ALSA_QXALSA_H
