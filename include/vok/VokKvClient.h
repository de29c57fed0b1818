// Whether a bus service is up, followed from a dispatcher's thread.
#ifndef VOK_VOKKVCLIENT_H
#define VOK_VOKKVCLIENT_H

#include <cstdint>
#include <functional>
#include <map>
#include <string>

#include "vok/VokTypes.h"

// The bus library's handle and message (kelvra/kelvra.h).
typedef struct KVHandle KVHandle;
typedef struct KVMessage KVMessage;
typedef struct _GMainContext GMainContext;

namespace vok {

class RuntimeDispatcher;
class RuntimeDispatcherImpl;

// Follows one bus service's registration status through the bus's status subscription and
// tells observers of every change, in ascending key order. Owned by its dispatcher's client
// manager and used on the dispatcher's thread only. When the bus goes away the service counts as
// down (observers hear false once) and, when the bus and the service are back, as up again.
class VokKvClient : private Uncopyable {
  public:
    // The bus's service status subscription,
    // "kelvra://com.orvex.kelvrabus/signal/registerServerStatus".
    static const char* const kSvcRegStatusUrl;

    // Subscribes at once (also while the bus is away); throws VokResourceException
    // (kVokErrFailed) when the bus library refuses the subscription.
    VokKvClient(KVHandle* handle, const std::string& serviceName);
    ~VokKvClient();

    // "kelvra://" + service name + "/" + method.
    std::string GetUri(const std::string& method) const;
    const std::string& GetServiceName() const { return serviceName_; }
    // The last status the bus reported; false until the first report.
    bool IsConnected() const { return connected_; }

    // Installs observer under key (replacing one already there); it is not called at once.
    void AddRegStatusObserver(void* key, std::function<void(bool)> observer);
    // Removes the observer under key, if any.
    void RemoveRegStatusObserver(void* key);
    // Calls every observer with the current status.
    void UpdateObservers();

    // The status subscription's reply function; client is the VokKvClient.
    static bool SvcRegStatusCb(KVHandle* handle, KVMessage* message, void* client);

  private:
    KVHandle* handle_;      // Not owned.
    uint64_t statusToken_;  // The status subscription.
    std::string serviceName_;
    bool connected_;
    std::map<void*, std::function<void(bool)>> observers_;
    RuntimeDispatcherImpl* dispatcher_;  // Receives exceptions of the status callback.
};

// One VokKvClient per service name for a dispatcher; owns them.
class VokKvClientMgr : private Uncopyable {
  public:
    // Clients on handle, which must outlive the manager.
    explicit VokKvClientMgr(KVHandle* handle);
    ~VokKvClientMgr();
    // The client of serviceName, created (and subscribed) on first request.
    VokKvClient* GetClient(const std::string& serviceName);

  private:
    KVHandle* handle_;                             // Not owned.
    std::map<std::string, VokKvClient*> clients_;  // Owned.
};

// Bus access of a dispatcher.
class RdKelvraUtils {
  public:
    // The dispatcher's client of serviceName, registering the dispatcher on the bus on first use.
    // Owned by the dispatcher; valid as long as it lives. Dispatcher's thread only.
    static VokKvClient* GetVokKvClient(RuntimeDispatcher& dispatcher,
                                       const std::string& serviceName);
    // The dispatcher's bus handle, registering on first use. Dispatcher's thread only.
    static KVHandle* GetKvHandle(RuntimeDispatcher& dispatcher);
};

}  // namespace vok

#endif  // VOK_VOKKVCLIENT_H
