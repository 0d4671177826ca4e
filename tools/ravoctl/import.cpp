// The rows of an export recorded again.
//
// The whole file is read and checked before the first row is recorded, so a file that was cut or
// spoiled changes nothing.
#include "import.h"

#include <fmt/format.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <system_error>

#include "bus.h"
#include "export_lines.h"
#include "pages.h"
#include "progress.h"
#include "text.h"

namespace {

struct import_request {
    std::string file;
    bool force = false;
};

// Hands each row to the function, and returns how many there are of each kind. Throws failure,
// which tells the line.
row_counts for_each_exported(const std::string& path,
                             const std::function<void(export_reader::row)>& take) {
    std::ifstream file(path);
    if (!file) throw failure(failed_here, fmt::format("{}: {}", escaped(path), strerror(errno)));
    export_reader reader;
    uint64_t number = 0;
    try {
        for (std::string line; std::getline(file, line);) {
            ++number;
            if (auto row = reader.take(line)) take(std::move(*row));
        }
        if (file.bad()) throw bad_line("the file cannot be read on");
        reader.finish();
    } catch (const bad_line& error) {
        throw failure(failed_here, fmt::format("{}, line {}: {}", escaped(path),
                                               std::max<uint64_t>(number, 1), error.what()));
    }
    return reader.counts();
}

row_counts totals_of(const row_counts& kinds) {
    row_counts totals;
    for (const auto& [name, count] : kinds) totals[name] = count_rows(kind_of(name));
    return totals;
}

bool can_be_added(const record_kind& kind) { return kind.adder.add != nullptr; }

void check_room(const row_counts& wanted, const row_counts& before) {
    for (const auto& [name, count] : wanted) {
        if (!can_be_added(kind_of(name)) || before.at(name) + count <= most_rows) continue;
        throw failure(no,
                      fmt::format("{}: {} rows and {} more are above {}, so the oldest would go "
                                  "or not be shown; --force records them all the same",
                                  name, before.at(name), count, most_rows));
    }
}

void add(const export_reader::row& row) {
    std::vector<char> record = row.record;
    const added outcome = row.kind.adder.add(record.data());
    check_answered(outcome.result);
    if (outcome.answer && outcome.answer->empty()) {
        throw failure(unanswered, fmt::format("ravod could not store a {}; its log file tells why",
                                              row.kind.singular));
    }
}

// What the table gives comes anew.
std::string not_restored(const record_kind& kind) {
    std::string names;
    for (const field& f : kind.fields) {
        if (f.from != origin::given_by_table) continue;
        names += (names.empty() ? "" : " and ") + std::string(f.name);
    }
    return names;
}

// A device that was registered already is replaced, so there the counts tell nothing.
bool is_counted(const record_kind& kind, uint64_t before, uint64_t count) {
    return kind.adder.required == nullptr && before + count < most_rows;
}

exit_status report(const row_counts& wanted, const row_counts& before) {
    exit_status status = done;
    for (const auto& [name, count] : wanted) {
        const record_kind& kind = kind_of(name);
        if (!can_be_added(kind)) {
            fmt::print("{}: {} rows left out, since only ravod makes them\n", name, count);
            continue;
        }
        const uint64_t now = count_rows(kind);
        fmt::print("{}: {} rows recorded, {} before and {} now, with new {}\n", name, count,
                   before.at(name), now, not_restored(kind));
        if (is_counted(kind, before.at(name), count) && now != before.at(name) + count) {
            fmt::print(stderr, "ravoctl: {}: {} rows were expected; ravod's log file tells more\n",
                       name, before.at(name) + count);
            status = not_kept;
        }
    }
    return status;
}

// What cannot be read twice would be found empty the second time, when rows are to be recorded.
void check_readable_twice(const std::string& path) {
    std::error_code none;
    if (!std::filesystem::exists(path, none) || std::filesystem::is_regular_file(path, none))
        return;
    throw failure(failed_here, fmt::format("{}: an export is read twice, so it has to be a file",
                                           escaped(path)));
}

exit_status import_rows(const import_request& request) {
    check_readable_twice(request.file);
    const row_counts wanted = for_each_exported(request.file, [](const auto&) {});
    const row_counts before = totals_of(wanted);
    if (!request.force) check_room(wanted, before);
    uint64_t total = 0;
    for (const auto& [name, count] : wanted) total += count;
    progress shown_progress("import", total);
    uint64_t recorded = 0;
    try {
        (void)for_each_exported(request.file, [&](const export_reader::row& row) {
            if (can_be_added(row.kind)) add(row);
            ++recorded;
            shown_progress.step();
        });
    } catch (const failure& error) {
        throw failure(error.status,
                      fmt::format("{}; the {} rows before were recorded", error.what(), recorded));
    }
    return report(wanted, before);
}

}  // namespace

void declare_import(command_line& line) {
    const auto request = std::make_shared<import_request>();
    const cli_command command = line.add_subcommand("import", "Record the rows of an export again");
    command.add_option("file", request->file, "The export").type_name("FILE").required();
    command.add_flag("--force", request->force, "Also when a table would get too large");
    line.runs(command, [request] { return import_rows(*request); });
}
