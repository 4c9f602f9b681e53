// The daemon's one connection to ubusd, where OpenWrt's libubus is built in:
// a thread of its own owns it (libubus is not thread-safe), answers calls of
// the objects the daemon serves, sends its events and makes the calls the
// other threads ask for.  No caller ever waits longer than its own time
// limit, whatever ubusd or the called object does.
//
// Built without libubus, running() stays false and every call ends
// kNoBus: callers then start the `ubus` CLI instead.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace cbsd::bus {

// Starts the bus thread on ubusd's socket (nullptr: libubus's default path).
// No ubusd yet is no failure: the thread connects once there is one, and
// again whenever ubusd restarts.  False only when built without libubus.
bool start(const char* socket_path = nullptr);
// Ends the bus thread (its objects leave the bus with the connection).
void stop();
// True between start() and stop() in a build with libubus.
bool running();
// True while the connection to ubusd is up.
bool connected();

enum class CallEnd {
    kAnswered,      // the object answered with status 0
    kFailed,        // the object answered with a failure status (`status`)
    kNoObject,      // the lookup of the object failed (`status`: "Not found")
    kNoConnection,  // no connection to ubusd
    kTimedOut,      // no answer within the time limit
    kNoBus,         // not running, or built without libubus
};

struct CallResult {
    CallEnd end = CallEnd::kNoBus;
    int status = 0;
    // The reply data as `ubus call` prints it: each data message formatted
    // by libubox's blobmsg_format_json_indent, a newline after each; empty
    // when the object sent no data.
    std::string reply;
};

// Calls object's method with the arguments in json_args (a JSON object's
// text, or nullptr for none); answers within time_limit_ms.
CallResult call(const char* object, const char* method, const char* json_args, int time_limit_ms);

// libubus's text for a status ("Method not found").
const char* status_text(int status);

// An object the daemon serves.  Each method answers with the JSON object
// text its handler returns; the handlers run on the bus thread, so they must
// only read what other threads published, never wait for them.
struct Method {
    std::string name;
    std::function<std::string()> reply_json;
};
// Before start(): the object appears on the bus whenever the connection is
// up.
void serve_object(const std::string& name, std::vector<Method> methods);

// Queues an event (type, a JSON object's text) for the bus thread to send;
// never waits.  Dropped while there is no connection.
void send_event(const std::string& type, std::string json);

// Queues task to run on the bus thread soon; never waits.  Dropped when the
// bus thread does not run.
void post(std::function<void()> task);

// Runs task on the bus thread every interval_ms (first after one interval);
// before start().  A task may call() (it is then made on the spot).
void every(int interval_ms, std::function<void()> task);

}  // namespace cbsd::bus
