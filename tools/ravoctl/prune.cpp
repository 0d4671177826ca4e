// Old rows deleted.
#include "prune.h"

#include <fmt/format.h>

#include <ctime>
#include <memory>
#include <optional>
#include <string>

#include "export.h"
#include "removal.h"
#include "text.h"
#include "time_words.h"

namespace {

struct prune_request {
    removal_request removal;
    std::string older_than = {};        // empty: by number
    std::optional<uint64_t> keep = {};  // the newest rows that stay
    bool dry_run = false;
};

int64_t parse_limit(const std::string& text) {
    if (const auto seconds = parse_time_words(text, time(nullptr))) return *seconds;
    throw usage_error(fmt::format("--older-than: \"{}\" is no time; it takes {}", escaped(text),
                                  time_words_help));
}

std::vector<int64_t> choose(const prune_request& request, const std::vector<stored_row>& rows) {
    std::vector<int64_t> ids;
    if (request.keep) {
        const size_t kept = std::min<uint64_t>(*request.keep, rows.size());
        for (size_t n = 0; n < rows.size() - kept; ++n) ids.push_back(rows[n].id);
        return ids;
    }
    const auto limit = static_cast<uint64_t>(std::max<int64_t>(parse_limit(request.older_than), 0));
    for (const stored_row& row : rows) {
        if (row.time < limit) ids.push_back(row.id);
    }
    return ids;
}

exit_status prune(prune_request request) {
    if (request.older_than.empty() && !request.keep) {
        throw usage_error("prune: give --older-than or --keep");
    }
    if (!request.older_than.empty()) (void)parse_limit(request.older_than);
    const char* table = request.removal.kind.command;
    const std::vector<stored_row> rows = read_stored_rows(request.removal.kind);
    request.removal.ids = choose(request, rows);
    const size_t count = request.removal.ids.size();
    fmt::print("{}: {} of {} rows are to go, with a call and some 5 kB of ravod's log for each\n",
               table, count, rows.size());
    if (count == 0 || request.dry_run) return done;
    return remove_rows(request.removal, rows);
}

}  // namespace

// The tables that last: of the others ravod takes one delete only.
void declare_prune(command_line& line) {
    CLI::App* noun = line.app.add_subcommand("prune", "Delete old rows of a table");
    noun->require_subcommand(1);
    for (const record_kind& kind : record_kinds()) {
        if (kind.remover.remove == nullptr || kind.remover.is_temporary) continue;
        const auto request =
            std::make_shared<prune_request>(prune_request{.removal = {kind, deed::deletes}});
        CLI::App* command = noun->add_subcommand(kind.command, fmt::format("Old {}", kind.what));
        auto* older =
            command->add_option("--older-than", request->older_than,
                                fmt::format("Those from before this time; {}", time_words_help));
        older->type_name("TIME");
        command->add_option("--keep", request->keep, "All but so many of the newest")
            ->type_name("N")
            ->excludes(older);
        command->add_flag("--dry-run", request->dry_run, "Only tell how many");
        declare_removal_options(*command, request->removal);
        line.runs(command, [request] { return prune(*request); });
    }
}
