// Registers and process figures as OpenMetrics text, and the textfile that node_exporter reads.
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <cmath>
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
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

// Names in dir other than "." and "..".
std::vector<std::string> List(const std::string& dir) {
    std::vector<std::string> names;
    DIR* stream = opendir(dir.c_str());
    while (const struct dirent* entry = readdir(stream)) {
        const std::string name = entry->d_name;
        if (name != "." && name != "..") {
            names.push_back(name);
        }
    }
    closedir(stream);
    return names;
}

TEST(MetricsTest, RegisterPathsBecomeSnakeCaseFamilyNames) {
    EXPECT_EQ("vok_message_mover_outstanding_messages",
              MetricsFamilyName("root.vok.MessageMover.outstandingMessages"));
    EXPECT_EQ("vok_message_mover_iface_blade_echo_msgs_held_by_user",
              MetricsFamilyName("root.vok.MessageMover.Iface.blade_echo.msgsHeldByUser"));
    EXPECT_EQ("http_server_requests2_ok", MetricsFamilyName("root.HTTPServer.requests2Ok"));
    EXPECT_EQ("_4g_modem_rx_bytes", MetricsFamilyName("root.4g modem.rx-bytes"));
    EXPECT_EQ("", MetricsFamilyName("root...."));
}

TEST(MetricsTest, RegistersBecomeGaugesCountersAndInfoFamilies) {
    DiagnosticRegisterCounter depth("root.metricsTest.queueDepth", 0);
    depth.Adjust(7);
    depth.Adjust(-9);
    DiagnosticRegisterCounter events("root.metricsTest.events.handled", 0);
    MetricsDeclareCounter("root.metricsTest.events.");
    events.Adjust(41);
    events.Inc();
    DiagnosticRegisterCounter undeliverable("root.metricsTest.undeliverableMessages", 3);
    DiagnosticRegisterCounter clashA("root.metricsTest.clash_name", 1);
    DiagnosticRegisterCounter clashB("root.metricsTest.clashName", 2);
    DiagnosticRegisterCounter total("root.metricsTest.bytes_total", 5);
    DiagnosticRegisterString version("root.metricsTest.version", "1.2 \"beta\"\\\nnext");

    const std::string text = MetricsText("demo \"a\"");
    const test::MetricsCheck check = test::CheckOpenMetrics(text);
    ASSERT_TRUE(check.Ok()) << check.Report() << text;

    const test::MetricFamily& gauge = check.families.at("metrics_test_queue_depth");
    EXPECT_EQ("gauge", gauge.type);
    EXPECT_EQ("Diagnostic register root.metricsTest.queueDepth", gauge.help);
    EXPECT_EQ(1u, gauge.samples.count("metrics_test_queue_depth{daemon=\"demo \\\"a\\\"\"}"));
    EXPECT_EQ(-2, check.Value("metrics_test_queue_depth"));
    EXPECT_EQ(-2, check.Value("metrics_test_queue_depth_low"));
    EXPECT_EQ(7, check.Value("metrics_test_queue_depth_high"));

    EXPECT_EQ("counter", check.families.at("metrics_test_events_handled").type);
    EXPECT_EQ(42, check.Value("metrics_test_events_handled"));
    EXPECT_EQ(0u, check.families.count("metrics_test_events_handled_high"));
    EXPECT_EQ("counter", check.families.at("metrics_test_undeliverable_messages").type);
    EXPECT_EQ(3, check.Value("metrics_test_undeliverable_messages"));

    // Registers are taken in path order: clashName before clash_name.
    EXPECT_EQ(2, check.Value("metrics_test_clash_name"));
    EXPECT_EQ(1, check.Value("metrics_test_clash_name_2"));
    EXPECT_EQ(5, check.Value("metrics_test_bytes_total_value"));

    const test::MetricFamily& info = check.families.at("metrics_test_version");
    EXPECT_EQ("info", info.type);
    EXPECT_EQ(1u,
              info.samples.count("metrics_test_version_info{daemon=\"demo \\\"a\\\"\",value=\"1.2 "
                                 "\\\"beta\\\"\\\\\\nnext\"}"));
}

TEST(MetricsTest, ProcessFiguresFollowTheProcess) {
    test::Watchdog watchdog;
    const test::MetricsCheck before = test::CheckOpenMetrics(MetricsText("d"));
    ASSERT_TRUE(before.Ok()) << before.Report();

    int fds[3];
    for (int& fd : fds) {
        fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
        ASSERT_GE(fd, 0);
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
    ASSERT_TRUE(during.Ok()) << during.Report();

    EXPECT_EQ(before.Value("process_open_fds") + 3, during.Value("process_open_fds"));
    EXPECT_EQ(before.Value("process_threads") + 1, during.Value("process_threads"));
    EXPECT_EQ("counter", during.families.at("process_cpu_seconds").type);
    EXPECT_GE(during.Value("process_cpu_seconds"), before.Value("process_cpu_seconds"));
    EXPECT_GT(during.Value("process_resident_memory_bytes"), 0);
    EXPECT_GE(during.Value("process_virtual_memory_bytes"),
              during.Value("process_resident_memory_bytes"));
    EXPECT_GT(during.Value("process_max_fds"), 0);
    const double start = during.Value("process_start_time_seconds");
    EXPECT_LE(start, static_cast<double>(std::time(nullptr)) + 1);
    EXPECT_GT(start, static_cast<double>(std::time(nullptr)) - 3600);  // The suite is younger.
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
        for (const std::string& name : List(dir_)) {
            unlink((dir_ + "/" + name).c_str());
        }
        rmdir(dir_.c_str());
    }

    std::string dir_;
    std::string path_;
};

// A reader polling the file while it is replaced again and again only ever sees whole
// expositions.
TEST_F(MetricsTextfileTest, ReadersSeeTheOldOrTheNewExpositionNeverHalf) {
    test::Watchdog watchdog;
    DiagnosticRegisterCounter counter("root.metricsTest.rewrites", 0);
    std::string error;
    ASSERT_TRUE(MetricsWriteTextfile(path_, "d", &error)) << error;
    std::atomic<bool> done(false);
    std::atomic<int> reads(0);
    std::string bad;
    std::thread reader([&] {
        while (!done.load()) {
            const std::string text = ReadFile(path_);
            if (!test::CheckOpenMetrics(text).Ok()) {
                bad = text;
                return;
            }
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
    EXPECT_EQ(std::vector<std::string>{"vok.prom"}, List(dir_));
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
    EXPECT_EQ(std::vector<std::string>{"vok.prom"}, List(dir_));

    EXPECT_FALSE(MetricsWriteTextfile(dir_ + "/missing/vok.prom", "d", &error));
    EXPECT_NE(std::string::npos, error.find(dir_ + "/missing/")) << error;
}

}  // namespace
}  // namespace vok
