// Large pages for large blocks. Memory that is written once costs more to be given than to be
// written; in pages of 2 MiB it costs a fraction.
#ifndef ZBSERVICE_LARGE_PAGES_H
#define ZBSERVICE_LARGE_PAGES_H

#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>

namespace zb {

inline constexpr std::size_t large_page = std::size_t{2} << 20;

// Asks for large pages in a block of malloc's, before it is written. Its content stays as it is,
// and so does a block that is too small, or on a system without such pages.
inline void use_large_pages(void* block, std::size_t length) {
    if (block == nullptr || length < large_page) return;
    const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    const std::size_t lead = (page - reinterpret_cast<std::uintptr_t>(block) % page) % page;
    const std::size_t whole = (length - lead) / page * page;
    (void)madvise(static_cast<char*>(block) + lead, whole, MADV_HUGEPAGE);
}

}  // namespace zb

#endif  // ZBSERVICE_LARGE_PAGES_H
