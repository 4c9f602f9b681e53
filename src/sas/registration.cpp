#include "sas/registration.h"

#include "config/accessors.h"
#include "base/log.h"
#include "base/text.h"
#include "sas/cpi_signature.h"
#include "sas/exchanges.h"
#include "sas/exchange.h"
#include "sas/reply_reader.h"
#include "sas/request_body.h"

#include <jansson.h>
#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string_view>

namespace cbsd::sas {

namespace {

// Both accuracies are fixed: the installer does not measure them.
constexpr json_int_t kLocationAccuracy = 3;

json_t* installation_param(const config::DeviceRecord* record) {
    json_t* param = json_object();
    json_object_set_new(param, "latitude", json_real(std::atof(record->latitude)));
    json_object_set_new(param, "longitude", json_real(std::atof(record->longitude)));
    json_object_set_new(param, "height", json_real(std::atof(record->height)));
    set_text(param, "heightType", record->heightType);
    json_object_set_new(param, "indoorDeployment",
                        json_boolean(std::atoi(record->indoorDeployment) != 0));
    json_object_set_new(param, "antennaGain", json_integer(std::atoi(record->antennaGain)));
    json_object_set_new(param, "antennaBeamwidth",
                        json_integer(std::atoi(record->antennaBeamwidth)));
    json_object_set_new(param, "antennaDowntilt", json_integer(std::atoi(record->antennaDowntilt)));
    json_object_set_new(param, "antennaAzimuth", json_integer(std::atoi(record->antennaAzimuth)));
    set_text(param, "antennaModel", record->antennaModel);
    json_object_set_new(param, "horizontalAccuracy", json_integer(kLocationAccuracy));
    json_object_set_new(param, "verticalAccuracy", json_integer(kLocationAccuracy));
    return param;
}

json_t* installation_data(const config::DeviceRecord* record) {
    json_t* installer = json_object();
    set_text(installer, "cpiId", record->cpiId);
    set_text(installer, "cpiName", record->cpiName);
    set_text(installer, "installCertificationTime", record->installCertificationTime);

    json_t* data = json_object();
    set_text(data, "fccId", record->fccId);
    set_text(data, "cbsdSerialNumber", record->serialNumber);
    json_object_set_new(data, "installationParam", installation_param(record));
    json_object_set_new(data, "professionalInstallerData", installer);
    return data;
}

// Joins the key name to its directory; true when that file exists.
bool cpi_key_exists(const char* keyFileName, char* keyPath, size_t size) {
    std::snprintf(keyPath, size, "%s/%s", kCpiKeyDirectory, keyFileName);
    struct stat status {};
    return stat(keyPath, &status) == 0;
}

// Adds cpiSignatureData to the registration object; false when the key name
// or file is missing (then nothing may be sent).  A signing failure is not
// one: the three parts then go out empty.
bool add_cpi_signature(json_t* registration, const config::DeviceRecord* record,
                       const RegistrationOptions* options) {
    if (options->cpiKeyFileName[0] == '\0') {
        base::error_to_syslog("[SAS] SAS_CERTNAME is invalid!\n\n");
        return false;
    }
    char keyPath[512] = {};
    if (!cpi_key_exists(options->cpiKeyFileName, keyPath, sizeof keyPath)) {
        base::error_to_syslog("[SAS] %s does not exist!\n\n", keyPath);
        return false;
    }
    json_t* data = installation_data(record);
    char* installationJson = json_dumps(data, 0);
    json_decref(data);
    if (!installationJson) return false;

    std::unique_ptr<CpiSignedData> signedData(new (std::nothrow) CpiSignedData{});
    if (signedData)
        sign_cpi_data(installationJson, keyPath, options->cpiKeyPassword, signedData.get());
    std::free(installationJson);
    if (!signedData) return false;

    json_t* signature = json_object();
    set_text(signature, "protectedHeader", signedData->protectedHeader);
    set_text(signature, "encodedCpiSignedData", signedData->encodedCpiSignedData);
    set_text(signature, "digitalSignature", signedData->digitalSignature);
    json_object_set_new(registration, "cpiSignatureData", signature);
    return true;
}

json_t* registration_object(const config::DeviceRecord* record) {
    json_t* airInterface = json_object();
    set_text(airInterface, "radioTechnology", record->radioTechnology);

    json_t* group = json_object();
    set_text(group, "groupType", record->groupType);
    set_text(group, "groupId", record->groupId);
    json_t* grouping = json_array();
    json_array_append_new(grouping, group);

    json_t* capabilities = json_array();
    if (has_capability(record, "RECEIVED")) {
        json_t* capability = json_object();
        set_text(capability, "measCapability", record->measCapability);
        json_array_append(capabilities, json_object_get(capability, "measCapability"));
        json_decref(capability);
    }

    json_t* registration = json_object();
    set_text(registration, "userId", record->userId);
    set_text(registration, "fccId", record->fccId);
    set_text(registration, "cbsdSerialNumber", record->serialNumber);
    set_text(registration, "callSign", record->callSign);
    set_text(registration, "cbsdCategory", record->cbsdCategory);
    json_object_set_new(registration, "airInterface", airInterface);
    json_object_set_new(registration, "groupingParam", grouping);
    json_object_set_new(registration, "measCapability", capabilities);
    return registration;
}

}  // namespace

void load_registration_options(RegistrationOptions* options) {
    std::memset(options, 0, sizeof *options);
    options->singleStep = config::is_single_step_registration();
    if (!options->singleStep) return;
    config::get_cpi_key_file(options->cpiKeyFileName, sizeof options->cpiKeyFileName);
    // The password is looked up only for a key that is there to be opened.
    char keyPath[512] = {};
    if (options->cpiKeyFileName[0] != '\0' &&
        cpi_key_exists(options->cpiKeyFileName, keyPath, sizeof keyPath))
        config::get_cpi_key_password(options->cpiKeyPassword, sizeof options->cpiKeyPassword);
}

int32_t build_registration_body(const config::DeviceRecord* record,
                                const RegistrationOptions* options, char* body, size_t capacity) {
    std::memset(body, 0, capacity);
    json_t* registration = registration_object(record);
    if (options->singleStep && !add_cpi_signature(registration, record, options)) {
        json_decref(registration);
        return -1;
    }
    json_t* root = single_request_envelope("registrationRequest", registration);
    BodyStatus status = store_request_body(root, body, capacity);
    json_decref(root);
    return status == BodyStatus::kStored ? 0 : -1;
}

PostReply registeration_request(const Transport& post, const char* serverUrl,
                                const config::DeviceRecord* record) {
    return post_message(post, serverUrl, "registration", kRequestBodyCapacity,
                        [record](char* body, size_t capacity) {
                            RegistrationOptions options{};
                            load_registration_options(&options);
                            return build_registration_body(record, &options, body, capacity) == 0;
                        });
}

int32_t parse_registration_response(std::string_view bytes, RegistrationResponse* reply) {
    reply->responseCode = -1;
    SasReply sasReply;
    ReplyReadResult read =
        read_sas_reply(bytes, "registrationResponse", &sasReply, &reply->responseCode);
    if (read == ReplyReadResult::kUnreadable)
        base::notice_to_syslog("[SAS] wrong Response from SAS Server!\n\n");
    if (read != ReplyReadResult::kRead || reply->responseCode != 0) return -1;
    copy_reply_text(sasReply.element, "cbsdId", reply->cbsdId, sizeof reply->cbsdId);
    return 0;
}

}  // namespace cbsd::sas
