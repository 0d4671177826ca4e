// Rows deleted, and tables emptied, with a look at what has become of them.
#include "removal.h"

#include <fmt/format.h>

#include <algorithm>
#include <memory>
#include <optional>
#include <set>
#include <string>

#include "bus.h"
#include "pages.h"
#include "progress.h"
#include "sessions.h"

namespace {

constexpr size_t most_named = 20;  // rows whose summary is printed

// --- What the daemon would do -------------------------------------------------------------------

uint64_t call_count(const removal_request& request) {
    return request.what == deed::clean ? 1 : request.ids.size();
}

std::string words_of(effect what) {
    switch (what) {
        case effect::nothing:
            return "nothing would go";
        case effect::empties:
            return "every row would go";
        default:
            return "every row would go, and none could be recorded until ravod is started again";
    }
}

std::string reason_of(const removal_request& request, const table_history& history) {
    if (request.what == deed::clean) {
        return fmt::format("{} rows were deleted since ravod was started", history.deletes);
    }
    if (history.clean_was_first) return "the table was cleaned since ravod was started";
    return fmt::format("ravod takes one delete here in its life, and this would be number {}",
                       history.deletes + request.ids.size());
}

void check_effect(const removal_request& request, const table_history& history) {
    const effect what = forecast(history, !request.kind.is_log, request.what, call_count(request));
    if (what == effect::as_asked || request.force) return;
    throw failure(
        no, fmt::format("{}: {}, so {}; restart ravod first, or give --force", request.kind.command,
                        reason_of(request, history), words_of(what)));
}

void check_ids(const removal_request& request, const std::vector<stored_row>& rows) {
    std::set<int64_t> known;
    for (const stored_row& row : rows) known.insert(row.id);
    for (const int64_t id : request.ids) {
        if (known.contains(id)) continue;
        throw failure(no, fmt::format("{}: there is no row with id {}; nothing was deleted",
                                      request.kind.command, id));
    }
}

// --- The calls ----------------------------------------------------------------------------------

void call_daemon(const removal_request& request) {
    const record_remover& remover = request.kind.remover;
    if (request.what == deed::clean) {
        check_answered(remover.clean());
        return;
    }
    progress shown_progress("delete", request.ids.size());
    for (const int64_t id : request.ids) {
        db_delete_cond row = {id};
        check_answered(remover.remove(&row));
        shown_progress.step();
    }
}

// --- What has become of the rows ----------------------------------------------------------------

std::set<int64_t> ids_now(const record_kind& kind) {
    std::set<int64_t> ids;
    (void)for_each_row(kind, {}, [&](const char* row) {
        ids.insert(id_of(kind, row));
        return true;
    });
    return ids;
}

struct outcome {
    std::vector<const stored_row*> vanished;
    size_t not_meant = 0;  // of these
    size_t still_there = 0;
    size_t left = 0;
};

outcome compare(const removal_request& request, const std::vector<stored_row>& rows) {
    const std::set<int64_t> meant(request.ids.begin(), request.ids.end());
    const std::set<int64_t> now = ids_now(request.kind);
    outcome result;
    result.left = now.size();
    for (const stored_row& row : rows) {
        const bool is_meant = request.what == deed::clean || meant.contains(row.id);
        if (now.contains(row.id)) {
            result.still_there += is_meant ? 1 : 0;
            continue;
        }
        result.vanished.push_back(&row);
        result.not_meant += is_meant ? 0 : 1;
    }
    return result;
}

void print_outcome(const removal_request& request, const outcome& result) {
    for (size_t n = 0; n < std::min(result.vanished.size(), most_named); ++n) {
        fmt::print("gone: {}\n", result.vanished[n]->summary);
    }
    if (result.vanished.size() > most_named) {
        fmt::print("gone: {} rows more\n", result.vanished.size() - most_named);
    }
    fmt::print("{}: {} rows gone, {} left\n", request.kind.command, result.vanished.size(),
               result.left);
}

void check_outcome(const outcome& result, const std::string& saved) {
    const std::string way_back =
        saved.empty() ? "" : fmt::format("; \"ravoctl import\" records them again from {}", saved);
    if (result.not_meant != 0) {
        throw not_kept_error(fmt::format("{} rows have vanished that were not to be deleted{}",
                                         result.not_meant, way_back));
    }
    if (result.still_there != 0) {
        throw not_kept_error(
            fmt::format("{} rows are still there; ravod's log file tells why", result.still_there));
    }
}

// --- The command line ---------------------------------------------------------------------------

// A session goes as a whole: without the row of its end it would be open again.
void add_other_rows(std::vector<int64_t>& ids) {
    const std::set<int64_t> named(ids.begin(), ids.end());
    const auto has = [&named](const std::optional<int64_t>& id) {
        return id && named.contains(*id);
    };
    for (const session& s : to_sessions(read_session_rows())) {
        if (!has(s.begin_id) && !has(s.end_id)) continue;
        for (const auto& id : {s.begin_id, s.end_id}) {
            if (id) ids.push_back(*id);
        }
    }
}

exit_status read_and_remove(removal_request request) {
    if (&request.kind == &kind_of("sessions")) add_other_rows(request.ids);
    std::ranges::sort(request.ids);
    request.ids.erase(std::unique(request.ids.begin(), request.ids.end()), request.ids.end());
    return remove_rows(request, read_stored_rows(request.kind));
}

std::shared_ptr<removal_request> declare_deed(command_line& line, CLI::App& list,
                                              const record_kind& kind, deed what, const char* name,
                                              const std::string& help) {
    auto request = std::make_shared<removal_request>(removal_request{kind, what});
    CLI::App* command = list.add_subcommand(name, help);
    declare_removal_options(*command, *request);
    command->footer("");
    line.runs(command, [request] { return read_and_remove(*request); });
    return request;
}

}  // namespace

// The note is written before the calls: what was not done after all only makes it more careful.
exit_status remove_rows(const removal_request& request, const std::vector<stored_row>& rows) {
    check_ids(request, rows);
    const std::string table = request.kind.command;
    if (rows.empty()) {
        fmt::print("{}: there are no rows\n", table);
        return done;
    }
    daemon_life life;
    const table_history history = life.history_of(table);
    check_effect(request, history);
    std::string saved;
    if (!request.no_save) {
        saved = save_rows(request.kind, rows);
        fmt::print("{}: {} rows saved in {}\n", table, rows.size(), saved);
    }
    life.remember(table, after(history, request.what, call_count(request)));
    call_daemon(request);
    const outcome result = compare(request, rows);
    print_outcome(request, result);
    check_outcome(result, saved);
    return done;
}

void declare_removal_options(CLI::App& command, removal_request& request) {
    command.add_flag("--no-save", request.no_save, "Write no export of the table first");
    command.add_flag("--force", request.force,
                     "Also when ravod would remove nothing, or more than that");
}

void declare_removal(command_line& line, CLI::App& list, const record_kind& kind) {
    if (kind.remover.remove == nullptr) return;
    const auto request = declare_deed(line, list, kind, deed::deletes, "delete",
                                      "Delete rows, and look whether they and no others went");
    list.get_subcommand("delete")
        ->add_option("ids", request->ids, "Ids of the rows")
        ->required()
        ->type_name("ID");
    (void)declare_deed(line, list, kind, deed::clean, "clean",
                       "Delete every row, and look whether they went");
}
