// Calls of other services, against services on the real bus that answer as each test says. The
// linker puts this program's functions in the place of the bus's that the helper calls.
#include "global_options.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/files.h"
#include "support/log_lines.h"
#include "zbservice.h"

// For the sanitizers, which know the place of the deliberate leak (lsan.supp) only by stacks that
// reach beyond the JSON library.
extern "C" __attribute__((visibility("default"))) const char* __asan_default_options();
extern "C" const char* __asan_default_options() { return "fast_unwind_on_malloc=0"; }

namespace {

struct bus_call {
    std::string path;
    std::string method;
    int timeout_s;
    int fd;
    bool operator==(const bus_call&) const = default;
};

// What the helper does with the bus.
std::vector<bus_call> calls;
std::mutex calls_lock;
std::atomic<int> buffers_made = 0;
std::atomic<int> buffers_freed = 0;
std::atomic<int> writes = 0;
bool no_buffers = false;
bool no_writes = false;

// While a service's thread answers, its own use of the bus is none of the helper's.
thread_local bool is_service = false;

}  // namespace

extern "C" {
zb_io* __real_zb_io_create();
zb_io* __wrap_zb_io_create();
void __real_zb_io_free(zb_io* io);
void __wrap_zb_io_free(zb_io* io);
int __real_zb_io_write(zb_io* io, const void* data, size_t length);
int __wrap_zb_io_write(zb_io* io, const void* data, size_t length);
int __real_zb_call(const char* path, const char* method, zb_io* io, int timeout_s, int fd);
int __wrap_zb_call(const char* path, const char* method, zb_io* io, int timeout_s, int fd);

zb_io* __wrap_zb_io_create() {
    if (no_buffers) return nullptr;
    ++buffers_made;
    return __real_zb_io_create();
}
void __wrap_zb_io_free(zb_io* io) {
    ++buffers_freed;
    __real_zb_io_free(io);
}
int __wrap_zb_io_write(zb_io* io, const void* data, size_t length) {
    if (is_service) return __real_zb_io_write(io, data, length);
    ++writes;
    return no_writes ? -1 : __real_zb_io_write(io, data, length);
}
int __wrap_zb_call(const char* path, const char* method, zb_io* io, int timeout_s, int fd) {
    {
        const std::lock_guard hold(calls_lock);
        calls.push_back({path, method, timeout_s, fd});
    }
    return __real_zb_call(path, method, io, timeout_s, fd);
}
}

namespace {

struct request {
    std::string method;
    std::string body;
    bool operator==(const request&) const = default;
};

std::vector<request> requests;  // read when the service has stopped
std::string reply_text;
bool is_answering = true;

void answer(const char* method, zb_io* io, int fd) {
    EXPECT_LT(fd, 0);
    size_t length = 0;
    const auto* body = static_cast<const char*>(zb_io_read(io, &length));
    requests.push_back({method, std::string(body, length)});
    if (!is_answering) return;
    zb_io_realloc(io, 0);
    zb_io_write(io, reply_text.data(), reply_text.size());
    zb_reply(io);
}

// A service with one answer for every request, on a thread of its own.
class service {
  public:
    service(const char* path, std::string reply) : endpoint(zb_create(path, 4, 1, answer)) {
        EXPECT_NE(endpoint, nullptr);
        reply_text = std::move(reply);
        serving = std::thread([this] {
            is_service = true;
            EXPECT_EQ(zb_start(endpoint), 0);
        });
    }
    ~service() { stop(); }
    service(const service&) = delete;
    service& operator=(const service&) = delete;

    void stop() {
        if (!serving.joinable()) return;
        zb_stop(endpoint);
        serving.join();
        zb_free(endpoint);
    }

  private:
    zb_service* endpoint;
    std::thread serving;
};

constexpr char unit[] = "global_options.cpp";

expected_line call_line(const std::string& rest) {
    return {"ERROR", unit, "easy_zb_call", "easy_zb_call: " + rest + "\n"};
}
expected_line profile_line(const std::string& rest) {
    return {"ERROR", unit, "get_profile_name", "get_profile_name: " + rest + "\n"};
}

class service_call : public testing::Test {
  protected:
    ~service_call() override {
        EXPECT_EQ(buffers_freed, buffers_made) << "the buffer is freed on every path";
    }

    // One call of the service's method "m" with the body {}. Expects that it fails.
    static void expect_failure(const std::string& reply, const std::string& line) {
        SCOPED_TRACE(reply.substr(0, 100));
        forget_log();
        service s("vpncaas", reply);
        EXPECT_EQ(ravo::easy_zb_call("vpncaas", "m", "{}"), nullptr);
        expect_log({call_line(line)});
    }

    // Expects that the reply is handed over; returns it as compact text.
    static std::string expect_success(const std::string& reply) {
        SCOPED_TRACE(reply.substr(0, 100));
        service s("vpncaas", reply);
        json_t* root = ravo::easy_zb_call("vpncaas", "m", "{}");
        EXPECT_TRUE(json_is_object(root));
        if (root == nullptr) return {};
        char* text = json_dumps(root, JSON_COMPACT);
        std::string copy = text;
        free(text);
        json_decref(root);
        EXPECT_EQ(read_file(log_path), "");
        return copy;
    }
};

class profile_name : public service_call {
  protected:
    // The profile name of an interface, with a network service that gives this reply.
    static std::string name_of(const std::string& interface, const std::string& reply) {
        SCOPED_TRACE(reply);
        forget_log();
        service s("NetworkService", reply);
        std::string name = ravo::get_profile_name(interface);
        s.stop();
        return name;
    }
};

constexpr char not_an_object[] = "root isn't an object.";
constexpr char not_an_integer[] = "val isn't an integer.";

}  // namespace

// --- The request --------------------------------------------------------------------------------

TEST_F(service_call, passes_path_method_and_body_on_with_5_and_minus_1) {
    service s("NetworkService", R"({"error": 0})");
    json_t* root =
        ravo::easy_zb_call("NetworkService", "external_dev.update_vpn_gw", R"({"a": "b c"})");
    EXPECT_NE(root, nullptr);
    json_decref(root);
    s.stop();
    EXPECT_EQ(calls,
              (std::vector<bus_call>{{"NetworkService", "external_dev.update_vpn_gw", 5, -1}}));
    EXPECT_EQ(requests, (std::vector<request>{{"external_dev.update_vpn_gw", R"({"a": "b c"})"}}));
}

TEST_F(service_call, reaches_an_abstract_socket_path_too) {
    service s("@/var/run/other.sock", R"({"error": 0})");
    json_t* root = ravo::easy_zb_call("@/var/run/other.sock", "read_json", "{}");
    EXPECT_NE(root, nullptr);
    json_decref(root);
    EXPECT_EQ(calls, (std::vector<bus_call>{{"@/var/run/other.sock", "read_json", 5, -1}}));
}

TEST_F(service_call, body_is_sent_without_its_nul_and_need_not_be_json) {
    const std::vector<std::string> bodies = {"",     "{}",       "not JSON",
                                             "%s%n", "\xff\n\"", std::string(300000, 'x')};
    {
        service s("vpncaas", R"({"error": 0})");
        for (const std::string& body : bodies) {
            json_decref(ravo::easy_zb_call("vpncaas", "m", body.c_str()));
        }
    }
    ASSERT_EQ(requests.size(), bodies.size());
    for (size_t n = 0; n < bodies.size(); ++n) EXPECT_TRUE(requests[n].body == bodies[n]) << n;
}

TEST_F(service_call, without_a_body_writes_none) {
    service s("vpncaas", R"({"error": 0})");
    json_t* root = ravo::easy_zb_call("vpncaas", "m", nullptr);
    EXPECT_NE(root, nullptr);
    json_decref(root);
    s.stop();
    EXPECT_EQ(writes, 0);
    EXPECT_EQ(requests, (std::vector<request>{{"m", ""}}));
}

TEST_F(service_call, null_path_or_method_returns_null_and_logs_nothing) {
    EXPECT_EQ(ravo::easy_zb_call(nullptr, "m", "{}"), nullptr);
    EXPECT_EQ(ravo::easy_zb_call("vpncaas", nullptr, "{}"), nullptr);
    EXPECT_EQ(ravo::easy_zb_call(nullptr, nullptr, nullptr), nullptr);
    EXPECT_EQ(buffers_made, 0);
    EXPECT_EQ(calls.size(), 0U);
    EXPECT_EQ(read_file(log_path), "");
}

// --- Calls that fail ----------------------------------------------------------------------------

TEST_F(service_call, without_a_buffer_is_logged) {
    no_buffers = true;
    EXPECT_EQ(ravo::easy_zb_call("vpncaas", "m", "{}"), nullptr);
    EXPECT_EQ(calls.size(), 0U);
    expect_log({call_line("zb_io_create failed")});
}

TEST_F(service_call, to_nobody_is_logged_with_path_method_and_body) {
    EXPECT_EQ(ravo::easy_zb_call("NetworkService", "external_dev.list", R"({"key": "eth0"})"),
              nullptr);
    EXPECT_EQ(ravo::easy_zb_call("vpncaas", "read_json", nullptr), nullptr);
    EXPECT_EQ(ravo::easy_zb_call("", "", ""), nullptr);
    expect_log({call_line(R"(zb_call NetworkService.external_dev.list {"key": "eth0"} failed)"),
                call_line("zb_call vpncaas.read_json  failed"), call_line("zb_call .  failed")});
}

TEST_F(service_call, percent_signs_of_a_failed_call_are_logged_as_they_stand) {
    EXPECT_EQ(ravo::easy_zb_call("%s", "%n", "%s%n%d"), nullptr);
    expect_log({call_line("zb_call %s.%n %s%n%d failed")});
}

TEST_F(service_call, long_body_of_a_failed_call_is_logged_whole) {
    const std::string body(100000, 'x');
    EXPECT_EQ(ravo::easy_zb_call("vpncaas", "m", body.c_str()), nullptr);
    expect_log({call_line("zb_call vpncaas.m " + body + " failed")});
}

TEST_F(service_call, that_is_not_answered_is_a_failed_call) {
    is_answering = false;
    expect_failure("", "zb_call vpncaas.m {} failed");
}

TEST_F(service_call, body_that_cannot_be_written_is_a_failed_call) {
    no_writes = true;
    EXPECT_EQ(ravo::easy_zb_call("vpncaas", "m", "{}"), nullptr);
    EXPECT_EQ(calls.size(), 0U) << "half a request is not sent";
    expect_log({call_line("zb_call vpncaas.m {} failed")});
}

// --- Replies ------------------------------------------------------------------------------------

TEST_F(service_call, reply_that_is_no_json_object_gives_null) {
    const std::string invalid_utf8 = "{\"error\": 0, \"a\": \"\xff\"}";
    const std::string deep =
        R"({"error": 0, "a": )" + std::string(5000, '[') + std::string(5000, ']') + "}";
    for (const std::string& reply :
         {std::string(), std::string("no JSON"), std::string("[]"),
          std::string(R"([{"error": 0}])"), std::string("0"), std::string("\"error\""),
          std::string("null"), std::string("true"), std::string(R"({"error": 0)"),
          std::string(R"({"error": 0} more)"), std::string(R"({'error': 0})"),
          std::string(R"({"error": 0,})"), std::string(R"({"error": 99999999999999999999})"),
          std::string("\0{\"error\": 0}", 13), invalid_utf8, deep}) {
        expect_failure(reply, not_an_object);
    }
}

TEST_F(service_call, reply_without_an_integer_error_gives_null) {
    for (const char* error :
         {"{}", R"({"Error": 0})", R"({"error": "0"})", R"({"error": 0.0})", R"({"error": null})",
          R"({"error": true})", R"({"error": false})", R"({"error": [0]})", R"({"error": {}})",
          R"({"data": {"error": 0}})", R"({"error": 0, "error": "0"})"}) {
        expect_failure(error, not_an_integer);
    }
}

TEST_F(service_call, reply_with_another_error_than_0_gives_null_even_with_data) {
    for (const char* error :
         {"1", "-1", "256", "4294967296", "9223372036854775807", "-9223372036854775808"}) {
        expect_failure(std::string(R"({"data": {"a": 1}, "error": )") + error + "}",
                       "vpncaas.m {} failed");
    }
}

TEST_F(service_call, failure_line_of_a_call_without_body_has_an_empty_text) {
    service s("vpncaas", R"({"error": 5})");
    EXPECT_EQ(ravo::easy_zb_call("vpncaas", "m", nullptr), nullptr);
    expect_log({call_line("vpncaas.m  failed")});
}

TEST_F(service_call, error_0_hands_the_reply_over) {
    EXPECT_EQ(expect_success(R"({"error": 0})"), R"({"error":0})");
    EXPECT_EQ(expect_success(R"( {"error" : -0, "data": [1, {"a": null}]} )"),
              R"({"error":0,"data":[1,{"a":null}]})");
    EXPECT_EQ(expect_success(R"({"error": 7, "error": 0})"), R"({"error":0})");
}

TEST_F(service_call, reply_is_read_as_a_text_up_to_its_nul) {
    EXPECT_EQ(expect_success(std::string("{\"error\": 0}\0{[garbage", 22)), R"({"error":0})");
}

TEST_F(service_call, huge_reply_is_handed_over_whole) {
    const std::string data(8 << 20, 'x');
    EXPECT_TRUE(expect_success(R"({"error":0,"data":")" + data + "\"}") ==
                R"({"error":0,"data":")" + data + "\"}");
}

TEST_F(service_call, huge_reply_that_is_no_object_is_released) {
    expect_failure("[\"" + std::string(8 << 20, 'x') + "\"]", not_an_object);
}

TEST_F(service_call, any_thread_may_call) {
    service s("vpncaas", R"({"error": 0})");
    std::vector<std::thread> threads;
    threads.reserve(4);
    std::atomic<int> answered = 0;
    for (int n = 0; n < 4; ++n) {
        threads.emplace_back([&answered] {
            for (int m = 0; m < 20; ++m) {
                json_t* root = ravo::easy_zb_call("vpncaas", "m", "{}");
                answered += root != nullptr ? 1 : 0;
                json_decref(root);
            }
        });
    }
    for (std::thread& t : threads) t.join();
    EXPECT_EQ(answered, 80);
}

// --- Profile names ------------------------------------------------------------------------------

TEST_F(profile_name, is_what_the_network_service_records_for_the_interface) {
    EXPECT_EQ(name_of("eth0", R"({"error": 0, "data": {"eth1": {"profile": "no"},
                                  "eth0": {"profile": "my profile", "x": 1}}})"),
              "my profile");
    EXPECT_EQ(calls, (std::vector<bus_call>{{"NetworkService", "external_dev.list", 5, -1}}));
    EXPECT_EQ(requests, (std::vector<request>{{"external_dev.list", R"({"key": "eth0"})"}}));
    EXPECT_EQ(read_file(log_path), "");
}

TEST_F(profile_name, may_be_empty_or_any_text) {
    EXPECT_EQ(name_of("eth0", R"({"error": 0, "data": {"eth0": {"profile": ""}}})"), "");
    EXPECT_EQ(name_of("eth0", R"({"error": 0, "data": {"eth0": {"profile": "%s \"\n\u65e5"}}})"),
              "%s \"\n\xe6\x97\xa5");
    EXPECT_EQ(read_file(log_path), "");
}

TEST_F(profile_name, interface_names_are_quoted_for_json) {
    EXPECT_EQ(name_of("a\"b\\c\n", R"({"error": 0, "data": {"a\"b\\c\n": {"profile": "p"}}})"),
              "p");
    ASSERT_EQ(requests.size(), 1U);
    EXPECT_EQ(requests[0].body, R"({"key": "a\"b\\c\n"})");
}

TEST_F(profile_name, interface_that_is_not_listed_is_logged_and_gives_nothing) {
    const std::vector<const char*> replies = {
        R"({"error": 0})",
        R"({"error": 0, "data": {}})",
        R"({"error": 0, "data": null})",
        R"({"error": 0, "data": []})",
        R"({"error": 0, "data": "eth0"})",
        R"({"error": 0, "data": {"eth1": {"profile": "p"}}})",
        R"({"error": 0, "data": {"ETH0": {"profile": "p"}}})",
        R"({"error": 0, "data": {"eth0": null}})",
        R"({"error": 0, "data": {"eth0": "p"}})",
        R"({"error": 0, "data": {"eth0": [{"profile": "p"}]}})",
        R"({"error": 0, "eth0": {"profile": "p"}})",
    };
    for (const char* reply : replies) {
        EXPECT_EQ(name_of("eth0", reply), "");
        expect_log({profile_line("eth0 isn't an object.")});
    }
}

TEST_F(profile_name, profile_that_is_no_string_is_logged_and_gives_nothing) {
    for (const char* profile :
         {"{}", R"({"profile": null})", R"({"profile": 5})", R"({"profile": ["p"]})",
          R"({"profile": {}})", R"({"profile": true})", R"({"Profile": "p"})"}) {
        EXPECT_EQ(
            name_of("eth0", std::string(R"({"error": 0, "data": {"eth0": )") + profile + "}}"), "");
        expect_log({profile_line("profile isn't string.")});
    }
}

TEST_F(profile_name, failed_call_leaves_only_the_call_s_line) {
    EXPECT_EQ(ravo::get_profile_name("eth0"), "");
    expect_log({call_line(R"(zb_call NetworkService.external_dev.list {"key": "eth0"} failed)")});
    EXPECT_EQ(name_of("eth0", R"({"error": 1, "data": {"eth0": {"profile": "p"}}})"), "");
    expect_log({call_line(R"(NetworkService.external_dev.list {"key": "eth0"} failed)")});
    EXPECT_EQ(name_of("eth0", "[]"), "");
    expect_log({call_line(not_an_object)});
}

TEST_F(profile_name, odd_interface_names_give_nothing_and_do_no_harm) {
    const char reply[] = R"({"error": 0, "data": {"eth0": {"profile": "p"}}})";
    EXPECT_EQ(name_of("", reply), "");
    expect_log({profile_line(" isn't an object.")});
    EXPECT_EQ(name_of("%s%n", reply), "");
    expect_log({profile_line("%s%n isn't an object.")});
    EXPECT_EQ(name_of("\xff", reply), "") << "no JSON string can hold it";
    expect_log({profile_line("\xff isn't an object.")});
    EXPECT_EQ(name_of(std::string("eth0\0x", 6), reply), "p") << "a text ends at its NUL";
    EXPECT_EQ(name_of(std::string(5000, 'e'), reply), "");
    expect_log({profile_line(std::string(5000, 'e') + " isn't an object.")});
}
