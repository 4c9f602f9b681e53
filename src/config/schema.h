// Every UCI section and option name the daemon reads or writes, in one
// table.  Nothing outside this file spells a name as a string literal: a
// renamed option changes here and nowhere else.
#pragma once

namespace cbsd::config {

struct UciName {
    const char* section;
    const char* option;
};

namespace schema {

// section config: operator's settings, device defaults, first-run tag
inline constexpr UciName kAddress{"config", "address"};
inline constexpr UciName kAntennaAzimuth{"config", "antennaAzimuth"};
inline constexpr UciName kAntennaBeamwidth{"config", "antennaBeamwidth"};
inline constexpr UciName kAntennaDowntilt{"config", "antennaDowntilt"};
inline constexpr UciName kAntennaGain{"config", "antennaGain"};
inline constexpr UciName kAntennaModel{"config", "antennaModel"};
inline constexpr UciName kAuto{"config", "auto"};
inline constexpr UciName kCallSign{"config", "callSign"};
inline constexpr UciName kCbsdCategory{"config", "cbsdCategory"};
inline constexpr UciName kCbsdTag{"config", "cbsdTag"};
inline constexpr UciName kEnableMode{"config", "enableMode"};
inline constexpr UciName kFccId{"config", "fccId"};
// Which firewall holds the gates' rules: auto (default), iptables, nftables.
inline constexpr UciName kFirewallBackend{"config", "firewallBackend"};
// Seconds a transmitExpireTime may lie ahead and still count in full (default 240).
inline constexpr UciName kMaxTransmitLead{"config", "maxTransmitLead"};
// Flag, default "0": "1" makes the SAS's certificate name the host of config.address.
inline constexpr UciName kVerifySasHost{"config", "verifySasHost"};
// Flag, default "0": "1" sends nothing to a SAS whose CA is not configured or not present,
// where "0" talks to it unverified when no CA name is configured.
inline constexpr UciName kRequireSasCa{"config", "requireSasCa"};
inline constexpr UciName kRadioTechnology{"config", "radioTechnology"};
inline constexpr UciName kSasStepChoice{"config", "sasStepChoice"};
inline constexpr UciName kSerialNumber{"config", "serialNumber"};
inline constexpr UciName kUsedp{"config", "usedp"};
inline constexpr UciName kUserId{"config", "userId"};

// section cpi: installation data signed by the certified installer
inline constexpr UciName kCpiId{"cpi", "cpiId"};
inline constexpr UciName kCpiName{"cpi", "cpiName"};
inline constexpr UciName kCpiGroupId{"cpi", "groupId"};
inline constexpr UciName kCpiGroupType{"cpi", "groupType"};
inline constexpr UciName kCpiHeight{"cpi", "height"};
inline constexpr UciName kCpiHeightType{"cpi", "heightType"};
inline constexpr UciName kCpiHeightUnit{"cpi", "heightUnit"};
inline constexpr UciName kCpiIndoorDeployment{"cpi", "indoorDeployment"};
inline constexpr UciName kCpiInstallCertificationTime{"cpi", "installCertificationTime"};
inline constexpr UciName kCpiLatitude{"cpi", "latitude"};
inline constexpr UciName kCpiLongitude{"cpi", "longitude"};

// section sasConfig: what the SAS granted, published by the worker (RadioEnable by the proxy in DP mode)
inline constexpr UciName kSasRadioEnable{"sasConfig", "RadioEnable"};
inline constexpr UciName kSasGrantExpireTime{"sasConfig", "grantExpireTime"};
inline constexpr UciName kSasHighFrequency{"sasConfig", "highFrequency"};
inline constexpr UciName kSasLowFrequency{"sasConfig", "lowFrequency"};
inline constexpr UciName kSasMaxEirp{"sasConfig", "maxEirp"};
inline constexpr UciName kSasPowerSpectralDensity{"sasConfig", "powerSpectralDensity"};
inline constexpr UciName kSasTransmitExpireTime{"sasConfig", "transmitExpireTime"};

// section operation: CBSD state and renewal marker published by the worker
inline constexpr UciName kOpGrantRenew{"operation", "GrantRenew"};
inline constexpr UciName kOpMeasCapability{"operation", "measCapability"};
inline constexpr UciName kOpSasServerAddress{"operation", "sasServerAddress"};
inline constexpr UciName kOpStatus{"operation", "status"};
inline constexpr UciName kOpUsedp{"operation", "usedp"};

// section cellInfo: serving cell frequency range, written from the modem
inline constexpr UciName kCellBandwidth{"cellInfo", "bandwidth"};
inline constexpr UciName kCellHighFrequency{"cellInfo", "highFrequency"};
inline constexpr UciName kCellLowFrequency{"cellInfo", "lowFrequency"};

// section cache: /tmp/sas_cache: last known gate states
inline constexpr UciName kCacheBridgeForward{"cache", "SAS_BRIDGE_FORWARD"};
inline constexpr UciName kCacheFirewallIcmp{"cache", "SAS_FIREWALL_ICMP"};
inline constexpr UciName kCacheIpForward{"cache", "SAS_IP_FORWARD"};
inline constexpr UciName kCacheOperationTrigger{"cache", "SAS_OPERATION_TRIGGER"};

// section cert: file names of the credentials under /root/sas/cert
inline constexpr UciName kCertClientCertFileName{"cert", "clientCertFileName"};
inline constexpr UciName kCertClientKeyFileName{"cert", "clientKeyFileName"};
inline constexpr UciName kCertServerCAFileName{"cert", "serverCAFileName"};
inline constexpr UciName kCertCpiKeyFileName{"cert", "cpiKeyFileName"};
inline constexpr UciName kCertCpiKeyFilePassword{"cert", "cpiKeyFilePassword"};

}  // namespace schema
}  // namespace cbsd::config
