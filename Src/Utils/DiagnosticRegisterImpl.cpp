#include "Src/Utils/DiagnosticRegisterImpl.h"

#include <cassert>
#include <memory>

#include "Src/Utils/VokThrow.h"

namespace vok {

namespace {

const char kRegisterPathPrefix[] = "root.";

template <typename Group, typename Map, typename Snapshot>
Group* QueryGroupLocked(const Map& map, const std::string& prefix, Snapshot snapshot) {
    std::unique_ptr<Group> result(new Group);
    for (typename Map::const_iterator it = map.lower_bound(prefix); it != map.end(); ++it) {
        if (it->first.compare(0, prefix.size(), prefix) != 0) {
            break;  // The map is ordered: no later path has the prefix either.
        }
        result->push_back(std::make_pair(it->first, snapshot(it->second)));
    }
    return result->empty() ? nullptr : result.release();
}

}  // namespace

void validateRegisterPath(const std::string& path) {
    if (path.compare(0, sizeof kRegisterPathPrefix - 1, kRegisterPathPrefix) != 0) {
        const std::string text =
            std::string("diagReg path begins with invalid prefix. Expected <") +
            kRegisterPathPrefix + ">, but actual path is: <" + path + ">";
        VOK_THROW_PROGRAM_ERROR(kVokErrBadArg, text.c_str());
    }
}

void DiagRegPruneAtAndBelow(DiagnosticRegisterLongevity level) {
    DiagnosticRegisterTable::GetInstance().PruneAtAndBelow(level);
}

// ---- Masters ----

DiagnosticRegisterMasterBase* DiagnosticRegisterMasterBase::Ref() {
    MutexLocker lock(*pValueMutex_);
    ++m_refCount;
    return this;
}

void DiagnosticRegisterMasterBase::Unref() {
    MutexLocker lock(*pValueMutex_);
    --m_refCount;
    assert(m_refCount >= 0);
}

bool DiagnosticRegisterMasterBase::IsRef() const {
    MutexLocker lock(*pValueMutex_);
    return m_refCount > 0;
}

DiagnosticRegisterLongevity DiagnosticRegisterMasterBase::GetLongevity() const {
    MutexLocker lock(*pValueMutex_);
    return longevity_;
}

void DiagnosticRegisterMasterBase::SetLongevity(DiagnosticRegisterLongevity longevity) {
    MutexLocker lock(*pValueMutex_);
    longevity_ = longevity;
}

void DiagnosticRegisterCounterMaster::RaiseWatermarks(int32_t value) {
    int32_t high = high_.load(std::memory_order_relaxed);
    while (value > high && !high_.compare_exchange_weak(high, value, std::memory_order_relaxed)) {
    }
    int32_t low = low_.load(std::memory_order_relaxed);
    while (value < low && !low_.compare_exchange_weak(low, value, std::memory_order_relaxed)) {
    }
}

int32_t DiagnosticRegisterCounterMaster::Adjust(int32_t delta) {
    // Plain signed 32-bit arithmetic, wrapping like the device's
    // (atomic signed addition is defined to wrap).
    const int32_t old = value_.fetch_add(delta, std::memory_order_relaxed);
    const int32_t value =
        static_cast<int32_t>(static_cast<uint32_t>(old) + static_cast<uint32_t>(delta));
    RaiseWatermarks(value);
    return value;
}

void DiagnosticRegisterCounterMaster::Set(int32_t value) {
    value_.store(value, std::memory_order_relaxed);
    RaiseWatermarks(value);
}

void DiagnosticRegisterCounterMaster::Reset(int32_t value) {
    value_.store(value, std::memory_order_relaxed);
    low_.store(value, std::memory_order_relaxed);
    high_.store(value, std::memory_order_relaxed);
}

int32_t DiagnosticRegisterCounterMaster::Get(DiagnosticRegisterCounter::CounterInfo* info) const {
    const int32_t value = value_.load(std::memory_order_relaxed);
    if (info != nullptr) {
        const int32_t low = low_.load(std::memory_order_relaxed);
        const int32_t high = high_.load(std::memory_order_relaxed);
        info->value = value;
        info->low = value < low ? value : low;
        info->high = value > high ? value : high;
    }
    return value;
}

void DiagnosticRegisterStringMaster::Set(const std::string& value) {
    MutexLocker lock(*pValueMutex_);
    value_ = value;
}

void DiagnosticRegisterStringMaster::Get(std::string* pStr) const {
    assert(pStr);
    MutexLocker lock(*pValueMutex_);
    *pStr = value_;
}

// ---- Table ----

const char* const DiagnosticRegisterTable::kLoggerContextName = "VOK.DiagReg";

DiagnosticRegisterTable& DiagnosticRegisterTable::GetInstance() {
    static DiagnosticRegisterTable instance;
    return instance;
}

DiagnosticRegisterTable::DiagnosticRegisterTable() : logger_(kLoggerContextName) {}

DiagnosticRegisterTable::~DiagnosticRegisterTable() {
    MutexLocker lock(tableMutex_);
    for (auto& entry : counters_) {
        if (entry.second->IsRef()) {
            logger_.Warning("%s: Counter Register Master still referenced: %s", __func__,
                            entry.first.c_str());
        }
        delete entry.second;
    }
    for (auto& entry : strings_) {
        if (entry.second->IsRef()) {
            logger_.Warning("%s: String Register Master still referenced: %s", __func__,
                            entry.first.c_str());
        }
        delete entry.second;
    }
    counters_.clear();
    strings_.clear();
}

DiagnosticRegisterCounterMaster* DiagnosticRegisterTable::FindCounterMaster(
    const std::string& path) {
    MutexLocker lock(tableMutex_);
    auto it = counters_.find(path);
    if (it == counters_.end()) {
        return nullptr;
    }
    it->second->Ref();
    return it->second;
}

DiagnosticRegisterStringMaster* DiagnosticRegisterTable::FindStringMaster(const std::string& path) {
    MutexLocker lock(tableMutex_);
    auto it = strings_.find(path);
    if (it == strings_.end()) {
        return nullptr;
    }
    it->second->Ref();
    return it->second;
}

DiagnosticRegisterCounterMaster* DiagnosticRegisterTable::GetCounterMaster(const std::string& path,
                                                                           int32_t initialValue) {
    MutexLocker lock(tableMutex_);
    DiagnosticRegisterCounterMaster* master = FindCounterMaster(path);
    if (master == nullptr) {
        validateRegisterPath(path);
        // Owned here until the map holds it: a failed insertion frees it.
        std::unique_ptr<DiagnosticRegisterCounterMaster> created(
            new DiagnosticRegisterCounterMaster(&valueMutex_, initialValue));
        auto ret = counters_.insert(std::make_pair(path, created.get()));
        assert(ret.second);
        (void)ret;
        master = created.release();
    }
    return master;
}

DiagnosticRegisterStringMaster* DiagnosticRegisterTable::GetStringMaster(
    const std::string& path, const std::string& initialValue) {
    MutexLocker lock(tableMutex_);
    DiagnosticRegisterStringMaster* master = FindStringMaster(path);
    if (master == nullptr) {
        validateRegisterPath(path);
        // Owned here until the map holds it: a failed insertion frees it.
        std::unique_ptr<DiagnosticRegisterStringMaster> created(
            new DiagnosticRegisterStringMaster(&valueMutex_, initialValue));
        auto ret = strings_.insert(std::make_pair(path, created.get()));
        assert(ret.second);
        (void)ret;
        master = created.release();
    }
    return master;
}

bool DiagnosticRegisterTable::QueryCounter(const std::string& path,
                                           DiagnosticRegisterCounter::CounterInfo* info) {
    if (info == nullptr) {
        VOK_THROW_PROGRAM_ERROR(kVokErrBadArg, "NULL arg");
    }
    DiagnosticRegisterCounterMaster* master = FindCounterMaster(path);
    if (master == nullptr) {
        return false;
    }
    master->Get(info);
    master->Unref();
    return true;
}

bool DiagnosticRegisterTable::QueryString(const std::string& path, std::string* value) {
    if (value == nullptr) {
        VOK_THROW_PROGRAM_ERROR(kVokErrBadArg, "NULL arg");
    }
    DiagnosticRegisterStringMaster* master = FindStringMaster(path);
    if (master == nullptr) {
        return false;
    }
    master->Get(value);
    master->Unref();
    return true;
}

DiagnosticRegisterCounter::Group* DiagnosticRegisterTable::QueryCounterGroup(
    const std::string& prefix) {
    MutexLocker lock(tableMutex_);
    return QueryGroupLocked<DiagnosticRegisterCounter::Group>(
        counters_, prefix, [](const DiagnosticRegisterCounterMaster* master) {
            DiagnosticRegisterCounter::CounterInfo info;
            master->Get(&info);
            return info;
        });
}

DiagnosticRegisterString::Group* DiagnosticRegisterTable::QueryStringGroup(
    const std::string& prefix) {
    MutexLocker lock(tableMutex_);
    return QueryGroupLocked<DiagnosticRegisterString::Group>(
        strings_, prefix, [](const DiagnosticRegisterStringMaster* master) {
            std::string value;
            master->Get(&value);
            return value;
        });
}

void DiagnosticRegisterTable::PruneAtAndBelow(DiagnosticRegisterLongevity level) {
    MutexLocker lock(tableMutex_);
    for (auto it = counters_.begin(); it != counters_.end();) {
        if (!it->second->IsRef() && it->second->GetLongevity() <= level) {
            delete it->second;
            it = counters_.erase(it);
        } else {
            ++it;
        }
    }
    for (auto it = strings_.begin(); it != strings_.end();) {
        if (!it->second->IsRef() && it->second->GetLongevity() <= level) {
            delete it->second;
            it = strings_.erase(it);
        } else {
            ++it;
        }
    }
}

// ---- Handles ----

DiagnosticRegisterCounter::DiagnosticRegisterCounter(const std::string& path, int32_t initialValue)
    : pMaster_(DiagnosticRegisterTable::GetInstance().GetCounterMaster(path, initialValue)) {}

DiagnosticRegisterCounter::DiagnosticRegisterCounter(const DiagnosticRegisterCounter& other)
    : pMaster_(other.pMaster_) {
    pMaster_->Ref();
}

DiagnosticRegisterCounter::~DiagnosticRegisterCounter() {
    pMaster_->Unref();
}

void DiagnosticRegisterCounter::Swap(DiagnosticRegisterCounter* other) {
    std::swap(pMaster_, other->pMaster_);
}

int32_t DiagnosticRegisterCounter::Inc() {
    return pMaster_->Adjust(1);
}
int32_t DiagnosticRegisterCounter::Dec() {
    return pMaster_->Adjust(-1);
}
int32_t DiagnosticRegisterCounter::Adjust(int32_t delta) {
    return pMaster_->Adjust(delta);
}
void DiagnosticRegisterCounter::Set(int32_t value) {
    pMaster_->Set(value);
}
void DiagnosticRegisterCounter::Reset(int32_t value) {
    pMaster_->Reset(value);
}
int32_t DiagnosticRegisterCounter::Get(CounterInfo* info) const {
    return pMaster_->Get(info);
}
void DiagnosticRegisterCounter::SetLongevity(DiagnosticRegisterLongevity longevity) {
    pMaster_->SetLongevity(longevity);
}

bool DiagnosticRegisterCounter::Query(const std::string& path, CounterInfo* info) {
    return DiagnosticRegisterTable::GetInstance().QueryCounter(path, info);
}

DiagnosticRegisterCounter::Group* DiagnosticRegisterCounter::QueryGroup(const std::string& prefix) {
    return DiagnosticRegisterTable::GetInstance().QueryCounterGroup(prefix);
}

DiagnosticRegisterString::DiagnosticRegisterString(const std::string& path,
                                                   const std::string& initialValue)
    : pMaster_(DiagnosticRegisterTable::GetInstance().GetStringMaster(path, initialValue)) {}

DiagnosticRegisterString::DiagnosticRegisterString(const DiagnosticRegisterString& other)
    : pMaster_(other.pMaster_) {
    pMaster_->Ref();
}

DiagnosticRegisterString::~DiagnosticRegisterString() {
    pMaster_->Unref();
}

void DiagnosticRegisterString::Swap(DiagnosticRegisterString* other) {
    std::swap(pMaster_, other->pMaster_);
}

void DiagnosticRegisterString::Set(const std::string& value) {
    pMaster_->Set(value);
}
void DiagnosticRegisterString::Get(std::string* value) const {
    pMaster_->Get(value);
}
void DiagnosticRegisterString::SetLongevity(DiagnosticRegisterLongevity longevity) {
    pMaster_->SetLongevity(longevity);
}

bool DiagnosticRegisterString::Query(const std::string& path, std::string* value) {
    return DiagnosticRegisterTable::GetInstance().QueryString(path, value);
}

DiagnosticRegisterString::Group* DiagnosticRegisterString::QueryGroup(const std::string& prefix) {
    return DiagnosticRegisterTable::GetInstance().QueryStringGroup(prefix);
}

}  // namespace vok
