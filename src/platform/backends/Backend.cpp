// Chooses the process's backend. Only the virtual backend is built so far; naming
// another one falls back to it with a warning, so that a program still runs.
#include "platform/backends/QXBackend.h"
#include "platform/backends/virtual/QXVirtual.h"

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

Backend& Choose()
{
    const char* want = std::getenv("QUAVIX_BACKEND");
    if (want == nullptr || *want == '\0' || std::strcmp(want, "auto") == 0 || std::strcmp(want, "virtual") == 0)
        return VirtualBackend();
    std::fprintf(stderr, "quavix: backend \"%s\" is not available; using the virtual backend\n", want);
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
