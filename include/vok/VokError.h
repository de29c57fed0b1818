// Result codes and the exception family of the framework.
#ifndef VOK_VOKERROR_H
#define VOK_VOKERROR_H

#include <cstdint>
#include <stdexcept>
#include <string>

namespace vok {

// Result of framework operations; 0 is success. Resource exceptions raised where an operating
// system call fails carry that call's own result instead of one of these values.
enum VokError_t : int32_t {
    kVokErrNone = 0,
    // The other end of a connected port pair is gone.
    kVokErrPeerClosed = 0x00010002,
    // A read found no message waiting.
    kVokErrNoMessage = 0x00010003,
    // General failure of an operation or of a state precondition.
    kVokErrFailed = 0x00010009,
    // Bad argument to the diagnostic register table.
    kVokErrBadArg = 0x0001000A,
    // Internal delivery result: nothing is registered at the destination address.
    kVokErrUnreachable = 0x00020001,
    // Code of the message-passing subsystem's program errors and resource exceptions.
    kVokErrUnspecified = -1,
};

// Base of the framework's exceptions; never thrown directly. what() returns the message
// "function:path:line[:text]"; GetErr() the code.
class VokException : public std::runtime_error {
  public:
    // message becomes what(); err is the code GetErr() returns.
    VokException(const std::string& message, int32_t err)
        : std::runtime_error(message), err_(err) {}
    // A VokError_t value, or the failed system call's result.
    int32_t GetErr() const { return err_; }

  private:
    int32_t err_;
};

// A broken precondition or an impossible state.
class VokProgramErrorException : public VokException {
  public:
    // See VokException.
    VokProgramErrorException(const std::string& message, int32_t err)
        : VokException(message, err) {}
};

// An operating-system or platform resource could not be obtained or used.
class VokResourceException : public VokException {
  public:
    // See VokException.
    VokResourceException(const std::string& message, int32_t err) : VokException(message, err) {}
};

// An operation that is declared but not provided.
class VokUnimplementedException : public VokException {
  public:
    // See VokException.
    VokUnimplementedException(const std::string& message, int32_t err)
        : VokException(message, err) {}
};

}  // namespace vok

#endif  // VOK_VOKERROR_H
