// The library's reporting service: notification codes, their messages, and the
// application's notification callback.
#ifndef QUAVIX_QXNOTIFY_H
#define QUAVIX_QXNOTIFY_H

#include <quavix/QXExport.h>

#include <quavix/QXWinTypes.h>

#include <string>

// Manager status
#define QXN_POLLED_PERF_DONE 1
#define QXN_POLLED_PERF_STOPPED 2
#define QXN_MIDI_RECORDING_STOPPED 3
#define QXN_WAVE_RECORDING_STOPPED 4
// DirectSound
#define QXN_DS_CREATE 100
#define QXN_DS_SETCOOPLEVEL 101
#define QXN_DS_CREATEBUFFER 102
#define QXN_DS_START 103
#define QXN_DS_STOP 104
#define QXN_DS_SETFORMAT 105
#define QXN_DS_GETFORMAT 106
#define QXN_DS_COMPACT 107
#define QXN_DS_DUPLICATE 108
#define QXN_DS_GETCAPS 109
#define QXN_DS_GETSPEAKERCONFIG 110
#define QXN_DS_SETSPEAKERCONFIG 111
#define QXN_DS_GETFREQUENCY 112
#define QXN_DS_SETFREQUENCY 113
#define QXN_DS_GETPAN 114
#define QXN_DS_SETPAN 115
#define QXN_DS_GETVOLUME 116
#define QXN_DS_SETVOLUME 117
#define QXN_DS_GETPOSITION 118
#define QXN_DS_SETPOSITION 119
#define QXN_DS_GETSTATUS 120
#define QXN_DS_LOCK 121
#define QXN_DS_UNLOCK 122
#define QXN_DS_QUERYNOTIFY 123
#define QXN_DS_SETNOTIFYPOSITIONS 124
// MIDI input
#define QXN_MIDIIN_OPEN 200
#define QXN_MIDIIN_START 201
#define QXN_MIDIIN_STOP 202
#define QXN_MIDIIN_CLOSE 203
#define QXN_MIDIIN_GETCAPS 204
#define QXN_MIDIIN_LOST 205 // the client or port that fed an open input went away
// MIDI stream output
#define QXN_MIDIOUT_OPEN 300
#define QXN_MIDIOUT_START 301
#define QXN_MIDIOUT_PAUSE 302
#define QXN_MIDIOUT_STOP 303
#define QXN_MIDIOUT_CLOSE 304
#define QXN_MIDIOUT_PREPARE 305
#define QXN_MIDIOUT_SEND 306
#define QXN_MIDIOUT_UNPREPARE 307
#define QXN_MIDIOUT_SETTIMING 308
#define QXN_MIDIOUT_GETCAPS 309
#define QXN_MIDIOUT_SHORTMSG 310
#define QXN_MIDIOUT_LOST 311 // the client or port an open output fed went away
// Wave input
#define QXN_WAVEIN_OPEN 400
#define QXN_WAVEIN_START 401
#define QXN_WAVEIN_STOP 402
#define QXN_WAVEIN_CLOSE 403
#define QXN_WAVEIN_PREPARE 404
#define QXN_WAVEIN_ADDBUFFER 405
#define QXN_WAVEIN_UNPREPARE 406
#define QXN_WAVEIN_RESET 407
#define QXN_WAVEIN_GETCAPS 408
// Recorded data was lost: the device's own buffer overran while the input came late.
// The value is the number of sample frames lost.
#define QXN_WAVEIN_OVERRUN 409
// Wave output through the waveOut service
#define QXN_WAVEOUT_OPEN 500
#define QXN_WAVEOUT_START 501
#define QXN_WAVEOUT_STOP 502
#define QXN_WAVEOUT_CLOSE 503
// RIFF file access: the device value carries the address of the file name
#define QXN_FILE_OPENREAD 600
#define QXN_FILE_CLOSE 601
#define QXN_FILE_SEEK 602
#define QXN_FILE_DESCEND 603
#define QXN_FILE_ASCEND 604
#define QXN_FILE_READ 605
#define QXN_FILE_SETBUFFER 606
#define QXN_FILE_ADVANCE 607
#define QXN_FILE_CREATECHUNK 608
#define QXN_FILE_FLUSH 609
#define QXN_FILE_GETINFO 610
#define QXN_FILE_SETINFO 611
#define QXN_FILE_RENAME 612
#define QXN_FILE_WRITE 613
#define QXN_FILE_OPENWRITE 614
// Other resources
#define QXN_TIMER_CREATE 800
#define QXN_FILE_NOTFOUND 801
#define QXN_FILE_OUTOFMEMORY 802
#define QXN_WAVEIN_VIRTUALALLOC 803
#define QXN_WAVEIN_VIRTUALLOCK 804
// The device server (JACK) went away: every open device is dead. The device value
// carries the address of the server's name.
#define QXN_SERVER_LOST 805

// Called with the three values of every report, from whichever thread reports.
typedef void (*QX_NotifyProc)(DWORD dwCode, DWORD dwValue, DWORD_PTR dwDevice);

class QUAVIX_API CQXNotify {
public:
    CQXNotify() = default;
    ~CQXNotify() = default;
    CQXNotify& operator=(const CQXNotify& src) = default;

    void SetNotificationCallback(QX_NotifyProc pCallback, DWORD_PTR dwUser);
    QX_NotifyProc GetNotificationCallback() const { return m_pCallback; }
    DWORD_PTR GetNotificationUser() const { return m_dwUser; }

    // Reports one event: the callback (when set) and, in debug builds, the trace line.
    void Notify(DWORD dwCode, DWORD dwValue, DWORD_PTR dwDevice);

    // The line Notify traces, for applications that show reports themselves.
    static void FormatNotification(DWORD dwCode, DWORD dwValue, DWORD_PTR dwDevice, std::string& strText);
    static void GetDSErrorText(int nResult, char* pBuffer, int nSize);

private:
    QX_NotifyProc m_pCallback = nullptr;
    DWORD_PTR m_dwUser = 0;
};

// Where the library's devices report: the shared manager's service while a manager
// exists (it registers itself with QXSetSharedNotify), else a process-wide one, so
// that devices used without a manager (wave files, for one) still report. Setting null
// returns once reports under way on other threads are done with the object set before.
QUAVIX_API void QXSetSharedNotify(CQXNotify* pNotify);
QUAVIX_API CQXNotify* QXGetSharedNotify();
QUAVIX_API void QXNotifyShared(DWORD dwCode, DWORD dwValue, DWORD_PTR dwDevice);

// The diagnostic trace. Debug builds write Notify's lines and the library's own trace
// lines to it; release builds write nothing. Lines go to stderr unless redirected.
// QXTrace itself writes whenever it is called: the library's calls to it are the ones
// compiled out of release builds (#ifndef NDEBUG).
// The sink is called one line at a time under the trace's lock, so it never runs
// after QXSetTraceProc has replaced it; it must not wait for another thread that
// traces. Lines that the sink traces itself go to stderr. A null sink means stderr.
typedef void (*QX_TraceProc)(const char* pszLine, void* pUser);
QUAVIX_API void QXSetTraceProc(QX_TraceProc pProc, void* pUser);
QUAVIX_API void QXTrace(const char* pszFormat, ...) __attribute__((format(printf, 1, 2)));

#endif // QUAVIX_QXNOTIFY_H
