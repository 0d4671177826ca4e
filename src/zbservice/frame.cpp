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
    block[kind_at] = static_cast<char>(header.kind);
    put_number(block, detail_at, header.detail);
    put_number(block, length_at, header.length);
    return block;
}

bool decode_header(const header_block& block, frame_kind kind, frame_header& header) {
    if (!std::equal(magic.begin(), magic.end(), block.begin()) || block[version_at] != version ||
        block[kind_at] != static_cast<char>(kind))
        return false;
    header.kind = kind;
    header.detail = get_number<std::uint16_t>(block, detail_at);
    header.length = get_number<std::uint64_t>(block, length_at);
    return true;
}

}  // namespace zb
