// The block that is kept between pages.
#include "page_memory.h"

#include <malloc.h>

#include <cstdlib>
#include <utility>

#include "large_pages.h"

namespace {

// A smaller block lies between others and is cheap; a larger one is for a listing that comes
// seldom.
constexpr size_t smallest_kept = size_t{256} << 10;

void* kept = nullptr;

bool is_worth_keeping(size_t size) { return size >= smallest_kept && size <= largest_kept_page; }

}  // namespace

page_block take_page_block(size_t size) {
    if (is_worth_keeping(size) && malloc_usable_size(kept) >= size)
        return {static_cast<char*>(std::exchange(kept, nullptr)), true};
    void* block = calloc(1, size);
    zb::use_large_pages(block, size);
    return {static_cast<char*>(block), false};
}

void release_page_block(void* block) {
    const size_t size = malloc_usable_size(block);
    if (is_worth_keeping(size) && size > malloc_usable_size(kept)) std::swap(block, kept);
    free(block);
}
