// The bus tests' service, in a process of its own: kelvra-test-service NAME. Methods:
//   test/echo       {"returnValue":true,"echo":PAYLOAD}
//   test/subscribe  {"returnValue":true,"n":0}, held open when a subscription
//   test/events     a subscription told {"cancelled":N} whenever another request is cancelled
//   test/noreply    releases the request unanswered; test/fail returns false
//   test/late       never answers; test/block blocks the loop 1 s, then answers {"late":true}
#include <glib.h>
#include <kelvra/kelvra.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

namespace {

struct Service {
    KVHandle* handle = nullptr;
    std::vector<KVMessage*> watchers;  // the open test/events requests
    int cancels = 0;
};

void Reply(Service* service, KVMessage* request, const std::string& payload) {
    KVReply(service->handle, request, payload.c_str(), nullptr);
}

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
    KVMessageUnref(request);
}

// Keeps the request open (with a reference of ours) until it is cancelled.
void Hold(Service* service, KVMessage* request) {
    KVSubscriptionAdd(service->handle, request, OnCancel, service, nullptr);
    KVMessageRef(request);
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

bool Late(KVHandle*, KVMessage* request, void* data) {
    Hold(static_cast<Service*>(data), request);
    return true;
}

// A service that hangs: the cancel of a client that gave up waits behind the reply.
bool Block(KVHandle*, KVMessage* request, void* data) {
    g_usleep(G_USEC_PER_SEC);
    Reply(static_cast<Service*>(data), request, "{\"returnValue\":true,\"late\":true}");
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        return 2;
    }
    Service service;
    KVError error;
    KVErrorInit(&error);
    if (!KVRegister(argv[1], &service.handle, &error) ||
        !KVGmainAttach(service.handle, nullptr, &error)) {
        std::fprintf(stderr, "kelvra-test-service: %s\n", error.message);
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
        {"test/late", Late},
        {"test/block", Block},
    };
    for (const auto& method : methods) {
        KVRegisterMethod(service.handle, method.name, method.func, &service, nullptr);
    }
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
    g_main_loop_run(g_main_loop_new(nullptr, FALSE));
}
