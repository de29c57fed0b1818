// Helpers of the MessageMover tests.
#ifndef VOK_TESTS_MESSAGEMOVER_MMTESTSUPPORT_H
#define VOK_TESTS_MESSAGEMOVER_MMTESTSUPPORT_H

#include <gtest/gtest.h>

#include <atomic>
#include <climits>
#include <functional>
#include <string>

#include "vok/DiagnosticRegister.h"
#include "vok/Event.h"
#include "vok/MessageMoverFramework.h"
#include "vok/SimpleAsyncInterface.h"
#include "vok/VokError.h"

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif
// Sanitizers that report any read of freed memory.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define VOK_MM_FREED_MEMORY_CHECKED 1
#else
#define VOK_MM_FREED_MEMORY_CHECKED 0
#endif

namespace vok {
namespace test {

// Allocations made while one lives are not leak-checked (leaked on purpose).
#if defined(__SANITIZE_ADDRESS__)
using IntendedLeakScope = __lsan::ScopedDisabler;
#else
struct IntendedLeakScope {
    ~IntendedLeakScope() {}  // Not trivial: no unused-variable warning.
};
#endif

// The value of a counter register, or INT_MIN when there is none.
inline int32_t CounterValue(const std::string& path) {
    DiagnosticRegisterCounter::CounterInfo info;
    return DiagnosticRegisterCounter::Query(path, &info) ? info.value : INT_MIN;
}

inline int32_t Outstanding() {
    return CounterValue("root.vok.MessageMover.outstandingMessages");
}

inline int32_t IfaceCounter(const std::string& iface, const char* name) {
    return CounterValue("root.vok.MessageMover.Iface." + iface + "." + name);
}

// fn throws a VokProgramErrorException (code -1) whose text after "function:path:LINE:" is text.
inline ::testing::AssertionResult ThrowsMm(const std::function<void()>& fn,
                                           const std::string& text) {
    try {
        fn();
    } catch (const VokProgramErrorException& e) {
        const std::string what = e.what();
        const std::string tail = ":" + text;
        if (what.size() > tail.size() &&
            what.compare(what.size() - tail.size(), tail.size(), tail) == 0 &&
            e.GetErr() == kVokErrUnspecified) {
            return ::testing::AssertionSuccess();
        }
        return ::testing::AssertionFailure()
               << "threw <" << what << "> code " << e.GetErr() << ", expected ..." << tail;
    } catch (const std::exception& e) {
        return ::testing::AssertionFailure() << "threw another exception: " << e.what();
    }
    return ::testing::AssertionFailure() << "did not throw";
}

class CountingSink : public SimpleAsyncInterface {
  public:
    void Trigger() override {
        ++count;
        triggered.Signal();
    }
    std::atomic<int> count{0};
    Event triggered;
};

class MmFrameworkTest : public ::testing::Test {
  protected:
    void SetUp() override {
        framework_ = MessageMoverFramework::StartMessageMoverFramework("test");
    }
    void TearDown() override { MessageMoverFramework::StopMessageMoverFramework(framework_); }

    MessageMoverFramework* framework_ = nullptr;
};

}  // namespace test
}  // namespace vok

#endif  // VOK_TESTS_MESSAGEMOVER_MMTESTSUPPORT_H
