// The reporting service: the message of every notification code, the DirectSound
// error texts, and the diagnostic trace the messages are written to.
#include <quavix/QXNotify.h>

#include "platform/QXPlatform.h"
#include "platform/backends/QXBackend.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <thread>

namespace {

// What the %d and %s of a message take.
enum class Args {
    Value,         // %d value
    DeviceText,    // %d device, %s error text
    ValueFileName, // %d value, %s file name at the device value
    FileName,      // %s file name at the device value
    Device,        // %d device
    DeviceValue,   // %d device, %d value
    None,
};

struct Message {
    DWORD dwCode;
    Args args;
    const char* pszFormat;
};

// Sorted by code.
constexpr Message kMessages[] = {
    {QXN_POLLED_PERF_DONE, Args::Value, "Polled performance %d done\n"},
    {QXN_POLLED_PERF_STOPPED, Args::Value, "Polled performance %d stopped\n"},
    {QXN_MIDI_RECORDING_STOPPED, Args::Value, "Midi recording %d stopped\n"},
    {QXN_WAVE_RECORDING_STOPPED, Args::Value, "Wave recording %d stopped\n"},

    {QXN_DS_CREATE, Args::DeviceText, "Error creating DS object %d: %s\n"},
    {QXN_DS_SETCOOPLEVEL, Args::DeviceText, "Error setting coop level for DS object %d: %s\n"},
    {QXN_DS_CREATEBUFFER, Args::DeviceText, "Error creating buffer for DS object %d: %s\n"},
    {QXN_DS_START, Args::DeviceText, "Error starting DS object %d: %s\n"},
    {QXN_DS_STOP, Args::DeviceText, "Error stopping DS object %d: %s\n"},
    {QXN_DS_SETFORMAT, Args::DeviceText, "Error setting format for DS object %d: %s\n"},
    {QXN_DS_GETFORMAT, Args::DeviceText, "Error getting format for DS object %d: %s\n"},
    {QXN_DS_COMPACT, Args::DeviceText, "Error compacting on DS object %d: %s\n"},
    {QXN_DS_DUPLICATE, Args::DeviceText, "Error duplicating DS object %d: %s\n"},
    {QXN_DS_GETCAPS, Args::DeviceText, "Error getting caps for DS object %d: %s\n"},
    {QXN_DS_GETSPEAKERCONFIG, Args::DeviceText, "Error getting speaker config for DS object %d: %s\n"},
    {QXN_DS_SETSPEAKERCONFIG, Args::DeviceText, "Error setting speaker config for DS object %d: %s\n"},
    {QXN_DS_GETFREQUENCY, Args::DeviceText, "Error getting frequency for DS object %d: %s\n"},
    {QXN_DS_SETFREQUENCY, Args::DeviceText, "Error setting frequency for DS object %d: %s\n"},
    {QXN_DS_GETPAN, Args::DeviceText, "Error getting pan for DS object %d: %s\n"},
    {QXN_DS_SETPAN, Args::DeviceText, "Error setting pan for DS object %d: %s\n"},
    {QXN_DS_GETVOLUME, Args::DeviceText, "Error getting volume for DS object %d: %s\n"},
    {QXN_DS_SETVOLUME, Args::DeviceText, "Error setting volume for DS object %d: %s\n"},
    {QXN_DS_GETPOSITION, Args::DeviceText, "Error getting position for DS object %d: %s\n"},
    {QXN_DS_SETPOSITION, Args::DeviceText, "Error setting position for DS object %d: %s\n"},
    {QXN_DS_GETSTATUS, Args::DeviceText, "Error getting status for DS object %d: %s\n"},
    {QXN_DS_LOCK, Args::DeviceText, "Error locking buffer for DS object %d: %s\n"},
    {QXN_DS_UNLOCK, Args::DeviceText, "Error unlocking buffer for DS object %d: %s\n"},
    // QXN_DS_QUERYNOTIFY and QXN_DS_SETNOTIFYPOSITIONS have no message of their own.

    {QXN_MIDIIN_OPEN, Args::DeviceText, "Error opening MIDI in device %d: %s\n"},
    {QXN_MIDIIN_START, Args::DeviceText, "Error starting MIDI in device %d: %s\n"},
    {QXN_MIDIIN_STOP, Args::DeviceText, "Error stopping MIDI in device %d: %s\n"},
    {QXN_MIDIIN_CLOSE, Args::DeviceText, "Error closing MIDI in device %d: %s\n"},
    {QXN_MIDIIN_GETCAPS, Args::DeviceText, "Error getting MIDI in caps for device %d: %s\n"},
    {QXN_MIDIIN_LOST, Args::Device, "MIDI in device %d went away\n"},

    {QXN_MIDIOUT_OPEN, Args::DeviceText, "Error opening MIDI stream device %d: %s\n"},
    {QXN_MIDIOUT_START, Args::DeviceText, "Error starting MIDI stream device %d: %s\n"},
    {QXN_MIDIOUT_PAUSE, Args::DeviceText, "Error pausing MIDI stream device %d: %s\n"},
    {QXN_MIDIOUT_STOP, Args::DeviceText, "Error stopping MIDI stream device %d: %s\n"},
    {QXN_MIDIOUT_CLOSE, Args::DeviceText, "Error closing MIDI stream device %d: %s\n"},
    {QXN_MIDIOUT_PREPARE, Args::DeviceText, "Error preparing MIDI stream buffer on device %d: %s\n"},
    {QXN_MIDIOUT_SEND, Args::DeviceText, "Error sending MIDI stream buffer on device %d: %s\n"},
    {QXN_MIDIOUT_UNPREPARE, Args::DeviceText, "Error unpreparing MIDI stream buffer on device %d: %s\n"},
    {QXN_MIDIOUT_SETTIMING, Args::DeviceText, "Error setting MIDI stream timing on device %d: %s\n"},
    {QXN_MIDIOUT_GETCAPS, Args::DeviceText, "Error getting MIDI out caps for device %d: %s\n"},
    {QXN_MIDIOUT_SHORTMSG, Args::DeviceText, "Error sending MIDI short message on device %d: %s\n"},
    {QXN_MIDIOUT_LOST, Args::Device, "MIDI out device %d went away\n"},

    {QXN_WAVEIN_OPEN, Args::DeviceText, "Error opening WAVE in device %d: %s\n"},
    {QXN_WAVEIN_START, Args::DeviceText, "Error starting WAVE in device %d: %s\n"},
    {QXN_WAVEIN_STOP, Args::DeviceText, "Error stopping WAVE in device %d: %s\n"},
    {QXN_WAVEIN_CLOSE, Args::DeviceText, "Error closing WAVE in device %d: %s\n"},
    {QXN_WAVEIN_PREPARE, Args::DeviceText, "Error preparing buffer on WAVE in device %d: %s\n"},
    {QXN_WAVEIN_ADDBUFFER, Args::DeviceText, "Error adding buffer on WAVE in device %d: %s\n"},
    {QXN_WAVEIN_UNPREPARE, Args::DeviceText, "Error unpreparing buffer on WAVE in device %d: %s\n"},
    {QXN_WAVEIN_RESET, Args::DeviceText, "Error resetting WAVE in device %d: %s\n"},
    // QXN_WAVEIN_GETCAPS has no message of its own.
    {QXN_WAVEIN_OVERRUN, Args::DeviceValue, "Overrun on WAVE in device %d: %d frames lost\n"},

    {QXN_WAVEOUT_OPEN, Args::DeviceText, "Error opening WAVE out device %d: %s\n"},
    {QXN_WAVEOUT_START, Args::DeviceText, "Error starting WAVE out device %d: %s\n"},
    {QXN_WAVEOUT_STOP, Args::DeviceText, "Error stopping WAVE out device %d: %s\n"},
    {QXN_WAVEOUT_CLOSE, Args::DeviceText, "Error closing WAVE out device %d: %s\n"},

    {QXN_FILE_OPENREAD, Args::ValueFileName, "Error (%d) opening file %s for reading\n"},
    {QXN_FILE_CLOSE, Args::ValueFileName, "Error (%d) closing file %s\n"},
    {QXN_FILE_SEEK, Args::ValueFileName, "Seek error (%d) in file %s\n"},
    {QXN_FILE_DESCEND, Args::ValueFileName, "Descend error (%d) in file %s\n"},
    {QXN_FILE_ASCEND, Args::ValueFileName, "Ascend error (%d) in file %s\n"},
    {QXN_FILE_READ, Args::ValueFileName, "Read error (%d) in file %s\n"},
    {QXN_FILE_SETBUFFER, Args::ValueFileName, "Setbuffer error (%d) in file %s\n"},
    {QXN_FILE_ADVANCE, Args::ValueFileName, "Advance error (%d) in file %s\n"},
    {QXN_FILE_CREATECHUNK, Args::ValueFileName, "Create chunk error (%d) in file %s\n"},
    {QXN_FILE_FLUSH, Args::ValueFileName, "Flush error (%d) in file %s\n"},
    {QXN_FILE_GETINFO, Args::ValueFileName, "Getinfo error (%d) in file %s\n"},
    {QXN_FILE_SETINFO, Args::ValueFileName, "Setinfo error (%d) in file %s\n"},
    {QXN_FILE_RENAME, Args::ValueFileName, "Rename error (%d) in file %s\n"},
    {QXN_FILE_WRITE, Args::ValueFileName, "Write error (%d) in file %s\n"},
    {QXN_FILE_OPENWRITE, Args::ValueFileName, "Error (%d) opening file %s for writing\n"},

    {QXN_TIMER_CREATE, Args::None, "Error creating media event timer\n"},
    {QXN_FILE_NOTFOUND, Args::FileName, "File %s does not exist\n"},
    {QXN_FILE_OUTOFMEMORY, Args::FileName, "Out of memory in file %s\n"},
    {QXN_WAVEIN_VIRTUALALLOC, Args::Device, "Error allocating virtual memory on WAVE in device %d\n"},
    {QXN_WAVEIN_VIRTUALLOCK, Args::Device, "Error locking virtual memory on WAVE in device %d\n"},
    {QXN_SERVER_LOST, Args::FileName, "The %s server went away\n"},
};

const Message* FindMessage(DWORD dwCode)
{
    for (const Message& m : kMessages)
        if (m.dwCode == dwCode) return &m;
    return nullptr;
}

struct DSErrorText {
    HRESULT hr;
    const char* pszText;
};

constexpr DSErrorText kDSErrors[] = {
    {DSERR_ALLOCATED,
     "DSERR_ALLOCATED The request failed because resources, such as a priority level, were already in use by another "
     "caller."},
    {DSERR_ALREADYINITIALIZED, "DSERR_ALREADYINITIALIZED The object is already initialized."},
    {DSERR_BADFORMAT, "DSERR_BADFORMAT The specified wave format is not supported."},
    {DSERR_BUFFERLOST, "DSERR_BUFFERLOST The buffer memory has been lost and must be restored."},
    {DSERR_CONTROLUNAVAIL,
     "DSERR_CONTROLUNAVAIL The control (volume, pan, and so forth) requested by the caller is not available."},
    {DSERR_GENERIC, "DSERR_GENERIC An undetermined error occurred inside the DirectSound subsystem."},
    {DSERR_INVALIDCALL, "DSERR_INVALIDCALL This function is not valid for the current state of this object."},
    {DSERR_INVALIDPARAM, "DSERR_INVALIDPARAM An invalid parameter was passed to the returning function."},
    {DSERR_NOAGGREGATION, "DSERR_NOAGGREGATION The object does not support aggregation."},
    {DSERR_NODRIVER, "DSERR_NODRIVER No sound driver is available for use."},
    {DSERR_OTHERAPPHASPRIO, "DSERR_OTHERAPPHASPRIO This value is obsolete and is not used."},
    {DSERR_OUTOFMEMORY,
     "DSERR_OUTOFMEMORY The DirectSound subsystem could not allocate sufficient memory to complete the caller's "
     "request."},
    {DSERR_PRIOLEVELNEEDED,
     "DSERR_PRIOLEVELNEEDED The caller does not have the priority level required for the function to succeed."},
    {DSERR_UNINITIALIZED,
     "DSERR_UNINITIALIZED The IDirectSound::Initialize method has not been called or has not been called "
     "successfully before other methods were called."},
    {DSERR_UNSUPPORTED, "DSERR_UNSUPPORTED The function called is not supported at this time."},
};

constexpr const char* kDSUnknown = "DSERROR!! Unrecognized error in Direct Sound.";

std::string VFormat(const char* pszFormat, va_list args)
{
    char buf[512];
    va_list again;
    va_copy(again, args);
    const int n = std::vsnprintf(buf, sizeof(buf), pszFormat, args);
    std::string s;
    if (n >= 0 && static_cast<size_t>(n) < sizeof(buf)) {
        s.assign(buf, static_cast<size_t>(n));
    } else if (n >= 0) {
        // Only a long file name gets here.
        s.resize(static_cast<size_t>(n));
        std::vsnprintf(s.data(), s.size() + 1, pszFormat, again);
    }
    va_end(again);
    return s;
}

// The formats come from the tables above, so they are not checked at compile time;
// a test formats every code.
std::string FormatLine(const char* pszFormat, ...)
{
    va_list args;
    va_start(args, pszFormat);
    std::string s = VFormat(pszFormat, args);
    va_end(args);
    return s;
}

// The trace sink and its user value change together, and a sink that has been
// replaced must not be called any more once QXSetTraceProc returns (its user value
// may be gone): so the sink is called with the lock held. The lock is recursive so
// that a sink may replace itself. Never destroyed, and made on first use, so that
// tracing works from static constructors and while the process exits.
std::recursive_mutex& TraceMutex()
{
    static std::recursive_mutex* s_pMutex = new std::recursive_mutex;
    return *s_pMutex;
}
QX_TraceProc g_pTraceProc = nullptr;
void* g_pTraceUser = nullptr;
thread_local bool t_bInSink = false; // a sink that traces writes to stderr, not to itself

} // namespace

void CQXNotify::SetNotificationCallback(QX_NotifyProc pCallback, DWORD_PTR dwUser)
{
    // Notify reads the callback from any thread while the application may replace it.
    std::atomic_ref<QX_NotifyProc>(m_pCallback).store(pCallback);
    std::atomic_ref<DWORD_PTR>(m_dwUser).store(dwUser);
}

void CQXNotify::Notify(DWORD dwCode, DWORD dwValue, DWORD_PTR dwDevice)
{
#ifndef NDEBUG
    std::string line;
    FormatNotification(dwCode, dwValue, dwDevice, line);
    QXTrace("%s", line.c_str());
#endif
    QX_NotifyProc pCallback = std::atomic_ref<QX_NotifyProc>(m_pCallback).load();
    if (pCallback != nullptr) pCallback(dwCode, dwValue, dwDevice);
}

void CQXNotify::FormatNotification(DWORD dwCode, DWORD dwValue, DWORD_PTR dwDevice, std::string& strText)
{
    // Starts empty, so a failed lookup prints at most what the lookup wrote.
    char text[256] = "";
    if (dwCode >= 100 && dwCode < 200)
        GetDSErrorText(static_cast<int>(dwValue), text, sizeof(text));
    else if (dwCode >= 200 && dwCode < 300)
        midiInGetErrorTextA(dwValue, text, sizeof(text));
    else if (dwCode >= 300 && dwCode < 400)
        midiOutGetErrorTextA(dwValue, text, sizeof(text));
    else if (dwCode >= 400 && dwCode < 500)
        waveInGetErrorTextA(dwValue, text, sizeof(text));
    else if (dwCode >= 500 && dwCode < 800)
        waveOutGetErrorTextA(dwValue, text, sizeof(text));

    // Every %d prints its 32-bit value signed; the device value is a number except
    // where it carries the address of a file name.
    const int nValue = static_cast<int>(dwValue);
    const int nDevice = static_cast<int>(static_cast<DWORD>(dwDevice));
    const char* pszFileName = reinterpret_cast<const char*>(dwDevice);
    if (pszFileName == nullptr) pszFileName = "";

    const Message* m = FindMessage(dwCode);
    if (m == nullptr) {
        strText = FormatLine("ERROR %d (%d %d)\n", static_cast<int>(dwCode), nValue, nDevice);
        return;
    }
    switch (m->args) {
    case Args::Value:
        strText = FormatLine(m->pszFormat, nValue);
        break;
    case Args::DeviceText:
        strText = FormatLine(m->pszFormat, nDevice, text);
        break;
    case Args::ValueFileName:
        strText = FormatLine(m->pszFormat, nValue, pszFileName);
        break;
    case Args::FileName:
        strText = FormatLine(m->pszFormat, pszFileName);
        break;
    case Args::Device:
        strText = FormatLine(m->pszFormat, nDevice);
        break;
    case Args::DeviceValue:
        strText = FormatLine(m->pszFormat, nDevice, nValue);
        break;
    case Args::None:
        strText = m->pszFormat;
        break;
    }
}

void CQXNotify::GetDSErrorText(int nResult, char* pBuffer, int nSize)
{
    if (pBuffer == nullptr || nSize < 1) return;
    const char* pszText = kDSUnknown;
    for (const DSErrorText& e : kDSErrors)
        if (e.hr == nResult) {
            pszText = e.pszText;
            break;
        }
    size_t n = std::strlen(pszText);
    if (n > static_cast<size_t>(nSize) - 1) n = static_cast<size_t>(nSize) - 1;
    std::memcpy(pBuffer, pszText, n);
    pBuffer[n] = '\0';
}

void QXSetTraceProc(QX_TraceProc pProc, void* pUser)
{
    std::lock_guard<std::recursive_mutex> lock(TraceMutex());
    g_pTraceProc = pProc;
    g_pTraceUser = pUser;
}

void QXTrace(const char* pszFormat, ...)
{
    if (pszFormat == nullptr) return;
    va_list args;
    va_start(args, pszFormat);
    const std::string line = VFormat(pszFormat, args);
    va_end(args);

    std::lock_guard<std::recursive_mutex> lock(TraceMutex());
    if (g_pTraceProc == nullptr || t_bInSink) {
        std::fputs(line.c_str(), stderr);
        return;
    }
    struct InSink {
        InSink() { t_bInSink = true; }
        ~InSink() { t_bInSink = false; }
    } inSink;
    g_pTraceProc(line.c_str(), g_pTraceUser);
}

namespace {

std::atomic<CQXNotify*> g_pSharedNotify{nullptr};
// Reports in progress through the shared object, and this thread's own among them: the
// owner of an object taken out of use waits for the others before it goes.
std::atomic<int> g_nSharedUsers{0};
thread_local int t_nSharedUses = 0;

// A backend's own reports (a server or a peer that went away) reach the application
// like any other, on the backend's thread.
void OnBackendEvent(qxplat::BackendEvent event, int nDevice, const char* pszServer)
{
    switch (event) {
    case qxplat::BackendEvent::ServerLost:
        QXNotifyShared(QXN_SERVER_LOST, 0, reinterpret_cast<DWORD_PTR>(pszServer));
        break;
    case qxplat::BackendEvent::MidiInLost:
        QXNotifyShared(QXN_MIDIIN_LOST, 0, static_cast<DWORD_PTR>(nDevice));
        break;
    case qxplat::BackendEvent::MidiOutLost:
        QXNotifyShared(QXN_MIDIOUT_LOST, 0, static_cast<DWORD_PTR>(nDevice));
        break;
    }
}

[[maybe_unused]] const bool g_bBackendEventsHooked = (qxplat::SetBackendEventProc(OnBackendEvent), true);

CQXNotify& ProcessNotify()
{
    static CQXNotify* s_pNotify = new CQXNotify; // reachable from threads during exit
    return *s_pNotify;
}

} // namespace

void QXSetSharedNotify(CQXNotify* pNotify)
{
    g_pSharedNotify.store(pNotify);
    if (pNotify != nullptr) return;
    while (g_nSharedUsers.load() > t_nSharedUses) std::this_thread::yield();
}

CQXNotify* QXGetSharedNotify()
{
    CQXNotify* p = g_pSharedNotify.load();
    return p != nullptr ? p : &ProcessNotify();
}

void QXNotifyShared(DWORD dwCode, DWORD dwValue, DWORD_PTR dwDevice)
{
    g_nSharedUsers.fetch_add(1);
    ++t_nSharedUses;
    QXGetSharedNotify()->Notify(dwCode, dwValue, dwDevice);
    --t_nSharedUses;
    g_nSharedUsers.fetch_sub(1);
}
