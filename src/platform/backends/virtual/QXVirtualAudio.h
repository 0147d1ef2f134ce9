// The virtual backend's audio outputs: sinks paced by the steady clock in real time at
// QUAVIX_VIRTUAL_AUDIO_RATE (default 48000). QUAVIX_VIRTUAL_WAVE_OUT_CAPTURE=PATTERN
// ("%d" becomes the output number) writes what output n consumed from the moment its
// primary buffer started, silence included, as a 16-bit stereo WAV file at that rate;
// its header is brought up to date at least once a second and when the output closes.
#ifndef QUAVIX_PLATFORM_BACKENDS_VIRTUAL_QXVIRTUALAUDIO_H
#define QUAVIX_PLATFORM_BACKENDS_VIRTUAL_QXVIRTUALAUDIO_H

#include "platform/backends/QXBackend.h"

#include <string>

namespace qxplat {

MMRESULT OpenVirtualAudioOut(int n, std::unique_ptr<AudioOutPort>& port);
// The rate of the virtual outputs (read from the environment once).
DWORD VirtualAudioRate();
// The capture file of output n for a pattern; empty without a pattern.
std::string VirtualCapturePath(const char* pszPattern, int n);

} // namespace qxplat

#endif // QUAVIX_PLATFORM_BACKENDS_VIRTUAL_QXVIRTUALAUDIO_H
