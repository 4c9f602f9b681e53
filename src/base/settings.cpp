#include "base/settings.h"

namespace cbsd::base {

ProcessSettings& settings() {
    static ProcessSettings instance;
    return instance;
}

}  // namespace cbsd::base
