// Memory that runs out. The definitions here come before those of any library, whose own calls are
// bound to them; the blocks are the C library's, or the sanitizer's.
#include "support/alloc_fault.h"

#include <execinfo.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>

#include "support/bus.h"

#ifdef SANITIZED_BUILD
#define BELOW(name) __interceptor_##name
// Blocks are counted here. A block of the dynamic loader looks like a leak when it comes from here.
extern "C" __attribute__((visibility("default"))) const char* __asan_default_options();
extern "C" const char* __asan_default_options() { return "detect_leaks=0"; }
constexpr bool is_sanitized = true;
#else
#define BELOW(name) __libc_##name
constexpr bool is_sanitized = false;
#endif

extern "C" {
void* BELOW(malloc)(size_t size);
void* BELOW(calloc)(size_t count, size_t size);
void* BELOW(realloc)(void* block, size_t size);
void* BELOW(memalign)(size_t alignment, size_t size);
void BELOW(free)(void* block);
}

namespace {

constexpr int most_frames = 40;

constinit thread_local size_t fail_from = 0;  // the number of the allocation; 0: none
constinit thread_local size_t fail_to = 0;
constinit thread_local size_t seen = 0;
constinit std::atomic<size_t> live{0};
bool has_failed = false;
void* frames[most_frames];
int frame_count = 0;

// Whether this allocation is to fail.
bool must_fail() {
    if (fail_to == 0) return false;
    ++seen;
    if (seen < fail_from || seen > fail_to) return false;
    const size_t last = std::exchange(fail_to, 0);  // backtrace() may ask for memory itself
    frame_count = backtrace(frames, most_frames);
    fail_to = last;
    has_failed = true;
    errno = ENOMEM;
    return true;
}

void* taken(void* block) {
    if (block != nullptr) live.fetch_add(1, std::memory_order_relaxed);
    return block;
}

void given_back(const void* block) {
    if (block != nullptr) live.fetch_sub(1, std::memory_order_relaxed);
}

}  // namespace

#pragma GCC visibility push(default)

extern "C" {

void* malloc(size_t size) { return must_fail() ? nullptr : taken(BELOW(malloc)(size)); }

void* calloc(size_t count, size_t size) {
    return must_fail() ? nullptr : taken(BELOW(calloc)(count, size));
}

void* realloc(void* block, size_t size) {
    if (must_fail()) return nullptr;
    void* moved = BELOW(realloc)(block, size);
    if (moved != nullptr || size == 0) given_back(block);
    return taken(moved);
}

void* reallocarray(void* block, size_t count, size_t size) {
    size_t bytes = 0;
    if (!__builtin_mul_overflow(count, size, &bytes)) return realloc(block, bytes);
    errno = ENOMEM;
    return nullptr;
}

void free(void* block) {
    given_back(block);
    BELOW(free)(block);
}

void* memalign(size_t alignment, size_t size) {
    return must_fail() ? nullptr : taken(BELOW(memalign)(alignment, size));
}

void* aligned_alloc(size_t alignment, size_t size) { return memalign(alignment, size); }

int posix_memalign(void** block, size_t alignment, size_t size) {
    void* found = memalign(alignment, size);
    if (found == nullptr) return ENOMEM;
    *block = found;
    return 0;
}

// The sanitizer's would not ask here.
char* strdup(const char* text) {
    const size_t size = strlen(text) + 1;
    auto* copy = static_cast<char*>(malloc(size));
    if (copy != nullptr) memcpy(copy, text, size);
    return copy;
}
}

void* operator new(size_t size) {
    void* block = malloc(size);
    if (block == nullptr) throw std::bad_alloc();
    return block;
}
void* operator new(size_t size, const std::nothrow_t& /*tag*/) noexcept { return malloc(size); }
void* operator new[](size_t size) { return operator new(size); }
void* operator new[](size_t size, const std::nothrow_t& /*tag*/) noexcept { return malloc(size); }
void operator delete(void* block) noexcept { free(block); }
void operator delete(void* block, size_t /*size*/) noexcept { free(block); }
void operator delete[](void* block) noexcept { free(block); }
void operator delete[](void* block, size_t /*size*/) noexcept { free(block); }

#pragma GCC visibility pop

namespace alloc_fault {

// What asks for memory once in a process: a trace of the stack, and an exception.
static bool warm_up() {
    try {
        throw std::bad_alloc();
    } catch (const std::bad_alloc&) {
        return backtrace(frames, most_frames) > 0;
    }
}
[[maybe_unused]] static const bool is_warm = warm_up();

failing_allocation::failing_allocation(size_t n, bool lasts) {
    seen = 0;
    fail_from = n == 0 ? SIZE_MAX : n;
    fail_to = lasts ? SIZE_MAX : fail_from;
}

failing_allocation::~failing_allocation() { fail_to = 0; }

bool was_met() { return has_failed; }
size_t allocations() { return seen; }
void print_place() { backtrace_symbols_fd(frames, frame_count, STDERR_FILENO); }
size_t live_blocks() { return live.load(); }

// --- Faults to exhaustion -----------------------------------------------------------------------

namespace {

constexpr int met = 0;
constexpr int failed = 1;
constexpr int complete = 2;

// The exit status; a child that was ended by a signal is told of.
int run_child(const std::function<void()>& work) {
    (void)fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        work();
        if (testing::Test::HasFailure()) print_place();
        (void)fflush(nullptr);
        _exit(testing::Test::HasFailure() ? failed : was_met() ? met : complete);
    }
    int status = 0;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status)) << "ended by signal " << WTERMSIG(status);
    return WIFEXITED(status) ? WEXITSTATUS(status) : failed;
}

}  // namespace

void exhaust(const std::string& name, const std::function<void(size_t n)>& work,
             const std::function<void()>& between, size_t step) {
    if (is_sanitized) step *= 10;
    if (getenv("MEMORY_LONG") != nullptr) step = 1;
    size_t tried = 0;
    int status = met;
    for (size_t n = 1; status == met; n += step) {
        between();
        status = run_child([&] { work(n); });
        if (status == met) ++tried;
        EXPECT_NE(status, failed) << name << ": allocation " << n;
    }
    printf("%s: %zu allocations\n", name.c_str(), tried);
}

std::string told_by_child(const std::function<std::string()>& work) {
    bus_test::channel line;
    const auto tell = [&] {
        const std::string text = work();
        EXPECT_EQ(write(line.in.get(), text.data(), text.size()),
                  static_cast<ssize_t>(text.size()));
    };
    EXPECT_NE(run_child(tell), failed);
    line.in.shut();
    std::string text;
    char part[4096];
    for (ssize_t length = 0; (length = read(line.out.get(), part, sizeof part)) > 0;) {
        text.append(part, static_cast<size_t>(length));
    }
    return text;
}

}  // namespace alloc_fault
