// A minimal modem manager for unit tests: a `ubus` script first on PATH that
// serves files.  `ubus call ubus_lte <method>` prints /tmp/modem/<method>;
// when /tmp/modem/replies_left exists, the getlteinfo reply that brings it to
// 0 is the last one before the files in /tmp/modem/next replace the modem's
// state (so a test can change the modem in the middle of a pass).
#pragma once

#include "support/test_util.h"

#include <cstdlib>
#include <string>
#include <sys/stat.h>

namespace cbsd::test {

inline const char* const kUbusStandin =
    "#!/bin/sh\n"
    "cat \"/tmp/modem/$3\" 2>/dev/null\n"
    "if [ \"$3\" = getlteinfo ] && [ -f /tmp/modem/replies_left ]; then\n"
    "  left=$(( $(cat /tmp/modem/replies_left) - 1 ))\n"
    "  if [ $left -le 0 ]; then rm -f /tmp/modem/replies_left; cp /tmp/modem/next/* /tmp/modem/;\n"
    "  else echo $left > /tmp/modem/replies_left; fi\n"
    "fi\n";

inline std::string modem_status_reply(const std::string& netstat) {
    return "{\n\t\"netstat\": " + netstat + ",\n}\n";
}

inline std::string modem_info_reply(const std::string& dlfreq, const std::string& bandwidth) {
    return "{\n\t\"dlfreq\": " + dlfreq + ",\n\t\"bandwidth\": " + bandwidth + ",\n\t\"band\": 48,\n}\n";
}

inline void set_modem(const std::string& netstat, const std::string& dlfreq,
                      const std::string& bandwidth) {
    write_file("/tmp/modem/getltestatus", modem_status_reply(netstat));
    write_file("/tmp/modem/getlteinfo", modem_info_reply(dlfreq, bandwidth));
}

// Serves exactly `text` as the reply of the status and info methods.
inline void set_modem_garbage(const std::string& text) {
    write_file("/tmp/modem/getltestatus", text);
    write_file("/tmp/modem/getlteinfo", text);
}

inline void put_test_bin_first_on_path() {
    static std::string path = "/tmp/bin:" + std::string(std::getenv("PATH") ? std::getenv("PATH")
                                                                           : "/usr/sbin:/usr/bin:/sbin:/bin");
    setenv("PATH", path.c_str(), 1);
}

// Writes the stand-in into the test's private /tmp and puts it first on PATH.
inline void install_modem_standin() {
    mkdir("/tmp/bin", 0755);
    mkdir("/tmp/modem", 0755);
    mkdir("/tmp/modem/next", 0755);
    write_file("/tmp/bin/ubus", kUbusStandin);
    chmod("/tmp/bin/ubus", 0755);
    put_test_bin_first_on_path();
}

}  // namespace cbsd::test
