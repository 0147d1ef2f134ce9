// Records that cross every interface of the library: device addresses and states,
// formats, capabilities and wave playback parameters.
#ifndef QUAVIX_QXRECORDS_H
#define QUAVIX_QXRECORDS_H

#include <quavix/QXWinTypes.h>

// Device address
#define QX_DEVTYPE_MIDI 0
#define QX_DEVTYPE_WAVE 1
#define QX_DEVDIR_IN 0
#define QX_DEVDIR_OUT 1
#define QX_ALL_DEVICES 0x7FFFFFFF

// Device state word
#define QX_STATE_CLOSED 0x0001u
#define QX_STATE_OPEN 0x0002u
#define QX_STATE_STOPPED 0x0004u
#define QX_STATE_PAUSED 0x0008u
#define QX_STATE_STARTED 0x0010u
#define QX_STATE_STOPPING 0x0100u
#define QX_STATE_DISABLED 0x8000u

// Event kinds of CQXEventData
#define QX_EVENT_NONE 0
#define QX_EVENT_MIDI 1
#define QX_EVENT_SYSEX 2
#define QX_EVENT_WAVEDATA 3
#define QX_EVENT_WAVEHEADER 4
#define QX_EVENT_WAVESTART 5
#define QX_EVENT_FILEMETA 6

// Laid out as WAVEFORMATEX so that it can be handed to the platform and written to a
// RIFF format chunk unchanged.
#pragma pack(push, 1)
struct QX_DevFormat {
    WORD wFormatTag;
    WORD nChannels;
    DWORD nSamplesPerSec;
    DWORD nAvgBytesPerSec;
    WORD nBlockAlign;
    WORD wBitsPerSample;
    WORD cbSize;
};
#pragma pack(pop)
static_assert(sizeof(QX_DevFormat) == 18, "QX_DevFormat is 18 packed bytes");
static_assert(sizeof(QX_DevFormat) == sizeof(WAVEFORMATEX), "QX_DevFormat mirrors WAVEFORMATEX");

// Capabilities of one platform device, overlaid by the platform's record for its kind.
// The raw room leaves space for what a DirectSound output reports.
union QX_DevCaps {
    MIDIINCAPSA midiIn;
    MIDIOUTCAPSA midiOut;
    WAVEINCAPSA waveIn;
    DSCAPS dsOut; // a DirectSound output: its driver's capabilities
    BYTE raw[256];
};
static_assert(sizeof(QX_DevCaps) >= 52, "QX_DevCaps holds a MIDIOUTCAPSA");

class CWavePlay;

struct QX_DSParams {
    LONG lPan;
    LONG lVolume;
    LONG lFrequency;
    LPCSTR lpszFileName;
    CWavePlay* pWavePlay;
};

struct QX_WaveParams {
    int nPerformance;
    int nTrack;
    QX_DSParams dsParams;
};

#endif // QUAVIX_QXRECORDS_H
