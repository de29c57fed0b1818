#include "Src/Utils/Linux/EventImpl.h"

#include "Src/Utils/VokThrow.h"
#include "vok/Event.h"

namespace vok {

EventImpl::EventImpl() : signalled_(0) {
    int result = pthread_mutex_init(&mutex_, nullptr);
    if (result == 0) {
        result = pthread_cond_init(&cond_, nullptr);
        if (result != 0) {
            pthread_mutex_destroy(&mutex_);
        }
    }
    if (result != 0) {
        VOK_THROW_RESOURCE_ERROR(result, nullptr);
    }
}

EventImpl::~EventImpl() {
    (void)pthread_mutex_destroy(&mutex_);
    (void)pthread_cond_destroy(&cond_);
}

void EventImpl::Wait() {
    int result = pthread_mutex_lock(&mutex_);
    if (result == 0) {
        while (signalled_ == 0) {
            result = pthread_cond_wait(&cond_, &mutex_);
            if (result != 0) {
                pthread_mutex_unlock(&mutex_);
                break;
            }
        }
        if (result == 0) {
            pthread_mutex_unlock(&mutex_);
        }
    }
    if (result != 0) {
        VOK_THROW_RESOURCE_ERROR(result, nullptr);
    }
}

void EventImpl::Signal() {
    int result = pthread_mutex_lock(&mutex_);
    if (result == 0) {
        result = pthread_cond_broadcast(&cond_);
        if (result == 0) {
            signalled_ = 1;
        }
        pthread_mutex_unlock(&mutex_);
    }
    if (result != 0) {
        VOK_THROW_RESOURCE_ERROR(result, nullptr);
    }
}

void EventImpl::Reset() {
    const int result = pthread_mutex_lock(&mutex_);
    if (result != 0) {
        VOK_THROW_RESOURCE_ERROR(result, nullptr);
    }
    signalled_ = 0;
    pthread_mutex_unlock(&mutex_);
}

Event::Event() : pImpl_(new EventImpl) {}
Event::~Event() {
    delete pImpl_;
}
void Event::Signal() {
    pImpl_->Signal();
}
void Event::Wait() {
    pImpl_->Wait();
}
void Event::Reset() {
    pImpl_->Reset();
}

}  // namespace vok
