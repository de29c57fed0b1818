// bus-service: a service on the platform bus, served from a blade's dispatcher.
//
// One blade, "counter", owns the bus name com.orvex.counter and counts the seconds it has run:
//   kv-call kelvra://com.orvex.counter/counter/get '{}'                  {"count":N}, once
//   kv-call kelvra://com.orvex.counter/counter/watch '{"subscribe":true}' --subscribe
//                                                                        a reply every second
//   kv-call kelvra://com.orvex.counter/counter/sum '{"n":1000000}'       1 + 2 + ... + n, worked
//                                                  out on a thread of its own, off the loop
// Every handler runs on the blade's thread; the worker thread hands its results back with
// RuntimeDispatcher's post target. SIGTERM or SIGINT stops the daemon cleanly.
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <utility>

#include <vok/vok.h>

namespace {

class Counter {
  public:
    Counter(vok::ServiceBladeEnvironment&, vok::RuntimeDispatcher& dispatcher)
        : back_(dispatcher.GetPostTarget()),
          tick_(dispatcher, [this]() { Tick(); }),
          service_(dispatcher, "com.orvex.counter"),  // owned from the loop, once it is free
          worker_([this]() { Work(); }) {
        service_.AddMethod("counter/get",
                           [this](vok::RdKvRequest& request) { request.Reply(CountReply()); });
        service_.AddMethod("counter/watch", [this](vok::RdKvRequest& request) {
            if (!request.IsSubscription()) {
                request.ReplyError(1, "counter/watch needs \"subscribe\":true");
                return;
            }
            const unsigned id = ++lastId_;
            // The client may cancel or leave at any time: forget it then.
            watchers_[id] = request.Subscribe([this, id]() { watchers_.erase(id); });
            watchers_[id].Reply(CountReply());
        });
        service_.AddMethod("counter/sum", [this](vok::RdKvRequest& request) { Sum(request); });
        service_.SetConnectionObserver([](bool up) {
            std::printf("[counter] %s\n", up ? "serving com.orvex.counter" : "not on the bus");
            std::fflush(stdout);
        });
        tick_.SchedulePeriodic(1000);  // a fixed rate: the count does not drift
    }

    ~Counter() {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            stopping_ = true;
        }
        wake_.notify_one();
        worker_.join();
    }

  private:
    void Tick() {
        ++count_;
        for (auto& watcher : watchers_) {
            watcher.second.Reply(CountReply());
        }
    }

    std::string CountReply() const {
        vok::JsonToken reply;
        reply.MakeObject();
        reply.ObjectSetBooleanPair("returnValue", true);
        reply.ObjectSetNumberPair("count", static_cast<double>(count_));
        return reply.GenerateJsonEncodingAndPeek();
    }

    // Keeps the request here, on the blade's thread, and hands the worker only its numbers.
    void Sum(vok::RdKvRequest& request) {
        const vok::JsonObjectConstFindResult n = request.GetPayload().ObjectFindPair("n");
        if (!n->HasValue() || n->GetValueType() != vok::JsonToken::kValueTypeNumber) {
            request.ReplyError(2, "counter/sum needs a number \"n\"");
            return;
        }
        const unsigned id = ++lastId_;
        sums_[id] = std::move(request);
        std::lock_guard<std::mutex> lock(mutex_);
        jobs_.emplace_back(id, static_cast<uint64_t>(n->NumberGetValue()));
        wake_.notify_one();
    }

    // The worker thread.
    void Work() {
        std::unique_lock<std::mutex> lock(mutex_);
        while (!stopping_) {
            if (jobs_.empty()) {
                wake_.wait(lock);
                continue;
            }
            const std::pair<unsigned, uint64_t> job = jobs_.front();
            jobs_.pop_front();
            lock.unlock();
            uint64_t sum = 0;
            for (uint64_t i = 1; i <= job.second; ++i) {
                sum += i;
            }
            back_.Post([this, job, sum]() {  // runs on the blade's thread
                vok::RdKvRequest request(std::move(sums_[job.first]));
                sums_.erase(job.first);
                request.Reply("{\"returnValue\":true,\"sum\":" + std::to_string(sum) + "}");
            });
            lock.lock();
        }
    }

    vok::RdPostTarget back_;
    vok::RdTimerBase tick_;
    uint64_t count_ = 0;
    unsigned lastId_ = 0;
    std::map<unsigned, vok::RdKvSubscription> watchers_;
    std::map<unsigned, vok::RdKvRequest> sums_;  // waiting for the worker
    vok::RdKvService service_;
    std::mutex mutex_;  // Protects jobs_ and stopping_.
    std::condition_variable wake_;
    std::deque<std::pair<unsigned, uint64_t>> jobs_;
    bool stopping_ = false;
    std::thread worker_;  // last: started once everything it uses exists
};

}  // namespace

int main() {
    vok::VokBladeLoader<vok::VokLoopBlade<Counter>> counter("counter");
    return vok::RunDaemon(vok::VokShellDaemonInfo("bus-service", "the bus service example"),
                          {&counter});
}
