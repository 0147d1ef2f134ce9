// The in-process virtual backend: always available, deterministic enough for tests.
#ifndef QUAVIX_PLATFORM_BACKENDS_VIRTUAL_QXVIRTUAL_H
#define QUAVIX_PLATFORM_BACKENDS_VIRTUAL_QXVIRTUAL_H

#include "platform/backends/QXBackend.h"

#include <vector>

namespace qxplat {

Backend& VirtualBackend();

// Virtual audio input n: a source paced by the clock in real time whose signal
// QUAVIX_VIRTUAL_WAVE_IN_SOURCE chooses (read at each open): "silence", "sine:HZ" (the
// default is sine:440, at half scale), "file:PATH" (a WAV file, PCM 8/16/24/32-bit or
// 32-bit float, mono or stereo, read whole at open and looped; "%d" in PATH becomes n)
// or "loopback" (what virtual wave output n plays, its final mix as its capture file
// would hold it, 10 to 15 ms later; silence while that output is not open or not
// running). A file runs at its own rate, the others at QUAVIX_VIRTUAL_AUDIO_RATE.
MMRESULT OpenVirtualAudioIn(int n, std::unique_ptr<AudioInPort>& port);

// Frames every virtual audio output of the process has padded with silence because its
// ring ran dry (a mixer held up on a loaded machine); a loopback input records them.
uint64_t VirtualAudioUnderrunFramesAll();

// Device counts of the virtual backend. They start from QUAVIX_VIRTUAL_DEVICES, e.g.
// "midi-in=2,midi-out=3,wave-in=1,wave-out=1" (one of each by default); tests change
// them here. A manager sees the counts that held when it was initialised.
void QXVirtualSetDevices(int nMidiIn, int nMidiOut, int nWaveIn, int nWaveOut);
// Parses a QUAVIX_VIRTUAL_DEVICES value into counts[4] (midi-in, midi-out, wave-in,
// wave-out); entries left out keep their value. False for a malformed value.
bool QXVirtualParseDevices(const char* pszText, int counts[4]);

// What a virtual MIDI output emitted: the message, when it was emitted and when it was
// due (steady clock, ns).
struct VirtualMidiMessage {
    int64_t timeNs;
    int64_t dueNs;
    std::vector<BYTE> bytes;
};

// Takes (and clears) what virtual MIDI output n has emitted so far. Each output keeps
// its most recent messages, up to kVirtualLogLimit.
std::vector<VirtualMidiMessage> QXVirtualTakeMidiOut(int n);
constexpr size_t kVirtualLogLimit = size_t{1} << 20;

// Delivers a message to virtual MIDI input n, as if it had arrived at timeNs (0: now).
// False when the input does not exist or is not open.
bool QXVirtualInjectMidiIn(int n, const BYTE* pData, size_t cb, int64_t timeNs = 0);

} // namespace qxplat

#endif // QUAVIX_PLATFORM_BACKENDS_VIRTUAL_QXVIRTUAL_H
