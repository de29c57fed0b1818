// Out-of-memory sweeps over the public API: every allocation request of each scenario fails in
// turn (once, for good, and in runs of 2 to 4), and each run must complete or end in the
// documented error, leak nothing and leave the framework usable.
#include <gtest/gtest.h>
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
#include <thread>
#include <vector>

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

// Log lines go here during the sweeps: counted, never stored (storing would allocate).
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

// What a scenario's clean-up threw, kept without allocating (the run may still be failing every
// allocation) and reported by the scenario's check.
char gCleanupFailure[256];

// Runs f when the scope ends, however it ends: what a scenario created is given back on every
// path.
template <typename F>
struct Finally {
    F f;
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
template <typename F>
Finally<F> MakeFinally(F f) {
    return Finally<F>{f};
}

void ExpectCleanCleanup() {
    EXPECT_STREQ(gCleanupFailure, "") << "giving back what the scenario created threw";
    gCleanupFailure[0] = '\0';
}

// Framework counters after a run: clean-up did not throw, no message is outstanding.
void ExpectNoMessages() {
    ExpectCleanCleanup();
    EXPECT_EQ(Outstanding(), 0);
}

// The injector: the three failure patterns, the thread scopes, GLib passed through, counting,
// the recorded blocks, and malloc's failures (NULL, ENOMEM, a failed realloc keeps its block).
TEST_F(OomTest, InjectorFailsTheChosenRequestsOfTheChosenThreads) {
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

    // Another thread's requests do not count, nor GLib's (g_malloc aborts on failure by design).
    std::atomic<int> stage{0};
    bool threw = false, otherAllocated = false;
    std::thread other([&] {
        while (stage.load() == 0) {
        }
        int* block = new (std::nothrow) int(2);
        otherAllocated = block != nullptr;
        delete block;
        stage.store(2);
    });
    Arm(ArmScope::kCallingThread, 1, kFailForever);
    try {
        int* volatile block = new int(1);  // volatile: the compiler may not drop the request.
        delete block;
    } catch (const std::bad_alloc&) {
        threw = true;
    }
    stage.store(1);
    while (stage.load() != 2) {
    }
    gpointer fromGlib = g_malloc(32);
    const uint64_t counted = Disarm();
    other.join();
    EXPECT_TRUE(threw && otherAllocated);
    EXPECT_NE(fromGlib, nullptr);
    // operator new, and with malloc counted the exception's object (then from the emergency pool).
    EXPECT_EQ(counted, CountsMalloc() ? 2u : 1u);
    g_free(fromGlib);

    Arm(ArmScope::kAllThreads, 0, 0);
    std::thread countedThread([] {
        int* volatile block = new int(3);
        delete block;
    });
    countedThread.join();
    int* kept = new int(4);
    EXPECT_EQ(Disarm(), 3u);  // The thread's state, its int, this thread's int.
    EXPECT_EQ(LiveBlocks(), 1u);
    EXPECT_NE(DescribeLiveBlocks(4).find("4 bytes"), std::string::npos) << DescribeLiveBlocks(4);
    delete kept;
    EXPECT_EQ(LiveBlocks(), 0u);

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

// Builds {"serviceName":"com.orvex.power","count":3,"on":true,"array":[1.5,"two",null]}.
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

// JSON values built through the API and iterated. json-c's failures surface as std::bad_alloc.
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

// Parsing a document of numbers, the part of json-c's parser that is safe when malloc fails:
// parsed whole or std::bad_alloc, never the document null in its place.
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

// Objects, names, escapes and strings longer than json-c keeps inline: json-c's own parser
// answered a failed allocation with a string emptied, a value missing or a crash on the name, and
// an object large enough that json-c grows its table, which lost the name's copy when it failed.
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

// json-c's writer left out what its buffer could not take and still answered the text. Enough
// pairs that json-c grows the object's table, which lost the name's copy when it failed.
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

// Log contexts (a new one per run, kept by the logging library for the process's life) and lines
// long enough to need the heap, and hex dumps.
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
        // The context's block, when malloc is counted (not in sanitizer builds).
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

// Counter and string registers created, copied, changed, queried, released and pruned. A
// creation that fails (the master, or the table's map node after it) leaves no master behind.
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

// Dispatcher objects: a dispatcher, a timer that fires, a descriptor monitor that sees its
// descriptor readable, an async bridge triggered on its own thread, all destroyed. Resource
// failures surface as VokResourceException or std::bad_alloc.
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
        auto closeFds = MakeFinally([&fds] {
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

// A framework started for a scenario, stopped however the scenario ends.
#define VOK_OOM_FRAMEWORK(framework)                                                             \
    MessageMoverFramework* framework = MessageMoverFramework::StartMessageMoverFramework("oom"); \
    auto stop##framework =                                                                       \
        MakeFinally([framework] { MessageMoverFramework::StopMessageMoverFramework(framework); })

// Message memory and ports: a framework, two interfaces, a command service port and its
// client, a connected pair; messages created, duplicated, written, read and freed, one left
// queued for the discard; the framework stopped. After every run a framework starts again and
// carries a message, and no message is outstanding.
TEST_F(OomTest, MessagePath) {
    Scenario path;
    path.name = "message path";
    path.run = [] {
        VOK_OOM_FRAMEWORK(framework);
        MessageMoverInterface* client = framework->CreateInterface("oomClient");
        auto discardClient = MakeFinally([&] { framework->DiscardInterface(client); });
        MessageMoverInterface* server = framework->CreateInterface("oomServer");
        auto discardServer = MakeFinally([&] { framework->DiscardInterface(server); });
        MmCommandPort* service = server->CreateCommandServicePort(120);
        auto discardService = MakeFinally([&] { server->DiscardCommandPort(service); });
        MmCommandPort* sender = client->CreateCommandPort();
        auto discardSender = MakeFinally([&] { client->DiscardCommandPort(sender); });
        MmConnectionPort* serverEnd = nullptr;
        MmConnectionPort* clientEnd = client->CreateConnectedPair(server, &serverEnd);
        auto discardPair = MakeFinally([&] {
            client->DiscardConnectionPort(clientEnd);
            server->DiscardConnectionPort(serverEnd);
        });

        // Messages the client still holds are freed on the way out.
        MmCommandMessageHandle command, copy, received;
        bool holdsCommand = false, holdsCopy = false, holdsReceived = false;
        auto freeCommands = MakeFinally([&] {
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

// Large messages are entered in a table of live large blocks that grows now and then. Messages
// are created until one needs the table to grow, and that growth fails: the creation fails and
// keeps no block. (The table never shrinks, so a sweep would meet its growth only once.)
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

// A port monitor that sees a command port become readable (through its async bridge).
TEST_F(OomTest, BridgeAndPortMonitor) {
    Scenario bridge;
    bridge.name = "bridge, port monitor";
    bridge.check = ExpectNoMessages;
    bridge.run = [] {
        VOK_OOM_FRAMEWORK(framework);
        MessageMoverInterface* iface = framework->CreateInterface("oomMonitor");
        auto discard = MakeFinally([&] { framework->DiscardInterface(iface); });
        MmCommandPort* port = iface->CreateCommandPort();
        auto discardPort = MakeFinally([&] { iface->DiscardCommandPort(port); });
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
        // Refused while the monitor watches the port, which stays the interface's.
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

// A blade that runs until the shell stops it, with its dispatcher and stop watcher; a failure
// inside the blade's own setup ends its Run early (a blade catches what it can handle).
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

// The shell with two blades: constructed, started, stopped and destroyed on this thread. Only
// this thread's allocations fail: an exception on the shell's or a blade's thread ends the
// process by design.
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
        // A shell whose construction failed never reached the destructor's prune; the registers
        // it made stay in the table until the next one, as every unreferenced register does.
        DiagRegPruneAtAndBelow(kDiagRegLongevityDefault);
    };
    Sweep(shell);
}

}  // namespace
}  // namespace oom
}  // namespace test
}  // namespace vok
