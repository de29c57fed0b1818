// Qt 5 queued events: postEvent between objects living in two QThreads, each running its event
// loop (cross), and postEvent followed by sendPostedEvents on the posting thread (same). Which
// event dispatcher the threads get is Qt's choice: its GLib one by default, its own UNIX one when
// QT_NO_GLIB=1 is in the environment.
#include <QCoreApplication>
#include <QEvent>
#include <QObject>
#include <QThread>

#include "PeerHarness.h"

namespace {

const QEvent::Type kHop = static_cast<QEvent::Type>(QEvent::User + 1);

class Side : public QObject {
  public:
    Side* peer = nullptr;
    int remaining = 0;
    peers::Done* done = nullptr;  // the counting side only

    bool event(QEvent* event) override {
        if (event->type() != kHop) {
            return QObject::event(event);
        }
        if (done != nullptr && --remaining == 0) {
            done->Signal();
        } else {
            QCoreApplication::postEvent(peer, new QEvent(kHop));
        }
        return true;
    }
};

class Sink : public QObject {
  public:
    long long received = 0;
    bool event(QEvent* event) override {
        if (event->type() != kHop) {
            return QObject::event(event);
        }
        ++received;
        return true;
    }
};

int CrossThread() {
    QThread threadA, threadB;
    Side a, b;
    a.peer = &b;
    b.peer = &a;
    peers::Done done;
    a.done = &done;
    a.moveToThread(&threadA);
    b.moveToThread(&threadB);
    threadA.start();
    threadB.start();
    const int rc = peers::Measure(1000, [&](int count) {
        done.Reset();
        a.remaining = count;  // read on a's thread after the post below
        QCoreApplication::postEvent(&b, new QEvent(kHop));
        done.Wait();
    });
    threadA.quit();
    threadB.quit();
    threadA.wait();
    threadB.wait();
    return rc;
}

int SameThread() {
    Sink sink;
    const int rc = peers::Measure(100000, [&](int count) {
        for (int i = 0; i < count; ++i) {
            QCoreApplication::postEvent(&sink, new QEvent(kHop));
            QCoreApplication::sendPostedEvents();
        }
    });
    return sink.received > 0 ? rc : 1;
}

}  // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    if (peers::Is(argc, argv, "cross")) {
        return CrossThread();
    }
    if (peers::Is(argc, argv, "same")) {
        return SameThread();
    }
    return peers::Usage(argv[0], "cross|same");
}
