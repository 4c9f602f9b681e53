// The one C++ launcher of the SAS simulator (tests/sas_sim): test PKI, device
// credential layout, and a simulator child process driven over its control
// socket, either one per test (Simulator) or one per test binary
// (SuiteSimulator, with the free sim_* calls of the worker tests).
// Header-only, and no *_test.cpp name, so the unit-test glob skips it.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <jansson.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace cbsd::test::sim {

inline const char* const kPython = "/usr/bin/python3";

inline std::string source_path(const std::string& relative) {
    return std::string(CBSD_SOURCE_DIR) + "/" + relative;
}

// The test PKI of tests/sas_sim/pki.py, made once per build tree.  The build
// tree is outside the sandbox's private /tmp, so every test process shares it;
// an flock keeps parallel test processes from generating it twice.
inline std::string pki_dir() {
    const std::string dir = std::string(CBSD_BINARY_DIR) + "/sas_sim_pki";
    const std::string lock_path = std::string(CBSD_BINARY_DIR) + "/sas_sim_pki.lock";
    int lock = open(lock_path.c_str(), O_CREAT | O_RDWR | O_CLOEXEC, 0600);
    if (lock >= 0) flock(lock, LOCK_EX);
    // corrupt.pem: the newest file of the PKI, so an older tree is made anew.
    if (!std::filesystem::exists(dir + "/corrupt.pem")) {
        const std::string command =
            std::string(kPython) + " " + source_path("tests/sas_sim/pki.py") + " " + dir + " >/dev/null";
        if (std::system(command.c_str()) != 0) std::fprintf(stderr, "sim_support: pki.py failed\n");
    }
    if (lock >= 0) close(lock);
    return dir;
}

inline std::string pki_file(const std::string& name) { return pki_dir() + "/" + name; }

inline bool copy_file(const std::string& from, const std::string& to) {
    std::error_code error;
    std::filesystem::create_directories(std::filesystem::path(to).parent_path(), error);
    return std::filesystem::copy_file(from, to, std::filesystem::copy_options::overwrite_existing,
                                      error);
}

// The device's credentials as the daemon looks for them.  An empty name
// leaves that file out; `crl` names a CRL of the PKI (e.g. "crl_other.pem").
struct DeviceCerts {
    std::string clientCert = "cbsd.pem";
    std::string clientKey = "cbsd.key";
    std::string serverCA = "ca.pem";
    std::string crl;
    std::string serverCASource = "ca.pem";  // which CA of the PKI is installed
};

inline bool install_device_certs(const DeviceCerts& certs) {
    bool ok = true;
    const std::string root = "/root/sas/cert";
    std::filesystem::create_directories(root + "/clientCert");
    std::filesystem::create_directories(root + "/clientKey");
    std::filesystem::create_directories(root + "/serverCA");
    if (!certs.clientCert.empty())
        ok &= copy_file(pki_file("client.pem"), root + "/clientCert/" + certs.clientCert);
    if (!certs.clientKey.empty())
        ok &= copy_file(pki_file("client.key"), root + "/clientKey/" + certs.clientKey);
    if (!certs.serverCA.empty())
        ok &= copy_file(pki_file(certs.serverCASource), root + "/serverCA/" + certs.serverCA);
    if (!certs.crl.empty())
        ok &= copy_file(pki_file(certs.crl), root + "/serverCA/server_crl.crl");
    return ok;
}

// A `cert` section naming the files; an empty name leaves its option out.
inline std::string cert_section(const std::string& clientCert, const std::string& clientKey,
                                const std::string& serverCA) {
    std::string text = "config cert 'cert'\n";
    if (!clientCert.empty()) text += "\toption clientCertFileName '" + clientCert + "'\n";
    if (!clientKey.empty()) text += "\toption clientKeyFileName '" + clientKey + "'\n";
    if (!serverCA.empty()) text += "\toption serverCAFileName '" + serverCA + "'\n";
    return text + "\n";
}

struct Request {
    std::string endpoint;  // "" for a path that is no endpoint
    std::string path;
    std::string body;
    std::string clientSubject;
    std::string contentType;
    std::string accept;
};

// The simulator as a child process on the sandbox's loopback.
class Simulator {
public:
    // `extra`: more command-line arguments (e.g. "--ciphers", "AES128-SHA"; a
    // later "--cert"/"--key" replaces the usual server certificate).
    explicit Simulator(const std::string& basePath = "/v1.2", bool clientAuth = true,
                       const std::vector<std::string>& extra = {})
        : basePath_(basePath) {
        static int instance = 0;
        controlDir_ = "/tmp/sas_sim_" + std::to_string(getpid()) + "_" + std::to_string(instance++);
        std::filesystem::create_directories(controlDir_);
        const std::string pki = pki_dir();
        std::vector<std::string> args = {kPython,        source_path("tests/sas_sim/sas_sim.py"),
                                          "--control-dir", controlDir_,
                                          "--cert",        pki + "/server.pem",
                                          "--key",         pki + "/server.key",
                                          "--base-path",   basePath};
        if (clientAuth) {
            args.push_back("--client-ca");
            args.push_back(pki + "/ca.pem");
        }
        args.insert(args.end(), extra.begin(), extra.end());
        pid_ = fork();
        if (pid_ == 0) {
            std::vector<char*> argv;
            for (auto& a : args) argv.push_back(a.data());
            argv.push_back(nullptr);
            execv(kPython, argv.data());
            _exit(127);
        }
        wait_ready();
    }
    ~Simulator() {
        if (pid_ > 0) {
            kill(pid_, SIGTERM);
            int status = 0;
            waitpid(pid_, &status, 0);
        }
    }
    Simulator(const Simulator&) = delete;
    Simulator& operator=(const Simulator&) = delete;

    bool running() const { return port_ > 0; }
    int port() const { return port_; }
    // The SAS server URL (no trailing slash); endpoints are url() + "/grant" etc.
    std::string url() const {
        return "https://127.0.0.1:" + std::to_string(port_) + basePath_;
    }
    std::string endpoint_url(const std::string& endpoint) const { return url() + "/" + endpoint; }

    // One control command (a JSON object text); returns the answer line.
    std::string call(const std::string& command) const {
        int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (fd < 0) return "";
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        const std::string path = controlDir_ + "/control.sock";
        std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
        std::string answer;
        if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) {
            const std::string line = command + "\n";
            if (write(fd, line.data(), line.size()) == static_cast<ssize_t>(line.size())) {
                char buffer[65536];
                ssize_t got = 0;
                while ((answer.empty() || answer.back() != '\n') &&
                       (got = read(fd, buffer, sizeof buffer)) > 0)
                    answer.append(buffer, static_cast<size_t>(got));
            }
        }
        close(fd);
        return answer;
    }

    // Queues the next reply of `endpoint` ("*" for any); spec is a JSON object
    // text as described in tests/sas_sim/README.md.
    bool push(const std::string& endpoint, const std::string& spec = "{}") const {
        return ok(call(R"({"cmd":"push","endpoint":")" + endpoint + R"(","reply":)" + spec + "}"));
    }
    bool push_connection(const std::string& action) const {
        return ok(call(R"({"cmd":"push_connection","action":)" + action + "}"));
    }
    bool clear() const { return ok(call(R"({"cmd":"clear"})")); }

    std::vector<Request> requests() const {
        std::vector<Request> found;
        json_t* answer = parse(call(R"({"cmd":"requests"})"));
        json_t* list = json_object_get(answer, "requests");
        size_t index = 0;
        json_t* item = nullptr;
        json_array_foreach(list, index, item) {
            Request r;
            r.endpoint = text(json_object_get(item, "endpoint"));
            r.path = text(json_object_get(item, "path"));
            r.body = text(json_object_get(item, "body"));
            r.clientSubject = text(json_object_get(item, "client_subject"));
            json_t* headers = json_object_get(item, "headers");
            r.contentType = text(json_object_get(headers, "Content-Type"));
            r.accept = text(json_object_get(headers, "Accept"));
            found.push_back(r);
        }
        json_decref(answer);
        return found;
    }
    // The cipher suites (OpenSSL names, in the client's order) of every
    // ClientHello the simulator received, oldest first.
    std::vector<std::vector<std::string>> offered_suites() const {
        std::vector<std::vector<std::string>> hellos;
        json_t* answer = parse(call(R"({"cmd":"requests"})"));
        size_t index = 0;
        json_t* hello = nullptr;
        json_array_foreach(json_object_get(answer, "client_hellos"), index, hello) {
            std::vector<std::string> suites;
            size_t at = 0;
            json_t* suite = nullptr;
            json_array_foreach(json_object_get(hello, "cipher_suites"), at, suite)
                suites.push_back(text(suite));
            hellos.push_back(suites);
        }
        json_decref(answer);
        return hellos;
    }
    // TCP connections accepted so far (also those that never got to a request).
    long connections() const { return number("connections"); }
    long handshake_failures() const {
        json_t* answer = parse(call(R"({"cmd":"requests"})"));
        long count = static_cast<long>(json_array_size(json_object_get(answer, "handshake_failures")));
        json_decref(answer);
        return count;
    }

private:
    void wait_ready() {
        const std::string portFile = controlDir_ + "/port";
        for (int i = 0; i < 200 && port_ <= 0; ++i) {
            std::ifstream in(portFile);
            if (!(in >> port_)) {
                port_ = 0;
                std::this_thread::sleep_for(std::chrono::milliseconds(50));
            }
        }
    }
    static json_t* parse(const std::string& text) {
        json_error_t error;
        return json_loads(text.c_str(), 0, &error);
    }
    static bool ok(const std::string& answer) {
        json_t* parsed = parse(answer);
        bool result = json_is_true(json_object_get(parsed, "ok"));
        json_decref(parsed);
        return result;
    }
    static std::string text(json_t* value) {
        return json_is_string(value) ? json_string_value(value) : "";
    }
    long number(const char* key) const {
        json_t* answer = parse(call(R"({"cmd":"requests"})"));
        long value = static_cast<long>(json_integer_value(json_object_get(answer, key)));
        json_decref(answer);
        return value;
    }

    std::string basePath_;
    std::string controlDir_;
    pid_t pid_ = -1;
    int port_ = 0;
};

// A JSON string literal of `text` (for building reply specs in tests).
inline std::string quoted(const std::string& text) {
    json_t* value = json_stringn(text.data(), text.size());
    char* dumped = json_dumps(value, JSON_ENCODE_ANY);
    std::string result = dumped ? dumped : "\"\"";
    std::free(dumped);
    json_decref(value);
    return result;
}

}  // namespace cbsd::test::sim

namespace cbsd::test {

// One simulator for all the tests of a binary, with the device's credentials
// installed: started by a suite's SetUpTestSuite, stopped by its tear-down.
class SuiteSimulator {
public:
    static bool start(std::string& url) {
        std::filesystem::create_directories("/root/sas");
        std::filesystem::create_directories("/etc/lab");
        if (!sim::install_device_certs(sim::DeviceCerts{})) return false;
        slot() = std::make_unique<sim::Simulator>();
        if (!slot()->running()) return false;
        url = slot()->url();
        return true;
    }
    static void stop() { slot().reset(); }
    static const sim::Simulator& get() { return *slot(); }

private:
    static std::unique_ptr<sim::Simulator>& slot() {
        static std::unique_ptr<sim::Simulator> simulator;
        return simulator;
    }
};

inline void sim_push(const std::string& endpoint, const std::string& reply_json) {
    EXPECT_TRUE(SuiteSimulator::get().push(endpoint, reply_json));
}

inline void sim_set_default(const std::string& endpoint, const std::string& reply_json) {
    SuiteSimulator::get().call(R"({"cmd":"set_default","endpoint":")" + endpoint +
                               R"(","reply":)" + reply_json + "}");
}

inline void sim_clear() { SuiteSimulator::get().clear(); }

// The endpoints the simulator was asked, oldest first.
inline std::vector<std::string> sim_endpoints() {
    std::vector<std::string> names;
    for (const sim::Request& request : SuiteSimulator::get().requests())
        names.push_back(request.endpoint.empty() ? "?" : request.endpoint);
    return names;
}

// Element 0 of the request array of the n-th request of an endpoint (0 = first),
// as compact JSON text with sorted keys; "" when there is none.
inline std::string request_element(const std::vector<std::pair<std::string, std::string>>& requests,
                                   const std::string& endpoint, size_t n) {
    size_t seen = 0;
    for (const auto& [name, body] : requests) {
        if (name != endpoint || seen++ != n) continue;
        json_t* parsed = json_loads(body.c_str(), 0, nullptr);
        json_t* element = json_array_get(json_object_get(parsed, (endpoint + "Request").c_str()), 0);
        char* dumped = element ? json_dumps(element, JSON_COMPACT | JSON_SORT_KEYS) : nullptr;
        std::string text = dumped ? dumped : "";
        std::free(dumped);
        json_decref(parsed);
        return text;
    }
    return "";
}

inline std::string sim_request_element(const std::string& endpoint, size_t n) {
    std::vector<std::pair<std::string, std::string>> requests;
    for (const sim::Request& request : SuiteSimulator::get().requests())
        requests.emplace_back(request.endpoint, request.body);
    return request_element(requests, endpoint, n);
}

}  // namespace cbsd::test
