// The walks over devices and performances that several of the manager's files share.
#ifndef QUAVIX_MANAGER_QXMANAGERWALK_H
#define QUAVIX_MANAGER_QXMANAGERWALK_H

#include <quavix/QXQuavix.h>

// MIDI inputs, MIDI outputs, wave inputs, wave outputs; each in ascending number.
template <class Fn>
void CQuavix::_ForEachDevice(Fn fn)
{
    for (int nType = 0; nType < 2; ++nType)
        for (int nDir = 0; nDir < 2; ++nDir)
            for (int n = 0; n < m_nDeviceCount[nType][nDir]; ++n) fn(nType, nDir, n);
}

// Calls fn for every performance that was registered when the walk began and has not
// ended since, with the device lock held. A callback may start or stop performances
// (its own or others) meanwhile: stopped records are only marked during a walk and
// removed when the outermost walk is over, so the walk never steps on a freed node.
template <class Fn>
void CQuavix::_WalkPerformances(Fn fn)
{
    ++m_nWalkDepth;
    POSITION last = m_Performances.GetTailPosition();
    for (POSITION pos = m_Performances.GetHeadPosition(); pos != nullptr;) {
        POSITION here = pos;
        QX_PerformanceRec* pRec = m_Performances.GetNext(pos);
        if (!pRec->bEnded) fn(pRec);
        if (here == last) break;
    }
    if (--m_nWalkDepth == 0) _RemoveEndedPerformances();
}

#endif // QUAVIX_MANAGER_QXMANAGERWALK_H
