// Rows out of a damaged database.
#include "salvage.h"

#include <algorithm>
#include <map>
#include <string>
#include <vector>

namespace {

constexpr uint32_t schema_root = 1;
constexpr char counter_table[] = "sqlite_sequence";
constexpr int64_t largest_counter = int64_t{1} << 62;  // no table has given so many ids
constexpr uint32_t pages_between_looks = 64;           // at the clock

// type, name, table, root page, text
constexpr column_kind schema_columns[] = {column_kind::text, column_kind::text, column_kind::text,
                                          column_kind::integer, column_kind::text};
// table, the last id that it gave
constexpr column_kind counter_columns[] = {column_kind::text, column_kind::integer};

// What a row is, by its values.
struct row_owner {
    kept_table* table = nullptr;
    bool is_counter = false;
    bool operator==(const row_owner&) const = default;
    bool is_known() const { return table != nullptr || is_counter; }
};

class salvager {
  public:
    salvager(const page_file& damaged, replacement& target, deadline time)
        : file(damaged), into(target), end(time), is_done(damaged.page_count() + size_t{1}) {}

    salvage_result run() {
        read_roots();
        save_stray_leaves(file.last_stated_page() + 1);
        for (kept_table& table : into.tables) save_tree({&table, false}, roots[table.name]);
        save_tree({nullptr, true}, roots[counter_table]);
        save_stray_leaves(1);
        if (result.code == 0) result.code = into.finish(last_ids);
        return result;
    }

  private:
    bool must_stop() {
        if (++pages % pages_between_looks == 0 && end.has_passed()) result.is_unfinished = true;
        return result.code != 0 || result.is_unfinished;
    }

    // Calls visit(number, page) for each leaf of a tree, from left to right, as far as its inner
    // pages lead; wherever they lead, once. Returns how many pages are missing.
    template <class Visit>
    uint64_t walk(uint32_t root, Visit visit) {
        std::vector<bool> is_seen(file.page_count() + size_t{1});
        std::vector<uint32_t> waiting;
        std::vector<uint8_t> page;
        uint64_t missing = 0;
        const auto go_to = [&](uint32_t number) {
            if (number == 0 || number >= is_seen.size()) {
                ++missing;
            } else if (!is_seen[number]) {
                is_seen[number] = true;
                waiting.push_back(number);
            }
        };
        if (root != 0) go_to(root);
        while (!waiting.empty() && !must_stop()) {
            const uint32_t number = waiting.back();
            waiting.pop_back();
            const page_kind kind =
                file.read(number, page) ? file.kind_of(number, page) : page_kind::other;
            if (kind == page_kind::other) ++missing;
            if (kind == page_kind::table_leaf) visit(number, page);
            if (kind != page_kind::table_inner) continue;
            // The last to wait is the first to be read.
            for (size_t n = file.cell_count(number, page) + 1; n > 0; --n) {
                go_to(file.child(number, page, n - 1));
            }
        }
        return missing;
    }

    // Reads the n-th row of a leaf into values, which last until the next one is read.
    bool read_row(uint32_t number, byte_view page, size_t n, int64_t& id) {
        const auto cell = file.leaf_cell(number, page, n);
        if (!cell || !file.read_payload(*cell, payload)) return false;
        id = cell->id;
        return parse_record(payload, values);
    }

    void read_roots() {
        (void)walk(schema_root, [this](uint32_t number, byte_view page) {
            int64_t id = 0;
            for (size_t n = 0; n < file.cell_count(number, page); ++n) {
                if (!read_row(number, page, n, id) || !fits(values, schema_columns)) continue;
                if (values[0].text != "table") continue;
                roots[std::string(values[1].text)] = static_cast<uint32_t>(values[3].integer);
            }
        });
    }

    // The owner that the last row read fits, if there is just one.
    row_owner owner_of_row() {
        row_owner owner;
        if (fits(values, counter_columns)) owner.is_counter = true;
        for (kept_table& table : into.tables) {
            if (!fits(values, table.columns)) continue;
            if (owner.is_known()) return {};
            owner.table = &table;
        }
        return owner;
    }

    void save_row(const row_owner& owner, int64_t id) {
        if (owner.table != nullptr) {
            result.code = into.save(*owner.table, id, values);
        } else if (values[1].integer > 0 && values[1].integer < largest_counter) {
            int64_t& last = last_ids[std::string(values[0].text)];
            last = std::max(last, values[1].integer);
        }
    }

    // Saves a leaf's rows of this owner. Returns whether the page is the owner's: it has such rows,
    // or no rows at all. The others in the owner's page are broken.
    bool save_leaf(const row_owner& owner, uint32_t number, byte_view page) {
        uint64_t others = 0;
        bool is_owners = file.cell_count(number, page) == 0;
        for (size_t n = 0; n < file.cell_count(number, page) && result.code == 0; ++n) {
            int64_t id = 0;
            if (read_row(number, page, n, id) && owner_of_row() == owner) {
                save_row(owner, id);
                is_owners = true;
            } else {
                ++others;
            }
        }
        if (is_owners && owner.table != nullptr) result.broken_rows += others;
        return is_owners;
    }

    void save_tree(const row_owner& owner, uint32_t root) {
        const uint64_t missing = walk(root, [&](uint32_t number, byte_view page) {
            if (is_done[number]) return;
            if (save_leaf(owner, number, page)) {
                is_done[number] = true;
            } else if (owner.table != nullptr && !find_owner(number, page).is_known()) {
                result.broken_rows += file.cell_count(number, page);
            }
        });
        if (owner.table != nullptr) result.missing_pages += missing;
    }

    // Of a leaf that no tree has led to: what its first whole row belongs to.
    row_owner find_owner(uint32_t number, byte_view page) {
        for (size_t n = 0; n < file.cell_count(number, page); ++n) {
            int64_t id = 0;
            if (!read_row(number, page, n, id)) continue;
            if (const row_owner owner = owner_of_row(); owner.is_known()) return owner;
        }
        return {};
    }

    void save_stray_leaves(uint32_t first) {
        std::vector<uint8_t> page;
        for (uint32_t number = first; number < is_done.size() && !must_stop(); ++number) {
            if (is_done[number] || !file.read(number, page)) continue;
            if (file.kind_of(number, page) != page_kind::table_leaf) continue;
            const row_owner owner = find_owner(number, page);
            if (owner.is_known() && save_leaf(owner, number, page)) is_done[number] = true;
        }
    }

    const page_file& file;
    replacement& into;
    const deadline end;
    std::vector<bool> is_done;  // leaves whose rows are saved
    std::map<std::string, uint32_t> roots;
    std::map<std::string, int64_t> last_ids;
    std::vector<uint8_t> payload;
    std::vector<value> values;
    uint32_t pages = 0;
    salvage_result result;
};

}  // namespace

salvage_result salvage(const page_file& damaged, replacement& into, deadline end) {
    return salvager(damaged, into, end).run();
}
