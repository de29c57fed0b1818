// Live introspection of a daemon over the bus, for vokctl and other tools.
#ifndef VOK_INTROSPECTION_H
#define VOK_INTROSPECTION_H

#include <string>

namespace vok {

struct DaemonHooks;
class IntrospectionImpl;
class VokShell;

// The bus name a daemon serves its introspection on: "com.orvex.vok." + daemonName.
std::string IntrospectionServiceName(const std::string& daemonName);

// Serves diag/registers, diag/blades, diag/loglevel and diag/watch on the bus as
// IntrospectionServiceName(shell's daemon name), from a thread and dispatcher of its own, so a
// blade that hangs does not hide itself. Construct and destroy on one thread (RunDaemon's hooks
// do it on the main thread); the shell must outlive the server. Construction starts the thread
// (a bus that cannot be reached is logged, not thrown); destruction ends every subscription,
// gives up the bus name and joins the thread.
class IntrospectionServer {
  public:
    // Starts serving shell's daemon on the bus from a new thread.
    explicit IntrospectionServer(const VokShell& shell);
    ~IntrospectionServer();
    IntrospectionServer(const IntrospectionServer&) = delete;
    IntrospectionServer& operator=(const IntrospectionServer&) = delete;

  private:
    IntrospectionImpl* pImpl_;  // Owned.
};

// Makes RunDaemon run an IntrospectionServer from just before the shell starts until every blade
// has stopped. Call it on the hooks given to RunDaemon after setting them: it chains to the
// hooks already there.
void EnableIntrospection(DaemonHooks* hooks);

}  // namespace vok

#endif  // VOK_INTROSPECTION_H
