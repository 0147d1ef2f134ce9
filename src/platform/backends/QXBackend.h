// A device backend: what the platform's MIDI and audio services run on. One backend is
// chosen per process (QUAVIX_BACKEND = virtual | jack | alsa | auto) on first use.
#ifndef QUAVIX_PLATFORM_BACKENDS_QXBACKEND_H
#define QUAVIX_PLATFORM_BACKENDS_QXBACKEND_H

#include <quavix/QXWinTypes.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace qxplat {

enum class DeviceKind { MidiIn = 0, MidiOut = 1, WaveIn = 2, WaveOut = 3 };

// The platform's clock for due times and time stamps: steady, in nanoseconds.
int64_t NowNs();

// An open MIDI output. Messages are whole (a short message or a complete SysEx) and are
// handed over in the order of their due times; delivering each at its due time is the
// backend's job. Send may be called from several threads.
class MidiOutPort {
public:
    virtual ~MidiOutPort() = default;
    // A due time already past means at once.
    virtual MMRESULT Send(const BYTE* pData, size_t cb, int64_t dueNs) = 0;
    // How long before its due time a message is to be handed over (0: at the due time).
    virtual int64_t LeadNs() const { return 0; }
    // Drops what was handed over and not yet emitted.
    virtual void Cancel() {}
    // False once the device behind it has gone (a server that went away).
    virtual bool Alive() const { return true; }
};

// Receives what an open MIDI input delivers, in the backend's callback context.
class MidiInSink {
public:
    virtual ~MidiInSink() = default;
    virtual void OnMidiData(const BYTE* pData, size_t cb, int64_t timeNs) = 0;
};

// An open MIDI input; it delivers to its sink until destroyed, and not after.
class MidiInPort {
public:
    virtual ~MidiInPort() = default;
};

class Backend {
public:
    virtual ~Backend() = default;
    virtual const char* Name() const = 0;
    virtual int Count(DeviceKind kind) = 0;
    // Name of device n of a kind; empty when there is no such device.
    virtual std::string DeviceName(DeviceKind kind, int n) = 0;
    virtual MMRESULT OpenMidiOut(int n, std::unique_ptr<MidiOutPort>& port) = 0;
    virtual MMRESULT OpenMidiIn(int n, MidiInSink* pSink, std::unique_ptr<MidiInPort>& port) = 0;
};

// The process's backend, chosen on first use.
Backend& CurrentBackend();
// Which backend QUAVIX_BACKEND (or "auto") resolves to on this machine.
const char* SelectedBackendName();

} // namespace qxplat

#endif // QUAVIX_PLATFORM_BACKENDS_QXBACKEND_H
