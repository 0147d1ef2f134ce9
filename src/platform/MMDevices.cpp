// Device counts and capability records, as the backend reports its devices.
#include "platform/QXFaults.h"
#include "platform/QXPlatform.h"
#include "platform/backends/QXBackend.h"
#include "platform/backends/synth/QXSynth.h"

#include <algorithm>
#include <cstring>
#include <string>

using qxplat::CurrentBackend;
using qxplat::DeviceKind;

namespace {

UINT Count(DeviceKind kind)
{
    return static_cast<UINT>(CurrentBackend().Count(kind));
}

// The service fills no more of the caller's record than the size it was given.
template <class Caps>
MMRESULT CopyOut(Caps* out, UINT cb, const Caps& caps)
{
    std::memcpy(out, &caps, std::min<size_t>(cb, sizeof(Caps)));
    return MMSYSERR_NOERROR;
}

template <class Caps>
MMRESULT GetCaps(const char* op, DeviceKind kind, UINT_PTR id, Caps* out, UINT cb, Caps& caps)
{
    DWORD fail;
    if (out == nullptr || cb == 0) return MMSYSERR_INVALPARAM;
    if (QXFaultCheck(op, &fail)) return fail;
    if (id >= Count(kind)) return MMSYSERR_BADDEVICEID;
    std::string name = CurrentBackend().DeviceName(kind, static_cast<int>(id));
    std::memset(&caps, 0, sizeof caps);
    caps.wMid = 0xFF; // no registered manufacturer
    caps.wPid = static_cast<WORD>(static_cast<int>(kind) + 1);
    caps.vDriverVersion = 0x0100;
    std::strncpy(caps.szPname, name.c_str(), MAXPNAMELEN - 1);
    return MMSYSERR_NOERROR;
}

} // namespace

UINT midiInGetNumDevs()
{
    return Count(DeviceKind::MidiIn);
}

UINT midiOutGetNumDevs()
{
    return Count(DeviceKind::MidiOut);
}

UINT waveInGetNumDevs()
{
    return Count(DeviceKind::WaveIn);
}

UINT waveOutGetNumDevs()
{
    return Count(DeviceKind::WaveOut);
}

MMRESULT midiInGetDevCapsA(UINT_PTR uDeviceID, MIDIINCAPSA* pmic, UINT cbmic)
{
    MIDIINCAPSA caps;
    MMRESULT r = GetCaps("midiInGetDevCapsA", DeviceKind::MidiIn, uDeviceID, pmic, cbmic, caps);
    if (r != MMSYSERR_NOERROR) return r;
    return CopyOut(pmic, cbmic, caps);
}

MMRESULT midiOutGetDevCapsA(UINT_PTR uDeviceID, MIDIOUTCAPSA* pmoc, UINT cbmoc)
{
    MIDIOUTCAPSA caps;
    MMRESULT r = GetCaps("midiOutGetDevCapsA", DeviceKind::MidiOut, uDeviceID, pmoc, cbmoc, caps);
    if (r != MMSYSERR_NOERROR) return r;
    caps.wTechnology = MOD_MIDIPORT;
    caps.wChannelMask = 0xFFFF;
    caps.dwSupport = MIDICAPS_STREAM;
    if (qxplat::IsSynthMidiOut(static_cast<int>(uDeviceID))) {
        caps.wTechnology = MOD_SWSYNTH;
        caps.wVoices = caps.wNotes = qxplat::kSynthPolyphony;
        caps.dwSupport |= MIDICAPS_VOLUME | MIDICAPS_LRVOLUME;
    }
    return CopyOut(pmoc, cbmoc, caps);
}

MMRESULT waveInGetDevCapsA(UINT_PTR uDeviceID, WAVEINCAPSA* pwic, UINT cbwic)
{
    WAVEINCAPSA caps;
    MMRESULT r = GetCaps("waveInGetDevCapsA", DeviceKind::WaveIn, uDeviceID, pwic, cbwic, caps);
    if (r != MMSYSERR_NOERROR) return r;
    caps.dwFormats = 0x00000FFF; // every standard PCM format up to 44.1 kHz 16-bit stereo
    caps.wChannels = 2;
    return CopyOut(pwic, cbwic, caps);
}
