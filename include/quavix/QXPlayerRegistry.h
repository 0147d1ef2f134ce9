// Wave players named by 32-bit handles, so that a MIDI stream (whose parameter words
// are 32-bit) or a posted message can carry a reference to one; the handle of a
// destroyed player resolves to nothing.
#ifndef QUAVIX_QXPLAYERREGISTRY_H
#define QUAVIX_QXPLAYERREGISTRY_H

#include <quavix/QXExport.h>

#include <quavix/QXWinTypes.h>

#include <cstddef>

typedef void (*QX_PlayerSignalProc)(void* pPlayer);

// A live player and the function that signals its start; returns its handle (never 0).
QUAVIX_API DWORD QXRegisterPlayer(void* pPlayer, QX_PlayerSignalProc pSignal);
// After this returns, the player's signal function is not running and is not called
// again, and no other thread holds the player pinned (it waits for their releases; pins
// of the calling thread itself do not hold it up, so a pinned player may destroy itself).
QUAVIX_API void QXUnregisterPlayer(void* pPlayer);
// The handle of a registered player, or 0.
QUAVIX_API DWORD QXPlayerHandle(const void* pPlayer);
// Calls the signal function of the player with that handle; false when there is none.
// It runs under the registry's lock (that is what lets unregistering wait for it), in a
// MIDI stream's callback context: it must only signal, never wait.
QUAVIX_API bool QXSignalPlayer(DWORD dwHandle);
// Pins the player with that handle for the calling thread and returns it, or null when
// there is none: until the matching QXReleasePlayer, unregistering it from another
// thread waits, so the player may be used in between. Never call it while holding a
// lock that the player's destruction takes.
QUAVIX_API void* QXAcquirePlayer(DWORD dwHandle);
// Ends one pin of the calling thread; also after the player has gone.
QUAVIX_API void QXReleasePlayer(DWORD dwHandle);
// Players alive in the process.
QUAVIX_API size_t QXLivePlayerCount();

#endif // QUAVIX_QXPLAYERREGISTRY_H
