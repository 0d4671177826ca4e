// Blocks of memory that change hands instead of being copied: to a reply, and from one. They are
// counted, so that each is released once, however the request ends.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "support/alloc_fault.h"
#include "support/bus.h"

using namespace bus_test;

namespace {

constexpr std::size_t mib = 1 << 20;
constexpr std::size_t gib = 1024 * mib;

void* block_of(std::string_view text) {
    void* block = malloc(text.size());
    if (block != nullptr) memcpy(block, text.data(), text.size());
    return block;
}

int hand_over(zb_io* io, std::string_view text) {
    return zb_io_adopt(io, block_of(text), text.size(), nullptr);
}

std::string pattern(std::size_t size) {
    std::string text(size, '\0');
    for (std::size_t i = 0; i < size; ++i) text[i] = static_cast<char>(i * 7 + i / 251);
    return text;
}

// The blocks that are left when all is over. What is allocated once is allocated before.
std::size_t left_after(const std::function<void()>& work) {
    work();
    const std::size_t before = alloc_fault::live_blocks();
    work();
    return alloc_fault::live_blocks() - before;
}

// Calls an endpoint that does this, and returns what came of it.
outcome ask(const handler& handle) {
    const endpoint served(handle);
    return call(address, "m", "request");
}

}  // namespace

// ---- To a reply --------------------------------------------------------------------------------

TEST(handed_over_block, follows_the_payload_in_the_reply) {
    for (const std::size_t size :
         {std::size_t{1}, std::size_t{8192}, std::size_t{300000}, 9 * mib}) {
        const std::string text = pattern(size);
        const outcome got = ask([&](const std::string&, zb_io* io, int) {
            EXPECT_EQ(zb_io_realloc(io, 0), 0);
            EXPECT_EQ(zb_io_write(io, "head", 4), 0);
            EXPECT_EQ(hand_over(io, text), 0);
            EXPECT_EQ(zb_reply(io), 0);
        });
        EXPECT_EQ(got.result, 0);
        EXPECT_TRUE(got.payload == "head" + text) << size;
    }
}

TEST(handed_over_block, is_released_however_the_request_ends) {
    struct ending {
        const char* name;
        void (*end)(zb_io*);
        outcome told;
    };
    const ending endings[] = {
        {"reply", [](zb_io* io) { EXPECT_EQ(zb_reply(io), 0); }, {0, "requestblock"}},
        {"reply and release",
         [](zb_io* io) {
             EXPECT_EQ(zb_reply(io), 0);
             zb_io_free(io);
         },
         {0, "requestblock"}},
        {"nothing", [](zb_io*) {}, {ZB_ERROR_NO_REPLY, "request"}},
        {"release", [](zb_io* io) { zb_io_free(io); }, {ZB_ERROR_NO_REPLY, "request"}},
        {"emptied",
         [](zb_io* io) {
             EXPECT_EQ(zb_io_realloc(io, 0), 0);
             EXPECT_EQ(zb_io_write(io, "x", 1), 0);
             EXPECT_EQ(zb_reply(io), 0);
         },
         {0, "x"}},
    };
    for (const ending& e : endings) {
        const auto work = [&e] {
            EXPECT_EQ(ask([&e](const std::string&, zb_io* io, int) {
                          EXPECT_EQ(hand_over(io, "block"), 0);
                          e.end(io);
                      }),
                      e.told);
        };
        EXPECT_EQ(left_after(work), 0U) << e.name;
    }
}

TEST(handed_over_block, is_released_by_its_own_function) {
    static std::vector<void*> released;
    static char bytes[] = "block";
    for (const bool is_replied : {true, false}) {
        released.clear();
        (void)ask([is_replied](const std::string&, zb_io* io, int) {
            EXPECT_EQ(zb_io_adopt(io, bytes, 5, [](void* block) { released.push_back(block); }), 0);
            if (is_replied) {
                EXPECT_EQ(zb_reply(io), 0);
            }
        });
        EXPECT_EQ(released, std::vector<void*>{bytes}) << is_replied;
    }
}

TEST(handed_over_block, is_released_when_the_caller_is_gone) {
    const auto work = [] {
        event asked;
        event left;
        int result = 0;
        endpoint served([&](const std::string&, zb_io* io, int) {
            asked.set();
            EXPECT_TRUE(left.wait());
            EXPECT_EQ(hand_over(io, "block"), 0);
            result = zb_reply(io);
        });
        raw_stream caller = connect_to(address);
        EXPECT_TRUE(caller.send(request_frame("m", "")));
        EXPECT_TRUE(asked.wait());
        caller.shut();
        left.set();
        served.stop();
        EXPECT_EQ(result, -1);
    };
    EXPECT_EQ(left_after(work), 0U);
}

// The blocks are never written, so they are of the system's one page of zeros. The first caller,
// who reads on, is not dropped to make room, however long all of this takes.
TEST(handed_over_block, is_released_when_too_much_waits_unsent) {
    constexpr std::size_t size = 800 * mib;
    const auto work = [] {
        std::vector<int> results;
        raw_stream first(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        endpoint served([&](const std::string&, zb_io* io, int) {
            if (!results.empty()) {
                EXPECT_EQ(first.receive(100000).size(), 100000U);
            }
            EXPECT_EQ(zb_io_adopt(io, malloc(size), size, nullptr), 0);
            results.push_back(zb_reply(io));
        });
        first = connect_to(address);
        EXPECT_TRUE(first.send(request_frame("m", "")));
        EXPECT_EQ(first.receive(16), header(1, 2, replied, size));
        EXPECT_EQ(call(address, "m"), (outcome{ZB_ERROR_BUSY, ""}));
        first.shut();
        served.stop();
        EXPECT_EQ(results, (std::vector<int>{0, -1}));
    };
    EXPECT_EQ(left_after(work), 0U);
}

TEST(handed_over_block, is_the_last_of_its_payload) {
    const outcome got = ask([](const std::string&, zb_io* io, int) {
        void* second = block_of("second");
        EXPECT_EQ(hand_over(io, "block"), 0);
        EXPECT_EQ(zb_io_adopt(io, second, 6, nullptr), -1);
        free(second);  // still the caller's
        EXPECT_EQ(zb_io_write(io, "x", 1), -1);
        EXPECT_EQ(zb_io_realloc(io, 3), -1);
        EXPECT_EQ(content(io), "request");
        EXPECT_EQ(zb_call(address, "m", io, timeout_s, -1), ZB_ERROR_ARGUMENT);
        EXPECT_EQ(zb_reply(io), 0);
        EXPECT_EQ(zb_io_adopt(io, nullptr, 0, nullptr), 0) << "the reply has taken all of it away";
    });
    EXPECT_EQ(got, (outcome{0, "requestblock"}));
}

TEST(handed_over_block, of_no_bytes_is_released_at_once) {
    const auto work = [] {
        const outcome got = ask([](const std::string&, zb_io* io, int) {
            EXPECT_EQ(zb_io_adopt(io, malloc(100), 0, nullptr), 0);
            EXPECT_EQ(zb_io_adopt(io, nullptr, 0, nullptr), 0);
            EXPECT_EQ(zb_io_write(io, "x", 1), 0) << "there is none";
            EXPECT_EQ(zb_reply(io), 0);
        });
        EXPECT_EQ(got, (outcome{0, "requestx"}));
    };
    EXPECT_EQ(left_after(work), 0U);
}

TEST(handed_over_block, that_is_not_taken_stays_the_callers) {
    char block[] = "block";
    io_buffer own("a caller's buffer");
    EXPECT_EQ(zb_io_adopt(own.get(), block, sizeof block, nullptr), -1);
    EXPECT_EQ(content(own.get()), "a caller's buffer");
    EXPECT_EQ(zb_io_adopt(nullptr, block, sizeof block, nullptr), -1);
    const outcome got = ask([&](const std::string&, zb_io* io, int) {
        EXPECT_EQ(zb_io_adopt(io, nullptr, 1, nullptr), -1);
        EXPECT_EQ(zb_io_adopt(io, block, gib, nullptr), -1)
            << "the payload and 1 GiB are more than that";
        EXPECT_EQ(zb_io_adopt(io, block, SIZE_MAX, nullptr), -1);
        EXPECT_EQ(zb_reply(io), 0);
    });
    EXPECT_EQ(got, (outcome{0, "request"}));
}

// ---- From a reply ------------------------------------------------------------------------------

namespace {

// Where the rest of a reply is to go, and what was told about it.
struct rest_of_reply {
    std::string head;
    std::string bytes;
    int questions = 0;
    bool has_place = true;

    static void* place(void* self, const void* head, std::size_t rest) {
        auto& to = *static_cast<rest_of_reply*>(self);
        ++to.questions;
        to.head.assign(static_cast<const char*>(head), 4);
        to.bytes.resize(rest);
        return to.has_place ? to.bytes.data() : nullptr;
    }
};

int call_into(io_buffer& io, rest_of_reply& rest) {
    return zb_call_into(address, "m", io.get(), timeout_s, -1, 4, rest_of_reply::place, &rest);
}

handler answers(const std::string& text) {
    return [text](const std::string&, zb_io* io, int) { answer(io, text); };
}

}  // namespace

TEST(zb_call_into, receives_the_rest_to_its_place) {
    for (const std::size_t size : {std::size_t{1}, std::size_t{4096}, std::size_t{8192 - 4},
                                   std::size_t{8192}, std::size_t{300000}, 5 * mib}) {
        const std::string text = pattern(size);
        const endpoint served(answers("head" + text));
        io_buffer io("request");
        rest_of_reply rest;
        EXPECT_EQ(call_into(io, rest), 0);
        EXPECT_EQ(rest.questions, 1);
        EXPECT_EQ(rest.head, "head");
        EXPECT_TRUE(rest.bytes == text) << size;
        EXPECT_EQ(content(io.get()), "head");
        EXPECT_STREQ(static_cast<const char*>(zb_io_read(io.get(), nullptr)), "head");
        EXPECT_EQ(zb_call(address, "m", io.get(), timeout_s, -1), 0);
        EXPECT_TRUE(content(io.get()) == "head" + text) << "the next call is an ordinary one";
    }
}

TEST(zb_call_into, reply_of_the_head_alone_needs_no_place) {
    for (const char* text : {"", "hea", "head"}) {
        const endpoint served(answers(text));
        io_buffer io("request");
        rest_of_reply rest;
        EXPECT_EQ(call_into(io, rest), 0);
        EXPECT_EQ(rest.questions, 0);
        EXPECT_EQ(content(io.get()), text);
    }
}

TEST(zb_call_into, without_a_place_fails_and_keeps_the_request) {
    const endpoint served(answers("head and more"));
    io_buffer io("request");
    rest_of_reply rest;
    rest.has_place = false;
    EXPECT_EQ(call_into(io, rest), ZB_ERROR_MEMORY);
    EXPECT_EQ(content(io.get()), "request");
    EXPECT_EQ(zb_call_into(address, "m", io.get(), timeout_s, -1, 4, nullptr, nullptr),
              ZB_ERROR_ARGUMENT);
    EXPECT_EQ(zb_call_into(address, "m", nullptr, timeout_s, -1, 4, rest_of_reply::place, &rest),
              ZB_ERROR_ARGUMENT);
}

TEST(zb_call_into, reply_that_breaks_off_fails_and_keeps_the_request) {
    for (const std::size_t come : {std::size_t{2}, std::size_t{10}, std::size_t{50000}}) {
        const raw_endpoint served(address, [come](raw_stream& caller) {
            (void)caller.receive(request_frame("m", "request").size());
            (void)caller.send(reply_frame(replied, pattern(100000)).substr(0, 16 + come));
        });
        io_buffer io("request");
        rest_of_reply rest;
        EXPECT_EQ(call_into(io, rest), ZB_ERROR_BROKEN);
        EXPECT_EQ(content(io.get()), "request");
    }
}

// The system gives memory as bytes come, whatever length was announced.
TEST(zb_call, announced_length_takes_no_memory) {
    const raw_endpoint served(address, [](raw_stream& caller) {
        (void)caller.receive(request_frame("m", "").size());
        (void)caller.send(header(1, 2, replied, gib) + std::string(mib, 'x'));
    });
    process caller([] { EXPECT_EQ(call(address, "m").result, ZB_ERROR_BROKEN); });
    rusage usage = {};
    EXPECT_EQ(caller.wait(&usage), 0);
    EXPECT_LT(usage.ru_maxrss, (sanitized ? 512 : 64) * 1024);
}
