// What the daemon's program file says about itself.
#include <gtest/gtest.h>

#include <cstdio>
#include <set>
#include <string>

#include "support/daemon.h"
#include "support/files.h"

namespace {

std::string readelf(const std::string& option) {
    process_options how;
    how.output = "/tmp/readelf";
    EXPECT_EQ(run_process({"/usr/bin/readelf", "--wide", option, ravod_path()}, how), 0);
    return read_file("/tmp/readelf");
}

// The values in brackets of the dynamic entries with this tag.
std::set<std::string> dynamic_values(const std::string& tag) {
    std::set<std::string> values;
    for (const std::string& line : split_lines(readelf("--dynamic"))) {
        const size_t open = line.find('[');
        if (line.find("(" + tag + ")") == std::string::npos || open == std::string::npos) continue;
        values.insert(line.substr(open + 1, line.find(']') - open - 1));
    }
    return values;
}

TEST(ravod_binary, finds_its_libraries_beside_itself_behind_the_operators_choice) {
    EXPECT_EQ(dynamic_values("RUNPATH"), std::set<std::string>{"$ORIGIN/../lib"});
    EXPECT_EQ(dynamic_values("RPATH"), std::set<std::string>{});
}

TEST(ravod_binary, is_position_independent) {
    EXPECT_EQ(count_of(readelf("--file-header"), "DYN (Position-Independent Executable file)"), 1U);
}

TEST(ravod_binary, needs_the_platform_sqlite_jansson_and_the_language_only) {
    const std::set<std::string> allowed = {
        "libzbservice.so.1", "libsqlite3.so.0",     "libstdc++.so.6",       "libm.so.6",
        "libgcc_s.so.1",     "libc.so.6",           "ld-linux-x86-64.so.2", "libresolv.so.2",
        "libjansson.so.4",   "libOstra_config.so.1"};
    const std::set<std::string> needed = dynamic_values("NEEDED");
    EXPECT_EQ(needed.count("libzbservice.so.1"), 1U);
    EXPECT_EQ(needed.count("libsqlite3.so.0"), 1U);
    EXPECT_EQ(needed.count("libOstra_config.so.1"), 1U);
    for (const std::string& library : needed) EXPECT_EQ(allowed.count(library), 1U) << library;
}

#ifndef SANITIZED_BUILD
TEST(ravod_binary, tables_of_addresses_are_read_only_once_it_runs) {
    EXPECT_EQ(count_of(readelf("--program-headers"), "GNU_RELRO"), 1U);
    EXPECT_EQ(count_of(readelf("--dynamic"), "BIND_NOW"), 1U);
}
#endif

TEST(ravod_binary, stack_holds_no_code) {
    for (const std::string& line : split_lines(readelf("--program-headers"))) {
        if (line.find("GNU_STACK") == std::string::npos) continue;
        EXPECT_NE(line.find("RW "), std::string::npos) << line;
        EXPECT_EQ(line.find("RWE"), std::string::npos) << line;
        return;
    }
    FAIL() << "no GNU_STACK";
}

}  // namespace
