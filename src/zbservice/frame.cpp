// The frames of the bus.
#include "frame.h"

#include <algorithm>
#include <string_view>

namespace zb {
namespace {
constexpr std::string_view magic = "zbus";
constexpr char version = 1;
constexpr std::size_t version_at = 4;
constexpr std::size_t kind_at = 5;
constexpr std::size_t detail_at = 6;
constexpr std::size_t length_at = 8;
constexpr std::size_t date_at = 12;
constexpr unsigned dated_flag = 0x10;
constexpr unsigned keep_flag = 0x20;

template <class Number>
void put_number(header_block& block, std::size_t at, Number value) {
    for (std::size_t i = 0; i < sizeof value; ++i)
        block[at + i] = static_cast<char>((value >> (8 * i)) & 0xff);
}

template <class Number>
Number get_number(const header_block& block, std::size_t at) {
    std::uint64_t value = 0;
    for (std::size_t i = 0; i < sizeof(Number); ++i)
        value |= std::uint64_t{static_cast<unsigned char>(block[at + i])} << (8 * i);
    return static_cast<Number>(value);
}
}  // namespace

header_block encode_header(const frame_header& header) {
    header_block block;
    std::copy(magic.begin(), magic.end(), block.begin());
    block[version_at] = version;
    block[kind_at] =
        static_cast<char>(static_cast<unsigned>(header.kind) | (header.dated ? dated_flag : 0) |
                          (header.keep ? keep_flag : 0));
    put_number(block, detail_at, header.detail);
    put_number(block, length_at, header.length);
    if (header.dated) put_number(block, date_at, header.date);
    return block;
}

bool decode_header(const header_block& block, frame_kind kind, frame_header& header) {
    const unsigned flags = kind == frame_kind::request ? dated_flag | keep_flag : keep_flag;
    const unsigned described = static_cast<unsigned char>(block[kind_at]);
    if (!std::equal(magic.begin(), magic.end(), block.begin()) || block[version_at] != version ||
        (described & ~flags) != static_cast<unsigned>(kind))
        return false;
    header.kind = kind;
    header.keep = (described & keep_flag) != 0;
    header.dated = (described & dated_flag) != 0;
    header.detail = get_number<std::uint16_t>(block, detail_at);
    header.length = header.dated ? get_number<std::uint32_t>(block, length_at)
                                 : get_number<std::uint64_t>(block, length_at);
    header.date = header.dated ? get_number<std::uint32_t>(block, date_at) : 0;
    return true;
}

// ---- Dates -------------------------------------------------------------------------------------

std::uint32_t date_of(monotonic::time_point time) {
    using std::chrono::duration_cast;
    return static_cast<std::uint32_t>(
        duration_cast<std::chrono::microseconds>(time.time_since_epoch()).count());
}

monotonic::time_point time_of(std::uint32_t date, monotonic::time_point now) {
    const std::uint32_t age = date_of(now) - date;
    return age <= INT32_MAX ? now - std::chrono::microseconds(age) : now;
}

}  // namespace zb
