#ifndef KEST_INTERFACE_CONDITION_H
#define KEST_INTERFACE_CONDITION_H

/// @file
/// Interface::TCondition, the abstract class of System::TCondition.

#include <kest/export.h>

namespace Kest::System::Interface {

/// A condition variable over locks of class @p TGuard.
template <class TGuard>
class KEST_EXPORT TCondition {
public:
    /// Releases @p guard, waits until woken, and holds it again.
    /// Requires: the calling thread holds @p guard.
    virtual void Wait(TGuard& guard) = 0;

    /// Releases @p guard, waits until woken, for at most @p timeout seconds, and holds it again. False when the time ran out.
    /// Requires: the calling thread holds @p guard.
    virtual bool Wait(TGuard& guard, const double& timeout) = 0;

    virtual void Signal() = 0;    ///< wakes at most one waiting thread
    virtual void Broadcast() = 0; ///< wakes every waiting thread

    virtual ~TCondition() = default;

protected:
    TCondition() = default;
    TCondition(const TCondition&) = default;
    TCondition& operator=(const TCondition&) = default;
};

} // namespace Kest::System::Interface

#endif
