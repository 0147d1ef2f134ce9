// The handle table shared by the platform's kernel objects, for the other services of
// this folder and for tests that check that nothing is left behind.
#ifndef QUAVIX_PLATFORM_QXKERNEL_H
#define QUAVIX_PLATFORM_QXKERNEL_H

#include <quavix/QXWinTypes.h>

#include <cstddef>
#include <memory>

namespace qxplat {

struct KernelObject {
    virtual ~KernelObject();
};

HANDLE InsertObject(std::shared_ptr<KernelObject> obj);
std::shared_ptr<KernelObject> Lookup(HANDLE h);
// Open kernel handles (events, threads) of the whole process.
size_t LiveHandleCount();
DWORD CurrentThreadId();

} // namespace qxplat

#endif // QUAVIX_PLATFORM_QXKERNEL_H
