#include "Src/Utils/RuntimeDispatcher/Linux/RdDescriptorMonitorImpl.h"

#include "Src/Utils/RuntimeDispatcher/Linux/RuntimeDispatcherImpl.h"
#include "Src/Utils/Trace/TraceEvents.h"
#include "vok/RdDescriptorMonitor.h"
#include "vok/RuntimeDispatcher.h"

namespace vok {

namespace {

const unsigned kTroubleConditions = G_IO_ERR | G_IO_HUP | G_IO_NVAL;

}  // namespace

RdDescriptorMonitorImpl::RdDescriptorMonitorImpl(int fd, RuntimeDispatcherImpl* dispatcher,
                                                 std::function<void(bool, bool, bool)> callback)
    : dispatcher_(dispatcher),
      callback_(std::move(callback)),
      channel_(g_io_channel_unix_new(fd)),
      source_(nullptr),
      watchRead_(false),
      watchWrite_(false),
      watchException_(false) {}

RdDescriptorMonitorImpl::~RdDescriptorMonitorImpl() {
    Cancel();
    g_io_channel_unref(channel_);
}

GIOCondition RdDescriptorMonitorImpl::ConditionFor(bool read, bool write, bool exception) {
    unsigned condition = 0;
    if (read) {
        condition |= G_IO_IN;
    }
    if (write) {
        condition |= G_IO_OUT;
    }
    if (exception) {
        condition |= G_IO_PRI;
    }
    if (condition != 0) {
        condition |= kTroubleConditions;
    }
    return static_cast<GIOCondition>(condition);
}

void RdDescriptorMonitorImpl::SetEventMask(bool read, bool write, bool exception) {
    const GIOCondition condition = ConditionFor(read, write, exception);
    Cancel();
    if (condition == 0) {
        return;
    }
    watchRead_ = read;
    watchWrite_ = write;
    watchException_ = exception;
    GSource* source = g_io_create_watch(channel_, condition);
    g_source_set_can_recurse(source, FALSE);
    g_source_set_callback(source, G_SOURCE_FUNC(&RdDescriptorMonitorImpl::CallbackFunc), this,
                          nullptr);
    g_source_attach(source, dispatcher_->GetContext());
    g_source_unref(source);
    source_ = source;
}

void RdDescriptorMonitorImpl::ChangeCb(std::function<void(bool, bool, bool)> callback) {
    callback_.Replace(std::move(callback));
}

void RdDescriptorMonitorImpl::Cancel() {
    if (source_ != nullptr) {
        g_source_destroy(source_);
        source_ = nullptr;
    }
}

void RdDescriptorMonitorImpl::Discard() {
    Cancel();
    DropRef();
}

gboolean RdDescriptorMonitorImpl::CallbackFunc(GIOChannel*, GIOCondition condition, gpointer data) {
    RdDescriptorMonitorImpl* self = static_cast<RdDescriptorMonitorImpl*>(data);
    const unsigned c = condition;
    const bool readable = self->watchRead_ && (c & (G_IO_IN | kTroubleConditions)) != 0;
    const bool writable = self->watchWrite_ && (c & (G_IO_OUT | kTroubleConditions)) != 0;
    const bool exception = self->watchException_ && (c & (G_IO_PRI | kTroubleConditions)) != 0;
    self->dispatcher_->RunGuarded([&]() {
        RefCounted::Holder hold(self);
        trace::TraceCallbackScope scope(trace::kCbDescriptorMonitor);
        self->callback_(readable, writable, exception);  // std::bad_function_call when empty.
    });
    return TRUE;
}

RdDescriptorMonitorBase::RdDescriptorMonitorBase(int fd, RuntimeDispatcher& dispatcher,
                                                 std::function<void(bool, bool, bool)> callback)
    : impl_(new RdDescriptorMonitorImpl(fd, RuntimeDispatcher::GetImpl(dispatcher),
                                        std::move(callback))) {}
RdDescriptorMonitorBase::~RdDescriptorMonitorBase() {
    impl_->Discard();
}
void RdDescriptorMonitorBase::SetEventMask(bool read, bool write, bool exception) {
    impl_->SetEventMask(read, write, exception);
}
void RdDescriptorMonitorBase::ChangeCb(std::function<void(bool, bool, bool)> callback) {
    impl_->ChangeCb(std::move(callback));
}

}  // namespace vok
