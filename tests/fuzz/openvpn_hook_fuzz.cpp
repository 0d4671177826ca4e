// What a hook of OpenVPN is given, any variables with any bytes: an event survives its file, keeps
// no more than a bound, and its records are whole.
//
// Input: texts such as NAME=VALUE, each up to a zero byte.
#include <cstring>
#include <string>
#include <vector>

#include "configuration.h"
#include "environment.h"
#include "event.h"
#include "fuzz_target.h"
#include "limiter_client.h"
#include "session.h"

namespace {

constexpr size_t most_event_bytes = 24 * 1024;

template <size_t size>
void expect_text(const char (&field)[size]) {
    fuzz::expect(memchr(field, '\0', size) != nullptr, "a text ends in its field");
}

void expect_connection(const environment& event) {
    for (const db_conn_server_log& row :
         {to_connection(event, session_action::connected),
          to_connection(event, session_action::disconnected), to_lost_connection(event, 1500)}) {
        expect_text(row.username), expect_text(row.device_info), expect_text(row.source_ip);
        expect_text(row.vpn_ip), expect_text(row.outgoing);
        fuzz::expect(user_of(event).starts_with(row.username), "the user is the name's beginning");
        fuzz::expect(row.time >= row.uptime || row.uptime == event.number("time_duration"),
                     "a session has begun after the epoch");
        fuzz::expect(row.tx_total >= 0 && row.rx_total >= 0, "byte counts are not negative");
    }
}

void expect_device(const environment& event) {
    const auto device = to_device(event);
    if (!device) return;
    fuzz::expect(std::string_view(device->mac).find_first_not_of("0123456789abcdef:") ==
                     std::string_view::npos,
                 "a hardware address has digits and colons");
    expect_text(device->ip), expect_text(device->user_id), expect_text(device->dev_name);
    expect_text(device->nic);
}

void expect_limiter_is_spared(const environment& event) {
    const std::string name(user_of(event));
    if (limiter_objection(name) != nullptr) return;
    fuzz::expect(!name.empty() && name.size() <= 1024, "the limiter is asked about names that fit");
    for (const char byte : name) {
        fuzz::expect(byte != '%' && byte != 0x7f && static_cast<unsigned char>(byte) >= 0x20,
                     "the limiter is not asked about names that hurt it");
    }
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::input in(data, size);
    std::vector<std::string> texts;
    while (!in.is_empty()) texts.push_back(in.line());
    std::vector<const char*> pointers;
    pointers.reserve(texts.size() + 1);
    for (const std::string& text : texts) pointers.push_back(text.c_str());
    pointers.push_back(nullptr);

    const environment given(pointers.data());
    const environment event = to_event("connect", given, 1);
    fuzz::expect(event.bytes().size() <= most_event_bytes, "an event is bounded");
    const environment read(event.bytes());
    fuzz::expect(read.variables() == event.variables(), "an event survives its file");
    fuzz::expect(session_key(read) == session_key(event), "so does the session's key");
    for (const environment* variables : {&given, &event}) {
        expect_connection(*variables);
        expect_device(*variables);
        expect_limiter_is_spared(*variables);
        fuzz::expect(shown(user_of(*variables)).size() <= 200, "a name in the log is bounded");
    }
    (void)is_running(given.get(server_variable));
    (void)parse_configuration(std::string(reinterpret_cast<const char*>(data), size));
    return 0;
}
