#include <gio/gio.h>
#include <glib.h>
#include <gtest/gtest.h>
#include <kelvra/kelvra.h>
#include <sys/wait.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <fstream>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "KelvraTestSupport.h"
#include "support/LogCapture.h"
#include "support/LoopSupport.h"
#include "support/OpenMetricsCheck.h"
#include "support/TraceEventCheck.h"
#include "vok/DiagBusService.h"
#include "vok/DiagnosticRegister.h"
#include "vok/Event.h"
#include "vok/Logger.h"
#include "vok/MessageMoverFramework.h"
#include "vok/MessageMoverInterface.h"
#include "vok/MmCommandPort.h"
#include "vok/Trace.h"
#include "vok/VokShell.h"

namespace vok {
namespace test {
namespace {

// Stuck in Run until released: the diagnostics service must answer all the same.
class StuckBlade : public ServiceBlade, public VokBladeLoaderInterface {
  public:
    Event running;  // Signalled once Run has been entered.
    Event release;

    void Run(ServiceBladeEnvironment*) override {
        running.Signal();
        release.Wait();
    }
    const std::string& GetBladeName() const override { return name_; }
    int32_t GetStartMode() const override { return kBladeStartModeAuto; }
    void LoadBlade(const VokShellDaemonInfo&) override {}
    void UnloadBlade() override {}
    ServiceBlade* GetServiceBlade() override { return this; }

  private:
    std::string name_ = "stuck";
};

// A shell with the stuck blade and its diagnostics service; the bus restarts after each test.
class DiagBusServiceTest : public ::testing::Test {
  protected:
    void SetUp() override {
        shell_.reset(new VokShell(VokShellDaemonInfo("diagtest", ""), {&blade_}, []() {}));
        server_.reset(new DiagBusService(*shell_));
        shell_->StartUp();
        client_.reset(new Handle(context_));
        ASSERT_TRUE(WaitForService("com.orvex.vok.diagtest"));  // Else a call finds no service.
        blade_.running.Wait();
    }

    void TearDown() override {
        client_.reset();
        g_main_context_unref(context_);
        shell_->RequestStop();
        blade_.release.Signal();
        server_.reset();
        shell_.reset();
        TestBus().Kill(SIGTERM);
        TestBus().Restart();
    }

    // The first reply's payload to method (empty when none came).
    std::string Call(const std::string& method, const std::string& payload) {
        ReplyLog log;
        if (!client_->Call("kelvra://com.orvex.vok.diagtest/" + method, payload, &log, nullptr,
                           10000)) {
            return "";
        }
        IterateUntil(
            context_, [&log]() { return !log.replies.empty(); }, 30);
        return log.replies.empty() ? "" : log.replies[0].payload;
    }

    static constexpr size_t npos = std::string::npos;
    StuckBlade blade_;
    std::unique_ptr<VokShell> shell_;
    std::unique_ptr<DiagBusService> server_;
    GMainContext* context_ = g_main_context_new();
    std::unique_ptr<Handle> client_;
};

TEST_F(DiagBusServiceTest, AnswersAndWatchesWhileABladeIsStuck) {
    DiagnosticRegisterCounter counter("root.diagtest.count", 5);
    counter.Inc();
    counter.Set(2);
    DiagnosticRegisterString text("root.diagtest.name", "alpha");

    const std::string registers = Call("diag/registers", "{\"prefix\":\"root.diagtest.\"}");
    EXPECT_NE(npos, registers.find("\"root.diagtest.count\":{\"value\":2,\"low\":2,\"high\":6}"))
        << registers;
    EXPECT_NE(npos, registers.find("\"root.diagtest.name\":{\"value\":\"alpha\"}")) << registers;

    const std::string blades = Call("diag/blades", "{}");
    EXPECT_NE(npos, blades.find("{\"name\":\"stuck\",\"state\":\"running\",\"busyMs\":")) << blades;

    // A service port with one message waiting.
    MessageMoverInterface* iface = shell_->GetMmFramework().CreateInterface("diag-client");
    MmCommandPort* port = iface->CreateCommandServicePort(4242);
    MmCommandMessageHandle msg;
    iface->CreateCommandMessage(0, &msg);
    msg.SetDestinationAddress(4242);
    ASSERT_EQ(kVokErrNone, port->WriteMessage(msg, nullptr));
    const std::string ports = Call("diag/ports", "{}");
    EXPECT_NE(npos, ports.find("{\"interface\":\"diag-client\",\"address\":" +
                               std::to_string(port->GetAddress()) +
                               ",\"serviceId\":4242,\"peer\":0,\"queued\":1}"))
        << ports;
    iface->DiscardCommandPort(port);
    shell_->GetMmFramework().DiscardInterface(iface);

    const Logger logger("DIAG.T");
    const Logger child("DIAG.T.Child");
    // A level by name, applied to the context and to those under it.
    Call("diag/loglevel", "{\"context\":\"DIAG.T\",\"level\":\"err\"}");
    const std::string contexts = Call("diag/loglevel", "{}");
    EXPECT_NE(npos, contexts.find("{\"context\":\"DIAG.T\",\"level\":3,\"levelName\":\"err\"}"))
        << contexts;
    EXPECT_NE(npos, contexts.find("{\"context\":\"DIAG.T.Child\",\"level\":3,")) << contexts;

    // Bad requests are refused, and the service keeps serving.
    for (const auto& bad : std::vector<std::pair<std::string, std::string>>{
             {"diag/nosuch", "{}"},
             {"diag/loglevel", "{\"context\":\"VOK.DiagBus\",\"level\":8}"},
             {"diag/trace", "{\"sinceNs\":-1}"},
         }) {
        const std::string reply = Call(bad.first, bad.second);
        EXPECT_NE(npos, reply.find("\"returnValue\":false")) << bad.first << " " << bad.second;
        EXPECT_NE(npos, reply.find("\"errorCode\"")) << reply;
    }

    // The service keeps serving: a watch sends only changed registers; watchers are bounded.
    DiagnosticRegisterCounter steady("root.watchtest.steady", 1);
    DiagnosticRegisterCounter moving("root.watchtest.moving", 1);
    const std::string uri = "kelvra://com.orvex.vok.diagtest/diag/watch";
    const std::string watch = "{\"prefix\":\"root.watchtest.\",\"subscribe\":true}";
    ReplyLog log;
    ASSERT_TRUE(client_->Call(uri, watch, &log));
    ASSERT_TRUE(IterateUntil(
        context_, [&]() { return log.replies.size() == 1; }, 30));
    EXPECT_NE(npos, log.replies[0].payload.find("steady"));
    const auto changedAt = std::chrono::steady_clock::now();
    moving.Inc();
    ASSERT_TRUE(IterateUntil(
        context_, [&]() { return log.replies.size() == 2; }, 30));
    EXPECT_LT(std::chrono::steady_clock::now() - changedAt, std::chrono::seconds(20));
    const std::string& changed = log.replies[1].payload;
    EXPECT_NE(npos, changed.find("\"root.watchtest.moving\":{\"value\":2")) << changed;
    EXPECT_EQ(npos, changed.find("steady")) << changed;
    KVCallCancel(client_->get(), log.token, nullptr);

    std::vector<ReplyLog> more(20);
    for (ReplyLog& each : more) {
        ASSERT_TRUE(client_->Call(uri, watch, &each));
    }
    ASSERT_TRUE(IterateUntil(
        context_,
        [&]() {
            return std::all_of(more.begin(), more.end(),
                               [](const ReplyLog& each) { return !each.replies.empty(); });
        },
        30));
    EXPECT_EQ(4, std::count_if(more.begin(), more.end(), [](const ReplyLog& each) {
                  return each.replies[0].payload.find("too many watchers") != std::string::npos;
              }));
}

int RunVokctl(const std::vector<std::string>& args, std::string* output) {
    std::vector<std::string> argv{VOKCTL};
    argv.insert(argv.end(), args.begin(), args.end());
    ChildProcess child;
    child.Start(argv, true, true);
    *output = child.ReadAll();
    const int status = child.Wait();
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::string ReadFile(const std::string& path) {
    std::ifstream in(path);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

std::string Shell(const std::string& command) {
    gchar* out = nullptr;
    g_spawn_command_line_sync(command.c_str(), &out, nullptr, nullptr, nullptr);
    const std::string text = out != nullptr ? out : "";
    g_free(out);
    return text;
}

struct ScratchDir {
    const std::string made = Shell("mktemp -d");  // "/tmp/tmp.XXXXXXXXXX\n"
    const std::string dir = made.substr(0, made.size() - 1) + "/";
    ~ScratchDir() { Shell("rm -rf " + dir); }
    std::string List() const { return Shell("ls -A " + dir); }  // hidden files too
};

// A trace of several MB crosses whole in parts; a recording window leaves recording as it was.
TEST_F(DiagBusServiceTest, VokctlTracesTablesAndMetrics) {
    Watchdog watchdog;
    const ScratchDir scratch;
    TraceSetRingEvents(1u << 15);
    TraceSetEnabled(true);
    const std::string kMark = "✓✓✓✓✓✓✓✓✓✓✓✓✓";  // most cuts fall inside a character
    for (int i = 0; i < 30000; ++i) {
        TraceMark(kMark);
    }
    TraceSetEnabled(false);
    std::string output;
    const std::string file = scratch.dir + "trace.json";
    ASSERT_EQ(0, RunVokctl({"diagtest", "trace", "--snapshot", "-o", file}, &output)) << output;
    const std::string json = ReadFile(file);
    EXPECT_GT(json.size(), 2u * KV_MAX_PAYLOAD_SIZE);
    TraceCheck check = CheckTraceEvents(json);
    ASSERT_TRUE(check.Ok()) << check.Report();
    auto marks = [&]() {
        return std::count_if(check.events.begin(), check.events.end(),
                             [&](const TraceEvent& e) { return e.ph == "i" && e.name == kMark; });
    };
    EXPECT_EQ(30000, marks());

    // A window holds nothing from before it, and recording is off again after it.
    ASSERT_EQ(0, RunVokctl({"diagtest", "trace", "--seconds", "0.2", "-o", file}, &output));
    check = CheckTraceEvents(ReadFile(file));
    EXPECT_TRUE(check.Ok()) << check.Report();
    EXPECT_EQ(0, marks());
    EXPECT_FALSE(TraceIsEnabled());
    EXPECT_EQ(0, RunVokctl({"diagtest", "trace", "on"}, &output));
    ASSERT_EQ(0, RunVokctl({"diagtest", "trace", "--seconds", "0.2", "-o", file}, &output));
    EXPECT_TRUE(TraceIsEnabled());
    TraceSetEnabled(false);
    // A window its caller never closes (vokctl killed) ends by itself, as recording was before.
    const LogCapture log;
    EXPECT_NE(
        npos,
        Call("diag/trace", "{\"enabled\":true,\"windowSeconds\":0}").find("\"wasEnabled\":false"));
    EXPECT_TRUE(log.WaitFor("a trace window was not closed by its caller"));
    EXPECT_FALSE(TraceIsEnabled());
    TraceSetRingEvents(kTraceDefaultRingEvents);
    EXPECT_EQ("trace.json\n", scratch.List());

    // Tables; --textfile replaces its target atomically and leaves no temporary.
    DiagnosticRegisterCounter counter("root.metricstest.depth", 3);
    DiagnosticRegisterCounter ctl("root.ctltest.count", 42);
    EXPECT_EQ(0, RunVokctl({"diagtest", "registers", "root.ctltest."}, &output));
    EXPECT_NE(npos, output.find("root.ctltest.count  42     42   42")) << output;
    EXPECT_EQ(0, RunVokctl({"list"}, &output));
    EXPECT_EQ("diagtest\n", output);
    EXPECT_EQ(3, RunVokctl({"nosuch", "status"}, &output));
    const Logger logger("CTLTEST.Sub");
    EXPECT_EQ(0, RunVokctl({"diagtest", "loglevel", "CTLTEST.Sub", "info"}, &output)) << output;
    EXPECT_TRUE(logger.IsEnabled(kLogLevelInfo));
    ASSERT_EQ(0, RunVokctl({"diagtest", "metrics"}, &output));
    const MetricsCheck metrics = CheckOpenMetrics(output);
    ASSERT_TRUE(metrics.Ok()) << metrics.Report();
    EXPECT_EQ(3, metrics.Value("metricstest_depth"));
    const ScratchDir promDir;
    const std::string path = promDir.dir + "vok.prom";
    const std::string old = "# TYPE old gauge\nold 1\n# EOF\n";
    ASSERT_TRUE(g_file_set_contents(path.c_str(), old.c_str(), -1, nullptr));
    std::atomic<bool> writing(true);
    std::thread reader([&]() {
        for (std::string seen; writing;) {
            seen = ReadFile(path);
            EXPECT_TRUE(seen == old || CheckOpenMetrics(seen).Ok()) << seen;
        }
    });
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(0, RunVokctl({"diagtest", "metrics", "--textfile", path}, &output)) << output;
    }
    writing = false;
    reader.join();
    EXPECT_TRUE(CheckOpenMetrics(ReadFile(path)).Ok());
    EXPECT_EQ("vok.prom\n", promDir.List());
}

// Three seconds of vok-demo through vokctl: whole flows between the client and echo blades' tracks.
TEST(DemoTraceTest, ThreeSecondsOfTheDemoShowFlowsBetweenClientAndEcho) {
    Watchdog watchdog(std::chrono::seconds(240));
    ChildProcess demo;
    demo.Start({VOK_DEMO}, true, true);
    ASSERT_TRUE(WaitForService("com.orvex.vok.vok-demo"));
    for (std::string line = demo.ReadLine(); line.find("round trip #1 ") == std::string::npos;
         line = demo.ReadLine()) {
        ASSERT_FALSE(line.empty()) << "vok-demo ended before its first round trip";
    }
    const ScratchDir scratch;
    const std::string path = scratch.dir + "demo.json";
    std::string output;
    const int status = RunVokctl({"vok-demo", "trace", "--seconds", "3", "-o", path}, &output);
    demo.Kill(SIGTERM);
    demo.ReadAll();
    EXPECT_EQ(0, demo.Wait());
    ASSERT_EQ(0, status) << output;
    const TraceCheck check = CheckTraceEvents(ReadFile(path));
    ASSERT_TRUE(check.Ok()) << check.Report();

    const std::set<std::string> tracks{"echo", "client", "alarm", "bus", "VokShell", "diag-bus"};
    for (const TraceEvent& event : check.events) {
        EXPECT_TRUE(event.ph == "M" || tracks.count(check.threadNames.at(event.tid))) << event.name;
    }
    std::map<std::string, std::string> readers;  // flow id -> the reader's track
    for (const TraceEvent& end : check.Phase("f")) {
        readers[end.id] = check.threadNames.at(end.tid);
    }
    std::map<std::string, size_t> flows;  // "writer>reader" -> count
    for (const TraceEvent& start : check.Phase("s")) {
        ++flows[check.threadNames.at(start.tid) + ">" + readers.at(start.id)];
    }
    EXPECT_GE(flows["client>echo"], 1u);
    EXPECT_GE(flows["echo>client"], 1u);
    EXPECT_EQ(readers.size(), flows["client>echo"] + flows["echo>client"]);
}

// A daemon name a bus name cannot hold is still served, under a name vokctl finds from it.
TEST(DiagBusServiceNameTest, DaemonNamesBecomeValidBusNames) {
    for (const std::string& daemon : {std::string("4g modem.d\xc3"), std::string(300, 'x')}) {
        EXPECT_TRUE(g_dbus_is_name(DiagBusServiceName(daemon).c_str())) << daemon;
    }
    EXPECT_EQ("com.orvex.vok._4g_modem_d_", DiagBusServiceName("4g modem.d\xc3"));
}

}  // namespace
}  // namespace test
}  // namespace vok
