// The ALSA sequencer backend, for the backend choice.
#ifndef QUAVIX_PLATFORM_BACKENDS_ALSA_QXALSA_H
#define QUAVIX_PLATFORM_BACKENDS_ALSA_QXALSA_H

#include "platform/backends/QXBackend.h"

#include <alsa/asoundlib.h>

namespace qxplat {

// The ALSA backend when the sequencer offers at least one MIDI device, else null.
Backend* AlsaBackendIfDevices();
// The ALSA backend whether or not a sequencer is there (then it has no devices).
Backend& AlsaBackendAlways();

// Raw PCM playback outputs and capture inputs (audio only): "default" first, then the
// devices ALSA's name hints list for that direction. IfDevices: null when "default"
// cannot be opened for playback.
Backend* AlsaPcmIfDevices();
Backend& AlsaPcmAlways();
// The UnderrunFrames of every raw PCM output this process opened, summed.
uint64_t AlsaPcmUnderrunFramesAll();

// How an output addresses what it sends, and what its cancel takes back: kept apart so
// that the two can be checked against each other without a sequencer. The sequencer
// removes scheduled events by destination and tag, never by source port, so each
// output's messages go straight to its peer, tagged with our port number.
void AlsaAddressEvent(snd_seq_event_t* ev, int ourPort, int peerClient, int peerPort);
void AlsaCancelCriteria(snd_seq_remove_events_t* rm, int queue, int ourPort, int peerClient, int peerPort);

} // namespace qxplat

#endif // QUAVIX_PLATFORM_BACKENDS_ALSA_QXALSA_H
