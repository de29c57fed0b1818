// Registers and process figures as OpenMetrics text, and the textfile that node_exporter reads.
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <ctime>
#include <fstream>
#include <sstream>
#include <thread>

#include "support/LogCapture.h"
#include "support/OpenMetricsCheck.h"
#include "vok/DiagnosticRegister.h"
#include "vok/Event.h"
#include "vok/Metrics.h"

namespace vok {
namespace {

std::string ReadFile(const std::string& path) {
    std::stringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

TEST(MetricsTest, RegistersBecomeGaugesCountersAndInfoFamilies) {
    EXPECT_EQ("http_server_requests2_ok", MetricsFamilyName("root.HTTPServer.requests2Ok"));
    EXPECT_EQ("_4g_modem_rx_bytes", MetricsFamilyName("root.4g modem.rx-bytes"));

    DiagnosticRegisterCounter depth("root.metricsTest.queueDepth", 0);
    depth.Adjust(7);
    depth.Adjust(-9);
    DiagnosticRegisterCounter events("root.metricsTest.events.handled", 41);
    MetricsDeclareCounter("root.metricsTest.events.");
    DiagnosticRegisterCounter undeliverable("root.metricsTest.undeliverableMessages", 3);
    DiagnosticRegisterCounter clashA("root.metricsTest.clash_name", 1);
    DiagnosticRegisterCounter clashB("root.metricsTest.clashName", 2);
    DiagnosticRegisterCounter total("root.metricsTest.bytes_total", 5);
    DiagnosticRegisterString version("root.metricsTest.version", "1.2 \"beta\"\\\nnext");

    const std::string text = MetricsText("demo \"a\"");
    const test::MetricsCheck check = test::CheckOpenMetrics(text);
    ASSERT_TRUE(check.Ok()) << check.Report() << text;
    EXPECT_EQ("gauge", check.families.at("metrics_test_queue_depth").type);
    EXPECT_EQ(-2, check.Value("metrics_test_queue_depth"));
    EXPECT_EQ(-2, check.Value("metrics_test_queue_depth_low"));
    EXPECT_EQ(7, check.Value("metrics_test_queue_depth_high"));
    EXPECT_EQ("counter", check.families.at("metrics_test_events_handled").type);
    EXPECT_EQ(41, check.Value("metrics_test_events_handled"));
    EXPECT_EQ(0u, check.families.count("metrics_test_events_handled_high"));
    EXPECT_EQ(3, check.Value("metrics_test_undeliverable_messages"));
    // Registers are taken in path order: clashName before clash_name.
    EXPECT_EQ(2, check.Value("metrics_test_clash_name"));
    EXPECT_EQ(1, check.Value("metrics_test_clash_name_2"));
    EXPECT_EQ(5, check.Value("metrics_test_bytes_total_value"));
    EXPECT_EQ(1u, check.families.at("metrics_test_version")
                      .samples.count("metrics_test_version_info{daemon=\"demo \\\"a\\\"\",value="
                                     "\"1.2 \\\"beta\\\"\\\\\\nnext\"}"));
}

TEST(MetricsTest, ProcessFiguresFollowTheProcess) {
    test::Watchdog watchdog;
    const test::MetricsCheck before = test::CheckOpenMetrics(MetricsText("d"));
    int fds[3];
    for (int& fd : fds) {
        fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
    }
    Event started;
    Event release;
    std::thread thread([&] {
        started.Signal();
        release.Wait();
    });
    started.Wait();
    const test::MetricsCheck during = test::CheckOpenMetrics(MetricsText("d"));
    release.Signal();
    thread.join();
    for (int fd : fds) {
        close(fd);
    }
    ASSERT_TRUE(before.Ok() && during.Ok()) << before.Report() << during.Report();
    EXPECT_EQ(before.Value("process_open_fds") + 3, during.Value("process_open_fds"));
    EXPECT_EQ(before.Value("process_threads") + 1, during.Value("process_threads"));
    EXPECT_EQ("counter", during.families.at("process_cpu_seconds").type);
    EXPECT_GT(during.Value("process_resident_memory_bytes"), 0);
    const double start = during.Value("process_start_time_seconds");
    const double now = static_cast<double>(std::time(nullptr));
    EXPECT_TRUE(start <= now + 1 && start > now - 3600) << start;  // The suite is younger.
}

class MetricsTextfileTest : public testing::Test {
  protected:
    void SetUp() override {
        char dir[] = "/tmp/vok-metrics-test-XXXXXX";
        ASSERT_NE(nullptr, mkdtemp(dir));
        dir_ = dir;
        path_ = dir_ + "/vok.prom";
    }
    void TearDown() override {
        unlink(path_.c_str());
        EXPECT_EQ(0, rmdir(dir_.c_str()));  // No temporary file was left behind.
    }

    std::string dir_;
    std::string path_;
};

// A reader polling the file while it is replaced again and again sees whole expositions only.
TEST_F(MetricsTextfileTest, ReadersSeeTheOldOrTheNewExpositionNeverHalf) {
    test::Watchdog watchdog;
    DiagnosticRegisterCounter counter("root.metricsTest.rewrites", 0);
    std::string error;
    ASSERT_TRUE(MetricsWriteTextfile(path_, "d", &error)) << error;
    std::atomic<bool> done(false);
    std::atomic<int> reads(0);
    std::string bad;
    std::thread reader([&] {
        while (!done.load() && bad.empty()) {
            const std::string text = ReadFile(path_);
            bad = test::CheckOpenMetrics(text).Ok() ? "" : text;
            reads.fetch_add(1);
        }
    });
    for (int i = 0; i < 100 || reads.load() < 20; ++i) {
        counter.Inc();
        ASSERT_TRUE(MetricsWriteTextfile(path_, "d", &error)) << error;
    }
    done.store(true);
    reader.join();
    EXPECT_EQ("", bad);
}

// A write that fails half way (the file size limit) leaves the old file and no temporary.
TEST_F(MetricsTextfileTest, FailedWriteLeavesTheOldFileAndNoTemporary) {
    std::string error;
    ASSERT_TRUE(MetricsWriteTextfile(path_, "d", &error)) << error;
    const std::string old = ReadFile(path_);
    struct rlimit saved;
    ASSERT_EQ(0, getrlimit(RLIMIT_FSIZE, &saved));
    struct rlimit small = saved;
    small.rlim_cur = 64;
    signal(SIGXFSZ, SIG_IGN);
    ASSERT_EQ(0, setrlimit(RLIMIT_FSIZE, &small));
    const bool written = MetricsWriteTextfile(path_, "d", &error);
    ASSERT_EQ(0, setrlimit(RLIMIT_FSIZE, &saved));
    signal(SIGXFSZ, SIG_DFL);
    EXPECT_FALSE(written);
    EXPECT_NE(std::string::npos, error.find("File too large")) << error;
    EXPECT_EQ(old, ReadFile(path_));
    EXPECT_FALSE(MetricsWriteTextfile(dir_ + "/missing/vok.prom", "d", &error));
}

}  // namespace
}  // namespace vok
