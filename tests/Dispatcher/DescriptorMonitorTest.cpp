// Descriptor monitors: masks, readiness and hang-up.
#include <glib.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <memory>
#include <vector>

#include "support/LogCapture.h"
#include "support/LoopSupport.h"
#include "vok/RdDescriptorMonitor.h"
#include "vok/RuntimeDispatcher.h"

namespace vok {
namespace {

struct Report {
    bool readable, writable, exception;
};

class DescriptorMonitorTest : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_EQ(0, pipe(fds_)); }
    void TearDown() override {
        close(fds_[0]);
        if (fds_[1] >= 0) {
            close(fds_[1]);
        }
    }
    void Step() { g_main_context_iteration(test::ContextOf(dispatcher_), FALSE); }
    std::function<void(bool, bool, bool)> Recorder() {
        return [this](bool r, bool w, bool e) { reports_.push_back(Report{r, w, e}); };
    }

    test::Watchdog watchdog_;
    RuntimeDispatcher dispatcher_;
    int fds_[2] = {-1, -1};
    std::vector<Report> reports_;
};

TEST_F(DescriptorMonitorTest, ReadableWhileDataWaitsOrOnHangUpAndNotWithEmptyMask) {
    RdDescriptorMonitorBase monitor(fds_[0], dispatcher_, Recorder());
    ASSERT_EQ(1, write(fds_[1], "x", 1));
    Step();
    EXPECT_TRUE(reports_.empty());  // no mask, no watch
    monitor.SetEventMask(true, false, false);
    Step();
    ASSERT_EQ(1u, reports_.size());
    EXPECT_TRUE(reports_[0].readable);
    EXPECT_FALSE(reports_[0].writable);
    Step();  // Level-triggered: still readable.
    EXPECT_EQ(2u, reports_.size());
    char c;
    ASSERT_EQ(1, read(fds_[0], &c, 1));
    Step();
    EXPECT_EQ(2u, reports_.size());
    monitor.SetEventMask(false, false, false);
    ASSERT_EQ(1, write(fds_[1], "y", 1));
    Step();
    EXPECT_EQ(2u, reports_.size());
    // No data left: a hang-up alone makes it readable.
    ASSERT_EQ(1, read(fds_[0], &c, 1));
    monitor.SetEventMask(true, false, true);
    close(fds_[1]);
    fds_[1] = -1;
    Step();
    ASSERT_EQ(3u, reports_.size());
    EXPECT_TRUE(reports_[2].readable);
    EXPECT_TRUE(reports_[2].exception);
    EXPECT_FALSE(reports_[2].writable);
}

TEST_F(DescriptorMonitorTest, CallbackMayDestroyItsMonitor) {
    std::unique_ptr<RdDescriptorMonitorBase> monitor;
    monitor.reset(new RdDescriptorMonitorBase(fds_[1], dispatcher_, [&](bool r, bool w, bool e) {
        reports_.push_back(Report{r, w, e});
        monitor.reset();
    }));
    monitor->SetEventMask(false, true, false);
    Step();
    Step();
    ASSERT_EQ(1u, reports_.size());
    EXPECT_FALSE(reports_[0].readable);
    EXPECT_TRUE(reports_[0].writable);
    EXPECT_EQ(nullptr, monitor);
}

}  // namespace
}  // namespace vok
