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
        // The current value.
        int32_t value;
        // The lowest value since the register was made or Reset.
        int32_t low;
        // The highest value since the register was made or Reset.
        int32_t high;
    };
    // (path, value and watermarks) pairs, as QueryGroup returns them.
    typedef std::vector<std::pair<std::string, CounterInfo>> Group;

    // Throws VokProgramErrorException (kVokErrBadArg) for a path without the "root." prefix.
    DiagnosticRegisterCounter(const std::string& path, int32_t initialValue);
    // Another handle on other's register.
    DiagnosticRegisterCounter(const DiagnosticRegisterCounter& other);
    DiagnosticRegisterCounter& operator=(const DiagnosticRegisterCounter&) = delete;
    ~DiagnosticRegisterCounter();

    // Exchanges the registers of the two handles.
    void Swap(DiagnosticRegisterCounter* other);

    // Change the value (32-bit, wrapping) and the watermarks; the first three return the new value.
    int32_t Inc();
    int32_t Dec();
    int32_t Adjust(int32_t delta);
    void Set(int32_t value);
    // Sets the value and both watermarks.
    void Reset(int32_t value);
    // Returns the value and fills info when it is not NULL.
    int32_t Get(CounterInfo* info) const;
    // The longevity a prune compares with its level; see DiagnosticRegisterLongevity.
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
    // (path, value) pairs, as QueryGroup returns them.
    typedef std::vector<std::pair<std::string, std::string>> Group;

    // Throws VokProgramErrorException (kVokErrBadArg) for a path without the "root." prefix.
    DiagnosticRegisterString(const std::string& path, const std::string& initialValue);
    // Another handle on other's register.
    DiagnosticRegisterString(const DiagnosticRegisterString& other);
    DiagnosticRegisterString& operator=(const DiagnosticRegisterString&) = delete;
    ~DiagnosticRegisterString();

    // Exchanges the registers of the two handles.
    void Swap(DiagnosticRegisterString* other);

    // Replaces the value.
    void Set(const std::string& value);
    // Copies the value into *value, which must not be NULL.
    void Get(std::string* value) const;
    // The longevity a prune compares with its level.
    void SetLongevity(DiagnosticRegisterLongevity longevity);

    // Copies the value of the register at path into *value (not NULL); false when there is none.
    static bool Query(const std::string& path, std::string* value);
    // Every string register whose path starts with prefix, in path order, or NULL when none does.
    // The caller deletes the result.
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
