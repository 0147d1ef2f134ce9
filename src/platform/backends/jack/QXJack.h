// The JACK backend, for the backend choice and for tests that talk to the same server.
#ifndef QUAVIX_PLATFORM_BACKENDS_JACK_QXJACK_H
#define QUAVIX_PLATFORM_BACKENDS_JACK_QXJACK_H

#include "platform/backends/QXBackend.h"

#include <cstdint>
#include <string>

namespace qxplat {

// The JACK backend when a server answers, else null.
Backend* JackBackendIfAvailable();
// The JACK backend whether or not a server answers (then it has no devices).
Backend& JackBackendAlways();
// A JACK time (microseconds of jack_get_time) on the steady clock, in ns.
int64_t JackToSteadyNs(int64_t jackUs);
// Our client's name on the server (its ports are NAME:out_1 ...); empty without one.
std::string JackClientName();
// Frames all audio outputs of the process padded with silence while running dry.
uint64_t JackAudioUnderrunFramesAll();

} // namespace qxplat

#endif // QUAVIX_PLATFORM_BACKENDS_JACK_QXJACK_H
