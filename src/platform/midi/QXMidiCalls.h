// MIDI output streams and MIDI inputs by their Win32 names, over the backend's ports.
//
// Contract: a stream turns queued MIDIEVENT buffers into messages with absolute due
// times from its start (no cumulative drift; pause shifts the origin) and hands them
// to the port ahead of time; MOM_DONE follows a buffer that has played, MOM_POSITIONCB
// comes at a callback event's own time. Input stamps are ms since midiInStart.
#ifndef QUAVIX_PLATFORM_MIDI_QXMIDICALLS_H
#define QUAVIX_PLATFORM_MIDI_QXMIDICALLS_H

#include <quavix/QXWinTypes.h>

// ---- MIDI output streams ----
// MIDI output callbacks: MOM_OPEN, MOM_CLOSE, MOM_DONE (param1 the header) and
// MOM_POSITIONCB (param1 the header, whose dwOffset names the event).
typedef void(CALLBACK* MIDIOUTPROC)(HMIDIOUT hmo, UINT wMsg, DWORD_PTR dwInstance, DWORD_PTR dwParam1,
                                    DWORD_PTR dwParam2);
// Opens paused. Callbacks: CALLBACK_FUNCTION (a MIDIOUTPROC), CALLBACK_WINDOW (posted
// as MM_MOM_* to the window) or CALLBACK_NULL.
MMRESULT midiStreamOpen(HMIDISTRM* phms, UINT* puDeviceID, DWORD cMidi, DWORD_PTR dwCallback, DWORD_PTR dwInstance,
                        DWORD fdwOpen);
MMRESULT midiStreamClose(HMIDISTRM hms);
MMRESULT midiStreamProperty(HMIDISTRM hms, LPBYTE lppropdata, DWORD dwProperty);
MMRESULT midiStreamOut(HMIDISTRM hms, LPMIDIHDR pmh, UINT cbmh);
MMRESULT midiStreamPause(HMIDISTRM hms);
MMRESULT midiStreamRestart(HMIDISTRM hms);
MMRESULT midiStreamStop(HMIDISTRM hms);
// TIME_TICKS or TIME_MS of the last event played.
MMRESULT midiStreamPosition(HMIDISTRM hms, LPMMTIME lpmmt, UINT cbmmt);
MMRESULT midiOutPrepareHeader(HMIDIOUT hmo, LPMIDIHDR pmh, UINT cbmh);
MMRESULT midiOutUnprepareHeader(HMIDIOUT hmo, LPMIDIHDR pmh, UINT cbmh);
// At once, past any queued stream buffers.
MMRESULT midiOutShortMsg(HMIDIOUT hmo, DWORD dwMsg);
MMRESULT midiOutLongMsg(HMIDIOUT hmo, LPMIDIHDR pmh, UINT cbmh);
// The device's volume, left in the low word, right in the high word (0xFFFF: full, a
// linear gain), on outputs whose caps say MIDICAPS_VOLUME (the synth); others answer
// MMSYSERR_NOTSUPPORTED.
MMRESULT midiOutSetVolume(HMIDIOUT hmo, DWORD dwVolume);
MMRESULT midiOutGetVolume(HMIDIOUT hmo, LPDWORD pdwVolume);
#define MM_MOM_OPEN MOM_OPEN
#define MM_MOM_CLOSE MOM_CLOSE
#define MM_MOM_DONE MOM_DONE
#define MM_MOM_POSITIONCB MOM_POSITIONCB
// No driver limits the size here; the limit only guards against absurd headers. A period
// dense enough to pass 64 KiB still goes out whole.
#define MIDI_STREAM_MAX_BUFFER (16u << 20)

// ---- MIDI input ----
// MIM_OPEN, MIM_CLOSE, and MIM_DATA with param1 the short message (status in bits 0-7)
// and param2 its time stamp: milliseconds since midiInStart. Input arrives only between
// midiInStart and midiInStop; after midiInClose returns, the callback is not called.
typedef void(CALLBACK* MIDIINPROC)(HMIDIIN hmi, UINT wMsg, DWORD_PTR dwInstance, DWORD_PTR dwParam1,
                                   DWORD_PTR dwParam2);
MMRESULT midiInOpen(HMIDIIN* phmi, UINT uDeviceID, DWORD_PTR dwCallback, DWORD_PTR dwInstance, DWORD fdwOpen);
MMRESULT midiInStart(HMIDIIN hmi);
MMRESULT midiInStop(HMIDIIN hmi);
MMRESULT midiInReset(HMIDIIN hmi);
// From inside its own callback it is refused (MMSYSERR_HANDLEBUSY): it would wait for
// that very callback.
MMRESULT midiInClose(HMIDIIN hmi);
#define MM_MIM_OPEN MIM_OPEN
#define MM_MIM_CLOSE MIM_CLOSE
#define MM_MIM_DATA MIM_DATA
#define MM_MIM_LONGDATA MIM_LONGDATA
#define MM_MIM_ERROR MIM_ERROR
#define MM_MIM_LONGERROR MIM_LONGERROR

#endif // QUAVIX_PLATFORM_MIDI_QXMIDICALLS_H
