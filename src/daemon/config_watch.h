// Wakes the supervision loop when a configuration file changes, so a change
// takes effect at once instead of after the rest of the steady sleep.
#pragma once

#include <cstdint>
#include <string>

namespace cbsd::daemon {

// Watches the directory of one file: the store renames a new file over the
// old one, which a watch on the file itself would lose.  A file written in
// place (closed after writing) counts too.
class ConfigWatch {
public:
    explicit ConfigWatch(const char* file_path);
    ConfigWatch(const ConfigWatch&) = delete;
    ConfigWatch& operator=(const ConfigWatch&) = delete;
    ~ConfigWatch();

    // False when the system gave no watch; the caller then sleeps plainly.
    bool active() const { return fd_ >= 0; }

    // Waits at most timeout_ms; true when the file changed since the last
    // call that returned true (or since the watch began).  Every pending
    // event is consumed, so a burst of writes wakes the caller once.
    bool wait_for_change(uint32_t timeout_ms);

private:
    bool drain_matching();

    int fd_ = -1;
    std::string name_;
};

}  // namespace cbsd::daemon
