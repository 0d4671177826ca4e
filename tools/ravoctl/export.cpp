// All rows written to a file as lines of JSON, for keeping and for import.
#include "export.h"

#include <fmt/chrono.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <memory>
#include <string_view>
#include <system_error>

#include "export_lines.h"
#include "new_file.h"
#include "pages.h"
#include "progress.h"

namespace {

constexpr char save_folder[] = "/var/backups/ravod";
constexpr mode_t private_file = 0600;  // records tell who was where
constexpr mode_t private_folder = 0700;

std::string summary_of(const record_kind& kind, const char* row) {
    std::string words;
    for (const field& f : kind.fields) {
        if (f.visibility != shown::always) continue;
        const std::string text = cell_text(f, read_value(f, row));
        if (!text.empty()) words += fmt::format("{}{}={}", words.empty() ? "" : " ", f.name, text);
    }
    return words;
}

uint64_t time_of(const record_kind& kind, const char* row) {
    for (const field& f : kind.fields) {
        if (std::string_view(f.name) == "time") return std::get<uint64_t>(read_value(f, row));
    }
    return 0;
}

void make_save_folder() {
    for (const char* folder : {"/var/backups", save_folder}) {
        if (mkdir(folder, folder == save_folder ? private_folder : 0755) == 0 || errno == EEXIST) {
            continue;
        }
        throw std::system_error(errno, std::generic_category(), folder);
    }
}

void write_kind(const record_kind& kind, const std::vector<stored_row>& rows, new_file& file,
                row_counts& counts) {
    for (const stored_row& row : rows) file.write(row.line);
    counts[kind.command] = rows.size();
}

struct export_request {
    std::vector<std::string> kinds = {};
    std::string file = "-";
};

exit_status write_export(const export_request& request) {
    new_file file(request.file, private_file);
    row_counts counts;
    file.write(export_head(time(nullptr)));
    for (const record_kind& kind : record_kinds()) {
        const bool is_wanted = request.kinds.empty() ||
                               std::ranges::count(request.kinds, std::string(kind.command)) != 0;
        if (is_wanted) write_kind(kind, read_stored_rows(kind), file, counts);
    }
    file.write(export_end(counts));
    file.finish();
    return done;
}

std::vector<std::string> names_of_kinds() {
    std::vector<std::string> names;
    for (const record_kind& kind : record_kinds()) names.emplace_back(kind.command);
    return names;
}

}  // namespace

std::vector<stored_row> read_stored_rows(const record_kind& kind) {
    std::vector<stored_row> rows;
    progress shown_progress(kind.command, count_rows(kind));
    for_each_row(kind, {}, [&](const char* row) {
        const int64_t id = std::get<int64_t>(read_value(kind.fields[0], row));
        rows.push_back({id, time_of(kind, row), summary_of(kind, row), export_row(kind, row)});
        shown_progress.step();
        return true;
    });
    std::ranges::reverse(rows);
    return rows;
}

std::string save_rows(const record_kind& kind, const std::vector<stored_row>& rows) {
    make_save_folder();
    const time_t now = time(nullptr);
    std::string path = fmt::format("{}/{}-{:%Y%m%dT%H%M%SZ}-{}.jsonl", save_folder, kind.command,
                                   fmt::gmtime(now), getpid());
    new_file file(path, private_file);
    row_counts counts;
    file.write(export_head(now));
    write_kind(kind, rows, file, counts);
    file.write(export_end(counts));
    file.finish();
    return path;
}

void declare_export(command_line& line) {
    const auto request = std::make_shared<export_request>();
    CLI::App* command = line.app.add_subcommand("export", "Write all rows as lines of JSON");
    command->add_option("tables", request->kinds, "Tables to write; all if none is given")
        ->check(CLI::IsMember(names_of_kinds()));
    command->add_option("--output", request->file, "File to write; - is standard output")
        ->type_name("FILE")
        ->capture_default_str();
    line.runs(command, [request] { return write_export(*request); });
}
