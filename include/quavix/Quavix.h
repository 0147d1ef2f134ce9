// Umbrella header of the Quavix library.
#ifndef QUAVIX_QUAVIX_H
#define QUAVIX_QUAVIX_H

#include <quavix/QXVersion.h>
#include <quavix/QXWinTypes.h>
#include <quavix/QXRecords.h>
#include <quavix/QXEventData.h>
#include <quavix/QXNotify.h>
#include <quavix/QXDevice.h>
#include <quavix/QXQuavix.h>
#include <quavix/QXMidiStreamBuffer.h>
#include <quavix/QXMidiIn.h>
#include <quavix/QXMidiOut.h>
#include <quavix/QXPlayerRegistry.h>
#include <quavix/QXWaveFile.h>
#include <quavix/QXWaveIn.h>
#include <quavix/QXWaveOut.h>
#include <quavix/QXWavePlay.h>
#include <quavix/QXFaults.h>
#include <quavix/QXClock.h>

#endif // QUAVIX_QUAVIX_H
