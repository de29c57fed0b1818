// Out-of-memory sweeps over the public API (see OomSweep.h).
#include <gtest/gtest.h>
#include <kelvra/kelvra.h>
#include <unistd.h>
#include <ztlog/ztlog.h>

#include <errno.h>
#include <glib.h>

#include <atomic>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "KelvraTestSupport.h"
#include "MessageMover/MmTestSupport.h"
#include "OomSweep.h"
#include "support/LoopSupport.h"
#include "support/MemoryCheck.h"
#include "vok/BladeStopWatcher.h"
#include "vok/DiagnosticRegister.h"
#include "vok/Event.h"
#include "vok/JsonToken.h"
#include "vok/Logger.h"
#include "vok/MessageMoverFramework.h"
#include "vok/RdAsyncBridge.h"
#include "vok/RdDescriptorMonitor.h"
#include "vok/RdPortMonitor.h"
#include "vok/RdTimer.h"
#include "vok/RuntimeDispatcher.h"
#include "vok/VokError.h"
#include "vok/VokShell.h"

namespace vok {
namespace test {
namespace oom {
namespace {

// Log lines are counted, never stored (storing would allocate).
std::atomic<int> gLogLines{0};
void CountLine(void*, int, const char*, const char*) {
    ++gLogLines;
}

class OomTest : public ::testing::Test {
  protected:
    void SetUp() override {
        if (RunningOnValgrind()) {
            GTEST_SKIP() << "valgrind replaces malloc and operator new: nothing can fail here";
        }
        ZtLogSetOutputHook(CountLine, nullptr);
    }
    void TearDown() override { ZtLogSetOutputHook(nullptr, nullptr); }
};

std::string OnlyBadAlloc() {
    try {
        throw;
    } catch (const std::bad_alloc&) {
        return "";
    } catch (const std::exception& e) {
        return std::string("not std::bad_alloc: ") + e.what();
    }
}

// A scenario whose only documented failure is std::bad_alloc.
void SweepBadAlloc(const char* name, std::function<void()> run,
                   std::function<void()> check = nullptr) {
    Scenario scenario;
    scenario.name = name;
    scenario.run = std::move(run);
    scenario.classify = OnlyBadAlloc;
    scenario.check = std::move(check);
    Sweep(scenario);
}

// What a scenario's clean-up threw, kept without allocating; reported by the scenario's check.
char gCleanupFailure[256];

template <typename F>
struct Finally {
    F f;
    explicit Finally(F g) : f(g) {}
    ~Finally() {
        try {
            f();
        } catch (const std::exception& e) {
            if (gCleanupFailure[0] == '\0') {
                std::snprintf(gCleanupFailure, sizeof gCleanupFailure, "%s", e.what());
            }
        }
    }
};

void ExpectCleanCleanup() {
    EXPECT_STREQ(gCleanupFailure, "") << "giving back what the scenario created threw";
    gCleanupFailure[0] = '\0';
}

void ExpectNoMessages() {
    ExpectCleanCleanup();
    EXPECT_EQ(Outstanding(), 0);
}

// The injector's failure patterns and malloc's failures.
TEST_F(OomTest, InjectorFailsTheChosenRequests) {
    auto pattern = [](uint32_t failCount) {  // Requests 2.. of five fail as failCount says.
        std::string outcome;
        Arm(ArmScope::kCallingThread, 2, failCount);
        for (int i = 0; i < 5; ++i) {
            int* block = new (std::nothrow) int(i);
            outcome += block != nullptr ? "+" : "-";
            delete block;
        }
        Disarm();
        return outcome;
    };
    EXPECT_EQ(pattern(1), "+-+++");
    EXPECT_EQ(pattern(3), "+---+");
    EXPECT_EQ(pattern(kFailForever), "+----");
    if (!CountsMalloc()) {
        return;  // Sanitizer build: the sanitizer owns malloc.
    }
    void* block = std::malloc(8);
    std::memcpy(block, "1234567", 8);
    Arm(ArmScope::kCallingThread, 1, kFailForever);
    EXPECT_EQ(std::malloc(8), nullptr);
    void* moved = std::realloc(block, 4096);
    EXPECT_EQ(moved, nullptr);
    block = moved != nullptr ? moved : block;
    void* aligned = nullptr;
    EXPECT_EQ(posix_memalign(&aligned, 64, 8), ENOMEM);
    EXPECT_EQ(Disarm(), 3u);
    EXPECT_STREQ(static_cast<char*>(block), "1234567");  // A failed realloc keeps the block.
    std::free(block);
}

void BuildJson(JsonToken* built) {
    built->MakeObject();
    built->ObjectSetStringPair("serviceName", "com.orvex.power");
    built->ObjectSetNumberPair("count", 3);
    built->ObjectSetBooleanPair("on", true);
    JsonToken array;
    array.MakeArray();
    array.ArraySetNumberElement(-1, 1.5);
    array.ArraySetStringElement(-1, "two");
    array.ArraySetNullElement(-1);
    built->ObjectSetPair("array", &array);
}

// json-c's failures surface as std::bad_alloc.
TEST_F(OomTest, JsonBuildIterate) {
    SweepBadAlloc("json build, iterate", [] {
        JsonToken built;
        BuildJson(&built);
        int names = 0;
        for (JsonObjectConstIterator it = built.ObjectBegin(); it != built.ObjectEnd(); ++it) {
            names += it->name != nullptr ? 1 : 0;
        }
        const JsonObjectConstFindResult found = built.ObjectFindPair("array");
        const JsonToken& list = *found;
        int elements = 0;
        for (JsonArrayConstIterator it = list.ArrayBegin(); it != list.ArrayEnd(); ++it) {
            elements += it->HasValue() ? 1 : 0;
        }
        if (names != 4 || elements != 3) {
            ADD_FAILURE() << "wrong result: " << names << " " << elements;
        }
    });
}

// Numbers: parsed whole or std::bad_alloc, never the document null in its place.
TEST_F(OomTest, ParseRunningOutOfMemoryIsNotTheDocumentNull) {
    SweepBadAlloc("json parse (numbers)", [] {
        JsonToken document;
        if (!document.ParseJsonString("[1,2.5,[3,-4],[]]")) {
            ADD_FAILURE() << "a valid document was refused";
        } else if (document.GetValueType() != JsonToken::kValueTypeArray ||
                   document.ArrayGetLength() != 4) {
            ADD_FAILURE() << "parsed wrong";
        }
    });
}

// json-c's parser emptied a string, lost a value or a name's copy, or crashed on a failure.
TEST_F(OomTest, ParsedStringsAndNamesAreWholeOrBadAlloc) {
    SweepBadAlloc("json parse (objects, strings)", [] {
        JsonToken document;
        if (!document.ParseJsonString(
                "{\"long\": \"a string longer than thirty-two bytes \\u00e9\\ud83d\\ude00\", "
                "\"list\": [{\"k\": \"v\"}, \"two\", 2.50, 18446744073709551615], \"dup\": 1, "
                "\"dup\": \"x\", \"k1\": 1, \"k2\": 2, \"k3\": 3, \"k4\": 4, \"k5\": 5, \"k6\": 6, "
                "\"k7\": 7, \"k8\": 8, \"k9\": 9, \"a name longer than thirty-two bytes, too\": "
                "{}}")) {
            ADD_FAILURE() << "a valid document was refused";
            return;
        }
        const JsonObjectConstFindResult list = document.ObjectFindPair("list");
        const JsonObjectConstFindResult text = document.ObjectFindPair("long");
        const JsonObjectConstFindResult dup = document.ObjectFindPair("dup");
        // A value missing throws std::invalid_argument, which the sweep reports.
        if (list->ArrayGetLength() != 4 || std::strcmp(dup->StringPeekValue(), "x") != 0 ||
            std::strcmp(text->StringPeekValue(),
                        "a string longer than thirty-two bytes \xc3\xa9\xf0\x9f\x98\x80") != 0 ||
            std::strcmp(list->ArrayGetValueAt(1)->StringPeekValue(), "two") != 0 ||
            !document.ObjectFindPair("a name longer than thirty-two bytes, too")->HasValue()) {
            ADD_FAILURE() << "parsed wrong";
        }
    });
}

// json-c's writer left out what its buffer could not take and still answered the text.
TEST_F(OomTest, GeneratedTextIsWholeOrBadAlloc) {
    SweepBadAlloc("json generate", [] {
        JsonToken built;
        BuildJson(&built);
        built.ObjectSetStringPair("escaped", "a \"quoted\" line\nwith a/slash");
        const char names[][2] = {"a", "b", "c", "d", "e", "f", "g", "h"};
        for (int i = 0; i < 8; ++i) {
            built.ObjectSetNumberPair(names[i], i);
        }
        const std::string written = built.GenerateJsonEncodingAndPeek();
        if (written !=
            "{ \"serviceName\": \"com.orvex.power\", \"count\": 3, \"on\": true, "
            "\"array\": [ 1.5, \"two\", null ], \"escaped\": \"a \\\"quoted\\\" "
            "line\\nwith a\\/slash\", \"a\": 0, \"b\": 1, \"c\": 2, \"d\": 3, \"e\": 4, "
            "\"f\": 5, \"g\": 6, \"h\": 7 }") {
            ADD_FAILURE() << "written wrong: " << written;
        }
    });
}

// A new log context per run (kept for the process's life), long lines and hex dumps.
TEST_F(OomTest, LoggingContexts) {
    static int run = 0;
    static char name[64];
    Scenario logging;
    logging.name = "logging";
    logging.run = [] {
        std::snprintf(name, sizeof name, "OOM.Sweep.Context%d", ++run);
        Logger logger(name);
        const std::string longText(2000, 'x');
        logger.Critical("%s: long line %s", name, longText.c_str());
        logger.CriticalBin(longText.data(), 300);
    };
    logging.kept = [] {
        ZtLogContext* context = nullptr;
        return CountsMalloc() && ZtLogFindContext(name, &context) == 0 && context != nullptr ? 1u
                                                                                             : 0u;
    };
    logging.check = [] {
        const int before = gLogLines;
        Logger("OOM.Sweep").Critical("check");
        EXPECT_EQ(gLogLines, before + 1);
    };
    Sweep(logging);
}

// A register creation that fails (the master, or the table's map node after it) leaves no master.
TEST_F(OomTest, RegisterCreationFailingLeavesNoMaster) {
    SweepBadAlloc(
        "diagnostic registers",
        [] {
            {
                DiagnosticRegisterCounter counter("root.oom.sweep.counter", 5);
                DiagnosticRegisterCounter copy(counter);
                copy.Inc();
                DiagnosticRegisterString text("root.oom.sweep.text", "initial");
                text.Set(std::string(100, 'y'));
                DiagnosticRegisterCounter::CounterInfo info;
                if (!DiagnosticRegisterCounter::Query("root.oom.sweep.counter", &info) ||
                    info.value != 6) {
                    ADD_FAILURE() << "query";
                }
            }
            DiagRegPruneAtAndBelow(kDiagRegLongevityDefault);
        },
        [] {
            DiagRegPruneAtAndBelow(kDiagRegLongevityDefault);
            DiagnosticRegisterCounter::CounterInfo info;
            EXPECT_FALSE(DiagnosticRegisterCounter::Query("root.oom.sweep.counter", &info));
            DiagnosticRegisterCounter counter("root.oom.check", 1);
            EXPECT_EQ(counter.Inc(), 2);
        });
}

// A group query that runs out of memory while it fills its result frees the result.
TEST_F(OomTest, GroupQueryFailingFreesItsResult) {
    DiagnosticRegisterCounter first("root.oom.group.a", 1), second("root.oom.group.b", 2);
    DiagnosticRegisterString text("root.oom.group.c", "c");
    SweepBadAlloc("diagnostic register groups", [] {
        std::unique_ptr<DiagnosticRegisterCounter::Group> counters(
            DiagnosticRegisterCounter::QueryGroup("root.oom.group."));
        std::unique_ptr<DiagnosticRegisterString::Group> strings(
            DiagnosticRegisterString::QueryGroup("root.oom.group."));
        if (counters == nullptr || counters->size() != 2 || strings == nullptr) {
            ADD_FAILURE() << "group query";
        }
    });
}

// A timer that fires, a descriptor monitor that sees its descriptor readable, an async bridge.
TEST_F(OomTest, DispatcherTimerAndDescriptorMonitor) {
    Scenario dispatcher;
    dispatcher.name = "dispatcher timer, monitor, bridge";
    dispatcher.check = ExpectCleanCleanup;
    dispatcher.run = [] {
        RuntimeDispatcher loop;
        bool fired = false;
        RdTimerBase timer(loop, [&fired] { fired = true; });
        timer.Schedule(0);
        if (!Pump(
                loop, [&fired] { return fired; }, 10)) {
            return;
        }
        int fds[2];
        if (pipe(fds) != 0) {
            throw DocumentedError("pipe");
        }
        Finally closeFds([&fds] {
            close(fds[0]);
            close(fds[1]);
        });
        bool readable = false;
        RdDescriptorMonitorBase monitor(fds[0], loop,
                                        [&readable](bool read, bool, bool) { readable = read; });
        monitor.SetEventMask(true, false, false);
        if (write(fds[1], "x", 1) != 1) {
            throw DocumentedError("write");
        }
        Pump(
            loop, [&readable] { return readable; }, 10);
        timer.Schedule(60000);
        timer.Cancel();
        int triggered = 0;
        RdAsyncBridge bridge(loop, [&triggered] { ++triggered; });
        bridge.Trigger();
        Pump(
            loop, [&triggered] { return triggered > 0; }, 10);
    };
    Sweep(dispatcher);
}

#define VOK_OOM_FRAMEWORK(framework)                                                             \
    MessageMoverFramework* framework = MessageMoverFramework::StartMessageMoverFramework("oom"); \
    Finally stop##framework(                                                                     \
        [framework] { MessageMoverFramework::StopMessageMoverFramework(framework); })

// Ports and messages, one left queued for the discard; afterwards a framework still works.
TEST_F(OomTest, MessagePath) {
    Scenario path;
    path.name = "message path";
    path.run = [] {
        VOK_OOM_FRAMEWORK(framework);
        MessageMoverInterface* client = framework->CreateInterface("oomClient");
        Finally discardClient([&] { framework->DiscardInterface(client); });
        MessageMoverInterface* server = framework->CreateInterface("oomServer");
        Finally discardServer([&] { framework->DiscardInterface(server); });
        MmCommandPort* service = server->CreateCommandServicePort(120);
        Finally discardService([&] { server->DiscardCommandPort(service); });
        MmCommandPort* sender = client->CreateCommandPort();
        Finally discardSender([&] { client->DiscardCommandPort(sender); });
        MmConnectionPort* serverEnd = nullptr;
        MmConnectionPort* clientEnd = client->CreateConnectedPair(server, &serverEnd);
        Finally discardPair([&] {
            client->DiscardConnectionPort(clientEnd);
            server->DiscardConnectionPort(serverEnd);
        });

        MmCommandMessageHandle command, copy, received;
        bool holdsCommand = false, holdsCopy = false, holdsReceived = false;
        Finally freeCommands([&] {
            if (holdsCommand) {
                client->FreeMessage(command);
            }
            if (holdsCopy) {
                client->FreeMessage(copy);
            }
            if (holdsReceived) {
                server->FreeMessage(received);
            }
        });
        std::memset(client->CreateCommandMessage(32, &command), 'c', 32);
        holdsCommand = true;
        command.SetMessageName({20, 1});
        command.SetDestinationAddress(120);
        copy = client->DuplicateCommandMessage(command);
        holdsCopy = true;
        MmMessageSerial_t serial = 0;
        if (sender->WriteMessage(command, &serial) != kVokErrNone) {
            ADD_FAILURE() << "command write";
        }
        holdsCommand = false;
        holdsReceived = service->ReadMessage(&received) == kVokErrNone;
        if (!holdsReceived) {
            ADD_FAILURE() << "command read";
        }

        MmConnectionMessageHandle queued;
        std::memset(client->CreateConnectionMessage(100, &queued), 'q', 100);
        queued.SetMessageName({20, 2});
        if (clientEnd->WriteMessage(queued, nullptr) != kVokErrNone) {
            client->FreeMessage(queued);
            ADD_FAILURE() << "connection write";
        }
    };
    path.check = [] {
        {
            VOK_OOM_FRAMEWORK(framework);
            MessageMoverInterface* iface = framework->CreateInterface("oomCheck");
            MmConnectionPort* peer = nullptr;
            MmConnectionPort* end = iface->CreateConnectedPair(iface, &peer);
            MmConnectionMessageHandle msg, in;
            iface->CreateConnectionMessage(8, &msg);
            msg.SetMessageName({20, 3});
            EXPECT_EQ(end->WriteMessage(msg, nullptr), kVokErrNone);
            EXPECT_EQ(peer->ReadMessage(&in), kVokErrNone);
            iface->FreeMessage(in);
            iface->DiscardConnectionPort(end);
            iface->DiscardConnectionPort(peer);
            framework->DiscardInterface(iface);
        }
        ExpectNoMessages();
        EXPECT_EQ(IfaceCounter("oomClient", "msgsHeldByUser"), 0);
        EXPECT_EQ(IfaceCounter("oomServer", "msgsHeldByUser"), 0);
    };
    Sweep(path);
}

// The table of large blocks never shrinks, so a sweep would meet its failing growth only once.
TEST_F(OomTest, LargeMessageWhoseTableCannotGrowKeepsNoBlock) {
    MessageMoverFramework* framework = MessageMoverFramework::StartMessageMoverFramework("oom");
    MessageMoverInterface* iface = framework->CreateInterface("oomLarge");
    MmCommandMessageHandle first;
    iface->CreateCommandMessage(5000, &first);  // The table exists from the first large message.
    std::vector<MmCommandMessageHandle> held{first};
    held.reserve(1024);
    // The message's block is the first request; the growth's table and its slots follow.
    for (uint64_t firstFailure : {3u, 2u}) {
        bool failed = false;
        while (!failed && held.size() < held.capacity()) {
            Arm(ArmScope::kCallingThread, firstFailure, kFailForever);
            MmCommandMessageHandle msg;
            try {
                iface->CreateCommandMessage(5000, &msg);
                held.push_back(msg);
            } catch (const std::bad_alloc&) {
                failed = true;
            }
            Disarm();
        }
        EXPECT_TRUE(failed) << "the table never grew";
        EXPECT_EQ(LiveBlocks(), 0u) << "failing from request " << firstFailure << "\n"
                                    << DescribeLiveBlocks(4);
        EXPECT_EQ(Outstanding(), static_cast<int32_t>(held.size()));
    }
    for (const MmCommandMessageHandle& msg : held) {
        iface->FreeMessage(msg);
    }
    MmCommandMessageHandle msg;
    iface->CreateCommandMessage(5000, &msg);  // And creation works again.
    iface->FreeMessage(msg);
    framework->DiscardInterface(iface);
    MessageMoverFramework::StopMessageMoverFramework(framework);
    EXPECT_EQ(Outstanding(), 0);
}

TEST_F(OomTest, BridgeAndPortMonitor) {
    Scenario bridge;
    bridge.name = "bridge, port monitor";
    bridge.check = ExpectNoMessages;
    bridge.run = [] {
        VOK_OOM_FRAMEWORK(framework);
        MessageMoverInterface* iface = framework->CreateInterface("oomMonitor");
        Finally discard([&] { framework->DiscardInterface(iface); });
        MmCommandPort* port = iface->CreateCommandPort();
        Finally discardPort([&] { iface->DiscardCommandPort(port); });
        RuntimeDispatcher loop;
        int triggered = 0;
        RdAsyncBridge trigger(loop, [&triggered] { ++triggered; });
        trigger.Trigger();
        if (!Pump(
                loop, [&triggered] { return triggered > 0; }, 10)) {
            return;
        }
        int reads = 0;
        RdPortMonitor monitor(*port, loop, [&](bool read, bool, bool) {
            MmCommandMessageHandle in;
            while (read && port->ReadMessage(&in) == kVokErrNone) {
                iface->FreeMessage(in);
                ++reads;
            }
        });
        monitor.SetEventMask(true, false, false);
        // Refused while the monitor watches the port.
        try {
            iface->DiscardCommandPort(port);
            ADD_FAILURE() << "a watched port was discarded";
        } catch (const VokProgramErrorException&) {
        }
        MmCommandMessageHandle msg;
        iface->CreateCommandMessage(4, &msg);
        msg.SetMessageName({20, 4});
        msg.SetDestinationAddress(port->GetAddress());
        if (port->WriteMessage(msg, nullptr) != kVokErrNone) {
            iface->FreeMessage(msg);
            return;
        }
        Pump(
            loop, [&reads] { return reads > 0; }, 10);
    };
    Sweep(bridge);
}

// Runs until the shell stops it; a failure in its own setup ends Run early.
class SweepBlade : public ServiceBlade, public VokBladeLoaderInterface {
  public:
    explicit SweepBlade(const char* name) : name_(name) {}
    const std::string& GetBladeName() const override { return name_; }
    int32_t GetStartMode() const override { return kBladeStartModeAuto; }
    void LoadBlade(const VokShellDaemonInfo&) override {}
    void UnloadBlade() override {}
    ServiceBlade* GetServiceBlade() override { return this; }
    void Run(ServiceBladeEnvironment* environment) override {
        try {
            RuntimeDispatcher dispatcher;
            BladeStopWatcher watcher(environment, dispatcher);
            dispatcher.Run();
        } catch (const std::exception&) {
        }
    }

  private:
    std::string name_;
};

// Only this thread's allocations fail: an exception on a shell or blade thread ends the process.
TEST_F(OomTest, Shell) {
    Scenario shell;
    shell.name = "shell";
    shell.run = [] {
        SweepBlade first("first"), second("second");
        Event stopped;
        VokShell daemon(VokShellDaemonInfo("oomd", ""), {&first, &second},
                        [&stopped] { stopped.Signal(); });
        daemon.StartUp();
        daemon.RequestStop();
        stopped.Wait();
    };
    shell.check = [] {
        ExpectCleanCleanup();
        EXPECT_TRUE(Outstanding() == 0 || Outstanding() == INT_MIN);
        // A shell whose construction failed never reached the destructor's prune.
        DiagRegPruneAtAndBelow(kDiagRegLongevityDefault);
    };
    Sweep(shell);
}

// A service and a client on the private bus: call, subscribe, cancel, follow the status.
struct BusRun {
    KVHandle* service = nullptr;
    KVHandle* client = nullptr;
    bool serviceUp = false, clientUp = false, down = false, cancelled = false;
    KVMessage* subscription = nullptr;
    std::vector<std::string> replies;
    bool ended = false;
    bool outOfMemory = false;  // A callback could not record what it got.
};

// Not connected (a failure to connect, or a lost connection) ends the run in a documented error.
void OnBusConnection(KVHandle* handle, bool connected, void* data) {
    BusRun* run = static_cast<BusRun*>(data);
    (handle == run->service ? run->serviceUp : run->clientUp) = connected;
    run->down = run->down || !connected;
}

bool OnBusReply(KVHandle*, KVMessage* reply, void* data) {
    BusRun* run = static_cast<BusRun*>(data);
    run->ended = run->ended || KVMessageIsLastReply(reply);
    try {
        run->replies.push_back(KVMessageGetPayload(reply));
    } catch (const std::bad_alloc&) {
        run->outOfMemory = true;
    }
    return true;
}

void OnBusCancel(KVHandle*, KVMessage*, void* data) {
    static_cast<BusRun*>(data)->cancelled = true;
}

// "oom/echo": answers {"echo":true}; a subscription gets that first and keeps open.
bool OnBusEcho(KVHandle* handle, KVMessage* request, void* data) {
    BusRun* run = static_cast<BusRun*>(data);
    if (KVMessageIsSubscription(request)) {
        if (!KVSubscriptionAdd(handle, request, OnBusCancel, run, nullptr)) {
            return false;
        }
        run->subscription = KVMessageRef(request);
    }
    return KVReply(handle, request, "{\"echo\":true}", nullptr);
}

[[noreturn]] void ThrowBusError(const char* what, KVError* error) {
    char text[256];
    std::snprintf(text, sizeof text, "%s: %d %s", what, static_cast<int>(error->code),
                  error->message != nullptr ? error->message : "(no message)");
    KVErrorFree(error);
    throw DocumentedError(text);
}

// Waits until done() holds or a connection is lost (a documented end); over 10 s is a hang.
void AwaitBus(GMainContext* context, BusRun& run, const char* step,
              const std::function<bool()>& done) {
    if (!IterateUntil(
            context, [&] { return run.down || run.outOfMemory || done(); }, 10)) {
        throw std::runtime_error(std::string("the bus scenario hangs: ") + step);
    }
    if (run.outOfMemory) {
        throw std::bad_alloc();
    }
    if (run.down) {
        throw DocumentedError(std::string("connection lost: ") + step);
    }
}

// Error replies running out of memory may cause are documented errors.
void CheckBusReply(const std::string& reply, const char* expected) {
    if (reply == expected) {
        return;
    }
    for (int code : {KV_ERROR_BUS, KV_ERROR_SERVICE_GONE, KV_ERROR_NO_REPLY, KV_ERROR_METHOD_FAILED,
                     KV_ERROR_BUS_UNAVAILABLE}) {
        if (reply.find("{\"returnValue\":false,\"errorCode\":" + std::to_string(code) + ",") == 0) {
            throw DocumentedError(reply);
        }
    }
    throw std::runtime_error("wrong reply " + reply + ", expected " + expected);
}

void BusScenario() {
    static int serial = 0;
    char name[64];
    // A name of its own per run: the bus may not have seen the last owner leave yet.
    std::snprintf(name, sizeof name, "com.orvex.oomsweep.run%d", ++serial);
    GMainContext* context = g_main_context_new();
    Finally unrefContext([context] { g_main_context_unref(context); });
    BusRun run;
    KVError error;
    KVErrorInit(&error);
    Finally unregister([&run, context] {
        KVMessageUnref(run.subscription);
        for (KVHandle* handle : {run.client, run.service}) {
            if (handle != nullptr) {
                KVUnregister(handle, nullptr);
            }
        }
        while (g_main_context_iteration(context, FALSE)) {
        }
    });
    if (!KVRegisterWithFlags(name, KV_REGISTER_REPORT_FIRST_UP, &run.service, &error) ||
        !KVSetConnectionFunc(run.service, OnBusConnection, &run, &error) ||
        !KVRegisterMethod(run.service, "oom/echo", OnBusEcho, &run, &error) ||
        !KVGmainAttach(run.service, context, &error)) {
        ThrowBusError("service", &error);
    }
    if (!KVRegisterWithFlags(nullptr, KV_REGISTER_REPORT_FIRST_UP, &run.client, &error) ||
        !KVSetConnectionFunc(run.client, OnBusConnection, &run, &error) ||
        !KVGmainAttach(run.client, context, &error)) {
        ThrowBusError("client", &error);
    }
    AwaitBus(context, run, "connecting", [&run] { return run.serviceUp && run.clientUp; });

    const std::string uri = std::string("kelvra://") + name + "/oom/echo";
    auto call = [&](const char* step, const std::string& target, const std::string& payload,
                    size_t replies) {
        run.replies.clear();
        run.ended = false;
        KVMessageToken token = 0;
        if (!KVCall(run.client, target.c_str(), payload.c_str(), OnBusReply, &run, &token,
                    &error)) {
            ThrowBusError(step, &error);
        }
        AwaitBus(context, run, step, [&] { return run.replies.size() >= replies || run.ended; });
        return token;
    };
    call("call", uri, "{\"value\":1}", 1);
    CheckBusReply(run.replies.back(), "{\"echo\":true}");

    const KVMessageToken subscription = call("subscribe", uri, "{\"subscribe\":true}", 1);
    CheckBusReply(run.replies.back(), "{\"echo\":true}");
    if (run.ended || run.subscription == nullptr) {
        throw std::runtime_error("the subscription was not kept open");
    }
    if (!KVReply(run.service, run.subscription, "{\"again\":true}", &error)) {
        ThrowBusError("second reply", &error);
    }
    AwaitBus(context, run, "second reply", [&run] { return run.replies.size() == 2 || run.ended; });
    CheckBusReply(run.replies.back(), "{\"again\":true}");
    if (!KVCallCancel(run.client, subscription, &error)) {
        ThrowBusError("cancel", &error);
    }
    AwaitBus(context, run, "cancel", [&run] { return run.cancelled; });

    const KVMessageToken status =
        call("status", "kelvra://com.orvex.kelvrabus/signal/registerServerStatus",
             std::string("{\"serviceName\":\"") + name + "\"}", 1);
    CheckBusReply(run.replies.back(), (std::string("{\"serviceName\":\"") + name +
                                       "\",\"connected\":true,\"returnValue\":true}")
                                          .c_str());
    if (!KVCallCancel(run.client, status, &error)) {
        ThrowBusError("status cancel", &error);
    }
}

TEST_F(OomTest, BusLibraryOnAPrivateBus) {
    Scenario bus;
    bus.name = "bus library";
    bus.run = BusScenario;
    bus.sampledPoints = 1000;
    bus.check = [] {
        ExpectCleanCleanup();
        EXPECT_NO_THROW(BusScenario());
    };
    Sweep(bus);
}

}  // namespace
}  // namespace oom
}  // namespace test
}  // namespace vok
