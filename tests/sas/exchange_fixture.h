// Fixtures for the exchange tests: the reply bytes the parsers read (written
// by hand, or those an exchange brought back), and a SAS simulator with the
// device credentials installed for the end-to-end exchanges.
#pragma once

#include "body_assertions.h"
#include "sas/https.h"
#include "sas/transport.h"
#include "support/sas_simulator.h"
#include "support/test_util.h"

#include <gtest/gtest.h>
#include <jansson.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace cbsd::test {

inline std::string_view reply_bytes() { return reply_under_test(); }

inline void write_reply(const std::string& text) { reply_under_test() = text; }

// A reply parser's test: `reply` is zeroed before each test, and parse() puts
// one element into the reply array named `kMember` and parses the whole.
template <typename Reply, const char* kMember, int32_t (*kParse)(std::string_view, Reply*)>
class ReplyParserTest : public ::testing::Test {
protected:
    void SetUp() override {
        prepare_log_directory();
        std::memset(&reply, 0, sizeof reply);
    }
    int32_t parse(const std::string& element) {
        write_reply(std::string(R"({")") + kMember + R"(":[)" + element + "]}");
        return kParse(reply_bytes(), &reply);
    }
    Reply reply{};
};

// Keeps what the exchange brought back for the parsers; its transport result.
inline int32_t posted(const sas::PostReply& reply) {
    reply_under_test() = std::string(reply.usable());
    return reply.result;
}

// /etc/config/sas naming the device credentials, plus any extra sections.
inline void write_sas_config(const std::string& extraSections = "") {
    ASSERT_TRUE(write_file("/etc/config/sas",
                           sim::cert_section("cbsd.pem", "cbsd.key", "ca.pem") + extraSections));
}

class ExchangeTest : public ::testing::Test {
protected:
    void SetUp() override {
        prepare_log_directory();
        record = sample_device_record();
        ASSERT_TRUE(sim::install_device_certs(sim::DeviceCerts{}));
        write_sas_config();
        simulator = std::make_unique<sim::Simulator>();
        ASSERT_TRUE(simulator->running());
        url = simulator->url();
    }

    // Bodies the simulator received at endpoint, parsed.
    std::vector<json_t*> received(const std::string& endpoint) {
        std::vector<json_t*> bodies;
        for (const sim::Request& request : simulator->requests())
            if (request.endpoint == endpoint)
                bodies.push_back(json_loads(request.body.c_str(), 0, nullptr));
        return bodies;
    }

    size_t request_count() { return simulator->requests().size(); }

    config::DeviceRecord record{};
    std::unique_ptr<sim::Simulator> simulator;
    std::string url;
};

// Owns the parsed bodies of received() and gives element 0 of each.
class ReceivedBodies {
public:
    ReceivedBodies(std::vector<json_t*> bodies, const char* member)
        : bodies_(std::move(bodies)), member_(member) {}
    ~ReceivedBodies() {
        for (json_t* body : bodies_) json_decref(body);
    }
    ReceivedBodies(const ReceivedBodies&) = delete;
    ReceivedBodies& operator=(const ReceivedBodies&) = delete;
    size_t size() const { return bodies_.size(); }
    json_t* element(size_t i) const {
        return json_array_get(json_object_get(bodies_.at(i), member_), 0);
    }

private:
    std::vector<json_t*> bodies_;
    const char* member_;
};

}  // namespace cbsd::test
