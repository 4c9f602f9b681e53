// Without libubus there is no bus thread: every call ends kNoBus and the
// callers start the `ubus` CLI instead; objects and events have nowhere to go.
#include "bus/bus.h"

namespace cbsd::bus {

bool start(const char*) { return false; }
void stop() {}
bool running() { return false; }
bool connected() { return false; }

CallResult call(const char*, const char*, const char*, int) { return CallResult{}; }

const char* status_text(int) { return "no libubus"; }

void serve_object(const std::string&, std::vector<Method>) {}
void send_event(const std::string&, std::string) {}
void post(std::function<void()>) {}
void every(int, std::function<void()>) {}

}  // namespace cbsd::bus
