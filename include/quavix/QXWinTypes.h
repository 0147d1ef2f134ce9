// The Win32-style types, records and result codes that the library's interface is
// written in. On Windows the real headers provide them; everywhere else they are
// defined here with the 64-bit Windows sizes (DWORD and UINT 32-bit, the *_PTR types
// and WPARAM/LPARAM pointer-sized) so that records keep their documented layouts.
#ifndef QUAVIX_QXWINTYPES_H
#define QUAVIX_QXWINTYPES_H

#if defined(_WIN32)
#include <windows.h>
#include <mmsystem.h>
#include <dsound.h>
#else

#include <cstddef>
#include <cstdint>

typedef uint8_t BYTE;
typedef uint16_t WORD;
typedef uint32_t DWORD;
typedef uint32_t UINT;
typedef int32_t INT;
typedef int32_t LONG;
typedef uint32_t ULONG;
typedef int32_t BOOL;
typedef char CHAR;
typedef int32_t HRESULT;
typedef intptr_t INT_PTR;
typedef intptr_t LONG_PTR;
typedef uintptr_t UINT_PTR;
typedef uintptr_t ULONG_PTR;
typedef uintptr_t DWORD_PTR;
typedef uintptr_t WPARAM;
typedef intptr_t LPARAM;
typedef intptr_t LRESULT;
typedef WORD ATOM;
typedef UINT MMRESULT;
typedef UINT MMVERSION;
typedef DWORD FOURCC;
typedef char* LPSTR;
typedef const char* LPCSTR;
typedef void* LPVOID;
typedef const void* LPCVOID;
typedef BYTE* LPBYTE;
typedef DWORD* LPDWORD;

typedef void* HANDLE;
struct HWND__;
typedef HWND__* HWND;
struct HINSTANCE__;
typedef HINSTANCE__* HINSTANCE;
typedef HINSTANCE HMODULE;
typedef void* HICON;
typedef void* HCURSOR;
typedef void* HBRUSH;
typedef void* HMENU;
struct HMIDIIN__;
typedef HMIDIIN__* HMIDIIN;
struct HMIDIOUT__;
typedef HMIDIOUT__* HMIDIOUT;
struct HMIDISTRM__;
typedef HMIDISTRM__* HMIDISTRM;
struct HWAVEIN__;
typedef HWAVEIN__* HWAVEIN;
struct HWAVEOUT__;
typedef HWAVEOUT__* HWAVEOUT;
struct HMMIO__;
typedef HMMIO__* HMMIO;
typedef void* LPSECURITY_ATTRIBUTES;

#ifndef TRUE
#define TRUE 1
#endif
#ifndef FALSE
#define FALSE 0
#endif
#ifndef CALLBACK
#define CALLBACK
#endif
#ifndef WINAPI
#define WINAPI
#endif

#define MAKEFOURCC(a, b, c, d) \
    ((DWORD)(BYTE)(a) | ((DWORD)(BYTE)(b) << 8) | ((DWORD)(BYTE)(c) << 16) | ((DWORD)(BYTE)(d) << 24))
#define mmioFOURCC(a, b, c, d) MAKEFOURCC(a, b, c, d)
#define MAKELONG(lo, hi) ((LONG)(((WORD)((DWORD_PTR)(lo) & 0xffff)) | ((DWORD)((WORD)((DWORD_PTR)(hi) & 0xffff))) << 16))
#define LOWORD(l) ((WORD)((DWORD_PTR)(l) & 0xffff))
#define HIWORD(l) ((WORD)((DWORD_PTR)(l) >> 16))
#define LOBYTE(w) ((BYTE)((DWORD_PTR)(w) & 0xff))
#define HIBYTE(w) ((BYTE)((DWORD_PTR)(w) >> 8))

// ---- Waits, threads, memory ----
#define INFINITE 0xFFFFFFFFu
#define WAIT_OBJECT_0 0x00000000u
#define WAIT_ABANDONED 0x00000080u
#define WAIT_TIMEOUT 0x00000102u
#define WAIT_FAILED 0xFFFFFFFFu
#define MAXIMUM_WAIT_OBJECTS 64
#define STILL_ACTIVE 259

#define THREAD_PRIORITY_IDLE (-15)
#define THREAD_PRIORITY_LOWEST (-2)
#define THREAD_PRIORITY_BELOW_NORMAL (-1)
#define THREAD_PRIORITY_NORMAL 0
#define THREAD_PRIORITY_ABOVE_NORMAL 1
#define THREAD_PRIORITY_HIGHEST 2
#define THREAD_PRIORITY_TIME_CRITICAL 15
#define THREAD_PRIORITY_ERROR_RETURN 0x7FFFFFFF

#define MEM_COMMIT 0x00001000u
#define MEM_RESERVE 0x00002000u
#define MEM_DECOMMIT 0x00004000u
#define MEM_RELEASE 0x00008000u
#define PAGE_NOACCESS 0x01u
#define PAGE_READONLY 0x02u
#define PAGE_READWRITE 0x04u

typedef DWORD(WINAPI* LPTHREAD_START_ROUTINE)(LPVOID lpParameter);

struct CRITICAL_SECTION {
    void* Impl; // owned by InitializeCriticalSection, released by DeleteCriticalSection
};
typedef CRITICAL_SECTION* LPCRITICAL_SECTION;

// ---- Windows and messages ----
typedef LRESULT(CALLBACK* WNDPROC)(HWND, UINT, WPARAM, LPARAM);

struct POINT {
    LONG x;
    LONG y;
};

struct MSG {
    HWND hwnd;
    UINT message;
    WPARAM wParam;
    LPARAM lParam;
    DWORD time;
    POINT pt;
};
typedef MSG* LPMSG;

struct WNDCLASSA {
    UINT style;
    WNDPROC lpfnWndProc;
    int cbClsExtra;
    int cbWndExtra;
    HINSTANCE hInstance;
    HICON hIcon;
    HCURSOR hCursor;
    HBRUSH hbrBackground;
    LPCSTR lpszMenuName;
    LPCSTR lpszClassName;
};

#define WM_NULL 0x0000u
#define WM_CREATE 0x0001u
#define WM_DESTROY 0x0002u
#define WM_CLOSE 0x0010u
#define WM_QUIT 0x0012u
#define WM_TIMER 0x0113u
#define WM_USER 0x0400u
#define WM_APP 0x8000u
#define COLOR_WINDOW 5
#define GWLP_USERDATA (-21)

// ---- Multimedia: results ----
#define MMSYSERR_BASE 0
#define WAVERR_BASE 32
#define MIDIERR_BASE 64
#define TIMERR_BASE 96
#define MMIOERR_BASE 256

#define MMSYSERR_NOERROR 0
#define MMSYSERR_ERROR (MMSYSERR_BASE + 1)
#define MMSYSERR_BADDEVICEID (MMSYSERR_BASE + 2)
#define MMSYSERR_NOTENABLED (MMSYSERR_BASE + 3)
#define MMSYSERR_ALLOCATED (MMSYSERR_BASE + 4)
#define MMSYSERR_INVALHANDLE (MMSYSERR_BASE + 5)
#define MMSYSERR_NODRIVER (MMSYSERR_BASE + 6)
#define MMSYSERR_NOMEM (MMSYSERR_BASE + 7)
#define MMSYSERR_NOTSUPPORTED (MMSYSERR_BASE + 8)
#define MMSYSERR_BADERRNUM (MMSYSERR_BASE + 9)
#define MMSYSERR_INVALFLAG (MMSYSERR_BASE + 10)
#define MMSYSERR_INVALPARAM (MMSYSERR_BASE + 11)
#define MMSYSERR_HANDLEBUSY (MMSYSERR_BASE + 12)
#define MMSYSERR_INVALIDALIAS (MMSYSERR_BASE + 13)
#define MMSYSERR_BADDB (MMSYSERR_BASE + 14)
#define MMSYSERR_KEYNOTFOUND (MMSYSERR_BASE + 15)
#define MMSYSERR_READERROR (MMSYSERR_BASE + 16)
#define MMSYSERR_WRITEERROR (MMSYSERR_BASE + 17)
#define MMSYSERR_DELETEERROR (MMSYSERR_BASE + 18)
#define MMSYSERR_VALNOTFOUND (MMSYSERR_BASE + 19)
#define MMSYSERR_NODRIVERCB (MMSYSERR_BASE + 20)
#define MMSYSERR_MOREDATA (MMSYSERR_BASE + 21)
#define MMSYSERR_LASTERROR (MMSYSERR_BASE + 21)

#define WAVERR_BADFORMAT (WAVERR_BASE + 0)
#define WAVERR_STILLPLAYING (WAVERR_BASE + 1)
#define WAVERR_UNPREPARED (WAVERR_BASE + 2)
#define WAVERR_SYNC (WAVERR_BASE + 3)
#define WAVERR_LASTERROR (WAVERR_BASE + 3)

#define MIDIERR_UNPREPARED (MIDIERR_BASE + 0)
#define MIDIERR_STILLPLAYING (MIDIERR_BASE + 1)
#define MIDIERR_NOMAP (MIDIERR_BASE + 2)
#define MIDIERR_NOTREADY (MIDIERR_BASE + 3)
#define MIDIERR_NODEVICE (MIDIERR_BASE + 4)
#define MIDIERR_INVALIDSETUP (MIDIERR_BASE + 5)
#define MIDIERR_BADOPENMODE (MIDIERR_BASE + 6)
#define MIDIERR_DONT_CONTINUE (MIDIERR_BASE + 7)
#define MIDIERR_LASTERROR (MIDIERR_BASE + 7)

#define TIMERR_NOERROR 0
#define TIMERR_NOCANDO (TIMERR_BASE + 1)
#define TIMERR_STRUCT (TIMERR_BASE + 33)

#define MMIOERR_FILENOTFOUND (MMIOERR_BASE + 1)
#define MMIOERR_OUTOFMEMORY (MMIOERR_BASE + 2)
#define MMIOERR_CANNOTOPEN (MMIOERR_BASE + 3)
#define MMIOERR_CANNOTCLOSE (MMIOERR_BASE + 4)
#define MMIOERR_CANNOTREAD (MMIOERR_BASE + 5)
#define MMIOERR_CANNOTWRITE (MMIOERR_BASE + 6)
#define MMIOERR_CANNOTSEEK (MMIOERR_BASE + 7)
#define MMIOERR_CANNOTEXPAND (MMIOERR_BASE + 8)
#define MMIOERR_CHUNKNOTFOUND (MMIOERR_BASE + 9)
#define MMIOERR_UNBUFFERED (MMIOERR_BASE + 10)
#define MMIOERR_PATHNOTFOUND (MMIOERR_BASE + 11)
#define MMIOERR_ACCESSDENIED (MMIOERR_BASE + 12)
#define MMIOERR_SHARINGVIOLATION (MMIOERR_BASE + 13)
#define MMIOERR_NETWORKERROR (MMIOERR_BASE + 14)
#define MMIOERR_TOOMANYOPENFILES (MMIOERR_BASE + 15)
#define MMIOERR_INVALIDFILE (MMIOERR_BASE + 16)

// ---- Multimedia: timers and time ----
typedef void(CALLBACK* LPTIMECALLBACK)(UINT uTimerID, UINT uMsg, DWORD_PTR dwUser, DWORD_PTR dw1, DWORD_PTR dw2);
#define TIME_ONESHOT 0x0000u
#define TIME_PERIODIC 0x0001u
#define TIME_CALLBACK_FUNCTION 0x0000u
#define TIME_CALLBACK_EVENT_SET 0x0010u
#define TIME_CALLBACK_EVENT_PULSE 0x0020u
#define TIME_KILL_SYNCHRONOUS 0x0100u

struct TIMECAPS {
    UINT wPeriodMin;
    UINT wPeriodMax;
};
typedef TIMECAPS* LPTIMECAPS;

#define TIME_MS 0x0001u
#define TIME_SAMPLES 0x0002u
#define TIME_BYTES 0x0004u
#define TIME_SMPTE 0x0008u
#define TIME_MIDI 0x0010u
#define TIME_TICKS 0x0020u

struct MMTIME {
    UINT wType;
    union {
        DWORD ms;
        DWORD sample;
        DWORD cb;
        DWORD ticks;
        struct {
            BYTE hour;
            BYTE min;
            BYTE sec;
            BYTE frame;
            BYTE fps;
            BYTE dummy;
            BYTE pad[2];
        } smpte;
        struct {
            DWORD songptrpos;
        } midi;
    } u;
};
typedef MMTIME* LPMMTIME;

// ---- Multimedia: wave ----
#define WAVE_FORMAT_PCM 1
#define WAVE_MAPPER ((UINT)-1)
#define MAXPNAMELEN 32

#pragma pack(push, 1)
struct WAVEFORMATEX {
    WORD wFormatTag;
    WORD nChannels;
    DWORD nSamplesPerSec;
    DWORD nAvgBytesPerSec;
    WORD nBlockAlign;
    WORD wBitsPerSample;
    WORD cbSize;
};
#pragma pack(pop)
static_assert(sizeof(WAVEFORMATEX) == 18, "WAVEFORMATEX is 18 packed bytes");
typedef WAVEFORMATEX* LPWAVEFORMATEX;
typedef const WAVEFORMATEX* LPCWAVEFORMATEX;

struct WAVEHDR {
    LPSTR lpData;
    DWORD dwBufferLength;
    DWORD dwBytesRecorded;
    DWORD_PTR dwUser;
    DWORD dwFlags;
    DWORD dwLoops;
    WAVEHDR* lpNext;
    DWORD_PTR reserved;
};
typedef WAVEHDR* LPWAVEHDR;
#define WHDR_DONE 0x00000001u
#define WHDR_PREPARED 0x00000002u
#define WHDR_BEGINLOOP 0x00000004u
#define WHDR_ENDLOOP 0x00000008u
#define WHDR_INQUEUE 0x00000010u

struct WAVEINCAPSA {
    WORD wMid;
    WORD wPid;
    MMVERSION vDriverVersion;
    CHAR szPname[MAXPNAMELEN];
    DWORD dwFormats;
    WORD wChannels;
    WORD wReserved1;
};
static_assert(sizeof(WAVEINCAPSA) == 48, "WAVEINCAPSA is 48 bytes");

#define WIM_OPEN 0x3BE
#define WIM_CLOSE 0x3BF
#define WIM_DATA 0x3C0
// waveInOpen flags besides the callback kind.
#define WAVE_FORMAT_QUERY 0x0001u
#define WAVE_ALLOWSYNC 0x0002u
#define WAVE_MAPPED 0x0004u
#define WAVE_FORMAT_DIRECT 0x0008u
#define WOM_OPEN 0x3BB
#define WOM_CLOSE 0x3BC
#define WOM_DONE 0x3BD

// ---- Multimedia: MIDI ----
#define MIDI_MAPPER ((UINT)-1)

struct MIDIINCAPSA {
    WORD wMid;
    WORD wPid;
    MMVERSION vDriverVersion;
    CHAR szPname[MAXPNAMELEN];
    DWORD dwSupport;
};
static_assert(sizeof(MIDIINCAPSA) == 44, "MIDIINCAPSA is 44 bytes");

struct MIDIOUTCAPSA {
    WORD wMid;
    WORD wPid;
    MMVERSION vDriverVersion;
    CHAR szPname[MAXPNAMELEN];
    WORD wTechnology;
    WORD wVoices;
    WORD wNotes;
    WORD wChannelMask;
    DWORD dwSupport;
};
static_assert(sizeof(MIDIOUTCAPSA) == 52, "MIDIOUTCAPSA is 52 bytes");

#define MOD_MIDIPORT 1
#define MOD_SYNTH 2
#define MOD_SWSYNTH 7
#define MIDICAPS_VOLUME 0x0001u
#define MIDICAPS_LRVOLUME 0x0002u
#define MIDICAPS_STREAM 0x0008u

struct MIDIHDR {
    LPSTR lpData;
    DWORD dwBufferLength;
    DWORD dwBytesRecorded;
    DWORD_PTR dwUser;
    DWORD dwFlags;
    MIDIHDR* lpNext;
    DWORD_PTR reserved;
    DWORD dwOffset;
    DWORD_PTR dwReserved[8];
};
typedef MIDIHDR* LPMIDIHDR;
#define MHDR_DONE 0x00000001u
#define MHDR_PREPARED 0x00000002u
#define MHDR_INQUEUE 0x00000004u
#define MHDR_ISSTRM 0x00000008u

// One event of a MIDI stream buffer: three words, then dwParms only for long events.
struct MIDIEVENT {
    DWORD dwDeltaTime;
    DWORD dwStreamID;
    DWORD dwEvent;
    DWORD dwParms[1];
};

#define MEVT_F_SHORT 0x00000000u
#define MEVT_F_LONG 0x80000000u
#define MEVT_F_CALLBACK 0x40000000u
#define MEVT_EVENTTYPE(x) ((BYTE)(((x) >> 24) & 0xFF))
#define MEVT_EVENTPARM(x) ((DWORD)((x) & 0x00FFFFFFu))
#define MEVT_SHORTMSG ((BYTE)0x00)
#define MEVT_TEMPO ((BYTE)0x01)
#define MEVT_NOP ((BYTE)0x02)
#define MEVT_LONGMSG ((BYTE)0x80)
#define MEVT_COMMENT ((BYTE)0x82)
#define MEVT_VERSION ((BYTE)0x84)

#define MIDIPROP_SET 0x80000000u
#define MIDIPROP_GET 0x40000000u
#define MIDIPROP_TIMEDIV 0x00000001u
#define MIDIPROP_TEMPO 0x00000002u

struct MIDIPROPTIMEDIV {
    DWORD cbStruct;
    DWORD dwTimeDiv;
};
struct MIDIPROPTEMPO {
    DWORD cbStruct;
    DWORD dwTempo;
};

#define MIM_OPEN 0x3C1
#define MIM_CLOSE 0x3C2
#define MIM_DATA 0x3C3
#define MIM_LONGDATA 0x3C4
#define MIM_ERROR 0x3C5
#define MIM_LONGERROR 0x3C6
#define MIM_MOREDATA 0x3CC
#define MOM_OPEN 0x3C7
#define MOM_CLOSE 0x3C8
#define MOM_DONE 0x3C9
#define MOM_POSITIONCB 0x3CA

#define CALLBACK_TYPEMASK 0x00070000u
#define CALLBACK_NULL 0x00000000u
#define CALLBACK_WINDOW 0x00010000u
#define CALLBACK_TASK 0x00020000u
#define CALLBACK_THREAD CALLBACK_TASK
#define CALLBACK_FUNCTION 0x00030000u
#define CALLBACK_EVENT 0x00050000u

// ---- Buffered RIFF files ----
typedef LRESULT(CALLBACK* LPMMIOPROC)(LPSTR lpmmioinfo, UINT uMsg, LPARAM lParam1, LPARAM lParam2);

struct MMIOINFO {
    DWORD dwFlags;
    FOURCC fccIOProc;
    LPMMIOPROC pIOProc;
    UINT wErrorRet;
    void* htask;
    LONG cchBuffer;
    char* pchBuffer;
    char* pchNext;
    char* pchEndRead;
    char* pchEndWrite;
    LONG lBufOffset;
    LONG lDiskOffset;
    DWORD adwInfo[3];
    DWORD dwReserved1;
    DWORD dwReserved2;
    HMMIO hmmio;
};
typedef MMIOINFO* LPMMIOINFO;

struct MMCKINFO {
    FOURCC ckid;
    DWORD cksize;
    FOURCC fccType;
    DWORD dwDataOffset;
    DWORD dwFlags;
};
typedef MMCKINFO* LPMMCKINFO;

#define MMIO_RWMODE 0x00000003u
#define MMIO_SHAREMODE 0x00000070u
#define MMIO_CREATE 0x00001000u
#define MMIO_PARSE 0x00000100u
#define MMIO_DELETE 0x00000200u
#define MMIO_EXIST 0x00004000u
#define MMIO_ALLOCBUF 0x00010000u
#define MMIO_GETTEMP 0x00020000u
#define MMIO_DIRTY 0x10000000u
#define MMIO_READ 0x00000000u
#define MMIO_WRITE 0x00000001u
#define MMIO_READWRITE 0x00000002u
#define MMIO_COMPAT 0x00000000u
#define MMIO_EXCLUSIVE 0x00000010u
#define MMIO_DENYWRITE 0x00000020u
#define MMIO_DENYREAD 0x00000030u
#define MMIO_DENYNONE 0x00000040u
#define MMIO_FHOPEN 0x0010u
#define MMIO_EMPTYBUF 0x0010u
#define MMIO_TOUPPER 0x0010u
#define MMIO_INSTALLPROC 0x00010000u
#define MMIO_FINDPROC 0x00040000u
#define MMIO_FINDCHUNK 0x0010u
#define MMIO_FINDRIFF 0x0020u
#define MMIO_FINDLIST 0x0040u
#define MMIO_CREATERIFF 0x0020u
#define MMIO_CREATELIST 0x0040u
#define MMIO_DEFAULTBUFFER 8192
#define FOURCC_RIFF mmioFOURCC('R', 'I', 'F', 'F')
#define FOURCC_LIST mmioFOURCC('L', 'I', 'S', 'T')
#define SEEK_SET_MMIO 0

// ---- DirectSound results (HRESULT) ----
#define MAKE_HRESULT_CODE(sev, fac, code) \
    ((HRESULT)(((uint32_t)(sev) << 31) | ((uint32_t)(fac) << 16) | ((uint32_t)(code))))
#define S_OK ((HRESULT)0)
#define S_FALSE ((HRESULT)1)
#define DS_OK S_OK
#define DS_NO_VIRTUALIZATION ((HRESULT)0x0878000A)
#define E_NOTIMPL ((HRESULT)0x80004001u)
#define E_NOINTERFACE ((HRESULT)0x80004002u)
#define E_POINTER ((HRESULT)0x80004003u)
#define E_FAIL ((HRESULT)0x80004005u)
#define E_OUTOFMEMORY ((HRESULT)0x8007000Eu)
#define E_INVALIDARG ((HRESULT)0x80070057u)
#define CLASS_E_NOAGGREGATION ((HRESULT)0x80040110u)
#define DSERR_ALLOCATED ((HRESULT)0x8878000Au)
#define DSERR_CONTROLUNAVAIL ((HRESULT)0x8878001Eu)
#define DSERR_INVALIDPARAM E_INVALIDARG
#define DSERR_INVALIDCALL ((HRESULT)0x88780032u)
#define DSERR_GENERIC E_FAIL
#define DSERR_PRIOLEVELNEEDED ((HRESULT)0x88780046u)
#define DSERR_OUTOFMEMORY E_OUTOFMEMORY
#define DSERR_BADFORMAT ((HRESULT)0x88780064u)
#define DSERR_UNSUPPORTED E_NOTIMPL
#define DSERR_NODRIVER ((HRESULT)0x88780078u)
#define DSERR_ALREADYINITIALIZED ((HRESULT)0x88780082u)
#define DSERR_NOAGGREGATION CLASS_E_NOAGGREGATION
#define DSERR_BUFFERLOST ((HRESULT)0x88780096u)
#define DSERR_OTHERAPPHASPRIO ((HRESULT)0x887800A0u)
#define DSERR_UNINITIALIZED ((HRESULT)0x887800AAu)
#define SUCCEEDED(hr) (((HRESULT)(hr)) >= 0)
#define FAILED(hr) (((HRESULT)(hr)) < 0)

struct GUID {
    uint32_t Data1;
    uint16_t Data2;
    uint16_t Data3;
    uint8_t Data4[8];
};
typedef GUID* LPGUID;
typedef const GUID* LPCGUID;

// ---- DirectSound: records, flags and interface names ----
typedef LONG* LPLONG;
typedef const GUID& REFIID;
typedef const GUID& REFGUID;
inline bool IsEqualGUID(const GUID& a, const GUID& b)
{
    if (a.Data1 != b.Data1 || a.Data2 != b.Data2 || a.Data3 != b.Data3) return false;
    for (int i = 0; i < 8; ++i)
        if (a.Data4[i] != b.Data4[i]) return false;
    return true;
}

#define WAVE_FORMAT_IEEE_FLOAT 0x0003
#define WAVE_FORMAT_EXTENSIBLE 0xFFFE

#pragma pack(push, 1)
struct WAVEFORMATEXTENSIBLE {
    WAVEFORMATEX Format;
    union {
        WORD wValidBitsPerSample;
        WORD wSamplesPerBlock;
        WORD wReserved;
    } Samples;
    DWORD dwChannelMask;
    GUID SubFormat;
};
#pragma pack(pop)
static_assert(sizeof(WAVEFORMATEXTENSIBLE) == 40, "WAVEFORMATEXTENSIBLE is 40 packed bytes");

struct IUnknown;
struct IDirectSound;
struct IDirectSoundBuffer;
struct IDirectSoundNotify;
typedef IUnknown* LPUNKNOWN;
typedef IDirectSound* LPDIRECTSOUND;
typedef IDirectSoundBuffer* LPDIRECTSOUNDBUFFER;
typedef IDirectSoundNotify* LPDIRECTSOUNDNOTIFY;

inline constexpr GUID IID_IUnknown = {0x00000000, 0x0000, 0x0000, {0xC0, 0, 0, 0, 0, 0, 0, 0x46}};
inline constexpr GUID IID_IDirectSound = {0x279AFA83, 0x4981, 0x11CE, {0xA5, 0x21, 0x00, 0x20, 0xAF, 0x0B, 0xE5, 0x60}};
inline constexpr GUID IID_IDirectSoundBuffer = {0x279AFA85, 0x4981, 0x11CE,
                                                {0xA5, 0x21, 0x00, 0x20, 0xAF, 0x0B, 0xE5, 0x60}};
inline constexpr GUID IID_IDirectSoundNotify = {0xB0210783, 0x89CD, 0x11D0,
                                                {0xAF, 0x08, 0x00, 0xA0, 0xC9, 0x25, 0xCD, 0x16}};
inline constexpr GUID GUID_NULL = {0, 0, 0, {0, 0, 0, 0, 0, 0, 0, 0}};

// The record's dwSize may be sizeof(DSBUFFERDESC) or anything from the size of the
// first five fields (without guid3DAlgorithm) up: 36, the 32-bit layout's size, is taken.
struct DSBUFFERDESC {
    DWORD dwSize;
    DWORD dwFlags;
    DWORD dwBufferBytes;
    DWORD dwReserved;
    LPWAVEFORMATEX lpwfxFormat;
    GUID guid3DAlgorithm;
};
typedef DSBUFFERDESC* LPDSBUFFERDESC;
typedef const DSBUFFERDESC* LPCDSBUFFERDESC;

struct DSBPOSITIONNOTIFY {
    DWORD dwOffset;
    HANDLE hEventNotify;
};
typedef DSBPOSITIONNOTIFY* LPDSBPOSITIONNOTIFY;
typedef const DSBPOSITIONNOTIFY* LPCDSBPOSITIONNOTIFY;

struct DSCAPS {
    DWORD dwSize;
    DWORD dwFlags;
    DWORD dwMinSecondarySampleRate;
    DWORD dwMaxSecondarySampleRate;
    DWORD dwPrimaryBuffers;
    DWORD dwMaxHwMixingAllBuffers;
    DWORD dwMaxHwMixingStaticBuffers;
    DWORD dwMaxHwMixingStreamingBuffers;
    DWORD dwFreeHwMixingAllBuffers;
    DWORD dwFreeHwMixingStaticBuffers;
    DWORD dwFreeHwMixingStreamingBuffers;
    DWORD dwMaxHw3DAllBuffers;
    DWORD dwMaxHw3DStaticBuffers;
    DWORD dwMaxHw3DStreamingBuffers;
    DWORD dwFreeHw3DAllBuffers;
    DWORD dwFreeHw3DStaticBuffers;
    DWORD dwFreeHw3DStreamingBuffers;
    DWORD dwTotalHwMemBytes;
    DWORD dwFreeHwMemBytes;
    DWORD dwMaxContigFreeHwMemBytes;
    DWORD dwUnlockTransferRateHwBuffers;
    DWORD dwPlayCpuOverheadSwBuffers;
    DWORD dwReserved1;
    DWORD dwReserved2;
};
typedef DSCAPS* LPDSCAPS;

struct DSBCAPS {
    DWORD dwSize;
    DWORD dwFlags;
    DWORD dwBufferBytes;
    DWORD dwUnlockTransferRate;
    DWORD dwPlayCpuOverhead;
};
typedef DSBCAPS* LPDSBCAPS;

typedef BOOL(CALLBACK* LPDSENUMCALLBACKA)(LPGUID lpGuid, LPCSTR lpcstrDescription, LPCSTR lpcstrModule,
                                           LPVOID lpContext);

#define DSCAPS_PRIMARYMONO 0x00000001u
#define DSCAPS_PRIMARYSTEREO 0x00000002u
#define DSCAPS_PRIMARY8BIT 0x00000004u
#define DSCAPS_PRIMARY16BIT 0x00000008u
#define DSCAPS_CONTINUOUSRATE 0x00000010u
#define DSCAPS_EMULDRIVER 0x00000020u
#define DSCAPS_SECONDARYMONO 0x00000100u
#define DSCAPS_SECONDARYSTEREO 0x00000200u
#define DSCAPS_SECONDARY8BIT 0x00000400u
#define DSCAPS_SECONDARY16BIT 0x00000800u

#define DSSCL_NORMAL 1u
#define DSSCL_PRIORITY 2u
#define DSSCL_EXCLUSIVE 3u
#define DSSCL_WRITEPRIMARY 4u

#define DSBCAPS_PRIMARYBUFFER 0x00000001u
#define DSBCAPS_STATIC 0x00000002u
#define DSBCAPS_LOCHARDWARE 0x00000004u
#define DSBCAPS_LOCSOFTWARE 0x00000008u
#define DSBCAPS_CTRL3D 0x00000010u
#define DSBCAPS_CTRLFREQUENCY 0x00000020u
#define DSBCAPS_CTRLPAN 0x00000040u
#define DSBCAPS_CTRLVOLUME 0x00000080u
#define DSBCAPS_CTRLPOSITIONNOTIFY 0x00000100u
#define DSBCAPS_CTRLFX 0x00000200u
#define DSBCAPS_STICKYFOCUS 0x00004000u
#define DSBCAPS_GLOBALFOCUS 0x00008000u
#define DSBCAPS_GETCURRENTPOSITION2 0x00010000u
#define DSBCAPS_MUTE3DATMAXDISTANCE 0x00020000u
#define DSBCAPS_LOCDEFER 0x00040000u

#define DSBPLAY_LOOPING 0x00000001u
#define DSBSTATUS_PLAYING 0x00000001u
#define DSBSTATUS_BUFFERLOST 0x00000002u
#define DSBSTATUS_LOOPING 0x00000004u
#define DSBSTATUS_LOCSOFTWARE 0x00000008u
#define DSBSTATUS_TERMINATED 0x00000020u
#define DSBLOCK_FROMWRITECURSOR 0x00000001u
#define DSBLOCK_ENTIREBUFFER 0x00000002u

#define DSBFREQUENCY_ORIGINAL 0u
#define DSBFREQUENCY_MIN 100u
#define DSBFREQUENCY_MAX 100000u
#define DSBPAN_LEFT (-10000)
#define DSBPAN_CENTER 0
#define DSBPAN_RIGHT 10000
#define DSBVOLUME_MIN (-10000)
#define DSBVOLUME_MAX 0
#define DSBSIZE_MIN 4u
#define DSBSIZE_MAX 0x0FFFFFFFu
#define DSBPN_OFFSETSTOP 0xFFFFFFFFu

#endif // !_WIN32
#endif // QUAVIX_QXWINTYPES_H
