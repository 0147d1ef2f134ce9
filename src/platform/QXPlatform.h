// The platform services the library calls, by their Win32 names and with their
// documented argument and result conventions, implemented for Linux in this folder and
// its service folders (kernel/, midi/, mmio/, dsound/, wavein/, backends/).
// Nothing above src/platform/ talks to POSIX or to a device backend directly.
#ifndef QUAVIX_PLATFORM_QXPLATFORM_H
#define QUAVIX_PLATFORM_QXPLATFORM_H

#include <quavix/QXWinTypes.h>

#include "platform/kernel/QXKernelCalls.h"
#include "platform/midi/QXMidiCalls.h"
#include "platform/wavein/QXWaveIn.h"

// ---- Device enumeration (answered by the process's backend) ----
UINT midiInGetNumDevs();
UINT midiOutGetNumDevs();
UINT waveInGetNumDevs();
UINT waveOutGetNumDevs();
// Fill at most cbCaps bytes of the record; the name is the backend's device name.
MMRESULT midiInGetDevCapsA(UINT_PTR uDeviceID, MIDIINCAPSA* pmic, UINT cbmic);
MMRESULT midiOutGetDevCapsA(UINT_PTR uDeviceID, MIDIOUTCAPSA* pmoc, UINT cbmoc);
MMRESULT waveInGetDevCapsA(UINT_PTR uDeviceID, WAVEINCAPSA* pwic, UINT cbwic);

// ---- Error texts of the multimedia services ----
MMRESULT midiInGetErrorTextA(MMRESULT mmrError, LPSTR pszText, UINT cchText);
MMRESULT midiOutGetErrorTextA(MMRESULT mmrError, LPSTR pszText, UINT cchText);
MMRESULT waveInGetErrorTextA(MMRESULT mmrError, LPSTR pszText, UINT cchText);
MMRESULT waveOutGetErrorTextA(MMRESULT mmrError, LPSTR pszText, UINT cchText);

#endif // QUAVIX_PLATFORM_QXPLATFORM_H
