#include "Src/Utils/RuntimeDispatcher/Linux/LoopHeartbeat.h"

namespace vok {

namespace {
thread_local LoopHeartbeat* tHeartbeat = nullptr;
}  // namespace

LoopHeartbeat* LoopHeartbeat::ForThisThread() {
    return tHeartbeat;
}

void LoopHeartbeat::SetForThisThread(LoopHeartbeat* heartbeat) {
    tHeartbeat = heartbeat;
}

}  // namespace vok
