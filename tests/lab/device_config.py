"""Sample /etc/config/sas files, shared by the system tests, the demo and the
measurement tool.  `sas_config` is the file of a device ready to talk to a
SAS: installation data, published state and the TLS credential names that
tests/sas_sim installs (cbsd.pem, cbsd.key, ca.pem); `dp_config` the same in
DP mode.  `bare_sas_config` is the near-empty file of a device that has not
been set up yet; `left_authorized_config` one that an earlier run left
authorised."""

# DP mode never contacts the SAS, and a StandAlone lab names its simulator
# only once it runs: the address only has to be well formed.
UNREACHABLE_SAS = "https://127.0.0.1:1/v1.2"


def sas_config(address=UNREACHABLE_SAS, enable_mode="1", usedp="0", radio_enable="0",
               user_id="lab-user", call_sign="CALL1", auto="0", extra_config=""):
    """extra_config: more option lines of section config, first in it."""
    return (
        "config config 'config'\n"
        f"{extra_config}"
        f"\toption enableMode '{enable_mode}'\n"
        f"\toption usedp '{usedp}'\n"
        f"\toption auto '{auto}'\n"
        "\toption sasStepChoice '0'\n"
        f"\toption address '{address}'\n"
        f"\toption userId '{user_id}'\n"
        f"\toption callSign '{call_sign}'\n"
        "\toption antennaAzimuth '180'\n"
        "\toption antennaDowntilt '2'\n"
        "\n"
        "config cpi 'cpi'\n"
        "\toption latitude '37.4'\n"
        "\toption longitude '-122.1'\n"
        "\toption height '10'\n"
        "\toption heightUnit '0'\n"
        "\n"
        "config sasConfig 'sasConfig'\n"
        f"\toption RadioEnable '{radio_enable}'\n"
        "\toption powerSpectralDensity ''\n"
        "\toption grantExpireTime ''\n"
        "\toption transmitExpireTime ''\n"
        "\n"
        "config operation 'operation'\n"
        "\toption status 'Unregistered'\n"
        "\toption GrantRenew '0'\n"
        "\n"
        "config cert 'cert'\n"
        "\toption clientCertFileName 'cbsd.pem'\n"
        "\toption clientKeyFileName 'cbsd.key'\n"
        "\toption serverCAFileName 'ca.pem'\n"
        "\toption cpiKeyFileName ''\n"
        "\toption cpiKeyFilePassword ''\n"
        "\n"
        "config cellInfo 'cellInfo'\n"
    )


def dp_config(enable_mode="1", radio_enable="0", **more):
    """A device in DP mode: the proxy's RadioEnable decides."""
    return sas_config(enable_mode=enable_mode, usedp="1", radio_enable=radio_enable, **more)


def left_authorized_config(enable_mode="0", radio_enable="1", extra_config=""):
    """What an earlier run left behind in DP mode: published Authorized, a
    power and RadioEnable as the proxy last wrote them."""
    return (
        "config config 'config'\n"
        f"\toption enableMode '{enable_mode}'\n"
        "\toption usedp '1'\n"
        f"{extra_config}"
        "\n"
        "config sasConfig 'sasConfig'\n"
        f"\toption RadioEnable '{radio_enable}'\n"
        "\toption powerSpectralDensity '20'\n"
        "\n"
        "config operation 'operation'\n"
        "\toption status 'Authorized'\n"
        "\n"
        "config cpi 'cpi'\n"
        "\n"
        "config cellInfo 'cellInfo'\n"
    )


def bare_sas_config(extra_config="", extra_operation="", auto="0"):
    """SAS off and only the sections the daemon expects; the daemon fills in
    its defaults on its first run."""
    return (
        "config config 'config'\n"
        "\toption enableMode '0'\n"
        f"\toption auto '{auto}'\n"
        f"{extra_config}"
        "\n"
        "config cpi 'cpi'\n"
        "\n"
        "config sasConfig 'sasConfig'\n"
        "\toption RadioEnable '0'\n"
        "\n"
        "config operation 'operation'\n"
        f"{extra_operation}"
        "\n"
        "config cellInfo 'cellInfo'\n"
    )
