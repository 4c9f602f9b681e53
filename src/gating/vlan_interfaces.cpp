#include "gating/vlan_interfaces.h"

#include <cstring>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace cbsd::gating {

namespace {

bool matches_at(const char* text, const char* pattern) {
    for (; *pattern; ++pattern, ++text)
        if (*text == '\0' || (*pattern != '.' && *pattern != *text)) return false;
    return true;
}

bool is_up(int probe, const char* name) {
    ifreq request{};
    std::strncpy(request.ifr_name, name, IFNAMSIZ - 1);
    return ioctl(probe, SIOCGIFFLAGS, &request) == 0 && (request.ifr_flags & IFF_UP) != 0;
}

}  // namespace

bool name_matches(const char* name, const char* pattern) {
    for (const char* at = name; *at; ++at)
        if (matches_at(at, pattern)) return true;
    return false;
}

// IPv4 aliases ("eth1.112:1"), which `ifconfig` lists as lines of their own,
// only exist on an interface that is up; the gates only ask "none or some".
int count_up_interfaces(const char* pattern) {
    struct if_nameindex* interfaces = if_nameindex();
    if (!interfaces) return 0;
    int probe = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    int count = 0;
    for (struct if_nameindex* entry = interfaces; probe >= 0 && entry->if_index != 0; ++entry)
        if (name_matches(entry->if_name, pattern) && is_up(probe, entry->if_name)) ++count;
    if (probe >= 0) close(probe);
    if_freenameindex(interfaces);
    return count;
}

}  // namespace cbsd::gating
