// Memory for the rows of a page. One block of the usual sizes is kept for the next page: memory
// that is there already costs a fraction of what the system takes to give it. For one thread.
#ifndef PAGE_MEMORY_H
#define PAGE_MEMORY_H

#include <cstddef>

inline constexpr size_t largest_kept_page = size_t{6} << 20;  // bytes

// From malloc. It is zero unless it was used before.
struct page_block {
    char* data;  // null: there is no memory
    bool is_used;
};

page_block take_page_block(size_t size);

// Keeps a block that another page may want, and gives any other to free(). Null is allowed.
void release_page_block(void* block);

#endif  // PAGE_MEMORY_H
