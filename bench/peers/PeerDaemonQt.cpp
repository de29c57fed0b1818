// The footprint daemon on Qt Core and QtDBus, as their manuals show: a QObject whose scriptable
// slots are exported on the session bus, the service name registered, READY=1 by sd_notify;
// SIGTERM ends the process (its default action).
#include <systemd/sd-daemon.h>

#include <QCoreApplication>
#include <QDBusConnection>
#include <QObject>
#include <QString>
#include <cstdio>

class Echo : public QObject {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "com.orvex.kelvra.Method")

  public slots:
    QString echo(const QString& payload, qulonglong, bool& more) {
        more = false;
        return payload;
    }
};

int main(int argc, char** argv) {
    QCoreApplication application(argc, argv);
    Echo echo;
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.registerObject("/peers", &echo, QDBusConnection::ExportAllSlots) ||
        !bus.registerService("com.orvex.peers")) {
        std::fprintf(stderr, "peer-daemon-qt: cannot serve\n");
        return 1;
    }
    sd_notify(0, "READY=1");
    return application.exec();
}

#include "PeerDaemonQt.moc"
