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

// Indices swept per mode outside a full sweep when a scenario has more points than this.
constexpr uint64_t kSampledPoints = 120;

// What the crash handler prints: the run in progress.
char gRunInProgress[256];

void OnFatalSignal(int signal) {
    const char prefix[] = "\nOOM sweep: the process died during ";
    ssize_t ignored = write(STDERR_FILENO, prefix, sizeof prefix - 1);
    ignored = write(STDERR_FILENO, gRunInProgress, std::strlen(gRunInProgress));
    // Not async-signal-safe, but the process is ending anyway and its heap is not in use here
    // (GLib's and libstdc++'s aborts come from outside the allocator).
    Disarm();
    const std::string caller = " (first failing request from " + DescribeFirstFailure() + ")\n";
    ignored = write(STDERR_FILENO, caller.data(), caller.size());
    (void)ignored;
    ::signal(signal, SIG_DFL);
    raise(signal);
}

void InstallCrashReport() {
    static bool installed = false;
    if (!installed) {
        for (int signal : {SIGSEGV, SIGABRT, SIGBUS, SIGFPE, SIGILL}) {
            ::signal(signal, OnFatalSignal);
        }
        installed = true;
    }
}

std::string DefaultClassify() {
    try {
        throw;
    } catch (const std::bad_alloc&) {
        return "";
    } catch (const VokResourceException&) {
        return "";
    } catch (const DocumentedError&) {
        return "";
    } catch (const std::exception& e) {
        return std::string("undocumented exception: ") + e.what();
    } catch (...) {
        return "exception of unknown type";
    }
}

const char* ModeName(uint32_t failCount) {
    switch (failCount) {
        case 1:
            return "transient";
        case kFailForever:
            return "persistent";
        case 2:
            return "run of 2";
        case 3:
            return "run of 3";
        default:
            return "run of 4";
    }
}

// The failing indices one mode sweeps.
std::vector<uint64_t> Points(uint64_t total, uint64_t sample) {
    std::vector<uint64_t> points;
    // VOK_OOM_ONLY=k reproduces the runs failing from request k alone.
    if (const char* only = std::getenv("VOK_OOM_ONLY")) {
        points.push_back(std::strtoull(only, nullptr, 10));
        return points;
    }
    if (FullSweep() || total <= sample) {
        for (uint64_t k = 1; k <= total; ++k) {
            points.push_back(k);
        }
        return points;
    }
    for (uint64_t i = 0; i < sample; ++i) {
        points.push_back(1 + i * (total - 1) / (sample - 1));
    }
    return points;
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

// Defects reported per scenario before its sweep stops.
constexpr int kDefectsReported = 5;

// One run with the given failures; false (and a gtest failure) on a defect.
bool RunOnce(const Scenario& scenario, uint64_t k, uint32_t failCount, int descriptors,
             SweepResult* result) {
    std::snprintf(gRunInProgress, sizeof gRunInProgress, "%s, allocation %llu, %s",
                  scenario.name.c_str(), static_cast<unsigned long long>(k), ModeName(failCount));
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
    const uint64_t injected = InjectedFailures();
    if (failed) {
        ++result->documentedErrors;
    } else if (injected != 0) {
        ++result->completed;
    }
    if (failed && injected == 0 && problem.empty()) {
        problem = "failed although no allocation failed";
    }
    if (!problem.empty()) {
        ADD_FAILURE() << gRunInProgress << " (first failing request from " << DescribeFirstFailure()
                      << "): " << problem;
        return false;
    }
    if (scenario.check) {
        const int before = FailureCount();
        scenario.check();
        if (FailureCount() != before) {
            ADD_FAILURE() << "the check failed after " << gRunInProgress;
            return false;
        }
    }
    const size_t kept = scenario.kept ? scenario.kept() : 0;
    if (LiveBlocks() != kept) {
        ADD_FAILURE() << gRunInProgress << " (first failing request from " << DescribeFirstFailure()
                      << "): " << LiveBlocks() - kept << " blocks leaked\n"
                      << DescribeLiveBlocks(8);
        return false;
    }
    if (SettledDescriptors(descriptors) != descriptors) {
        ADD_FAILURE() << gRunInProgress << ": " << OpenDescriptors() - descriptors
                      << " descriptors leaked";
        return false;
    }
    return true;
}

}  // namespace

bool FullSweep() {
    const char* full = std::getenv("VOK_OOM_FULL");
    return full != nullptr && std::strcmp(full, "0") != 0;
}

int OpenDescriptors() {
    DIR* dir = opendir("/proc/self/fd");
    if (dir == nullptr) {
        return -1;
    }
    int count = 0;
    while (readdir(dir) != nullptr) {
        ++count;
    }
    closedir(dir);
    return count;
}

// The descriptor count once two readings 20 ms apart agree.
static int StableDescriptors() {
    int count = OpenDescriptors();
    for (int i = 0; i < 100; ++i) {
        usleep(20000);
        const int again = OpenDescriptors();
        if (again == count) {
            break;
        }
        count = again;
    }
    return count;
}

int SettledDescriptors(int expected) {
    // Libraries may close descriptors on a thread of their own (GDBus's worker) shortly after
    // the call that released them returned.
    int count = OpenDescriptors();
    for (int i = 0; i < 400 && count != expected; ++i) {
        usleep(5000);
        count = OpenDescriptors();
    }
    return count;
}

SweepResult Sweep(const Scenario& scenario) {
    InstallCrashReport();
    SweepResult result;
    // Warm-up: first-use caches of the libraries are filled before anything is counted.
    scenario.run();
    if (scenario.check) {
        scenario.check();
    }
    const int descriptors = StableDescriptors();
    Arm(scenario.scope, 0, 0);
    scenario.run();
    result.points = Disarm();
    EXPECT_EQ(LiveBlocks(), scenario.kept ? scenario.kept() : 0u)
        << scenario.name << " leaks without any failure\n"
        << DescribeLiveBlocks(8);
    EXPECT_EQ(SettledDescriptors(descriptors), descriptors) << scenario.name;
    if (result.points == 0 && !CountsMalloc()) {
        std::printf("OOM sweep %-28s no operator new in this build (its malloc is not counted)\n",
                    scenario.name.c_str());
        return result;
    }
    EXPECT_GT(result.points, 0u) << scenario.name << " allocates nothing";
    if (::testing::Test::HasFailure()) {
        return result;
    }
    int defects = 0;
    for (uint32_t failCount : {1u, kFailForever, 2u, 3u, 4u}) {
        const uint64_t sample =
            failCount == 1 || failCount == kFailForever ? kSampledPoints : kSampledPoints / 4;
        for (uint64_t k : Points(result.points, sample)) {
            if (defects == kDefectsReported) {
                break;
            }
            defects += RunOnce(scenario, k, failCount, descriptors, &result) ? 0 : 1;
            uint64_t& runs = failCount == 1              ? result.transientRuns
                             : failCount == kFailForever ? result.persistentRuns
                                                         : result.burstRuns;
            ++runs;
        }
    }
    std::printf(
        "OOM sweep %-28s %5llu allocation points: %llu transient, %llu persistent, %llu "
        "runs of 2-4; %llu completed, %llu documented errors%s%s\n",
        scenario.name.c_str(), static_cast<unsigned long long>(result.points),
        static_cast<unsigned long long>(result.transientRuns),
        static_cast<unsigned long long>(result.persistentRuns),
        static_cast<unsigned long long>(result.burstRuns),
        static_cast<unsigned long long>(result.completed),
        static_cast<unsigned long long>(result.documentedErrors),
        CountsMalloc() ? "" : " (operator new only)",
        defects == kDefectsReported ? "; stopped at the 5th defect" : "");
    std::fflush(stdout);
    return result;
}

}  // namespace oom
}  // namespace test
}  // namespace vok
