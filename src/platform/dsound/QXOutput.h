// An audio output of the backend as the process uses it: one sink and the one mixer that
// feeds it, shared by every DirectSound device object opened on that output and by the
// synth, so that all of them play on one sample clock.
//
// Sharing: Acquire and Release count users under the registry's lock; the last Release
// stops the mixer thread and the sink and frees the output, still under that lock, so
// that the next Acquire of the number opens the sink only once the old one has closed.
// Lock order: the registry's lock, then the output's own, then the mixer's locks (the
// mixer thread takes neither of the first two).
#ifndef QUAVIX_PLATFORM_DSOUND_QXOUTPUT_H
#define QUAVIX_PLATFORM_DSOUND_QXOUTPUT_H

#include "platform/dsound/QXMixer.h"

#include <memory>
#include <mutex>

namespace qxplat {

class AudioOutPort;

namespace ds {

class Output {
public:
    // Backend output n, opened when nobody uses it; null when it cannot be opened.
    static Output* Acquire(int n);
    // An output of its own without a sink, rendered by the caller.
    static Output* Offline(DWORD dwRate, Resampler resampler);
    // Each Acquire (or Offline) is matched by one Release.
    void Release();

    Mixer& Mix() { return m_mixer; }
    const AudioOutPort* Port() const { return m_port.get(); }
    // The sink and the mixer thread start with the first user that needs sound and run
    // until the last Release. bPrimary: the user starts a primary buffer (a virtual
    // output's capture begins).
    void Activate(bool bPrimary);

private:
    Output(int n, DWORD dwRate, Resampler resampler, std::unique_ptr<AudioOutPort> port);
    ~Output();

    const int m_n; // -1 offline
    int m_users = 1; // under the registry's lock
    std::unique_ptr<AudioOutPort> m_port;
    Mixer m_mixer;
    std::mutex m_lock; // Activate
};

} // namespace ds
} // namespace qxplat

#endif // QUAVIX_PLATFORM_DSOUND_QXOUTPUT_H
