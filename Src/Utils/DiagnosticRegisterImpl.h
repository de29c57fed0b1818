// Not public API. The process-wide diagnostic register table and its master records.
#ifndef VOK_SRC_UTILS_DIAGNOSTICREGISTERIMPL_H
#define VOK_SRC_UTILS_DIAGNOSTICREGISTERIMPL_H

#include <atomic>
#include <map>
#include <string>

#include "vok/DiagnosticRegister.h"
#include "vok/Logger.h"
#include "vok/Mutex.h"

namespace vok {

// Common part of the masters: a reference count (one per handle) and a longevity, both guarded
// by the table's value mutex, which all masters share.
class DiagnosticRegisterMasterBase {
  public:
    DiagnosticRegisterMasterBase(Mutex* pValueMutex)
        : pValueMutex_(pValueMutex), m_refCount(1), longevity_(kDiagRegLongevityDefault) {}
    virtual ~DiagnosticRegisterMasterBase() = default;

    DiagnosticRegisterMasterBase* Ref();
    // Drops one reference. Reaching 0 does not delete the master; a prune does.
    void Unref();
    bool IsRef() const;
    DiagnosticRegisterLongevity GetLongevity() const;
    void SetLongevity(DiagnosticRegisterLongevity longevity);

  protected:
    Mutex* pValueMutex_;  // The table's value mutex; not owned.

  private:
    int32_t m_refCount;                      // Protected by *pValueMutex_.
    DiagnosticRegisterLongevity longevity_;  // Protected by *pValueMutex_.
};

// The value and its watermarks are atomics: an adjust is one atomic add on the value and, only
// when it passes a watermark, a compare-exchange on that watermark, with no lock. Every value the
// counter takes is inside [low, high] once its adjust returns, and a watermark only ever holds a
// value the counter took. A reader may catch an adjust between its two steps; Get widens the
// watermarks by the value it read, so a snapshot is never inconsistent. A reset racing an adjust
// may keep that adjust's value in the new watermarks, as if the adjust had come just after it.
class DiagnosticRegisterCounterMaster : public DiagnosticRegisterMasterBase {
  public:
    DiagnosticRegisterCounterMaster(Mutex* pValueMutex, int32_t initialValue)
        : DiagnosticRegisterMasterBase(pValueMutex),
          value_(initialValue),
          low_(initialValue),
          high_(initialValue) {}

    int32_t Adjust(int32_t delta);
    void Set(int32_t value);
    void Reset(int32_t value);
    int32_t Get(DiagnosticRegisterCounter::CounterInfo* info) const;

  private:
    // Moves the watermarks to include value, which the counter has just taken.
    void RaiseWatermarks(int32_t value);

    std::atomic<int32_t> value_;
    std::atomic<int32_t> low_;
    std::atomic<int32_t> high_;
};

class DiagnosticRegisterStringMaster : public DiagnosticRegisterMasterBase {
  public:
    DiagnosticRegisterStringMaster(Mutex* pValueMutex, const std::string& initialValue)
        : DiagnosticRegisterMasterBase(pValueMutex), value_(initialValue) {}

    void Set(const std::string& value);
    void Get(std::string* pStr) const;

  private:
    std::string value_;  // Protected by *pValueMutex_.
};

// The singleton table of all registers, by path. Any thread may use it. Lock order: the table
// mutex, then the value mutex.
class DiagnosticRegisterTable {
  public:
    static const char* const kLoggerContextName;

    static DiagnosticRegisterTable& GetInstance();

    // Find or create; the result carries a reference for the caller.
    DiagnosticRegisterCounterMaster* GetCounterMaster(const std::string& path,
                                                      int32_t initialValue);
    DiagnosticRegisterStringMaster* GetStringMaster(const std::string& path,
                                                    const std::string& initialValue);
    // The master with a reference taken, or NULL.
    DiagnosticRegisterCounterMaster* FindCounterMaster(const std::string& path);
    DiagnosticRegisterStringMaster* FindStringMaster(const std::string& path);

    bool QueryCounter(const std::string& path, DiagnosticRegisterCounter::CounterInfo* info);
    bool QueryString(const std::string& path, std::string* value);
    DiagnosticRegisterCounter::Group* QueryCounterGroup(const std::string& prefix);
    DiagnosticRegisterString::Group* QueryStringGroup(const std::string& prefix);

    void PruneAtAndBelow(DiagnosticRegisterLongevity level);

    ~DiagnosticRegisterTable();

  private:
    DiagnosticRegisterTable();
    DiagnosticRegisterTable(const DiagnosticRegisterTable&) = delete;
    DiagnosticRegisterTable& operator=(const DiagnosticRegisterTable&) = delete;

    Mutex tableMutex_;  // Protects both maps; taken re-entrantly.
    std::map<std::string, DiagnosticRegisterCounterMaster*> counters_;
    std::map<std::string, DiagnosticRegisterStringMaster*> strings_;
    Mutex valueMutex_;  // Protects every master's reference count and longevity and the string
                        // values; counter values are atomics.
    Logger logger_;
};

}  // namespace vok

#endif  // VOK_SRC_UTILS_DIAGNOSTICREGISTERIMPL_H
