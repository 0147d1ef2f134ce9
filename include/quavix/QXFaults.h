// Fault injection, for an application's own tests: the Nth next call of a named platform
// operation fails with a result of the test's choosing, so that every failure path of
// the library (and the application's handling of its reports) can be provoked.
#ifndef QUAVIX_QXFAULTS_H
#define QUAVIX_QXFAULTS_H

#include <quavix/QXExport.h>
#include <quavix/QXWinTypes.h>

// Arms one failure: the nCall-th call from now (1 = the next) of pszOperation (its
// platform name, e.g. "timeSetEvent") fails with dwResult. Several may be armed.
QUAVIX_API void QXFaultInject(const char* pszOperation, DWORD dwResult, int nCall = 1);
QUAVIX_API void QXFaultClear();

#endif // QUAVIX_QXFAULTS_H
