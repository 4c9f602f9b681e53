#include "daemon/option_migration.h"

#include "base/log.h"
#include "config/uci_store.h"

namespace cbsd::daemon {

// The one buffer is deliberately not cleared between the reads, so a missing
// operation.sasServerAddress hands the usedp value on to config.address.
void migrate_operation_options() {
    char value[256] = {};
    config::config_get(config::kSasConfigPath, config::schema::kUsedp, value, sizeof value);
    if (value[0] != '\0') {
        base::notice("\n");
        return;
    }
    config::config_get(config::kSasConfigPath, config::schema::kOpUsedp, value, sizeof value);
    if (value[0] != '\0') {
        config::config_set(config::kSasConfigPath, config::schema::kUsedp, value);
        config::config_set(config::kSasConfigPath, config::schema::kOpUsedp, "");
    }
    config::config_get(config::kSasConfigPath, config::schema::kOpSasServerAddress, value, sizeof value);
    config::config_set(config::kSasConfigPath, config::schema::kAddress, value);
    config::config_set(config::kSasConfigPath, config::schema::kOpSasServerAddress, "");
    base::notice("\n");
}

}  // namespace cbsd::daemon
