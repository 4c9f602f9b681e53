#include "core/settings.h"

namespace cbsd::core {

ProcessSettings& settings() {
    static ProcessSettings instance;
    return instance;
}

}  // namespace cbsd::core
