// The power service's alarms and its request handling, without bus or timer.
#ifndef VOK_APPS_VOK_POWERD_ALARMBOOK_H
#define VOK_APPS_VOK_POWERD_ALARMBOOK_H

#include <cstddef>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace vok {
namespace powerd {

// errorCode values of the service's error replies.
enum PowerError {
    kPowerErrBadPayload = 1,     // not a JSON object
    kPowerErrBadTime = 2,        // "relative_time" missing or not HH:MM:SS
    kPowerErrBadId = 3,          // "alarmId" missing or not an integer 1..4294967295
    kPowerErrUnknownId = 4,      // no alarm with that id
    kPowerErrTimer = 5,          // the service cannot keep the alarm (timer or bus)
    kPowerErrNotOwner = 6,       // the alarm belongs to another client
    kPowerErrTooMany = 7,        // the client, or the service, has as many alarms as it may
    kPowerErrNotSubscribed = 8,  // an add without "subscribe":true
    kPowerErrUnknownMethod = 9,
};

// The pending alarms, ordered by due time, with their owners. Requests come in as method,
// payload text and the sender's bus name, with the time of the service's clock (nanoseconds on
// CLOCK_BOOTTIME); the outcome says what to reply and what the bus side must do. Each alarm is
// tied to its add request's subscription: it ends when that ends. Single-threaded; owned by its
// service (or a test).
class AlarmBook {
  public:
    static const size_t kMaxAlarmsPerClient = 64;
    static const size_t kMaxAlarms = 4096;

    struct Outcome {
        std::string reply;     // the reply to the request (JSON text)
        uint32_t added = 0;    // an alarm made by this add: its request stays open
        uint32_t removed = 0;  // an alarm ended by this remove: its request gets RemovedReply
        std::string logLine;   // what was done, for the request log
    };

    Outcome Handle(const std::string& method, const char* payload, const char* sender,
                   int64_t nowNs);
    // The alarms due at nowNs, taken out of the book, earliest first.
    std::vector<uint32_t> TakeDue(int64_t nowNs);
    // The earliest due time, or -1 when no alarm is pending.
    int64_t NextDue() const;
    // Forgets an alarm whose request ended; false when there is none.
    bool Drop(uint32_t id);
    size_t Count() const { return alarms_.size(); }

    static std::string FiredReply(uint32_t id);
    static std::string RemovedReply(uint32_t id);
    static std::string ErrorReply(int code, const char* text);
    // "HH:MM:SS" with hours 0..23 and minutes, seconds 0..59, to seconds; -1 when the text is
    // anything else (signs, blanks, other lengths).
    static long ParseRelativeTime(const char* text);

  private:
    struct Alarm {
        int64_t dueNs;
        std::string sender;
    };

    Outcome Add(const char* payload, const std::string& sender, int64_t nowNs);
    Outcome Remove(const char* payload, const std::string& sender);
    uint32_t NewId();
    void Forget(std::map<uint32_t, Alarm>::iterator it);

    std::map<uint32_t, Alarm> alarms_;
    std::set<std::pair<int64_t, uint32_t>> queue_;  // (due time, id) of every alarm
    std::map<std::string, size_t> perClient_;       // live alarms by sender
    uint32_t nextId_ = 1;
};

}  // namespace powerd
}  // namespace vok

#endif  // VOK_APPS_VOK_POWERD_ALARMBOOK_H
