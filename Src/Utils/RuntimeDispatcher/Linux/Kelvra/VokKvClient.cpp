#include "vok/VokKvClient.h"

#include <kelvra/kelvra.h>

#include <vector>

#include "Src/Utils/RuntimeDispatcher/Linux/Kelvra/VokKvError.h"
#include "Src/Utils/RuntimeDispatcher/Linux/RuntimeDispatcherImpl.h"
#include "Src/Utils/Trace/TraceEvents.h"
#include "Src/Utils/VokThrow.h"
#include "vok/JsonObjectFindResult.h"
#include "vok/JsonToken.h"
#include "vok/RuntimeDispatcher.h"

namespace vok {

const char* const VokKvClient::kSvcRegStatusUrl =
    "kelvra://com.orvex.kelvrabus/signal/registerServerStatus";

VokKvClient::VokKvClient(KVHandle* handle, const std::string& serviceName)
    : handle_(handle),
      statusToken_(0),
      serviceName_(serviceName),
      connected_(false),
      dispatcher_(RuntimeDispatcherImpl::FromKvHandle(handle)) {
    // The name goes in as it is, without escaping.
    const std::string payload = "{\"serviceName\":\"" + serviceName_ + "\"}";
    VokKvError error;
    error.result = KVCall(handle_, kSvcRegStatusUrl, payload.c_str(), &VokKvClient::SvcRegStatusCb,
                          this, &statusToken_, &error.error);
    if (!error.result) {
        VOK_THROW_RESOURCE_ERROR(kVokErrFailed, error.Message());
    }
}

VokKvClient::~VokKvClient() {
    VokKvError error;
    error.result = KVCallCancel(handle_, statusToken_, &error.error);
}

std::string VokKvClient::GetUri(const std::string& method) const {
    return "kelvra://" + serviceName_ + "/" + method;
}

void VokKvClient::AddRegStatusObserver(void* key, std::function<void(bool)> observer) {
    observers_[key] = std::move(observer);
}

void VokKvClient::RemoveRegStatusObserver(void* key) {
    observers_.erase(key);
}

void VokKvClient::UpdateObservers() {
    // Observers may add and remove observers: those present when the change came are told, in
    // key order, unless removed before their turn; one added meanwhile waits for the next change.
    std::vector<void*> keys;
    for (const auto& entry : observers_) {
        keys.push_back(entry.first);
    }
    for (void* key : keys) {
        auto it = observers_.find(key);
        if (it != observers_.end()) {
            const std::function<void(bool)> observer = it->second;
            observer(connected_);
        }
    }
}

namespace {

void HandleStatusReply(VokKvClient* client, bool* connected, KVMessage* message) {
    JsonToken reply;
    const char* payload = KVMessageGetPayload(message);
    if (payload == nullptr || !reply.ParseJsonString(payload) ||
        reply.GetValueType() != JsonToken::kValueTypeObject) {
        VOK_THROW_PROGRAM_ERROR_IN("SvcRegStatusCb", kVokErrFailed, "bad json string");
    }
    JsonObjectConstFindResult found = reply.ObjectFindPair("connected");
    if (!found->HasValue()) {
        return;
    }
    if (found->GetValueType() != JsonToken::kValueTypeBoolean) {
        VOK_THROW_PROGRAM_ERROR_IN("SvcRegStatusCb", kVokErrFailed, "bad connected type");
    }
    const bool value = found->BooleanGetValue();
    if (value != *connected) {
        *connected = value;
        client->UpdateObservers();
    }
}

}  // namespace

bool VokKvClient::SvcRegStatusCb(KVHandle*, KVMessage* message, void* client) {
    VokKvClient* self = static_cast<VokKvClient*>(client);
    RuntimeDispatcherImpl::RunGuardedOn(self->dispatcher_, [&]() {
        trace::TraceCallbackScope scope(trace::kCbBusReply);
        HandleStatusReply(self, &self->connected_, message);
    });
    return true;
}

VokKvClientMgr::VokKvClientMgr(KVHandle* handle) : handle_(handle) {}

VokKvClientMgr::~VokKvClientMgr() {
    for (auto& entry : clients_) {
        delete entry.second;
    }
}

VokKvClient* VokKvClientMgr::GetClient(const std::string& serviceName) {
    auto it = clients_.find(serviceName);
    if (it != clients_.end()) {
        return it->second;
    }
    VokKvClient* client = new VokKvClient(handle_, serviceName);
    clients_[serviceName] = client;
    return client;
}

VokKvClient* RdKelvraUtils::GetVokKvClient(RuntimeDispatcher& dispatcher,
                                           const std::string& serviceName) {
    return RuntimeDispatcher::GetImpl(dispatcher)->GetVokKvClient(serviceName);
}

KVHandle* RdKelvraUtils::GetKvHandle(RuntimeDispatcher& dispatcher) {
    return RuntimeDispatcher::GetImpl(dispatcher)->GetKvHandle();
}

}  // namespace vok
