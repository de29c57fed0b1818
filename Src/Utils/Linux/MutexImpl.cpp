// POSIX implementation of Mutex: set-up, tear-down and the rare failure paths. Locking itself is
// inline in the header.
#include "Src/Utils/VokThrow.h"
#include "vok/Mutex.h"

namespace vok {

Mutex::Mutex() {
    pthread_mutexattr_t attr;
    int result = pthread_mutexattr_init(&attr);
    if (result == 0) {
        result = pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
        if (result == 0) {
            result = pthread_mutex_init(&mutex_, &attr);
        }
        (void)pthread_mutexattr_destroy(&attr);
    }
    if (result != 0) {
        VOK_THROW_RESOURCE_ERROR(result, nullptr);
    }
}

Mutex::~Mutex() {
    (void)pthread_mutex_destroy(&mutex_);
}

// Exceptions name the public operation that failed.
void Mutex::LockFailed(int result) {
    detail::ThrowResourceError("Lock", __FILE__, __LINE__, result, nullptr);
}

void Mutex::UnlockFailed(int result) {
    detail::ThrowResourceError("Unlock", __FILE__, __LINE__, result, nullptr);
}

}  // namespace vok
