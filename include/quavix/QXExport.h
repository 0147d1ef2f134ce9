// What libquavix.so exports: the library is built with hidden visibility, and only
// what is marked QUAVIX_API is part of its interface.
#ifndef QUAVIX_QXEXPORT_H
#define QUAVIX_QXEXPORT_H

#if defined(__GNUC__) || defined(__clang__)
#define QUAVIX_API __attribute__((visibility("default")))
#else
#define QUAVIX_API
#endif

#endif // QUAVIX_QXEXPORT_H
