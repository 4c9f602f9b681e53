// An in-process SAS for the StandAlone worker's state-machine tests: a
// sas::Transport that answers each post at once from a script, in the reply
// vocabulary of the SAS simulator (tests/sas_sim/README.md, its reply members):
// `responseCode`, `responseData`, `set` (with {"$time": N}), `remove`,
// `body`, `json`, `html_error`, `status`, `close`, `delay`; and one of its
// own, `date`: the SAS's clock as the reply states it, N s from now (the
// simulator always states the real time).  Default replies
// are the simulator's (heartbeat period 60 s, transmit time now + 240 s,
// grant time now + 7 days, maxEirp 37).  The real HTTPS path is tested
// against the simulator itself (tests/sas, WorkerControl, system tests).
// Header-only so that the unit-test glob (*_test.cpp) does not pick it up.
#pragma once

#include "sas/transport.h"

#include <jansson.h>

#include <chrono>
#include <cstdlib>
#include <ctime>
#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace cbsd::test {

namespace scripted_detail {

inline constexpr int kHeartbeatInterval = 60;
inline constexpr long kTransmitSeconds = 240;
inline constexpr long kGrantSeconds = 7 * 24 * 3600;
inline constexpr int kMaxEirp = 37;
inline constexpr int kGotNothing = 52;  // CURLE_GOT_NOTHING: the SAS closed without a reply
inline const char* const kHtmlErrorPage =
    "<html><head><title>500 Internal Server Error</title></head>"
    "<body><h1>Internal Server Error</h1></body></html>\n";

inline std::string sas_time(double offsetSeconds) {
    std::time_t at = std::time(nullptr) + static_cast<std::time_t>(offsetSeconds);
    char text[32] = {};
    std::tm parts{};
    gmtime_r(&at, &parts);
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &parts);
    return text;
}

// A copy of value with every {"$time": N} replaced by the time text N s from now.
inline json_t* expand_times(json_t* value) {
    if (json_is_object(value) && json_object_size(value) == 1 &&
        json_is_number(json_object_get(value, "$time")))
        return json_string(sas_time(json_number_value(json_object_get(value, "$time"))).c_str());
    if (json_is_object(value)) {
        json_t* copy = json_object();
        const char* key = nullptr;
        json_t* item = nullptr;
        json_object_foreach(value, key, item) json_object_set_new(copy, key, expand_times(item));
        return copy;
    }
    if (json_is_array(value)) {
        json_t* copy = json_array();
        size_t index = 0;
        json_t* item = nullptr;
        json_array_foreach(value, index, item) json_array_append_new(copy, expand_times(item));
        return copy;
    }
    return json_deep_copy(value);
}

inline const char* text_of(json_t* object, const char* member, const char* fallback) {
    json_t* value = json_object_get(object, member);
    return json_is_string(value) ? json_string_value(value) : fallback;
}

inline void add_channels(json_t* element, json_t* request) {
    json_t* channels = json_array();
    json_t* ranges = json_object_get(request, "inquiredSpectrum");
    size_t index = 0;
    json_t* range = nullptr;
    json_array_foreach(ranges, index, range) {
        if (!json_is_object(range)) continue;
        json_t* frequencies = json_object();
        json_object_set(frequencies, "lowFrequency", json_object_get(range, "lowFrequency"));
        json_object_set(frequencies, "highFrequency", json_object_get(range, "highFrequency"));
        json_t* channel = json_object();
        json_object_set_new(channel, "frequencyRange", frequencies);
        json_object_set_new(channel, "channelType", json_string("GAA"));
        json_object_set_new(channel, "ruleApplied", json_string("FCC_PART_96"));
        json_object_set_new(channel, "maxEirp", json_integer(kMaxEirp));
        json_array_append_new(channels, channel);
    }
    json_object_set_new(element, "availableChannel", channels);
}

// The plausible success element of <endpoint>Response for one request object.
inline json_t* default_element(const std::string& endpoint, json_t* request, int grantNumber) {
    json_t* element = json_object();
    if (endpoint == "registration")
        json_object_set_new(element, "cbsdId",
                            json_string(("sim/" + std::string(text_of(request, "fccId", "fcc")) +
                                         "/" + text_of(request, "cbsdSerialNumber", "unknown"))
                                            .c_str()));
    else
        json_object_set_new(element, "cbsdId", json_string(text_of(request, "cbsdId", "")));
    if (endpoint == "spectrumInquiry") add_channels(element, request);
    if (endpoint == "grant") {
        json_object_set_new(element, "grantId",
                            json_string(("grant-" + std::to_string(grantNumber)).c_str()));
        json_object_set_new(element, "grantExpireTime", json_string(sas_time(kGrantSeconds).c_str()));
        json_object_set_new(element, "heartbeatInterval", json_integer(kHeartbeatInterval));
        json_object_set_new(element, "channelType", json_string("GAA"));
    }
    if (endpoint == "heartbeat" || endpoint == "relinquishment")
        json_object_set_new(element, "grantId", json_string(text_of(request, "grantId", "")));
    if (endpoint == "heartbeat") {
        json_object_set_new(element, "transmitExpireTime",
                            json_string(sas_time(kTransmitSeconds).c_str()));
        json_object_set_new(element, "heartbeatInterval", json_integer(kHeartbeatInterval));
    }
    json_t* response = json_object();
    json_object_set_new(response, "responseCode", json_integer(0));
    json_object_set_new(element, "response", response);
    return element;
}

// A refusal carries only the ids and the response object.
inline void keep_only_ids(json_t* element) {
    const char* key = nullptr;
    json_t* item = nullptr;
    void* spare = nullptr;
    json_object_foreach_safe(element, spare, key, item) {
        std::string name = key;
        if (name != "cbsdId" && name != "grantId" && name != "response") json_object_del(element, key);
    }
}

inline void apply_script(json_t* first, json_t* script) {
    json_t* code = json_object_get(script, "responseCode");
    json_t* response = json_object_get(first, "response");
    if (code) json_object_set(response, "responseCode", code);
    if (json_t* data = json_object_get(script, "responseData"))
        json_object_set(response, "responseData", data);
    if (code && !(json_is_integer(code) && json_integer_value(code) == 0) &&
        !json_is_true(json_object_get(script, "keep_fields")))
        keep_only_ids(first);
    json_t* set = expand_times(json_object_get(script, "set"));
    if (json_is_object(set)) json_object_update(first, set);
    json_decref(set);
    size_t index = 0;
    json_t* name = nullptr;
    json_array_foreach(json_object_get(script, "remove"), index, name)
        if (json_is_string(name)) json_object_del(first, json_string_value(name));
}

inline std::string dump(json_t* value) {
    char* text = json_dumps(value, JSON_INDENT(2) | JSON_ENCODE_ANY);
    std::string result = text ? text : "";
    std::free(text);
    return result;
}

// The reply body text of a script, as the simulator builds it.
inline std::string build_body(const std::string& endpoint, json_t* request, json_t* script,
                              int grantNumber) {
    if (json_object_get(script, "body")) return text_of(script, "body", "");
    if (json_is_true(json_object_get(script, "html_error"))) return kHtmlErrorPage;
    if (json_t* whole = json_object_get(script, "json")) {
        json_t* expanded = expand_times(whole);
        std::string text = dump(expanded);
        json_decref(expanded);
        return text;
    }
    json_t* objects = json_object_get(request, (endpoint + "Request").c_str());
    json_t* first = default_element(endpoint, json_array_get(objects, 0), grantNumber);
    apply_script(first, script);
    json_t* elements = json_array();
    json_array_append_new(elements, first);
    json_t* root = json_object();
    json_object_set_new(root, (endpoint + "Response").c_str(), elements);
    std::string text = dump(root);
    json_decref(root);
    return text;
}

}  // namespace scripted_detail

struct ScriptedRequest {
    std::string endpoint;
    std::string body;
};

// One per test process; the worker's thread posts, the test scripts and reads.
class ScriptedSas {
public:
    static ScriptedSas& instance() {
        static ScriptedSas sas;
        return sas;
    }
    static sas::Transport transport() {
        return [](const char* url, const char* body) { return instance().post(url, body); };
    }

    // Queues the next reply of `endpoint` ("*": of whichever endpoint comes next).
    void push(const std::string& endpoint, const std::string& script) {
        std::lock_guard<std::mutex> lock(mutex_);
        queues_[endpoint].push_back(script);
    }
    // The reply of every request of `endpoint` while its queue is empty.
    void set_default(const std::string& endpoint, const std::string& script) {
        std::lock_guard<std::mutex> lock(mutex_);
        defaults_[endpoint] = script;
    }
    void clear() {
        std::lock_guard<std::mutex> lock(mutex_);
        queues_.clear();
        defaults_.clear();
        requests_.clear();
        grants_ = 0;
    }
    std::vector<ScriptedRequest> requests() {
        std::lock_guard<std::mutex> lock(mutex_);
        return requests_;
    }

    sas::PostReply post(const char* url, const char* body) {
        std::string endpoint = url ? url : "";
        endpoint = endpoint.substr(endpoint.rfind('/') + 1);
        std::string scriptText = take(endpoint, body ? body : "");
        json_t* script = json_loads(scriptText.c_str(), 0, nullptr);
        sas::PostReply reply = play(endpoint, body ? body : "", script);
        json_decref(script);
        return reply;
    }

private:
    std::string take(const std::string& endpoint, const std::string& body) {
        std::lock_guard<std::mutex> lock(mutex_);
        requests_.push_back({endpoint, body});
        for (const std::string& key : {endpoint, std::string("*")}) {
            auto& queue = queues_[key];
            if (queue.empty()) continue;
            std::string script = queue.front();
            queue.pop_front();
            return script;
        }
        auto found = defaults_.find(endpoint);
        return found != defaults_.end() ? found->second : "{}";
    }

    sas::PostReply play(const std::string& endpoint, const std::string& body, json_t* script) {
        if (json_t* delay = json_object_get(script, "delay"))
            std::this_thread::sleep_for(std::chrono::duration<double>(json_number_value(delay)));
        sas::PostReply reply;
        if (json_is_true(json_object_get(script, "close"))) {
            reply.result = scripted_detail::kGotNothing;
            return reply;
        }
        json_t* request = json_loads(body.c_str(), 0, nullptr);
        int grantNumber = 0;
        if (endpoint == "grant") {
            std::lock_guard<std::mutex> lock(mutex_);
            grantNumber = ++grants_;
        }
        std::string text = scripted_detail::build_body(endpoint, request, script, grantNumber);
        json_decref(request);
        bool htmlError = json_is_true(json_object_get(script, "html_error"));
        json_t* status = json_object_get(script, "status");
        reply.result = 0;
        reply.httpStatus = status ? static_cast<long>(json_integer_value(status)) : htmlError ? 500 : 200;
        reply.dated = true;
        reply.date = static_cast<int64_t>(std::time(nullptr)) +
                     static_cast<int64_t>(json_integer_value(json_object_get(script, "date")));
        if (text.find("Response") != std::string::npos) reply.dumped = text;
        return reply;
    }

    std::mutex mutex_;
    std::map<std::string, std::deque<std::string>> queues_;
    std::map<std::string, std::string> defaults_;
    std::vector<ScriptedRequest> requests_;
    int grants_ = 0;
};

}  // namespace cbsd::test
