// Not public API. A lock-free 32-bit counter that issues port addresses and sequence numbers.
#ifndef VOK_SRC_CORE_MESSAGEMOVER_MMFSERIALGENERATOR_H
#define VOK_SRC_CORE_MESSAGEMOVER_MMFSERIALGENERATOR_H

#include <atomic>
#include <cstdint>

namespace vok {

// Issues initialValue + 1, initialValue + 2, ...; any thread may call GetNext. Reaching 0 throws
// VokResourceException "MmfSerialGenerator::GetNext - serial number wrap-around" (without the
// critical log line), and the next call returns 1.
class MmfSerialGenerator {
  public:
    explicit MmfSerialGenerator(uint32_t initialValue) : value_(initialValue) {}
    MmfSerialGenerator(const MmfSerialGenerator&) = delete;
    MmfSerialGenerator& operator=(const MmfSerialGenerator&) = delete;

    uint32_t GetNext();

  private:
    std::atomic<uint32_t> value_;  // The last value issued.
};

}  // namespace vok

#endif  // VOK_SRC_CORE_MESSAGEMOVER_MMFSERIALGENERATOR_H
