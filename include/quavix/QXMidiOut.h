// A MIDI output played as a stream: timed periods from the performance engine,
// immediate messages and notes, and the clock of the engine when it is the timing device.
#ifndef QUAVIX_QXMIDIOUT_H
#define QUAVIX_QXMIDIOUT_H

#include <quavix/QXExport.h>

#include <quavix/QXDevice.h>

#include <atomic>
#include <vector>

class QUAVIX_API CMidiOut : public CQXDevice {
public:
    CMidiOut();
    ~CMidiOut() override;

    static int GetDeviceCaps(int nDevice, QX_DevCaps* pCaps);

    int PlayData(CQXEventList* pEvents, DWORD dwStart, DWORD dwEnd) override;
    int PlayMidi(DWORD dwMsg);
    int PlayNote(DWORD dwMsg, DWORD dwDuration);
    int PlaySysEx(const BYTE* pData, int nLength);

protected:
    int DevOpen() override;
    int DevStart() override;
    int DevPause() override;
    int DevStop() override;
    int DevClose() override;
    LRESULT WndProc(UINT uMsg, WPARAM wParam, LPARAM lParam) override;

    int PlayBuffer(MIDIHDR* pHeader);
    void FinishBuffer(MIDIHDR* pHeader);
    void TurnOffNotes();
    LRESULT OnMidiOutOpen(WPARAM wParam, LPARAM lParam);
    LRESULT OnMidiOutClose(WPARAM wParam, LPARAM lParam);
    LRESULT OnMidiOutDone(WPARAM wParam, LPARAM lParam);
    LRESULT OnMidiOutPosition(WPARAM wParam, LPARAM lParam);

    static void CALLBACK _MidiOutProc(HMIDIOUT hMidiOut, UINT uMsg, DWORD_PTR dwInstance, DWORD_PTR dwParam1,
                                      DWORD_PTR dwParam2);
    static void CALLBACK _NoteTimerFunc(UINT uTimerID, UINT uMsg, DWORD_PTR dwUser, DWORD_PTR dw1, DWORD_PTR dw2);

    static const UINT STREAM_READY = 0x1;
    static const UINT STREAM_RUNNING = 0x2;
    // Set and cleared by the transport on the caller's thread, read by PlayData on the
    // polling thread.
    std::atomic<UINT> m_dwStreamFlags{0};
    std::atomic<int> m_nBuffersOut{0};
    HANDLE m_hBuffersDone = nullptr;
    UINT m_uNoteTimerID = 0;
    std::vector<DWORD> m_PendingNotes;
    CRITICAL_SECTION m_csNotes{};
};

#endif // QUAVIX_QXMIDIOUT_H
