// The registry is complete before any ordinary static object of a program is built.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "ravod_db.h"
#include "ravod_handler.h"

namespace {

std::vector<std::string> method_names() {
    std::vector<std::string> names;
    names.reserve(ravod_method_list.size());
    for (const auto& [name, handler] : ravod_method_list) names.push_back(name);
    return names;
}

// What an ordinary static object of the program finds in its constructor.
struct early_look {
    std::vector<std::string> names = method_names();
    bool has_first_handler = ravod_method_list.contains("db_conn_insert") &&
                             ravod_method_list["db_conn_insert"] == db_conn_insert_handler;
};

const early_look early;

TEST(registry, is_complete_before_ordinary_static_objects) {
    EXPECT_GE(ravod_method_list.size(), 14U);
    EXPECT_EQ(early.names, method_names());
    EXPECT_TRUE(early.has_first_handler);
}

}  // namespace
