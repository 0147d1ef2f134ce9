// A MIDI input: records channel messages, echoes them to the MIDI thru output, and in
// slave mode turns the external clock and transport into the manager's sync messages.
#ifndef QUAVIX_QXMIDIIN_H
#define QUAVIX_QXMIDIIN_H

#include <quavix/QXExport.h>

#include <quavix/QXDevice.h>

#include <atomic>

class QUAVIX_API CMidiIn : public CQXDevice {
public:
    CMidiIn() = default;
    ~CMidiIn() override;

    static int GetDeviceCaps(int nDevice, QX_DevCaps* pCaps);

protected:
    int DevOpen() override;
    int DevStart() override;
    int DevPause() override;
    int DevStop() override;
    int DevClose() override;
    LRESULT WndProc(UINT uMsg, WPARAM wParam, LPARAM lParam) override;

    LRESULT OnMidiInOpen(WPARAM wParam, LPARAM lParam);
    LRESULT OnMidiInClose(WPARAM wParam, LPARAM lParam);
    LRESULT OnMidiInData(WPARAM wParam, LPARAM lParam);
    LRESULT OnMidiInLongError(WPARAM wParam, LPARAM lParam);

    static void CALLBACK _MidiInProc(HMIDIIN hMidiIn, UINT uMsg, DWORD_PTR dwInstance, DWORD_PTR dwParam1,
                                     DWORD_PTR dwParam2);

    // The transport message waiting for the next clock: 0 none, 1 Start, 2 Continue.
    std::atomic<int> m_nPendingTransport{0};
};

#endif // QUAVIX_QXMIDIIN_H
