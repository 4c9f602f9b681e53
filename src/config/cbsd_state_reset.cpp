#include "config/cbsd_state_reset.h"

#include "base/cbsd_state.h"
#include "base/log.h"
#include "config/accessors.h"

namespace cbsd::config {

namespace {

// The state published after a reset: the first row below Registered.
const char* reset_state_name() {
    for (const base::CbsdState* row = base::CbsdStateTable; row->id != 0; ++row)
        if (row->id < base::kRegistered) return base::cbsd_state_name(row->id);
    return "";
}

}  // namespace

void clear_cbsd_state() {
    base::notice("[SAS] clear cbsd state.\n");
    const char* status = reset_state_name();
    set_radio_enable("0");
    set_status(status);
    write_sas_option(schema::kSasPowerSpectralDensity, "");
    base::notice("[SAS] set RadioEnable=0\n");
    base::notice("[SAS] set status=%s\n", status);
    base::notice("[SAS] set powerSpectralDensity=\"\"\n");
}

}  // namespace cbsd::config
