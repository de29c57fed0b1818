// CAF 0.17: request/response between two detached actors, each on a thread of its own (cross),
// and an actor owned by the calling thread sending to itself and receiving (same).
#include <caf/all.hpp>

#include "PeerHarness.h"

namespace {

using run_atom = caf::atom_constant<caf::atom("run")>;
using ping_atom = caf::atom_constant<caf::atom("ping")>;
using done_atom = caf::atom_constant<caf::atom("done")>;

caf::behavior Ponger() {
    return {[](ping_atom, int value) { return value; }};
}

struct PingerState {
    caf::actor ponger;
    int remaining = 0;
    caf::response_promise finished;
};

using Pinger = caf::stateful_actor<PingerState>;

void PingOnce(Pinger* self) {
    self->request(self->state.ponger, caf::infinite, ping_atom::value, 1).then([self](int) {
        if (--self->state.remaining == 0) {
            self->state.finished.deliver(done_atom::value);
        } else {
            PingOnce(self);
        }
    });
}

// (run, n): n request/response round trips with the ponger, then answers done.
caf::behavior MakePinger(Pinger* self, caf::actor ponger) {
    self->state.ponger = ponger;
    return {[self](run_atom, int count) {
        self->state.remaining = count;
        self->state.finished = self->make_response_promise();
        PingOnce(self);
    }};
}

int CrossThread(caf::actor_system& system) {
    caf::actor ponger = system.spawn<caf::detached>(Ponger);
    caf::actor pinger = system.spawn<caf::detached>(MakePinger, ponger);
    caf::scoped_actor self{system};
    bool failed = false;
    const int rc = peers::Measure(1000, [&](int count) {
        self->request(pinger, caf::infinite, run_atom::value, count)
            .receive([](done_atom) {}, [&](const caf::error&) { failed = true; });
    });
    self->send_exit(pinger, caf::exit_reason::user_shutdown);
    self->send_exit(ponger, caf::exit_reason::user_shutdown);
    return failed ? 1 : rc;
}

int SameThread(caf::actor_system& system) {
    caf::scoped_actor self{system};
    long long received = 0;
    const int rc = peers::Measure(100000, [&](int count) {
        for (int i = 0; i < count; ++i) {
            self->send(self, i);
            self->receive([&](int) { ++received; });
        }
    });
    return received > 0 ? rc : 1;
}

}  // namespace

int main(int argc, char** argv) {
    caf::actor_system_config config;
    // The detached actors have threads of their own; the scheduler's workers stay idle.
    config.set("scheduler.max-threads", 1);
    caf::actor_system system{config};
    if (peers::Is(argc, argv, "cross")) {
        return CrossThread(system);
    }
    if (peers::Is(argc, argv, "same")) {
        return SameThread(system);
    }
    return peers::Usage(argv[0], "cross|same");
}
