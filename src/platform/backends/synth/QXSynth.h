// The built-in GM synth: one more MIDI output, "Quavix GM Synth", after the backend's own,
// on every backend with a wave output. It renders with FluidSynth into the mixer of wave
// output 0 (shared with the DirectSound devices there), pulled once per mix block, so
// that MIDI through it and wave players keep one sample clock.
//
// - SoundFont: QUAVIX_SOUNDFONT, else /usr/share/sounds/sf2/default-GM.sf2 (set but empty:
//   none). Without a readable one (or without a wave output) the device is not there:
//   counts leave it out.
// - Each message goes with its due time to a queue the mixer thread drains. On a port
//   with a clock a message sounds at its due time, where a wave start of that time sounds
//   (FluidSynth's 64-frame grid is the limit), and the port asks for messages the
//   output's latency ahead; elsewhere a message plays from the first block mixed after
//   it is due.
// - Cancel drops what was handed over and is not yet played, and silences every voice.
// - Its volume is a gain in the mix: the device volume (midiOutSetVolume, left and right)
//   times the GM master volume SysEx (F0 7F dev 04 01 lsb msb F7) at its time; a GM reset
//   brings the master volume back to full.
#ifndef QUAVIX_PLATFORM_BACKENDS_SYNTH_QXSYNTH_H
#define QUAVIX_PLATFORM_BACKENDS_SYNTH_QXSYNTH_H

#include "platform/backends/QXBackend.h"

#include <string>

namespace qxplat {

// Voices FluidSynth keeps sounding at once (its default).
constexpr WORD kSynthPolyphony = 256;

// The backend with the synth added to its MIDI outputs; made once.
Backend& WithSynth(Backend& inner);
// Why the current backend offers no synth, in one line; empty when it does.
std::string SynthUnavailableReason();
// Whether MIDI output n of the current backend is the synth.
bool IsSynthMidiOut(int n);
// The MIDI output that is heard when none is chosen: the first that leads outside the
// process (a synthesizer, a port of another program), else the synth, else 0.
int DefaultMidiOut();
// Messages, in this process so far, that came after their frame was mixed and so sounded
// late (a stream thread held up longer than the lead, a message due before its stream
// began).
uint64_t SynthLateMessages();

} // namespace qxplat

#endif // QUAVIX_PLATFORM_BACKENDS_SYNTH_QXSYNTH_H
