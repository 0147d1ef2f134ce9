// DirectSound, emulated: device objects, sound buffers, position notifications and a
// software mixer, with the documented interfaces, reference counts and HRESULT results.
//
// Contract:
// - DirectSoundEnumerateA reports the default driver (no GUID) first, then one driver
//   per audio output of the process's backend (description: the output's name; module:
//   the backend's name). DirectSoundCreate opens that output; the device objects of one
//   output (and the synth) share its mixer and sink, each with its own primary buffer,
//   volume, pan and pause over its own buffers. Every buffer holds a reference to its
//   device, so a device lives until its last buffer is released.
// - The mixer runs on its own thread from the first Play of any buffer on the output
//   until its last user is released, in 32-bit float at the sink's rate, in blocks of at
//   most 5 ms. The primary buffer's format is taken and reported but does not change
//   the mix, which is always the sink's rate (as on current Windows).
// - Volume in hundredths of a dB (0 … -10000, -10000 is silence), pan -10000 … 10000:
//   left dB = volume - max(pan, 0), right dB = volume + min(pan, 0).
// - The play cursor is the next frame to be mixed; a notification offset fires when the
//   cursor reaches or passes it, i.e. offset o fires in the block that moves the cursor
//   from c0 to c1 when o lies in (c0, c1] around the ring. DSBPN_OFFSETSTOP fires on
//   Stop of a playing buffer and when a buffer played once reaches its end (its cursor
//   then returns to 0). Positions fire on the mixer thread.
// - On a sink with a clock (the virtual outputs) a buffer's sound begins exactly the
//   sink's latency after its Play (or the start time DirectSoundPlayBufferAt hands
//   down), at that frame inside the mix block; until then its cursor stays. Elsewhere
//   it begins with the next frame mixed.
// - Lock, Unlock, the setters and getters take a per-buffer lock that the mixer holds
//   only while it copies parameters or moves the cursor, never while it mixes. Release
//   of a buffer waits for the mix block in progress (at most one block).
// - The resampler is chosen by QUAVIX_RESAMPLER = linear | cubic (the default) | sinc.
// - Every call can be made to fail by fault injection, under its name as
//   "DirectSoundCreate" or "IDirectSoundBuffer::Lock"; AddRef and Release cannot fail.
#ifndef QUAVIX_PLATFORM_DSOUND_QXDSOUND_H
#define QUAVIX_PLATFORM_DSOUND_QXDSOUND_H

#include <quavix/QXWinTypes.h>

#include <cstdint>

struct IUnknown {
    virtual HRESULT QueryInterface(REFIID riid, LPVOID* ppvObject) = 0;
    virtual ULONG AddRef() = 0;
    virtual ULONG Release() = 0;

protected:
    ~IUnknown() = default;
};

struct IDirectSound : IUnknown {
    virtual HRESULT CreateSoundBuffer(LPCDSBUFFERDESC pcDSBufferDesc, LPDIRECTSOUNDBUFFER* ppDSBuffer,
                                      LPUNKNOWN pUnkOuter) = 0;
    virtual HRESULT GetCaps(LPDSCAPS pDSCaps) = 0;
    virtual HRESULT DuplicateSoundBuffer(LPDIRECTSOUNDBUFFER pDSBufferOriginal,
                                         LPDIRECTSOUNDBUFFER* ppDSBufferDuplicate) = 0;
    virtual HRESULT SetCooperativeLevel(HWND hwnd, DWORD dwLevel) = 0;
    virtual HRESULT Compact() = 0;
    virtual HRESULT GetSpeakerConfig(LPDWORD pdwSpeakerConfig) = 0;
    virtual HRESULT SetSpeakerConfig(DWORD dwSpeakerConfig) = 0;
    virtual HRESULT Initialize(LPCGUID pcGuidDevice) = 0;

protected:
    ~IDirectSound() = default;
};

struct IDirectSoundBuffer : IUnknown {
    virtual HRESULT GetCaps(LPDSBCAPS pDSBufferCaps) = 0;
    virtual HRESULT GetCurrentPosition(LPDWORD pdwCurrentPlayCursor, LPDWORD pdwCurrentWriteCursor) = 0;
    virtual HRESULT GetFormat(LPWAVEFORMATEX pwfxFormat, DWORD dwSizeAllocated, LPDWORD pdwSizeWritten) = 0;
    virtual HRESULT GetVolume(LPLONG plVolume) = 0;
    virtual HRESULT GetPan(LPLONG plPan) = 0;
    virtual HRESULT GetFrequency(LPDWORD pdwFrequency) = 0;
    virtual HRESULT GetStatus(LPDWORD pdwStatus) = 0;
    virtual HRESULT Initialize(LPDIRECTSOUND pDirectSound, LPCDSBUFFERDESC pcDSBufferDesc) = 0;
    virtual HRESULT Lock(DWORD dwOffset, DWORD dwBytes, LPVOID* ppvAudioPtr1, LPDWORD pdwAudioBytes1,
                         LPVOID* ppvAudioPtr2, LPDWORD pdwAudioBytes2, DWORD dwFlags) = 0;
    virtual HRESULT Play(DWORD dwReserved1, DWORD dwPriority, DWORD dwFlags) = 0;
    virtual HRESULT SetCurrentPosition(DWORD dwNewPosition) = 0;
    virtual HRESULT SetFormat(LPCWAVEFORMATEX pcfxFormat) = 0;
    virtual HRESULT SetVolume(LONG lVolume) = 0;
    virtual HRESULT SetPan(LONG lPan) = 0;
    virtual HRESULT SetFrequency(DWORD dwFrequency) = 0;
    virtual HRESULT Stop() = 0;
    virtual HRESULT Unlock(LPVOID pvAudioPtr1, DWORD dwAudioBytes1, LPVOID pvAudioPtr2, DWORD dwAudioBytes2) = 0;
    virtual HRESULT Restore() = 0;

protected:
    ~IDirectSoundBuffer() = default;
};

struct IDirectSoundNotify : IUnknown {
    // Only while the buffer is stopped; DSBPN_OFFSETSTOP, if given, must be the last entry.
    virtual HRESULT SetNotificationPositions(DWORD dwPositionNotifies, LPCDSBPOSITIONNOTIFY pcPositionNotifies) = 0;

protected:
    ~IDirectSoundNotify() = default;
};

HRESULT DirectSoundEnumerateA(LPDSENUMCALLBACKA pDSEnumCallback, LPVOID pContext);
// A null GUID (or GUID_NULL) is the default driver: the backend's first audio output.
HRESULT DirectSoundCreate(LPCGUID pcGuidDevice, LPDIRECTSOUND* ppDS, LPUNKNOWN pUnkOuter);

namespace qxplat {

enum class Resampler { Linear = 0, Cubic = 1, Sinc = 2 };

// QUAVIX_RESAMPLER's choice (cubic when unset; an unknown value says so on stderr).
Resampler ResamplerFromEnvironment();

// A device object without a sink or mixer thread, for deterministic tests and offline
// rendering: the caller renders its mix with DirectSoundRenderOffline.
HRESULT DirectSoundCreateOffline(DWORD dwRate, Resampler resampler, LPDIRECTSOUND* ppDS);
// Mixes nFrames stereo float frames (unclipped) of an offline device into pOut.
// False for a device that is not offline.
bool DirectSoundRenderOffline(LPDIRECTSOUND pDS, float* pOut, DWORD nFrames);

// Holds the mix of a device's buffers (no cursor moves, no notification fires; the sink
// hears silence from them, while other devices and the synth on the output go on) or
// lets it go on. Not a DirectSound call: it is how an output pauses.
bool DirectSoundSetPaused(LPDIRECTSOUND pDS, bool bPaused);

// The largest |sample| of the output's mix (every device there and the synth) in each
// channel (1.0 is full scale, before the sink's clip) since the last call, which starts
// a new span. Lock-free, from any thread. The first call turns the meter on and reads 0.
// False for a null device.
bool DirectSoundTakePeak(LPDIRECTSOUND pDS, float* pLeft, float* pRight);

// Frames from a buffer's Play to its first frame leaving the sink, on average, and the
// sink's rate in *pRate. 0 where the sink does not say, and for an offline or null device.
// *pbExact (when given) says whether the sink places a start given to
// DirectSoundPlayBufferAt at its exact frame: that latency after the start time.
DWORD DirectSoundOutputLatencyFrames(LPDIRECTSOUND pDS, DWORD* pRate, bool* pbExact = nullptr);

// Play (dwFlags as there) of a sound whose start time is startNs of NowNs() rather than
// the moment of the call: on a sink with a clock it begins the sink's latency after
// startNs, also when that is still to come (a caller that hands down its due time early
// takes its own wake-up delay out of the start). A primary buffer just plays.
HRESULT DirectSoundPlayBufferAt(LPDIRECTSOUNDBUFFER pBuffer, DWORD dwFlags, int64_t startNs);

// Device objects and buffers alive in the whole process, for tests that check that
// nothing is left behind.
size_t LiveDirectSoundObjects();
// Secondary buffers started (Play that succeeded) in the whole process.
uint64_t DirectSoundBufferStarts();

} // namespace qxplat

#endif // QUAVIX_PLATFORM_DSOUND_QXDSOUND_H
