"""The /etc/config/sas of a device ready to talk to a SAS: installation data,
published state and the TLS credential names that tests/sas_sim installs
(cbsd.pem, cbsd.key, ca.pem).  Shared by the system tests, the demo and the
measurement tool.  `bare_sas_config` is the near-empty file of a device that
has not been set up yet."""


def sas_config(address, enable_mode="1", usedp="0", radio_enable="0", user_id="lab-user",
               call_sign="CALL1"):
    return (
        "config config 'config'\n"
        f"\toption enableMode '{enable_mode}'\n"
        f"\toption usedp '{usedp}'\n"
        "\toption auto '0'\n"
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
