// Listing and adding records: the same for every kind of record.
#pragma once

#include "command_line.h"
#include "output.h"
#include "records.h"
#include "selection.h"

struct list_request {
    selection_request which;
    output_options output;
    bool follow = false;
};

// Declares what can be asked of a list of the kind.
void declare_list_options(cli_command app, list_request& request, const record_kind& kind);

// Throws usage_error for what cannot be followed.
void check_followed(const list_request& request);

// The id behind which to follow: of the newest row before the list was read, or of a newer listed
// one.
uint32_t last_listed(uint32_t newest, const row_list& list);

// Lists what is asked for. The name is that of the rows in JSON's schema.
exit_status list_records(const record_kind& kind, const list_request& request, const char* name);

// The command below a list that adds one record.
void declare_adder(command_line& line, cli_command list, const record_kind& kind);

// The commands that list records of the kind and add one, if the kind has an adder. Returns the
// one that lists.
cli_command declare_records(command_line& line, const record_kind& kind);

// Those of the kinds that have no unit of their own.
void declare_tables(command_line& line);
