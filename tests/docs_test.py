#!/usr/bin/python3
"""Holds the documents against the code: what they state about bytes, names and options is true,
their links lead somewhere, their manual pages are clean, their example compiles.

Needs mandoc and gcc; without them it fails. Reads the tree, writes nothing into it."""
import json
import re
import struct
import subprocess
import tempfile
import unittest
from pathlib import Path

top = Path(__file__).resolve().parent.parent
wire_format = (top / "docs/wire-format.md").read_text()
records_header = (top / "src/ravo/ravo_records.h").read_text()
client_page = top / "packaging/man/ravo_api.3"
daemon_page = top / "packaging/man/ravod.8"
front_end_page = top / "packaging/man/vpn_global_opt.1"
options_page = (top / "docs/options-file.md").read_text()
options_header = (top / "src/ravo/global_options.h").read_text()
options_source = (top / "src/ravo/global_options.cpp").read_text()

type_words = {"int32_t": "i32", "int64_t": "i64", "uint64_t": "u64"}


def markdown_files():
    found = subprocess.run(
        ["find", top, "-name", "build", "-prune", "-o", "-name", ".*", "-type", "d", "-prune",
         "-o", "-name", "*.md", "-print"], check=True, capture_output=True, text=True)
    return [Path(line) for line in found.stdout.splitlines()]


def without_code(text):
    text = re.sub(r"^```.*?^```", "", text, flags=re.M | re.S)
    return re.sub(r"`[^`\n]*`", lambda match: match[0][1:-1] if "](" not in match[0] else "", text)


def anchors(path):
    """The anchors of a page's headings, as a forge's web pages name them."""
    text = re.sub(r"^```.*?^```", "", path.read_text(), flags=re.M | re.S)
    headings = re.findall(r"^#+ (.*)$", text, flags=re.M)
    return {re.sub(r"[^\w\- ]", "", heading.lower()).replace(" ", "-") for heading in headings}


def code_layout():
    """{record: (size, [(offset, bytes, field, type)])}, from the header."""
    layout = {}
    for name, size in re.findall(r"^RAVO_RECORD_SIZE\((\w+), (\d+)\);", records_header, re.M):
        body = re.search(rf"^typedef struct {name} {{(.*?)^}} {name};", records_header, re.M | re.S)
        kinds = {}
        for kind, star, field, array in re.findall(r"(\w+)(\*?) (\w+)(\[\w+\])?;", body[1]):
            if array:
                kinds[field] = "text"
            elif star:
                kinds[field] = "pointer"
            else:
                kinds[field] = type_words.get(kind, "byte")
        at = rf"^RAVO_FIELD_AT\({name}, (\w+), (\d+), (\d+)\);"
        fields = [(int(offset), int(count), field, kinds[field])
                  for field, offset, count in re.findall(at, records_header, re.M)]
        if not fields:  # A record without a field of its own has one byte.
            fields = [(0, 1, field, kind) for field, kind in kinds.items()]
        layout[name] = (int(size), fields)
    return layout


def table_rows(text):
    rows = re.findall(r"^\| (\d+) \| (\d+) \| (.+?) \| (\w*) ?\|(?: (\d*) ?\|)?$", text, re.M)
    return [(int(offset), int(count), field.strip("`"), kind, index)
            for offset, count, field, kind, index in rows]


def documented_layout():
    """{record: (size, [(offset, bytes, field, type, index)])}, gaps included, from the page."""
    parts = re.split(r"^### `(\w+)`: (\d+) bytes?$", wire_format, flags=re.M)[1:]
    return {name: (int(size), table_rows(re.split(r"^## ", text, flags=re.M)[0]))
            for name, size, text in zip(parts[::3], parts[1::3], parts[2::3])}


def dumped_payloads():
    """The bytes of each hexdump in the worked example."""
    payloads = []
    for block in re.findall(r"^```\n(0{8}.*?)^```", wire_format, flags=re.M | re.S):
        data = b""
        for line in block.splitlines():
            if line == "*":
                continue
            offset, _, rest = line.partition("  ")
            # A star stands for copies of the line before it.
            while len(data) < int(offset, 16):
                data += data[-16:]
            data += bytes.fromhex(rest.partition("|")[0])
        payloads.append(data)
    return payloads


def decode(name, data):
    """The record's fields as the page's own table says, from its bytes."""
    formats = {"i32": "<i", "i64": "<q", "u64": "<Q"}
    values = {}
    for offset, count, field, kind, _ in documented_layout()[name][1]:
        if kind == "text":
            values[field] = data[offset:offset + count].split(b"\0")[0].decode()
        elif kind in formats:
            values[field] = struct.unpack_from(formats[kind], data, offset)[0]
    return values


def section(page, heading):
    """What stands below a heading of the second level."""
    return re.search(rf"^## {heading}$(.*?)(?:^## |\Z)", page, re.M | re.S)[1]


def cells(text):
    """The rows of the tables in a text, without their heads, as lists of texts without backquotes."""
    tables = re.findall(r"^\|[-|]+\|\n((?:\|.*\n)+)", text, re.M)
    return [[cell.strip().replace("`", "") for cell in line.strip("|").split("|")]
            for table in tables for line in table.splitlines()]


def option_keys():
    """The rows of the options page's table of keys."""
    return [row for row in cells(section(options_page, "Keys")) if len(row) == 4]


def client_type_rows():
    """(name, number of the first interface, stem of the short name, name shown), from the code."""
    return re.findall(r'{(\w+), (\d+), "(\w+)", "([^"]+)"},', options_source)


def function_body(source, name):
    return re.search(rf"^[\w:*& ]*\b{name}\([^;{{}}]*\) {{$(.*?)^}}", source, re.M | re.S)[1]


def json_examples(page):
    return [json.loads(text) for text in re.findall(r"^```json\n(.*?)^```", page, re.M | re.S)]


def key_paths(value, prefix=""):
    """{path: value} of all members, those of objects in objects with a dot between."""
    found = {}
    for key, member in value.items():
        found[prefix + key] = member
        if isinstance(member, dict):
            found |= key_paths(member, prefix + key + ".")
    return found


class docs(unittest.TestCase):
    maxDiff = None

    def test_manual_pages_are_clean(self):
        pages = sorted((top / "packaging/man").iterdir())
        self.assertIn(daemon_page, pages)
        for page in pages:
            with self.subTest(page=page.name):
                lint = subprocess.run(["mandoc", "-T", "lint", "-W", "warning", page],
                                      capture_output=True, text=True)
                self.assertEqual((lint.returncode, lint.stdout), (0, ""))

    def test_relative_links_lead_somewhere(self):
        pages = markdown_files()
        self.assertIn(top / "README.md", pages)
        for page in pages:
            for link in re.findall(r"\]\(([^)\s]+)\)", without_code(page.read_text())):
                if re.match(r"\w+:", link):
                    continue
                with self.subTest(page=str(page.relative_to(top)), link=link):
                    path, _, anchor = link.partition("#")
                    target = page.parent / path if path else page
                    self.assertTrue(target.exists())
                    if anchor:
                        self.assertIn(anchor, anchors(target))

    def test_client_page_example_compiles(self):
        examples = re.search(r"^\.Sh EXAMPLES$(.*?)^\.Sh ", client_page.read_text(), re.M | re.S)[1]
        program = re.search(r"^\.Bd -literal$\n(.*?)^\.Ed$", examples, re.M | re.S)[1]
        program = program.replace("\\e", "\\").replace("\\&", "")
        self.assertIn("int main(void)", program)
        with tempfile.TemporaryDirectory() as folder:
            source = Path(folder) / "example.c"
            source.write_text(program)
            built = subprocess.run(
                ["gcc", "-std=c11", "-pedantic", "-Wall", "-Wextra", "-Werror", "-O2", "-c",
                 "-I", top / "src/ravo", source, "-o", source.with_suffix(".o")],
                capture_output=True, text=True)
            self.assertEqual((built.returncode, built.stderr), (0, ""))

    def test_client_page_has_every_function_of_the_header(self):
        page = client_page.read_text()
        header = (top / "src/ravo/ravo_api.h").read_text()
        declared = re.findall(r"^int (\w+)\(", header, re.M)
        self.assertTrue(declared)
        names = re.search(r"^\.Sh NAME$(.*?)^\.Nd ", page, re.M | re.S)[1]
        synopsis = re.search(r"^\.Sh SYNOPSIS$(.*?)^\.Sh ", page, re.M | re.S)[1]
        self.assertEqual(re.findall(r"^\.Nm (\w+)", names, re.M), declared)
        self.assertEqual(re.findall(r"^\.Fn (\w+)", synopsis, re.M), declared)

    def test_client_page_has_the_bus_results(self):
        header = (top / "src/zbservice/zbservice.h").read_text()
        results = dict(re.findall(r"^ +(ZB_ERROR_\w+) = (-\d+)", header, re.M))
        listed = re.findall(r"^\.It (-\d+) Dv (ZB_ERROR_\w+)$", client_page.read_text(), re.M)
        self.assertTrue(listed)
        for number, name in listed:
            with self.subTest(result=name):
                self.assertEqual(results.get(name), number)

    def test_daemon_page_has_every_table(self):
        page = daemon_page.read_text()
        created = re.search(r"^void create_tables\(\) {$(.*?)^}",
                            (top / "src/ravo/ravod.cpp").read_text(), re.M | re.S)[1]
        tables = re.findall(r"\bcreate_(\w+)_db\(\);", created)
        self.assertTrue(tables)
        files = re.search(r"^\.Sh FILES$(.*?)^\.Sh ", page, re.M | re.S)[1]
        self.assertEqual(re.findall(r"^\.It Li (\w+)$", files, re.M), tables)

    def test_daemon_page_has_every_option(self):
        source = (top / "src/ravo/ravod.cpp").read_text()
        options = set(re.findall(r'{"(\w+)", (\w+)_argument, nullptr, \'(\w)\'}', source))
        self.assertTrue(options)
        listed = re.findall(r"^\.It Fl (\w)( Ar file)? , Fl -(\w+)( Ar file)?$",
                            daemon_page.read_text(), re.M)
        for letter, argument, name, long_argument in listed:
            self.assertEqual(argument, long_argument, name)
        self.assertEqual({(name, "required" if argument else "no", letter)
                          for letter, argument, name, _ in listed}, options)

    def test_methods_are_those_registered(self):
        source = (top / "src/ravo/ravod_handler.cpp").read_text()
        registered = re.findall(r'^ +list\["(\w+)"\] = ', source, re.M)
        self.assertTrue(registered)
        methods = re.search(r"^## Methods$(.*?)^## ", wire_format, re.M | re.S)[1]
        self.assertEqual(re.findall(r"^\| `(\w+)` \|", methods, re.M), registered)

    def test_records_are_those_of_the_header(self):
        documented = documented_layout()
        code = code_layout()
        headers = {name for name in code if name.endswith("_query")}
        self.assertTrue(headers)
        self.assertEqual(set(documented), set(code) - headers)
        for name, (size, rows) in documented.items():
            with self.subTest(record=name):
                fields = [row[:4] for row in rows if row[2] != "(gap)"]
                self.assertEqual((size, fields), code[name])

    def test_record_tables_leave_no_byte_out(self):
        for name, (size, rows) in documented_layout().items():
            with self.subTest(record=name):
                end = 0
                for offset, count, *_ in rows:
                    self.assertEqual(offset, end)
                    end += count
                self.assertEqual(end, size)

    def test_column_indexes_count_the_columns_of_the_table(self):
        units = {"db_conn_server_log": "ravod_db_handler.cpp",
                 "db_conn_client_log_data": "ravod_db_conn_client_handler.cpp",
                 "db_server_list_data": "ravod_db_list_handler.cpp",
                 "db_device_info_data": "ravod_db_device_info_handler.cpp",
                 "db_privilege_user_block_data": "ravod_db_privilege_user_block_handler.cpp"}
        for record, unit in units.items():
            with self.subTest(record=record):
                source = (top / "src/ravo" / unit).read_text()
                columns = re.findall(r'{"(\w+)", FIELD\(row, (\w+)\)}', source)
                fields = ["id"] + [field for _, field in columns]
                rows = documented_layout()[record][1]
                listed = [(row[2], row[4]) for row in rows if row[2] != "(gap)"]
                self.assertEqual(listed, [(f, str(n)) for n, f in enumerate(fields)])
                for column, field in columns:
                    if column != field:  # A filter needs the column's own name.
                        self.assertIn(f"`{column}`", wire_format)

    def test_query_header_is_that_of_the_header(self):
        reply = re.search(r"^## Query reply$(.*?)^## ", wire_format, re.M | re.S)[1]
        rows = [row[:4] for row in table_rows(reply)]
        headers = {name: layout for name, layout in code_layout().items()
                   if name.endswith("_query")}
        for name, layout in headers.items():
            with self.subTest(header=name):
                self.assertEqual((24, rows), layout)
                self.assertIn(f"`{name}`", reply)

    def test_worked_example_says_what_its_text_says(self):
        insert, query, reply, delete, uuid, failure, check = dumped_payloads()
        row = {"id": 0, "username": "alice", "vpn_type": 4, "uptime": 95, "time": 1767225600,
               "device_info": "linux 2.6.14", "source_ip": "203.0.113.7", "vpn_ip": "10.8.0.6",
               "tx_rate": 1200, "rx_rate": 800, "tx_total": 114000, "rx_total": 76000,
               "outgoing": "tun0", "action": 2}
        self.assertEqual((len(insert), decode("db_conn_server_log", insert)), (5200, row))
        self.assertEqual((len(query), decode("db_query_cond", query)),
                         (2088, {"start": 0, "count": 20, "order_by": 4, "order_style": 1,
                                 "field": "username", "value": "alice"}))
        self.assertEqual(len(reply), 24 + 5200)
        self.assertEqual(struct.unpack_from("<QQ", reply), (1, 1))
        self.assertEqual(decode("db_conn_server_log", reply[24:]), row | {"id": 1})
        self.assertEqual((len(delete), decode("db_delete_cond", delete)), (8, {"id": 2}))
        self.assertEqual(len(uuid), 36)
        self.assertRegex(decode("ravo_mobile_gen_uuid_data_get", uuid)["ravo_uuid"],
                         r"^[0-9a-f]{32}%R\?$")
        self.assertEqual((failure, check), (b"alice", b"1"))

    def test_options_page_has_every_key(self):
        keys = {row[0].split(".")[-1] for row in option_keys()}
        used = set()
        for name in ("get_tmpl", "connection_of", "promote_backup", "remove_backup",
                     "remove_gateway", "remove_connection", "notify_gateway", "ravo_gw_nclog"):
            used |= set(re.findall(r'"([a-z]\w*)"', function_body(options_source, name)))
        self.assertIn("failover_interval", used)
        self.assertEqual(keys, used)

    def test_options_page_examples_are_documents(self):
        kinds = {"object": dict, "text": str, "0 or 1": int, "whole number": int}
        keys = {row[0]: kinds[row[1]] for row in option_keys()}
        documents = json_examples(options_page)
        self.assertEqual(len(documents), 6)
        for document in documents:
            for path, value in key_paths(document).items():
                with self.subTest(document=document, path=path):
                    self.assertIs(type(value), keys[path])
        self.assertEqual(set(key_paths(documents[2])), set(keys))

    def test_options_page_shows_what_the_front_end_prints(self):
        documents = json_examples(options_page)
        shown = [json.loads(line) for line in
                 re.findall(r"^    ({.*})$", section(options_page, "The front end"), re.M)]
        whole = documents[2]
        self.assertEqual(shown, [{"data": {}, "error": 0}, {"data": whole, "error": 0},
                                 {"data": whole["gw_setting"], "error": 0},
                                 {"data": whole["global"], "error": 0},
                                 {"data": {}, "error": 0}, {"error": -1}])

    def test_options_pages_name_the_file(self):
        header = (top / "src/ravo/vpn_options.h").read_text()
        path = re.search(r'options_path\[\] = "(.*)";', header)[1]
        self.assertIn(f"`{path}`", options_page)
        self.assertIn(f"flock -w 5 {path}.lck truncate -s 0 {path}\n", options_page)
        listed = re.findall(r"^\.It Pa (.*)$", front_end_page.read_text(), re.M)
        self.assertEqual(listed[:2], [path, path + ".lck"])

    def test_options_page_has_every_connection_type(self):
        body = re.search(r"^enum TYPE : uint16_t {$(.*?)^};", options_header, re.M | re.S)[1]
        declared = dict(re.findall(r"^ +(\w+) = (\d+)", body, re.M))
        rows = [row for row in cells(section(options_page, "Connection types"))
                if row[0].endswith("_TYPE")]
        self.assertEqual({row[0]: row[1] for row in rows}, declared)
        listed = [(name, re.match(r"\d+", numbers)[0], stem.removesuffix(" + index"), shown)
                  for name, _, stem, shown, numbers, _ in (row for row in rows if len(row) == 6)]
        self.assertEqual(listed, client_type_rows()[::-1])

    def test_options_page_interface_numbers_leave_no_gap(self):
        rows = [row for row in cells(section(options_page, "Connection types")) if len(row) == 6]
        ranges = [re.findall(r"\d+", row[4]) for row in rows]
        self.assertEqual([int(last) + 1 for _, last in ranges[:-1]],
                         [int(first) for first, *_ in ranges[1:]])

    def test_options_page_has_every_interval_code(self):
        body = function_body(options_source, "interval_to_string")
        coded = []
        waiting = []
        for label, result in re.findall(r"case (-?\d+):|return ([^;]+);", body):
            if label:
                waiting.append(label)
                continue
            coded += [(code, code if result.startswith("std::to_string") else result.strip('"'))
                      for code in waiting]
            waiting = []
        self.assertTrue(coded)
        rows = cells(section(options_page, "Interval codes"))
        self.assertEqual([tuple(row) for row in rows[:-1]], coded)
        self.assertEqual(rows[-1][0], "any other")

    def test_options_page_has_every_notification(self):
        header = (top / "src/ravo/nc_msg_db.h").read_text()
        catalogue = (top / "src/ravo/nc_msg_db.cpp").read_text()
        body = re.search(r"__NC_MSG_DB__\[nc_msg_count\] = {$(.*?)^};", catalogue, re.M | re.S)[1]
        entries = re.findall(r'{"(C\d+)", "(\d+)", "(\w+)",\s+(\w+|"(?:[^"\\]|\\.|"\s+")*")}',
                             body)
        positions = dict(re.findall(r"int (nc_\w+_set) = (\d+);", header))
        self.assertEqual(len(positions), 3)
        coded = [entries[int(position)] for position in positions.values()]
        listed = cells(section(options_page, "Notifications"))
        self.assertEqual([row[1] for row in listed], [entry[1] for entry in coded])
        self.assertEqual({(entry[0], entry[2]) for entry in coded}, {("C002", "info")})
        for row, entry in zip(listed, coded):
            template = entry[3].strip('"').replace('\\"', '"').replace("{0}", "RAVO Service")
            pattern = re.sub(r"\\{\d\\}", "[A-Z]+", re.escape(template))
            self.assertRegex(row[2], f"^{pattern}$")

    def test_options_page_has_every_call(self):
        called = re.findall(r'easy_zb_call\("NetworkService", "([\w.]+)"', options_source)
        listed = [row[0] for row in cells(section(options_page, "Services called"))]
        self.assertEqual(sorted(listed), sorted(called))

    def test_front_end_page_has_every_member_and_client_type(self):
        page = front_end_page.read_text()
        setting = re.search(r"^\.Ss Gateway setting$(.*?)^\.Sh ", page, re.M | re.S)[1]
        members = [row[0].removeprefix("gw_setting.") for row in option_keys()
                   if re.fullmatch(r"gw_setting\.\w+", row[0])]
        self.assertEqual(re.findall(r"^\.It Va (\w+)$", setting, re.M), members)
        numbers = re.findall(r"_CLIENT_TYPE = (\d+)", options_header)
        shown = [row[3] for row in client_type_rows()[::-1]]
        self.assertEqual(re.findall(r"(\d+)\s+for\s+([\w/]+)", setting),
                         list(zip(numbers, shown, strict=True)))

    def test_limiter_page_example_is_a_document(self):
        self.assertEqual(json_examples((top / "docs/limiter.md").read_text()),
                         [{"global": {"enable": True, "limit": 3, "time": 5}}])


if __name__ == "__main__":
    unittest.main()
