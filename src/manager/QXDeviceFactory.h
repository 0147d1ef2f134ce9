// Lets tests give the manager device objects of their own making, so that registry and
// transport can be checked against devices whose hooks they control.
#ifndef QUAVIX_MANAGER_QXDEVICEFACTORY_H
#define QUAVIX_MANAGER_QXDEVICEFACTORY_H

class CQXDevice;

typedef CQXDevice* (*QX_DeviceFactory)(int nType, int nDir);

// Null restores the library's own device classes.
void QXSetDeviceFactory(QX_DeviceFactory pFactory);

#endif // QUAVIX_MANAGER_QXDEVICEFACTORY_H
