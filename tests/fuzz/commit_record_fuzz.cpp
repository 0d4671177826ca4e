// Fuzzes the reader of the side file: any bytes are a record or none, and a record that is whole
// has every page in the file, once, in order.
//
// The last byte of the input says whether its checksum is set right first, which no fuzzer guesses.
#include <sqlite3.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "page_set.h"
#include "record.h"

namespace {

using commit_vfs::page_kind;
using commit_vfs::record_header;
using commit_vfs::record_page;

class input : public commit_vfs::byte_source {
  public:
    explicit input(std::vector<char> content) : all(std::move(content)) {}
    int size(int64_t& bytes) override {
        bytes = static_cast<int64_t>(all.size());
        return SQLITE_OK;
    }
    int read(void* to, int count, int64_t offset) override {
        if (offset < 0 || count < 0 || offset + count > static_cast<int64_t>(all.size())) abort();
        memcpy(to, all.data() + offset, static_cast<size_t>(count));
        return SQLITE_OK;
    }

  private:
    std::vector<char> all;
};

// As long as the header and the table say, if the bytes are there.
void set_checksum(std::vector<char>& bytes) {
    record_header header;
    if (bytes.size() < sizeof header) return;
    memcpy(&header, bytes.data(), sizeof header);
    size_t end = sizeof header;
    for (uint32_t n = 0; n < header.page_count && end + sizeof(record_page) <= bytes.size(); ++n) {
        end += sizeof(record_page);
    }
    const size_t table_end = end;
    for (size_t at = sizeof header; at < table_end; at += sizeof(record_page)) {
        record_page page;
        memcpy(&page, bytes.data() + at, sizeof page);
        if (page.kind == page_kind::data) end += header.page_size;
    }
    if (end > bytes.size() || end % sizeof(uint64_t) != 0) return;
    header.checksum = 0;
    commit_vfs::record_checksum sum;
    sum.add(&header, sizeof header);
    sum.add(bytes.data() + sizeof header, end - sizeof header);
    header.checksum = sum.value();
    memcpy(bytes.data(), &header, sizeof header);
}

void check(const commit_vfs::record& found, size_t size) {
    int64_t next = 0;
    if (found.pages.empty() || found.pages.size() != found.data_offsets.size()) abort();
    if (!commit_vfs::is_page_size(found.header.page_size)) abort();
    for (size_t n = 0; n < found.pages.size(); ++n) {
        if (found.pages[n].number < next) abort();
        next = int64_t{found.pages[n].number} + 1;
        const int64_t end = found.data_offsets[n] + found.header.page_size;
        if (found.pages[n].kind == page_kind::data && end > static_cast<int64_t>(size)) abort();
    }
    if (found.header.old_size == 0 && found.pages[0].number != 0) abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    std::vector<char> bytes(data, data + size - 1);
    if (data[size - 1] % 2 != 0) set_checksum(bytes);
    const size_t length = bytes.size();
    input from(std::move(bytes));
    commit_vfs::record found = {};
    bool is_whole = false;
    if (commit_vfs::read_record(from, found, is_whole) != SQLITE_OK) abort();
    if (is_whole) check(found, length);
    return 0;
}
