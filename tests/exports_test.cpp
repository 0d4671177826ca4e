// The dynamic symbols of what is built: what the client library exports, and what daemon and client
// library want of a bus.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "support/files.h"

namespace {

using strings = std::vector<std::string>;

// The names that nm lists, sorted.
strings symbols(const std::string& options, const std::string& path) {
    const std::string command = "nm -D --format=just-symbols " + options + " '" + path + "'";
    FILE* out = popen(command.c_str(), "re");
    std::string text;
    char part[4096];
    while (fgets(part, sizeof part, out) != nullptr) text += part;
    EXPECT_EQ(pclose(out), 0) << command;
    strings names = split_lines(text);
    std::sort(names.begin(), names.end());
    return names;
}

strings bus_functions_wanted_by(const std::string& path) {
    strings names;
    for (const std::string& name : symbols("--undefined-only", path)) {
        if (name.rfind("zb_", 0) == 0) names.push_back(name);
    }
    return names;
}

}  // namespace

TEST(exports, client_library_exports_its_functions_and_nothing_else) {
    strings expected = split_lines(read_file(EXPORTS_FOLDER "/ravo_client.txt"));
    ASSERT_FALSE(expected.empty());
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(symbols("--defined-only", CLIENT_LIBRARY), expected);
}

TEST(exports, client_library_wants_only_what_every_bus_library_has) {
    EXPECT_EQ(bus_functions_wanted_by(CLIENT_LIBRARY),
              (strings{"zb_call", "zb_io_create", "zb_io_free", "zb_io_read", "zb_io_write"}));
}

TEST(exports, daemon_wants_only_what_every_bus_library_has) {
    EXPECT_EQ(
        bus_functions_wanted_by(RAVOD),
        (strings{"zb_call", "zb_create", "zb_free", "zb_io_create", "zb_io_free", "zb_io_read",
                 "zb_io_realloc", "zb_io_write", "zb_reply", "zb_signal", "zb_start", "zb_stop"}));
}
