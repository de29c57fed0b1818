// The service the bus tests talk to, in a process of its own: kelvra-test-service NAME.
// Runs until SIGTERM or "test/quit".
//   test/echo       {"returnValue":true,"echo":PAYLOAD}
//   test/subscribe  with "subscribe":true, a subscription: {"returnValue":true,"n":0} at once
//   test/events     a subscription told {"cancelled":N} whenever a subscription is cancelled
//   test/noreply    releases the request unanswered; test/fail returns false
//   test/late       never answers (told of cancels as test/subscribe); with {"blockMs":N}
//                   blocks its loop N ms, then answers {"returnValue":true,"late":true}
#include <glib-unix.h>
#include <glib.h>
#include <json-c/json.h>
#include <kelvra/kelvra.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

namespace {

struct Service {
    KVHandle* handle = nullptr;
    GMainLoop* loop = nullptr;
    std::vector<KVMessage*> held;      // open requests, each with a reference of ours
    std::vector<KVMessage*> watchers;  // the test/events ones among them
    int cancels = 0;
};

void Reply(Service* service, KVMessage* request, const std::string& payload) {
    KVReply(service->handle, request, payload.c_str(), nullptr);
}

// A cancelled request other than a watcher's is counted and told to every watcher.
void OnCancel(KVHandle*, KVMessage* request, void* data) {
    Service* service = static_cast<Service*>(data);
    std::vector<KVMessage*>& watchers = service->watchers;
    const auto found = std::find(watchers.begin(), watchers.end(), request);
    if (found != watchers.end()) {
        watchers.erase(found);
    } else {
        ++service->cancels;
        for (KVMessage* watcher : watchers) {
            Reply(service, watcher, "{\"cancelled\":" + std::to_string(service->cancels) + "}");
        }
    }
    service->held.erase(std::find(service->held.begin(), service->held.end(), request));
    KVMessageUnref(request);
}

void Hold(Service* service, KVMessage* request) {
    KVSubscriptionAdd(service->handle, request, OnCancel, service, nullptr);
    service->held.push_back(KVMessageRef(request));
}

bool Echo(KVHandle*, KVMessage* request, void* data) {
    Reply(static_cast<Service*>(data), request,
          std::string("{\"returnValue\":true,\"echo\":") + KVMessageGetPayload(request) + "}");
    return true;
}

bool Subscribe(KVHandle*, KVMessage* request, void* data) {
    Service* service = static_cast<Service*>(data);
    if (KVMessageIsSubscription(request)) {
        Hold(service, request);
    }
    Reply(service, request, "{\"returnValue\":true,\"n\":0}");
    return true;
}

bool Events(KVHandle*, KVMessage* request, void* data) {
    Service* service = static_cast<Service*>(data);
    Hold(service, request);
    service->watchers.push_back(request);
    Reply(service, request, "{\"returnValue\":true}");
    return true;
}

// A service that hangs: the cancel of a client that gave up waits behind the reply.
bool Late(KVHandle*, KVMessage* request, void* data) {
    Service* service = static_cast<Service*>(data);
    json_object* payload = json_tokener_parse(KVMessageGetPayload(request));
    json_object* block = nullptr;
    const bool blocks = json_object_object_get_ex(payload, "blockMs", &block);
    const int64_t blockMs = json_object_get_int64(block);
    json_object_put(payload);
    if (blocks) {
        g_usleep(static_cast<gulong>(blockMs) * 1000);
        Reply(service, request, "{\"returnValue\":true,\"late\":true}");
    } else {
        Hold(service, request);
    }
    return true;
}

bool Quit(KVHandle*, KVMessage* request, void* data) {
    Service* service = static_cast<Service*>(data);
    Reply(service, request, "{\"returnValue\":true}");
    g_main_loop_quit(service->loop);
    return true;
}

gboolean OnTerm(gpointer data) {
    g_main_loop_quit(static_cast<Service*>(data)->loop);
    return G_SOURCE_REMOVE;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s SERVICE_NAME\n", argv[0]);
        return 2;
    }
    Service service;
    KVError error;
    KVErrorInit(&error);
    if (!KVRegister(argv[1], &service.handle, &error) ||
        !KVGmainAttach(service.handle, nullptr, &error)) {
        std::fprintf(stderr, "kelvra-test-service: %s\n", error.message);
        KVErrorFree(&error);
        return 1;
    }
    const struct {
        const char* name;
        KVMethodFunc func;
    } methods[] = {
        {"test/echo", Echo},
        {"test/subscribe", Subscribe},
        {"test/events", Events},
        {"test/noreply", [](KVHandle*, KVMessage*, void*) { return true; }},
        {"test/fail", [](KVHandle*, KVMessage*, void*) { return false; }},
        {"test/quit", Quit},
        {"test/late", Late},
    };
    for (const auto& method : methods) {
        KVRegisterMethod(service.handle, method.name, method.func, &service, nullptr);
    }
    service.loop = g_main_loop_new(nullptr, FALSE);
    g_unix_signal_add(SIGTERM, OnTerm, &service);
    // Once it owns its name and has its methods, a call sent from then on is served.
    g_timeout_add(
        5,
        [](gpointer handle) -> gboolean {
            if (!KVIsConnected(static_cast<KVHandle*>(handle))) {
                return G_SOURCE_CONTINUE;
            }
            std::printf("ready\n");
            std::fflush(stdout);
            return G_SOURCE_REMOVE;
        },
        service.handle);
    g_main_loop_run(service.loop);
    for (KVMessage* message : service.held) {
        KVMessageUnref(message);
    }
    KVUnregister(service.handle, nullptr);
    g_main_loop_unref(service.loop);
    return 0;
}
