// The library's clock. Everything in Quavix that keeps time (the engine's periods, MIDI
// streams, players, the mixer, the virtual devices) reads one clock: by default the
// steady clock of the machine.
//
// Rendering: QXUseRenderClock, called first (before CQuavix::Initialize, before any
// device opens), puts the process on a clock that runs as fast as the CPU allows. Time
// then stands while any of the library's threads (or the calling thread) works, and
// jumps to the next moment something is due once they all wait. The backend is the
// virtual one, whose wave output capture (QUAVIX_VIRTUAL_WAVE_OUT_CAPTURE) receives the
// same frames real-time playback would produce. The calling thread must then wait only
// through QXClockSleep (or the library's own blocking calls): a wait elsewhere holds
// the clock still.
#ifndef QUAVIX_QXCLOCK_H
#define QUAVIX_QXCLOCK_H

#include <quavix/QXExport.h>
#include <quavix/QXWinTypes.h>

// TRUE once the process runs on the render clock (also when it already did, for the
// thread that turned it on); FALSE when the library's threads already keep real time.
QUAVIX_API BOOL QXUseRenderClock();
QUAVIX_API BOOL QXRenderClockOn();
// The clock's milliseconds, as the library's timestamps count them.
QUAVIX_API DWORD QXClockMs();
// Waits on the clock: real time normally, none under the render clock.
QUAVIX_API void QXClockSleep(DWORD dwMilliseconds);

#endif // QUAVIX_QXCLOCK_H
