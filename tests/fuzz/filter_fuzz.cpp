// A query's filter, whose column is any text: it changes nothing, and reads no table but its own.
//
// Input: a byte for the table, one for the order; then the field and the value, each up to a zero
// byte.
#include <cstring>

#include "fuzz_target.h"
#include "store_world.h"

namespace {

using store_world::table_info;
using store_world::tables;

// A text that stands in one table only.
std::string secret_of(const table_info& table) { return std::string("Zq7~") + table.name + "~"; }

// A row in each table, put there by the daemon's own inserts.
void fill_tables() {
    for (const table_info& table : tables) {
        const std::string secret = secret_of(table);
        if (table.row_size == sizeof(db_privilege_user_block_data)) {
            (void)store_world::ask("db_privilege_user_block_insert", secret);
            continue;
        }
        const std::string insert = table.row_size == sizeof(db_conn_server_log)
                                       ? "db_conn_insert"
                                       : "db_" + std::string(table.name) + "_insert";
        std::string record(table.row_size, '\0');
        // The first two texts of most records stand here.
        for (const size_t at : {size_t{8}, size_t{1033}}) record.replace(at, secret.size(), secret);
        (void)store_world::ask(insert, record);
    }
}

void expect_no_other_secret(const table_info& own, const std::string& reply,
                            const std::string& question) {
    for (const table_info& table : tables) {
        const std::string secret = secret_of(table);
        // A question may hold the text itself.
        if (&table == &own || question.find("Zq7~") != std::string::npos) continue;
        fuzz::expect(reply.find(secret) == std::string::npos, "no other table is read");
    }
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::input in(data, size);
    const table_info& table = tables[in.below(std::size(tables))];
    db_query_cond cond = {};
    cond.count = -1;
    cond.order_by = in.below(4);
    const std::string field = in.line();
    const std::string value = in.line();
    field.copy(cond.field, sizeof cond.field);
    value.copy(cond.value, sizeof cond.value);

    store_world::begin();
    fill_tables();
    const std::string file = fuzz::get_file(database_path);
    const store_world::answer got = store_world::ask(table.query, store_world::bytes_of(cond));
    fuzz::expect(got.replied, "a query of a column is answered");
    uint64_t count = 0;
    memcpy(&count, got.bytes.data(), sizeof count);
    fuzz::expect(count <= static_cast<uint64_t>(visible_rows) &&
                     got.bytes.size() == 24 + count * table.row_size,
                 "the reply is whole");
    expect_no_other_secret(table, got.bytes, field + value);
    fuzz::expect(fuzz::get_file(database_path) == file, "the file is left as it is");

    // The fence is gone: the next request writes.
    (void)store_world::ask("db_conn_insert", std::string(sizeof(db_conn_server_log), '\0'));
    fuzz::expect(
        store_world::run("SELECT count(*) FROM conn_server_log") == std::vector<std::string>{"2"},
        "the next insert is stored");
    return 0;
}
