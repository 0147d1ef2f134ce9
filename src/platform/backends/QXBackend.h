// A device backend: what the platform's MIDI and audio services run on. One backend is
// chosen per process (QUAVIX_BACKEND = virtual | jack | alsa | auto) on first use.
#ifndef QUAVIX_PLATFORM_BACKENDS_QXBACKEND_H
#define QUAVIX_PLATFORM_BACKENDS_QXBACKEND_H

#include <quavix/QXWinTypes.h>

#include <string>

namespace qxplat {

enum class DeviceKind { MidiIn = 0, MidiOut = 1, WaveIn = 2, WaveOut = 3 };

class Backend {
public:
    virtual ~Backend() = default;
    virtual const char* Name() const = 0;
    virtual int Count(DeviceKind kind) = 0;
    // Name of device n of a kind; empty when there is no such device.
    virtual std::string DeviceName(DeviceKind kind, int n) = 0;
};

// The process's backend, chosen on first use.
Backend& CurrentBackend();
// Which backend QUAVIX_BACKEND (or "auto") resolves to on this machine.
const char* SelectedBackendName();

} // namespace qxplat

#endif // QUAVIX_PLATFORM_BACKENDS_QXBACKEND_H
