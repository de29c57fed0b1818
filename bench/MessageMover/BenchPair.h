// A started framework with one interface and one connected pair, and the message round trip the
// benchmarks measure.
#ifndef VOK_BENCH_MESSAGEMOVER_BENCHPAIR_H
#define VOK_BENCH_MESSAGEMOVER_BENCHPAIR_H

#include <ztlog/ztlog.h>

#include "vok/MessageMoverFramework.h"

namespace vok {
namespace bench {

class BenchPair {
  public:
    BenchPair() {
        // Log levels off for the MessageMover: nothing below critical is written.
        ZtLogSetLevel("VOK.MessageMover", kZtLogCritical);
        framework_ = MessageMoverFramework::StartMessageMoverFramework("bench");
        iface_ = framework_->CreateInterface("bench");
        writer_ = iface_->CreateConnectedPair(iface_, &reader_);
    }
    ~BenchPair() {
        iface_->DiscardConnectionPort(writer_);
        iface_->DiscardConnectionPort(reader_);
        framework_->DiscardInterface(iface_);
        MessageMoverFramework::StopMessageMoverFramework(framework_);
    }
    BenchPair(const BenchPair&) = delete;
    BenchPair& operator=(const BenchPair&) = delete;

    // Creates, writes, reads and frees one connection message; false on failure.
    bool RoundTrip(uint32_t payloadSize = 0) {
        Write(payloadSize);
        MmConnectionMessageHandle got;
        if (reader_->ReadMessage(&got) != kVokErrNone) {
            return false;
        }
        iface_->FreeMessage(got);
        return true;
    }

    void Write(uint32_t payloadSize = 0) {
        MmConnectionMessageHandle msg;
        iface_->CreateConnectionMessage(payloadSize, &msg);
        writer_->WriteMessage(msg, nullptr);
    }

    MessageMoverInterface* Iface() { return iface_; }
    MmConnectionPort* Reader() { return reader_; }
    MmConnectionPort* Writer() { return writer_; }

  private:
    MessageMoverFramework* framework_;
    MessageMoverInterface* iface_;
    MmConnectionPort* writer_;
    MmConnectionPort* reader_;
};

}  // namespace bench
}  // namespace vok

#endif  // VOK_BENCH_MESSAGEMOVER_BENCHPAIR_H
