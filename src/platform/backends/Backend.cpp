// Chooses the process's backend from QUAVIX_BACKEND: a named backend is used whether or
// not it finds devices (then it reports none); "auto" takes JACK when a server answers,
// else ALSA when it finds a device, else the virtual backend.
#include "platform/backends/QXBackend.h"
#include "platform/backends/virtual/QXVirtual.h"
#ifdef QUAVIX_HAVE_JACK
#include "platform/backends/jack/QXJack.h"
#endif
#ifdef QUAVIX_HAVE_ALSA
#include "platform/backends/alsa/QXAlsa.h"
#endif

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace qxplat {

int64_t NowNs()
{
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

namespace {

[[maybe_unused]] Backend& Unavailable(const char* name)
{
    std::fprintf(stderr, "quavix: backend \"%s\" is not built in; using the virtual backend\n", name);
    return VirtualBackend();
}

Backend& Choose()
{
    const char* want = std::getenv("QUAVIX_BACKEND");
    if (want != nullptr && std::strcmp(want, "virtual") == 0) return VirtualBackend();
    if (want != nullptr && std::strcmp(want, "jack") == 0) {
#ifdef QUAVIX_HAVE_JACK
        if (JackBackendIfAvailable() == nullptr)
            std::fprintf(stderr, "quavix: no JACK server answers; the jack backend has no devices\n");
        return JackBackendAlways();
#else
        return Unavailable(want);
#endif
    }
    if (want != nullptr && std::strcmp(want, "alsa") == 0) {
#ifdef QUAVIX_HAVE_ALSA
        if (AlsaBackendIfDevices() == nullptr)
            std::fprintf(stderr, "quavix: the ALSA sequencer offers no MIDI device\n");
        return AlsaBackendAlways();
#else
        return Unavailable(want);
#endif
    }
    if (want != nullptr && *want != '\0' && std::strcmp(want, "auto") != 0)
        std::fprintf(stderr, "quavix: unknown backend \"%s\"; choosing automatically\n", want);
#ifdef QUAVIX_HAVE_JACK
    if (Backend* jack = JackBackendIfAvailable()) return *jack;
#endif
#ifdef QUAVIX_HAVE_ALSA
    if (Backend* alsa = AlsaBackendIfDevices()) return *alsa;
#endif
    return VirtualBackend();
}

} // namespace

Backend& CurrentBackend()
{
    static Backend& backend = Choose();
    return backend;
}

const char* SelectedBackendName()
{
    return CurrentBackend().Name();
}

} // namespace qxplat
