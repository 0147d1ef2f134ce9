// Fault injection: a test makes the Nth next call of a named platform operation fail
// with a result of its choosing, so that every failure path above can be provoked.
#ifndef QUAVIX_PLATFORM_QXFAULTS_H
#define QUAVIX_PLATFORM_QXFAULTS_H

#include <quavix/QXWinTypes.h>

// Arms one failure: the nCall-th call from now (1 = the next) of pszOperation (its
// platform name, e.g. "timeSetEvent") fails with dwResult. Several may be armed.
void QXFaultInject(const char* pszOperation, DWORD dwResult, int nCall = 1);
void QXFaultClear();
// Called by the platform operations themselves: true when this call is to fail.
bool QXFaultCheck(const char* pszOperation, DWORD* pdwResult);

#endif // QUAVIX_PLATFORM_QXFAULTS_H
