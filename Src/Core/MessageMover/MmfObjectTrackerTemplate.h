// Not public API. Tracking of objects handed to a user, with a leak report of those not given
// back.
#ifndef VOK_SRC_CORE_MESSAGEMOVER_MMFOBJECTTRACKERTEMPLATE_H
#define VOK_SRC_CORE_MESSAGEMOVER_MMFOBJECTTRACKERTEMPLATE_H

#include <functional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "Src/Core/MessageMover/MmfTrace.h"
#include "vok/Mutex.h"

namespace vok {

// The set of objects of one kind that a container (an interface, the framework) has handed out
// and not got back. Any thread may use it. It never owns or frees the objects: destroying the
// tracker forgets them; ReportLeaks lists them on the leak log.
template <typename T_>
class MmfObjectTrackerT {
  private:
    // Orders tracked objects by address and finds them by a pointer to one of their bases: the
    // tracked (live) object is converted to the base, the searched pointer is left alone.
    struct ByAddress {
        typedef void is_transparent;
        bool operator()(const T_* a, const T_* b) const { return std::less<const T_*>()(a, b); }
        template <typename P>
        bool operator()(const T_* a, const P* b) const {
            return std::less<const P*>()(a, b);
        }
        template <typename P>
        bool operator()(const P* a, const T_* b) const {
            return std::less<const P*>()(a, b);
        }
    };
    typedef std::set<T_*, ByAddress> TrackedSet;

  public:
    // An object taken out of the tracker with its place in the set, so that Restore can put it
    // back without allocating.
    typedef typename TrackedSet::node_type Slot;

    // Describes an object for the leak report.
    typedef std::string (*InfoFunction)(const T_& object);

    MmfObjectTrackerT(const std::string& containerName, const std::string& kindName,
                      InfoFunction info)
        : containerName_(containerName), kindName_(kindName), info_(info) {}

    // Throws when obj is already tracked.
    void Track(T_* obj) {
        MMF_TRACE(this);
        MutexLocker lock(mutex_);
        gMmfLogger.Debug("Tracking obj %s ptr=<%p>.", kindName_.c_str(),
                         static_cast<const void*>(obj));
        if (!tracked_.insert(obj).second) {
            MMF_THROW("set::insert failed - object with same pointer is already in the set.");
        }
    }

    // Logs a critical line and throws when obj is not tracked (never handed out, or given back
    // already). obj may point at T_ or at a base of T_; it is only compared, never followed, so
    // a pointer to an object destroyed already is refused safely.
    template <typename P>
    void Untrack(const P* obj) {
        (void)Take(obj);
    }

    // Untrack, keeping obj's place for Restore.
    template <typename P>
    Slot Take(const P* obj) {
        MMF_TRACE(this);
        MutexLocker lock(mutex_);
        gMmfLogger.Debug("Untracking obj %s ptr=<%p>.", kindName_.c_str(),
                         static_cast<const void*>(obj));
        const typename TrackedSet::iterator it = tracked_.find(obj);
        if (it == tracked_.end()) {
            gMmfLogger.Critical(
                "%s obj not in tracked set; ptr=<%p> - probably attempting to free an invalid or "
                "previously-freed object.",
                kindName_.c_str(), static_cast<const void*>(obj));
            MMF_THROW(
                "set::erase failed; obj not in tracked set;probably attempting to free an invalid "
                "or previously-freed object.");
        }
        return tracked_.extract(it);
    }

    // Tracks again what Take took; allocates nothing.
    void Restore(Slot&& slot) {
        MutexLocker lock(mutex_);
        tracked_.insert(std::move(slot));
    }

    // One warning line per tracked object, in pointer order, then a summary; nothing when empty.
    void ReportLeaks() {
        MMF_TRACE(this);
        TrackedSet leaked;
        {
            MutexLocker lock(mutex_);
            leaked = tracked_;
        }
        const Logger& leakLogger = MmfDiag::GetLeakLogger();
        for (const T_* obj : leaked) {
            leakLogger.Warning("%s: Leaked %s <%s>; ptr=<%p>.", __func__, kindName_.c_str(),
                               info_(*obj).c_str(), static_cast<const void*>(obj));
        }
        if (!leaked.empty()) {
            leakLogger.Warning("%s: Summary: %ld %s objects in %s were leaked.", __func__,
                               static_cast<long>(leaked.size()), kindName_.c_str(),
                               containerName_.c_str());
        }
    }

    // Every tracked object, in pointer order; nothing is tracked afterwards.
    std::vector<T_*> TakeAll() {
        MMF_TRACE(this);
        MutexLocker lock(mutex_);
        std::vector<T_*> taken(tracked_.begin(), tracked_.end());
        tracked_.clear();
        return taken;
    }

  private:
    const std::string containerName_;
    const std::string kindName_;
    const InfoFunction info_;
    Mutex mutex_;  // Protects tracked_.
    TrackedSet tracked_;
};

}  // namespace vok

#endif  // VOK_SRC_CORE_MESSAGEMOVER_MMFOBJECTTRACKERTEMPLATE_H
