#include "OomSweep.h"

#include <dirent.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <vector>

#include "vok/VokError.h"

namespace vok {
namespace test {
namespace oom {
namespace {

constexpr int kDefectsReported = 5;

char gRunInProgress[256];  // What the crash handler prints.

void OnFatalSignal(int signal) {
    // Not async-signal-safe, but the process is ending and the heap is not in use here.
    Disarm();
    const std::string text = std::string("\nOOM sweep: the process died during ") + gRunInProgress +
                             " (first failing request from " + DescribeFirstFailure() + ")\n";
    ssize_t ignored = write(STDERR_FILENO, text.data(), text.size());
    (void)ignored;
    ::signal(signal, SIG_DFL);
    raise(signal);
}

std::string DefaultClassify() {
    try {
        throw;
    } catch (const std::bad_alloc&) {
    } catch (const VokResourceException&) {
    } catch (const DocumentedError&) {
    } catch (const std::exception& e) {
        return std::string("undocumented exception: ") + e.what();
    } catch (...) {
        return "exception of unknown type";
    }
    return "";
}

std::vector<uint64_t> Points(uint64_t total, uint64_t sample) {
    if (const char* only = std::getenv("VOK_OOM_ONLY")) {
        return {std::strtoull(only, nullptr, 10)};
    }
    const char* full = std::getenv("VOK_OOM_FULL");
    if ((full != nullptr && std::strcmp(full, "0") != 0) || total <= sample) {
        sample = total;
    }
    std::vector<uint64_t> points;
    for (uint64_t i = 0; i < sample; ++i) {
        points.push_back(sample == total ? i + 1 : 1 + i * (total - 1) / (sample - 1));
    }
    return points;
}

int OpenDescriptors() {
    DIR* dir = opendir("/proc/self/fd");
    int count = 0;
    while (dir != nullptr && readdir(dir) != nullptr) {
        ++count;
    }
    if (dir != nullptr) {
        closedir(dir);
    }
    return dir != nullptr ? count : -1;
}

// The descriptor count once it equals expected or after 2 s; for -1, once two readings agree.
int SettledDescriptors(int expected) {
    int count = OpenDescriptors();
    for (int i = 0; i < 400 && count != expected; ++i) {
        usleep(expected < 0 ? 20000 : 5000);
        const int again = OpenDescriptors();
        if (expected < 0 && again == count) {
            break;
        }
        count = again;
    }
    return count;
}

int FailureCount() {
    const ::testing::TestResult* result =
        ::testing::UnitTest::GetInstance()->current_test_info()->result();
    int failures = 0;
    for (int i = 0; i < result->total_part_count(); ++i) {
        failures += result->GetTestPartResult(i).failed() ? 1 : 0;
    }
    return failures;
}

// False (and a gtest failure) on a defect.
bool RunOnce(const Scenario& scenario, uint64_t k, uint32_t failCount, int descriptors,
             uint64_t* documentedErrors) {
    const char* mode = failCount == 1              ? "transient"
                       : failCount == kFailForever ? "persistent"
                                                   : "run";
    std::snprintf(gRunInProgress, sizeof gRunInProgress, "%s, allocation %llu, %s of %u",
                  scenario.name.c_str(), static_cast<unsigned long long>(k), mode,
                  failCount == kFailForever ? 0 : failCount);
    std::string problem;
    bool failed = false;
    Arm(scenario.scope, k, failCount);
    try {
        scenario.run();
    } catch (...) {
        failed = true;
        problem = scenario.classify ? scenario.classify() : DefaultClassify();
    }
    Disarm();
    *documentedErrors += failed ? 1 : 0;
    if (failed && InjectedFailures() == 0 && problem.empty()) {
        problem = "failed although no allocation failed";
    }
    const std::string run = std::string(gRunInProgress) + " (first failing request from " +
                            DescribeFirstFailure() + ")";
    if (!problem.empty()) {
        ADD_FAILURE() << run << ": " << problem;
        return false;
    }
    const int before = FailureCount();
    if (scenario.check) {
        scenario.check();
    }
    if (FailureCount() != before) {
        ADD_FAILURE() << "the check failed after " << run;
        return false;
    }
    const size_t kept = scenario.kept ? scenario.kept() : 0;
    if (LiveBlocks() != kept) {
        ADD_FAILURE() << run << ": " << LiveBlocks() - kept << " blocks leaked\n"
                      << DescribeLiveBlocks(8);
        return false;
    }
    const int settled = SettledDescriptors(descriptors);
    EXPECT_EQ(settled, descriptors) << run << ": descriptors leaked";
    return settled == descriptors;
}

}  // namespace

void Sweep(const Scenario& scenario) {
    for (int signal : {SIGSEGV, SIGABRT, SIGBUS, SIGFPE, SIGILL}) {
        ::signal(signal, OnFatalSignal);
    }
    scenario.run();  // Warm-up: first-use caches are filled before anything is counted.
    if (scenario.check) {
        scenario.check();
    }
    const int descriptors = SettledDescriptors(-1);
    Arm(scenario.scope, 0, 0);
    scenario.run();
    const uint64_t points = Disarm();
    EXPECT_EQ(LiveBlocks(), scenario.kept ? scenario.kept() : 0u)
        << scenario.name << " leaks without any failure\n"
        << DescribeLiveBlocks(8);
    EXPECT_EQ(SettledDescriptors(descriptors), descriptors) << scenario.name;
    if (points == 0 && !CountsMalloc()) {
        std::printf("OOM sweep %s: no operator new in this build\n", scenario.name.c_str());
        return;
    }
    EXPECT_GT(points, 0u) << scenario.name << " allocates nothing";
    if (::testing::Test::HasFailure()) {
        return;
    }
    int defects = 0;
    uint64_t runs = 0, documentedErrors = 0;
    for (uint32_t failCount : {1u, kFailForever, 2u, 3u, 4u}) {
        const bool single = failCount == 1 || failCount == kFailForever;
        for (uint64_t k :
             Points(points, single ? scenario.sampledPoints : scenario.sampledPoints / 4)) {
            if (defects == kDefectsReported) {
                break;
            }
            defects += RunOnce(scenario, k, failCount, descriptors, &documentedErrors) ? 0 : 1;
            ++runs;
        }
    }
    std::printf("OOM sweep %-28s %5llu allocation points, %llu runs, %llu documented errors%s\n",
                scenario.name.c_str(), static_cast<unsigned long long>(points),
                static_cast<unsigned long long>(runs),
                static_cast<unsigned long long>(documentedErrors),
                CountsMalloc() ? "" : " (operator new only)");
    std::fflush(stdout);
}

}  // namespace oom
}  // namespace test
}  // namespace vok
