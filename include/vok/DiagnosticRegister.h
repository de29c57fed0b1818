// Diagnostic registers: process-wide named counters (with watermarks) and strings.
#ifndef VOK_DIAGNOSTICREGISTER_H
#define VOK_DIAGNOSTICREGISTER_H

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace vok {

// Decides what a prune removes: an unreferenced register whose longevity is at or below the
// prune level goes. The framework uses 0 (the default) and 5.
typedef int32_t DiagnosticRegisterLongevity;
const DiagnosticRegisterLongevity kDiagRegLongevityDefault = 0;
const DiagnosticRegisterLongevity kDiagRegLongevityLong = 5;

class DiagnosticRegisterCounterMaster;
class DiagnosticRegisterStringMaster;

// Handle to a named counter register at a path beginning "root.". The first handle for a path
// creates the register with its initial value; later handles share it whatever its value. The
// register outlives its handles until a prune at or above its longevity. A handle may be used
// from any thread (value operations are lock-free atomics with exact watermarks; copying takes a
// reference under the table's value lock).
class DiagnosticRegisterCounter {
  public:
    // Value and watermarks of a counter.
    struct CounterInfo {
        int32_t value;
        int32_t low;
        int32_t high;
    };
    typedef std::vector<std::pair<std::string, CounterInfo>> Group;

    // Throws VokProgramErrorException (kVokErrBadArg) for a path without the "root." prefix.
    DiagnosticRegisterCounter(const std::string& path, int32_t initialValue);
    DiagnosticRegisterCounter(const DiagnosticRegisterCounter& other);
    DiagnosticRegisterCounter& operator=(const DiagnosticRegisterCounter&) = delete;
    ~DiagnosticRegisterCounter();

    void Swap(DiagnosticRegisterCounter* other);

    int32_t Inc();
    int32_t Dec();
    int32_t Adjust(int32_t delta);
    void Set(int32_t value);
    // Sets the value and both watermarks.
    void Reset(int32_t value);
    // Returns the value and fills info when it is not NULL.
    int32_t Get(CounterInfo* info) const;
    void SetLongevity(DiagnosticRegisterLongevity longevity);

    // False when no register has this path.
    static bool Query(const std::string& path, CounterInfo* info);
    // Every counter whose path starts with prefix, in path order, or NULL when none does. The
    // caller deletes the result.
    static Group* QueryGroup(const std::string& prefix);

  private:
    DiagnosticRegisterCounterMaster* pMaster_;
};

// Handle to a named string register; same sharing, lifetime and threading as the counter.
class DiagnosticRegisterString {
  public:
    typedef std::vector<std::pair<std::string, std::string>> Group;

    DiagnosticRegisterString(const std::string& path, const std::string& initialValue);
    DiagnosticRegisterString(const DiagnosticRegisterString& other);
    DiagnosticRegisterString& operator=(const DiagnosticRegisterString&) = delete;
    ~DiagnosticRegisterString();

    void Swap(DiagnosticRegisterString* other);

    void Set(const std::string& value);
    // Copies the value into *value, which must not be NULL.
    void Get(std::string* value) const;
    void SetLongevity(DiagnosticRegisterLongevity longevity);

    static bool Query(const std::string& path, std::string* value);
    static Group* QueryGroup(const std::string& prefix);

  private:
    DiagnosticRegisterStringMaster* pMaster_;
};

// Removes every unreferenced register whose longevity is at or below level.
void DiagRegPruneAtAndBelow(DiagnosticRegisterLongevity level);

// Throws VokProgramErrorException (kVokErrBadArg) unless path begins with "root.".
void validateRegisterPath(const std::string& path);

}  // namespace vok

#endif  // VOK_DIAGNOSTICREGISTER_H
