#include "Src/Utils/Linux/MutexImpl.h"

#include "Src/Utils/VokThrow.h"
#include "vok/Mutex.h"

namespace vok {

MutexImpl::MutexImpl() {
    pthread_mutexattr_t attr;
    int result = pthread_mutexattr_init(&attr);
    if (result == 0) {
        result = pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
        if (result == 0) {
            result = pthread_mutex_init(&mutex_, &attr);
        }
        if (result != 0) {
            pthread_mutexattr_destroy(&attr);
        }
    }
    if (result != 0) {
        VOK_THROW_RESOURCE_ERROR(result, nullptr);
    }
}

MutexImpl::~MutexImpl() {
    (void)pthread_mutex_destroy(&mutex_);
}

void MutexImpl::Lock() {
    const int result = pthread_mutex_lock(&mutex_);
    if (result != 0) {
        VOK_THROW_RESOURCE_ERROR(result, nullptr);
    }
}

void MutexImpl::Unlock() {
    const int result = pthread_mutex_unlock(&mutex_);
    if (result != 0) {
        VOK_THROW_RESOURCE_ERROR(result, nullptr);
    }
}

Mutex::Mutex() : pImpl_(new MutexImpl) {}
Mutex::~Mutex() {
    delete pImpl_;
}
void Mutex::Lock() {
    pImpl_->Lock();
}
void Mutex::Unlock() {
    pImpl_->Unlock();
}

}  // namespace vok
