// Wave inputs by their Win32 names, over the backend's audio inputs.
//
// Contract: each open input owns one capture thread, from waveInOpen until waveInClose
// joins it. Between waveInStart and waveInStop it takes the source's stereo float frames,
// converts them to the format the input was opened with (channels, sample format with
// rounding and clipping, rate with libsamplerate when built with it; without it only
// the source's own rate opens) and fills the queued buffers in order; a full buffer
// comes back with WHDR_DONE through WIM_DATA. While no buffer is queued the frames wait
// in the source's ring; what the source drops because that ring was full is told with
// WIM_OVERRUN before the buffers filled after the loss. waveInStop returns the buffer
// being filled if it holds anything and keeps the empty ones queued; waveInReset returns
// every queued buffer and zeroes the position. Both return after the WIM_DATA of the
// buffers they returned has been delivered.
//
// Every callback (WIM_OPEN, WIM_DATA, WIM_OVERRUN, WIM_CLOSE) comes from the capture
// thread. It may not call waveIn functions: it posts or signals. (waveInClose from it is
// refused with MMSYSERR_HANDLEBUSY.)
#ifndef QUAVIX_PLATFORM_WAVEIN_QXWAVEIN_H
#define QUAVIX_PLATFORM_WAVEIN_QXWAVEIN_H

#include <quavix/QXWinTypes.h>

// This platform's own: frames lost to an overrun, param1 how many at the input's rate.
// While no buffer is queued only the first loss is told at once, the rest when one is
// queued again; while buffers are, at most one a second. Applications that do not know
// it ignore it.
#define WIM_OVERRUN 0x83C0u

// WIM_OPEN, WIM_CLOSE, WIM_DATA with param1 the header, and WIM_OVERRUN.
typedef void(CALLBACK* WAVEINPROC)(HWAVEIN hwi, UINT uMsg, DWORD_PTR dwInstance, DWORD_PTR dwParam1,
                                   DWORD_PTR dwParam2);
// Callbacks: CALLBACK_FUNCTION (a WAVEINPROC), CALLBACK_WINDOW (posted as MM_WIM_* with
// wParam the handle, lParam the header), CALLBACK_THREAD (the same, posted to the thread
// id), CALLBACK_EVENT (the event set on each message) or CALLBACK_NULL. Formats: PCM
// 8/16/24/32-bit or 32-bit IEEE float, 1 or 2 channels, 1000 to 192000 Hz; anything else
// is WAVERR_BADFORMAT. With WAVE_FORMAT_QUERY nothing opens (phwi may be null).
MMRESULT waveInOpen(HWAVEIN* phwi, UINT uDeviceID, LPCWAVEFORMATEX pwfx, DWORD_PTR dwCallback,
                    DWORD_PTR dwInstance, DWORD fdwOpen);
MMRESULT waveInClose(HWAVEIN hwi);
MMRESULT waveInPrepareHeader(HWAVEIN hwi, LPWAVEHDR pwh, UINT cbwh);
MMRESULT waveInUnprepareHeader(HWAVEIN hwi, LPWAVEHDR pwh, UINT cbwh);
// A buffer holds whole sample frames: what is left past the last one stays unused.
MMRESULT waveInAddBuffer(HWAVEIN hwi, LPWAVEHDR pwh, UINT cbwh);
MMRESULT waveInStart(HWAVEIN hwi);
MMRESULT waveInStop(HWAVEIN hwi);
MMRESULT waveInReset(HWAVEIN hwi);
// What went into buffers, in TIME_BYTES, TIME_SAMPLES or TIME_MS, since waveInStart (the
// first one after open or reset); any other type is answered in TIME_BYTES.
MMRESULT waveInGetPosition(HWAVEIN hwi, LPMMTIME pmmt, UINT cbmmt);
#define MM_WIM_OPEN WIM_OPEN
#define MM_WIM_CLOSE WIM_CLOSE
#define MM_WIM_DATA WIM_DATA

#endif // QUAVIX_PLATFORM_WAVEIN_QXWAVEIN_H
