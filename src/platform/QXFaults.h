// Fault injection: a test makes the Nth next call of a named platform operation fail
// with a result of its choosing, so that every failure path above can be provoked.
#ifndef QUAVIX_PLATFORM_QXFAULTS_H
#define QUAVIX_PLATFORM_QXFAULTS_H

#include <quavix/QXFaults.h> // QXFaultInject, QXFaultClear
// Called by the platform operations themselves: true when this call is to fail.
bool QXFaultCheck(const char* pszOperation, DWORD* pdwResult);

#endif // QUAVIX_PLATFORM_QXFAULTS_H
