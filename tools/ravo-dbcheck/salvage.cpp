// Rows out of a damaged database.
#include "salvage.h"

#include <algorithm>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace {

constexpr uint32_t schema_root = 1;
constexpr char counter_table[] = "sqlite_sequence";
constexpr int64_t ids_end = int64_t{1} << 62;  // no table has given so many ids

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

struct row_place {
    uint32_t page;
    size_t cell;
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
        pass_over_other_tables();
        save_stray_leaves(1);
        if (result.code == 0) result.code = into.raise_last_ids(last_ids);
        save_with_new_ids();
        if (result.code == 0) result.code = into.finish();
        return result;
    }

  private:
    bool must_stop() {
        if (end.has_passed()) result.is_unfinished = true;
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

    void save_row(const row_owner& owner, const row_place& place, int64_t id) {
        if (owner.table != nullptr && id < ids_end) {
            result.code = into.save(*owner.table, id, values);
        } else if (owner.table != nullptr) {
            without_id.emplace_back(owner.table, place);
        } else if (values[1].integer > 0 && values[1].integer < ids_end) {
            int64_t& last = last_ids[std::string(values[0].text)];
            last = std::max(last, values[1].integer);
        }
    }

    // Saves a leaf's rows of this owner. Returns whether the page is the owner's: it has such rows,
    // or no rows at all. The others in the owner's page are broken.
    bool save_leaf(const row_owner& owner, uint32_t number, byte_view page) {
        uint64_t others = 0;
        bool is_owners = file.cell_count(number, page) == 0;
        for (size_t n = 0; n < file.cell_count(number, page) && !must_stop(); ++n) {
            int64_t id = 0;
            if (read_row(number, page, n, id) && owner_of_row() == owner) {
                save_row(owner, {number, n}, id);
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

    // Rows of a table that the daemon does not keep may look as its own do. When the name of one
    // that it keeps is missing, its rows may be under another name.
    void pass_over_other_tables() {
        std::map<std::string, uint32_t> others = roots;
        others.erase(counter_table);
        for (const kept_table& table : into.tables) {
            if (others[table.name] == 0) return;
            others.erase(table.name);
        }
        for (const auto& [name, root] : others) {
            (void)walk(root,
                       [this](uint32_t number, byte_view /*page*/) { is_done[number] = true; });
        }
    }

    // Of a leaf that no tree has led to: what its first whole row belongs to.
    row_owner find_owner(uint32_t number, byte_view page) {
        for (size_t n = 0; n < file.cell_count(number, page) && !must_stop(); ++n) {
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

    // The daemon could give no id behind such a one, so its row gets the next one itself.
    void save_with_new_ids() {
        std::vector<uint8_t> page;
        for (const auto& [table, place] : without_id) {
            int64_t id = 0;
            if (must_stop()) return;
            if (!file.read(place.page, page) || !read_row(place.page, page, place.cell, id))
                continue;
            result.code = into.save(*table, {}, values);
        }
    }

    const page_file& file;
    replacement& into;
    const deadline end;
    std::vector<bool> is_done;  // leaves whose rows are saved
    std::map<std::string, uint32_t> roots;
    std::map<std::string, int64_t> last_ids;
    std::vector<std::pair<kept_table*, row_place>> without_id;
    std::vector<uint8_t> payload;
    std::vector<value> values;
    salvage_result result;
};

}  // namespace

salvage_result salvage(const page_file& damaged, replacement& into, deadline end) {
    return salvager(damaged, into, end).run();
}
