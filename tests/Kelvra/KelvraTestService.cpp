// The service the bus tests talk to, in a process of its own: kelvra-test-service NAME.
// Runs until SIGTERM or "test/quit".
//   test/echo       {"returnValue":true,"echo":PAYLOAD}
//   test/subscribe  with "subscribe":true, a subscription: {"returnValue":true,"n":0} at once
//   test/events     a subscription told {"cancelled":N} whenever a subscription is cancelled
//   test/noreply    releases the request unanswered; test/fail returns false
//   test/late       never answers (told of cancels as test/subscribe); with {"blockMs":N} blocks
//   its
//                   loop N ms, then answers {"returnValue":true,"late":true}
#include <glib-unix.h>
#include <glib.h>
#include <json-c/json.h>
#include <kelvra/kelvra.h>

#include <cstdio>
#include <string>
#include <vector>

namespace {

struct Service {
    KVHandle* handle = nullptr;
    GMainLoop* loop = nullptr;
    std::vector<KVMessage*> subscriptions;  // each with a reference of ours
    std::vector<KVMessage*> watchers;       // test/events subscriptions, with a reference
    int cancels = 0;
};

void Reply(Service* service, KVMessage* request, const std::string& payload) {
    KVReply(service->handle, request, payload.c_str(), nullptr);
}

void Forget(std::vector<KVMessage*>* list, KVMessage* request) {
    for (auto it = list->begin(); it != list->end(); ++it) {
        if (*it == request) {
            list->erase(it);
            KVMessageUnref(request);
            return;
        }
    }
}

void OnCancel(KVHandle*, KVMessage* request, void* data) {
    Service* service = static_cast<Service*>(data);
    Forget(&service->subscriptions, request);
    ++service->cancels;
    for (KVMessage* watcher : service->watchers) {
        Reply(service, watcher, "{\"cancelled\":" + std::to_string(service->cancels) + "}");
    }
}

void OnWatcherCancel(KVHandle*, KVMessage* request, void* data) {
    Forget(&static_cast<Service*>(data)->watchers, request);
}

bool Echo(KVHandle*, KVMessage* request, void* data) {
    Reply(static_cast<Service*>(data), request,
          std::string("{\"returnValue\":true,\"echo\":") + KVMessageGetPayload(request) + "}");
    return true;
}

bool Subscribe(KVHandle* handle, KVMessage* request, void* data) {
    Service* service = static_cast<Service*>(data);
    if (KVMessageIsSubscription(request)) {
        KVSubscriptionAdd(handle, request, OnCancel, service, nullptr);
        service->subscriptions.push_back(KVMessageRef(request));
    }
    Reply(service, request, "{\"returnValue\":true,\"n\":0}");
    return true;
}

bool Events(KVHandle* handle, KVMessage* request, void* data) {
    Service* service = static_cast<Service*>(data);
    KVSubscriptionAdd(handle, request, OnWatcherCancel, service, nullptr);
    service->watchers.push_back(KVMessageRef(request));
    Reply(service, request, "{\"returnValue\":true}");
    return true;
}

bool NoReply(KVHandle*, KVMessage*, void*) {
    return true;
}

// A service that hangs: the cancel of a client that gave up waits behind the reply.
bool Late(KVHandle* handle, KVMessage* request, void* data) {
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
        KVSubscriptionAdd(handle, request, OnCancel, service, nullptr);
        service->subscriptions.push_back(KVMessageRef(request));
    }
    return true;
}

bool Fail(KVHandle*, KVMessage*, void*) {
    return false;
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
    } methods[] = {{"test/echo", Echo},     {"test/subscribe", Subscribe},
                   {"test/events", Events}, {"test/noreply", NoReply},
                   {"test/fail", Fail},     {"test/quit", Quit},
                   {"test/late", Late}};
    for (const auto& method : methods) {
        KVRegisterMethod(service.handle, method.name, method.func, &service, nullptr);
    }
    service.loop = g_main_loop_new(nullptr, FALSE);
    g_unix_signal_add(SIGTERM, OnTerm, &service);
    g_main_loop_run(service.loop);
    for (KVMessage* message : service.subscriptions) {
        KVMessageUnref(message);
    }
    for (KVMessage* message : service.watchers) {
        KVMessageUnref(message);
    }
    KVUnregister(service.handle, nullptr);
    g_main_loop_unref(service.loop);
    return 0;
}
