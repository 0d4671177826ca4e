// The dynamic symbols of what is built: what the client library and the module of PAM export, and
// what they and the daemon want of a bus.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "support/files.h"

namespace {

using strings = std::vector<std::string>;

// What nm lists, sorted: a letter for the kind of symbol and the name.
strings symbols(const std::string& options, const std::string& path) {
    const std::string command = "nm -D --format=posix " + options + " '" + path + "'";
    FILE* out = popen(command.c_str(), "re");
    std::string text;
    char part[4096];
    while (fgets(part, sizeof part, out) != nullptr) text += part;
    EXPECT_EQ(pclose(out), 0) << command;
    strings found;
    for (const std::string& line : split_lines(text)) {
        const size_t end = line.find(' ');
        found.push_back(line.substr(end + 1, 2) + line.substr(0, end));
    }
    std::sort(found.begin(), found.end());
    return found;
}

strings names_of(strings found) {
    for (std::string& symbol : found) symbol.erase(0, 2);
    std::sort(found.begin(), found.end());
    return found;
}

// Those without which the program does not start (U), or those that may be missing (w).
strings bus_functions_wanted_by(const std::string& path, const std::string& kind) {
    strings found;
    for (const std::string& symbol : symbols("--undefined-only", path)) {
        if (symbol.rfind(kind + " zb_", 0) == 0) found.push_back(symbol);
    }
    return names_of(found);
}

}  // namespace

TEST(exports, client_library_exports_its_functions_and_nothing_else) {
    strings expected = split_lines(read_file(EXPORTS_FOLDER "/ravo_client.txt"));
    ASSERT_FALSE(expected.empty());
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(names_of(symbols("--defined-only", CLIENT_LIBRARY)), expected);
}

TEST(exports, module_of_pam_exports_its_steps_and_nothing_else) {
    EXPECT_EQ(names_of(symbols("--defined-only", PAM_RAVOD)),
              (strings{"pam_sm_acct_mgmt", "pam_sm_authenticate", "pam_sm_setcred"}));
}

TEST(exports, module_of_pam_wants_only_what_every_bus_library_has) {
    EXPECT_EQ(bus_functions_wanted_by(PAM_RAVOD, "w"), (strings{"zb_strerror"}));
    EXPECT_EQ(bus_functions_wanted_by(PAM_RAVOD, "U"),
              (strings{"zb_call", "zb_io_create", "zb_io_free", "zb_io_read", "zb_io_write"}));
}

TEST(exports, client_library_wants_only_what_every_bus_library_has) {
    EXPECT_EQ(bus_functions_wanted_by(CLIENT_LIBRARY, "w"), (strings{"zb_call_into"}));
    EXPECT_EQ(bus_functions_wanted_by(CLIENT_LIBRARY, "U"),
              (strings{"zb_call", "zb_io_create", "zb_io_free", "zb_io_read", "zb_io_write"}));
}

TEST(exports, daemon_wants_only_what_every_bus_library_has) {
    EXPECT_EQ(bus_functions_wanted_by(RAVOD, "w"), (strings{"zb_io_adopt"}));
    EXPECT_EQ(
        bus_functions_wanted_by(RAVOD, "U"),
        (strings{"zb_call", "zb_create", "zb_free", "zb_io_create", "zb_io_free", "zb_io_read",
                 "zb_io_realloc", "zb_io_write", "zb_reply", "zb_signal", "zb_start", "zb_stop"}));
}

TEST(exports, stand_in_has_nothing_but_what_every_bus_library_has) {
    strings names = names_of(symbols("--defined-only", STANDIN_LIBRARY));
    std::erase_if(names, [](const std::string& name) { return name.rfind("zb_", 0) != 0; });
    EXPECT_EQ(names, (strings{"zb_call", "zb_create", "zb_free", "zb_io_create", "zb_io_free",
                              "zb_io_read", "zb_io_realloc", "zb_io_write", "zb_reply", "zb_signal",
                              "zb_start", "zb_stop"}));
}
