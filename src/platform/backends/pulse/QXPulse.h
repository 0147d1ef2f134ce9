// Audio outputs and inputs on a PulseAudio server, or on PipeWire through pipewire-pulse,
// with libpulse's asynchronous API (a threaded main loop, one playback stream per open
// output and one record stream per open input). The blocking pa_simple API cannot set a latency (a peer built on it runs at
// 100 ms and more), and Debian's PortAudio has no PulseAudio host API at all.
//
// Contract:
// - Output 0 is the server's default sink ("Default output (<its description>)"): its
//   stream names no sink, so the server places it and moves it when the default changes.
//   Outputs 1 … n are the sinks, named by their descriptions, in the server's order.
//   The list is read again on every Count; an output number means what the last Count
//   listed.
// - Streams carry float32 stereo at the sink's own rate, so the server converts nothing
//   but the sample format. The server holds about kPulseTargetMs (tlength) and asks in
//   kPulseRequestMs steps (minreq); the mixer keeps one step plus one mix block in the
//   ring on top of it.
// - The write callback only copies out of the ring (through pa_stream_begin_write, the
//   server's own shared memory) and pads with silence when the ring runs dry; it takes
//   no lock of ours and never waits.
// - UnderrunFrames counts the silence padded while running (from the first frames the
//   ring delivered after Start) plus one request's frames for each underflow the server
//   reports, a lower bound for those.
// - A server that goes away: open outputs stop consuming (inputs stop delivering) and their calls return at
//   once, BackendEvent::ServerLost is raised once per connection (from a thread of the
//   connection's own, never from libpulse's), and the next Count connects anew.
// - Input 0 is the server's default source ("Default input (<its description>)"), which
//   its stream follows; inputs 1 … n are the sources by their descriptions, the sinks'
//   monitors among them. Float32 stereo at the source's own rate, delivered in fragments
//   of about kPulseFragmentMs. The read callback only copies into the ring (a hole in the
//   stream becomes silence); frames that find it full are counted as overrun. Once Stop
//   returns nothing more reaches the ring, and what the server had sent before it is
//   dropped rather than delivered after the next Start. An input opened before any Count
//   of inputs lists them first.
// - No server is ever started: libpulse's autospawn is off.
#ifndef QUAVIX_PLATFORM_BACKENDS_PULSE_QXPULSE_H
#define QUAVIX_PLATFORM_BACKENDS_PULSE_QXPULSE_H

#include "platform/backends/QXBackend.h"

#include <cstdint>

namespace qxplat {

constexpr uint32_t kPulseTargetMs = 40;
constexpr uint32_t kPulseRequestMs = 10;
constexpr uint32_t kPulseFragmentMs = 20;

// The PulseAudio devices when a server answers now, else null.
Backend* PulseBackendIfServer();
// The PulseAudio devices whether or not a server answers (then there are none until one
// does). Only audio outputs and inputs: it has no MIDI devices.
Backend& PulseBackendAlways();

// What an open PulseAudio output's stream reports of itself: the latency of what it
// writes now (the server's buffer and the sink's), and the server's underflows. False
// for a port that is not a PulseAudio output or whose stream is gone.
bool PulseOutputLatency(AudioOutPort* pPort, int64_t* pLatencyUs, uint32_t* pUnderflows);
// The UnderrunFrames of every PulseAudio output this process opened, summed.
uint64_t PulseUnderrunFramesAll();

} // namespace qxplat

#endif // QUAVIX_PLATFORM_BACKENDS_PULSE_QXPULSE_H
