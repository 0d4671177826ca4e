// A fresh UUID from the daemon, of which it keeps no record.
#include "uuid.h"

#include <fmt/format.h>

#include <cstring>

#include "bus.h"
#include "ravo_api.h"
#include "text.h"

namespace {

// The call returns 0 whatever happened, so the record is given a byte that no UUID begins with.
exit_status print_fresh_uuid() {
    constexpr char untouched = '\x7f';
    ravo_mobile_gen_uuid_data_set request = {};
    ravo_mobile_gen_uuid_data_get reply = {};
    reply.ravo_uuid[0] = untouched;
    auto* reply_address = &reply;
    (void)ravo_mobile_gen_ravo_uuid(&request, &reply_address);
    if (reply.ravo_uuid[0] == untouched) throw unread_failure();
    const std::string uuid(reply.ravo_uuid, strnlen(reply.ravo_uuid, sizeof reply.ravo_uuid));
    if (uuid.empty()) {
        throw failure(unanswered, "ravod has no source of UUIDs; its log file tells why");
    }
    fmt::print("{}\n", escaped(uuid));
    return done;
}

}  // namespace

void declare_uuid(command_line& line) {
    line.runs(
        line.app.add_subcommand("uuid", "Print a fresh UUID, of which the daemon keeps no record"),
        print_fresh_uuid);
}
