// Error texts of the multimedia services: the texts the library's reports print.
#include "platform/QXPlatform.h"

#include <cstring>

namespace {

const char* const kSystemTexts[] = {
    "The operation completed successfully.",                        // MMSYSERR_NOERROR
    "An unspecified error occurred.",                               // MMSYSERR_ERROR
    "The device number is out of range.",                           // MMSYSERR_BADDEVICEID
    "The driver failed to enable.",                                 // MMSYSERR_NOTENABLED
    "The device is already in use by another client.",              // MMSYSERR_ALLOCATED
    "The device handle is invalid.",                                // MMSYSERR_INVALHANDLE
    "No device driver is installed.",                               // MMSYSERR_NODRIVER
    "There is not enough memory to complete the operation.",        // MMSYSERR_NOMEM
    "The device does not support this operation.",                  // MMSYSERR_NOTSUPPORTED
    "The error number is not known.",                               // MMSYSERR_BADERRNUM
    "An invalid flag was passed.",                                  // MMSYSERR_INVALFLAG
    "An invalid parameter was passed.",                             // MMSYSERR_INVALPARAM
    "The handle is being used by another thread.",                  // MMSYSERR_HANDLEBUSY
    "The alias name is not known.",                                 // MMSYSERR_INVALIDALIAS
    "The device configuration data is damaged.",                    // MMSYSERR_BADDB
    "The configuration key was not found.",                         // MMSYSERR_KEYNOTFOUND
    "The configuration data could not be read.",                    // MMSYSERR_READERROR
    "The configuration data could not be written.",                 // MMSYSERR_WRITEERROR
    "The configuration data could not be deleted.",                 // MMSYSERR_DELETEERROR
    "The configuration value was not found.",                       // MMSYSERR_VALNOTFOUND
    "The driver does not call back as required.",                   // MMSYSERR_NODRIVERCB
    "More data is waiting than the buffer could take.",             // MMSYSERR_MOREDATA
};
static_assert(sizeof(kSystemTexts) / sizeof(kSystemTexts[0]) == MMSYSERR_LASTERROR + 1);

const char* const kWaveTexts[] = {
    "The wave format is not supported.",                            // WAVERR_BADFORMAT
    "The device is still playing or recording its buffers.",        // WAVERR_STILLPLAYING
    "The wave buffer has not been prepared.",                       // WAVERR_UNPREPARED
    "The device cannot be opened without waiting for it.",          // WAVERR_SYNC
};
static_assert(sizeof(kWaveTexts) / sizeof(kWaveTexts[0]) == WAVERR_LASTERROR - WAVERR_BASE + 1);

const char* const kMidiTexts[] = {
    "The MIDI buffer has not been prepared.",                       // MIDIERR_UNPREPARED
    "The device is still playing its MIDI buffers.",                // MIDIERR_STILLPLAYING
    "The MIDI map has no entry for this device.",                   // MIDIERR_NOMAP
    "The MIDI port is busy sending data; try again later.",         // MIDIERR_NOTREADY
    "The MIDI device named in the map is not installed.",           // MIDIERR_NODEVICE
    "The MIDI setup information is damaged.",                       // MIDIERR_INVALIDSETUP
    "The operation is not possible in the device's open mode.",     // MIDIERR_BADOPENMODE
    "The driver asks that the buffer is not continued.",            // MIDIERR_DONT_CONTINUE
};
static_assert(sizeof(kMidiTexts) / sizeof(kMidiTexts[0]) == MIDIERR_LASTERROR - MIDIERR_BASE + 1);

enum class Family { Midi, Wave };

const char* Lookup(MMRESULT mmrError, Family family)
{
    if (mmrError <= MMSYSERR_LASTERROR) return kSystemTexts[mmrError];
    if (family == Family::Wave && mmrError >= WAVERR_BASE && mmrError <= WAVERR_LASTERROR)
        return kWaveTexts[mmrError - WAVERR_BASE];
    if (family == Family::Midi && mmrError >= MIDIERR_BASE && mmrError <= MIDIERR_LASTERROR)
        return kMidiTexts[mmrError - MIDIERR_BASE];
    return nullptr;
}

MMRESULT GetErrorText(MMRESULT mmrError, LPSTR pszText, UINT cchText, Family family)
{
    if (pszText == nullptr || cchText == 0) return MMSYSERR_INVALPARAM;
    const char* text = Lookup(mmrError, family);
    if (text == nullptr) return MMSYSERR_BADERRNUM;
    size_t n = std::strlen(text);
    if (n > cchText - 1) n = cchText - 1;
    std::memcpy(pszText, text, n);
    pszText[n] = '\0';
    return MMSYSERR_NOERROR;
}

} // namespace

MMRESULT midiInGetErrorTextA(MMRESULT mmrError, LPSTR pszText, UINT cchText)
{
    return GetErrorText(mmrError, pszText, cchText, Family::Midi);
}

MMRESULT midiOutGetErrorTextA(MMRESULT mmrError, LPSTR pszText, UINT cchText)
{
    return GetErrorText(mmrError, pszText, cchText, Family::Midi);
}

MMRESULT waveInGetErrorTextA(MMRESULT mmrError, LPSTR pszText, UINT cchText)
{
    return GetErrorText(mmrError, pszText, cchText, Family::Wave);
}

MMRESULT waveOutGetErrorTextA(MMRESULT mmrError, LPSTR pszText, UINT cchText)
{
    return GetErrorText(mmrError, pszText, cchText, Family::Wave);
}
