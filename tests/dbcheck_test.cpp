// ravo-dbcheck on damaged databases: what it saves, and what it leaves alone.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "support/dbcheck.h"
#include "support/write_recorder.h"

namespace {
using namespace dbcheck;

constexpr size_t page_size = 2048;

// --- Statements
// ------------------------------------------------------------------------------------

// The store's row cap at work, with another number.
std::string trim_text(int rows) {
    return without_journal +
           "DELETE from conn_server_log WHERE id IN (SELECT id from conn_server_log LIMIT " +
           std::to_string(rows) + ");";
}

// --- Damage -------------------------------------------------------------------------------------

struct damaged_image {
    std::string what;
    std::string bytes;
};
using images = std::vector<damaged_image>;

std::string noise(size_t size, unsigned seed) {
    std::mt19937 generator(seed);
    std::string text(size, '\0');
    for (char& byte : text) byte = static_cast<char>(generator());
    return text;
}

images each_page(const std::string& sound, const char* what,
                 const std::function<void(std::string&, size_t)>& damage) {
    images list;
    for (size_t at = 0; at < sound.size(); at += page_size) {
        list.push_back({what + std::string(" page ") + std::to_string(at / page_size + 1), sound});
        damage(list.back().bytes, at);
    }
    return list;
}

images zeroed_pages(const std::string& sound) {
    return each_page(sound, "zeroed", [](std::string& file, size_t at) {
        file.replace(at, page_size, page_size, '\0');
    });
}
images noisy_pages(const std::string& sound) {
    return each_page(sound, "noisy", [](std::string& file, size_t at) {
        file.replace(at, page_size, noise(page_size, static_cast<unsigned>(at)));
    });
}
images truncated_files(const std::string& sound) {
    return each_page(sound, "ends before", [](std::string& file, size_t at) { file.resize(at); });
}
images torn_pages(const std::string& sound) {
    return each_page(sound, "ends inside",
                     [](std::string& file, size_t at) { file.resize(at + page_size / 2); });
}
images altered_header(const std::string& sound) {
    images list;
    for (size_t at = 0; at < 100; ++at) {
        list.push_back({"altered header byte " + std::to_string(at), sound});
        list.back().bytes[at] = static_cast<char>(~list.back().bytes[at]);
    }
    return list;
}

// What holds for any damage: no row is lost that a plain read still gives, and none is made up.
// Damage that SQLite's own check does not see, in bytes that only a row's text has, is left alone.
void expect_salvage(const images& list, const row_map& inserted) {
    ASSERT_FALSE(list.empty());
    size_t repaired = 0;
    for (const damaged_image& image : list) {
        SCOPED_TRACE(image.what);
        set_image(image.bytes, "/tmp/plain.db");
        const row_map plain = common(read_rows("/tmp/plain.db"), inserted);
        const result done = repair(image.bytes);
        if (!was_damaged(done)) {
            EXPECT_EQ(integrity("/tmp/plain.db"), "ok") << done.line;
            EXPECT_EQ(read_file(db_path), image.bytes);
            continue;
        }
        ++repaired;
        EXPECT_TRUE(all_in(plain, read_rows()));
        EXPECT_TRUE(all_in(read_rows(), inserted));
    }
    EXPECT_GT(repaired, list.size() / 4);
}

class damaged_database : public testing::Test {
  protected:
    void SetUp() override {
        sound = mixed_database();
        inserted = read_rows();
        ASSERT_EQ(inserted.size(), 60U + 60U + 53U);
    }
    std::string sound;
    row_map inserted;
};

TEST_F(damaged_database, gives_back_what_is_outside_of_a_zeroed_page) {
    expect_salvage(zeroed_pages(sound), inserted);
}
TEST_F(damaged_database, gives_back_what_is_outside_of_a_noisy_page) {
    expect_salvage(noisy_pages(sound), inserted);
}
TEST_F(damaged_database, gives_back_what_is_before_the_end_of_a_cut_file) {
    expect_salvage(truncated_files(sound), inserted);
}
TEST_F(damaged_database, gives_back_what_is_before_the_end_inside_of_a_page) {
    expect_salvage(torn_pages(sound), inserted);
}

// Deleted rows have left free pages, which the daemon's own connections never do.
TEST_F(damaged_database, gives_back_what_is_outside_of_a_damaged_free_list) {
    ASSERT_EQ(run_sql("PRAGMA auto_vacuum = INCREMENTAL; DELETE FROM conn_server_log WHERE id % 8 "
                      "= 0 OR id < 40;"),
              SQLITE_OK);
    ASSERT_GT(std::stoi(ask("PRAGMA freelist_count")), 10);
    const row_map rows = read_rows();
    const std::string with_free_pages = read_file(db_path);
    const auto header_byte = [&](size_t at) {
        return static_cast<size_t>(static_cast<unsigned char>(with_free_pages[at]));
    };
    const size_t first_free = (header_byte(34) << 8 | header_byte(35)) - 1;
    for (size_t at = 0; at < 64; at += 4) {
        SCOPED_TRACE(at);
        std::string image = with_free_pages;
        image.replace(first_free * page_size + at, 4, noise(4, static_cast<unsigned>(at)));
        (void)repair(image);
        EXPECT_EQ(read_rows(), rows);
    }
}

TEST_F(damaged_database, needs_nothing_of_the_header) {
    for (const damaged_image& image : altered_header(sound)) {
        SCOPED_TRACE(image.what);
        (void)repair(image.bytes);
        EXPECT_EQ(read_rows(), inserted);
    }
}

// --- Every write of a transaction ---------------------------------------------------------------

// The database as a kill before each write of some steps leaves it. A step is what the daemon does
// before it answers.
class cut_transaction : public testing::Test {
  protected:
    void SetUp() override {
        write_recorder::install();
        open_store();
    }

    void start_recording() {
        start = read_file(db_path);
        write_recorder::changes.clear();
        answers = {{0, read_rows()}};
    }
    void end_step(const std::function<void()>& step) {
        step();
        answers.push_back({write_recorder::changes.size(), read_rows()});
    }

    // Every row that stands before and after the step that was cut is saved, and no row that was
    // never there. can_be_saved(image, row's values) says whether the cut has left the row's bytes.
    void expect_answered_rows(bool (*can_be_saved)(const std::string&,
                                                   const std::string&) = nullptr) {
        close_store();
        const auto changes = write_recorder::changes;
        std::string image = start;
        size_t step = 0, damaged = 0;
        for (size_t number = 0; number < changes.size(); ++number) {
            while (step + 2 < answers.size() && answers[step + 1].changes <= number) ++step;
            const row_map& before = answers[step].rows;
            const row_map& after = answers[step + 1].rows;
            SCOPED_TRACE("cut before write " + std::to_string(number + 1) + " of " +
                         std::to_string(changes.size()));
            if (was_damaged(repair(image))) ++damaged;
            row_map answered = common(before, after);
            if (can_be_saved != nullptr) {
                std::erase_if(answered,
                              [&](const auto& row) { return !can_be_saved(image, row.second); });
            }
            const row_map saved = read_rows();
            EXPECT_TRUE(all_in(answered, saved));
            EXPECT_EQ(common(saved, before).size() + common(saved, after).size(),
                      saved.size() + common(saved, common(before, after)).size())
                << "a row is neither as before nor as after";
            write_recorder::apply(changes[number], image);
        }
        EXPECT_GT(damaged, 0U);
    }

  private:
    struct answer {
        size_t changes;  // made before it
        row_map rows;
    };
    std::string start;
    std::vector<answer> answers;
};

TEST_F(cut_transaction, insert_loses_no_answered_row) {
    for (int number = 1; number <= 60; ++number) insert_server_row(number);
    start_recording();
    for (int number = 61; number <= 72; ++number) end_step([=] { insert_server_row(number); });
    expect_answered_rows();
}

TEST_F(cut_transaction, insert_of_large_row_loses_no_answered_row) {
    for (int number = 1; number <= 20; ++number) insert_server_row(number, true);
    start_recording();
    for (int number = 21; number <= 28; ++number)
        end_step([=] { insert_server_row(number, true); });
    expect_answered_rows();
}

// Whether the first text of a row is anywhere in the file.
bool stands_in(const std::string& image, const std::string& values) {
    return image.find(values.substr(2, values.find('|') - 2)) != std::string::npos;
}

// When a table outgrows its first page, SQLite empties that page before it writes the rows to
// another one. What a cut takes there is nowhere in the file.
TEST_F(cut_transaction, first_growth_loses_what_is_not_in_the_file_any_more) {
    for (int number = 1; number <= 14; ++number) insert_server_row(number);
    start_recording();
    for (int number = 15; number <= 26; ++number) end_step([=] { insert_server_row(number); });
    expect_answered_rows(stands_in);
}

// The statements of a trim and of the others, on fewer rows.
TEST_F(cut_transaction, trim_loses_no_answered_row) {
    for (int number = 1; number <= 200; ++number) insert_server_row(number);
    start_recording();
    end_step([] { run_sql(trim_text(60)); });
    expect_answered_rows();
}

TEST_F(cut_transaction, trim_of_large_rows_loses_no_answered_row) {
    for (int number = 1; number <= 60; ++number) insert_server_row(number, true);
    start_recording();
    end_step([] { run_sql(trim_text(20)); });
    expect_answered_rows();
}

// The limiter's own statements. Eight such names fill a page, and a row grows with its count, so
// rows move to the next page. SQLite writes the page that they leave first.
TEST_F(cut_transaction, update_loses_what_is_not_in_the_file_any_more) {
    const auto fail = [](int number) {
        std::string name = std::to_string(number);
        name.resize(240, 'x');
        EXPECT_EQ(insert_privilege_user_block(name.data()), 0);
    };
    for (int number = 1; number <= 60; ++number) fail(number);
    start_recording();
    for (int number = 1; number <= 60; number += 4) end_step([=] { fail(number); });
    expect_answered_rows(stands_in);
}

TEST_F(cut_transaction, delete_loses_no_other_row) {
    for (int number = 1; number <= 60; ++number) insert_server_row(number, number % 5 == 0);
    start_recording();
    for (int id = 10; id <= 16; ++id) {
        end_step([=] {
            run_sql(without_journal +
                    "DELETE FROM conn_server_log WHERE id = " + std::to_string(id) + ";");
        });
    }
    expect_answered_rows();
}

TEST_F(cut_transaction, clean_loses_no_row_of_another_table) {
    for (int number = 1; number <= 30; ++number) {
        insert_server_row(number);
        insert_client_row(number);
    }
    start_recording();
    end_step([] { clean_conn_client_log(); });
    expect_answered_rows();
}

}  // namespace
