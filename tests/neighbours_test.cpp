// The neighbours of a plain machine, as programs: the settings service vpncaas, called over the
// bus, and the notifier.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <jansson.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "support/daemon.h"
#include "support/files.h"
#include "support/service.h"
#include "zbservice.h"

namespace {

namespace fs = std::filesystem;
using texts = std::vector<std::string>;

// --- The settings service ------------------------------------------------------------------------

class vpncaas : public testing::Test {
  protected:
    std::string call(const std::string& request, const char* method = "read_json", int fd = -1) {
        return service.call(method, request, fd);
    }
    std::string read_json(const std::string& path) {
        json_t* request = json_pack("{s:s}", "path", path.c_str());
        char* text = json_dumps(request, 0);
        std::string answer = call(text);
        free(text);
        json_decref(request);
        return answer;
    }

    service_process service{VPNCAAS, "vpncaas"};
};

constexpr char settings_path[] = "/etc/config/vpn_block.conf";
constexpr char bad_request[] = R"({"error": 1})";
constexpr char refused[] = R"({"error": 2})";
constexpr char unreadable[] = R"({"error": 3})";

TEST_F(vpncaas, answers_the_document) {
    write_file(settings_path, R"({"global":{"enable":true,"limit":3,"time":2.5}})");
    EXPECT_EQ(read_json(settings_path),
              R"({"error": 0, "data": {"global": {"enable": true, "limit": 3, "time": 2.5}}})");
}

TEST_F(vpncaas, reads_the_file_anew_each_time) {
    write_file(settings_path, "{\"a\": 1}\n");
    EXPECT_EQ(read_json(settings_path), R"({"error": 0, "data": {"a": 1}})");
    write_file(settings_path, "[2]");
    EXPECT_EQ(read_json(settings_path), R"({"error": 0, "data": [2]})");
    fs::remove(settings_path);
    EXPECT_EQ(read_json(settings_path), refused);
}

TEST_F(vpncaas, any_json_is_a_document) {
    for (const char* text : {"5", "2.5", "\"text\"", "true", "null", "[]", "{}"}) {
        write_file(settings_path, text);
        EXPECT_EQ(read_json(settings_path), std::string(R"({"error": 0, "data": )") + text + "}");
    }
}

TEST_F(vpncaas, file_without_json_is_unreadable) {
    for (const std::string& text :
         {std::string(), std::string("{"), std::string("{} {}"), std::string("{\"a\": 01}"),
          std::string("{'a': 1}"), std::string("\xff"), std::string("\"\xc3\x28\""),
          std::string("{\"limit\": 99999999999999999999}"), std::string("{}\0{}", 5),
          std::string(3000, '[')}) {
        SCOPED_TRACE(text.substr(0, 30));
        write_file(settings_path, text);
        EXPECT_EQ(read_json(settings_path), unreadable);
    }
}

TEST_F(vpncaas, request_without_a_path_is_bad) {
    for (const std::string& request :
         {std::string(), std::string("nonsense"), std::string("{}"), std::string("[]"),
          std::string(R"("/etc/config/vpn_block.conf")"), std::string(R"({"path": 1})"),
          std::string(R"({"path": null})"), std::string(R"({"path": ["/etc/config/a"]})"),
          std::string("{\"path\": \"/etc/config/\xff\"}"),
          std::string(R"({"path": "/etc/config/vpn_block.conf\u0000.txt"})")}) {
        SCOPED_TRACE(request);
        EXPECT_EQ(call(request), bad_request);
    }
}

TEST_F(vpncaas, unknown_method_is_not_answered) {
    EXPECT_EQ(call("{}", "write_json"), zb_strerror(ZB_ERROR_NO_REPLY));
    EXPECT_EQ(call("{}", "read_json2"), zb_strerror(ZB_ERROR_NO_REPLY));
}

TEST_F(vpncaas, path_that_leaves_the_folder_is_refused) {
    write_file("/tmp/outside.json", "{}");
    fs::create_directory("/etc/configuration");
    write_file("/etc/configuration/a.json", "{}");
    fs::create_directory("/etc/config/sub");
    fs::create_symlink("/tmp/outside.json", "/etc/config/link.json");
    fs::create_symlink("/tmp", "/etc/config/folder_link");
    fs::create_symlink("link.json", "/etc/config/link_to_link.json");
    fs::create_symlink("nowhere", "/etc/config/dangling");
    fs::create_symlink("loop", "/etc/config/loop");
    for (const char* path : {"/tmp/outside.json",
                             "/etc/config/../../tmp/outside.json",
                             "/etc/config/link.json",
                             "/etc/config/link_to_link.json",
                             "/etc/config/folder_link/outside.json",
                             "/etc/config/sub/../../configuration/a.json",
                             "/etc/configuration/a.json",
                             "/etc/passwd",
                             "/etc/config",
                             "/etc/config/",
                             "/etc/config/.",
                             "/etc/config/sub/..",
                             "/",
                             "",
                             "outside.json",
                             "../etc/configuration/a.json",
                             "/etc/config/missing.json",
                             "/etc/config/dangling",
                             "/etc/config/loop",
                             "/proc/self/fd/0",
                             "/proc/1/root/tmp/outside.json",
                             "/etc/config/vpn_block.conf/x"}) {
        SCOPED_TRACE(path);
        EXPECT_EQ(read_json(path), refused);
    }
    EXPECT_EQ(read_json("/etc/config/" + std::string(5000, 'x')), refused);
}

TEST_F(vpncaas, path_that_stays_in_the_folder_is_answered) {
    fs::create_directory("/etc/config/sub");
    write_file("/etc/config/sub/a b.json", "{}");
    fs::create_symlink("sub/a b.json", "/etc/config/link.json");
    fs::create_symlink("/etc/config/sub", "/etc/config/folder_link");
    fs::create_symlink("/etc/config/link.json", "/tmp/from_outside.json");
    for (const char* path :
         {"/etc/config/sub/a b.json", "/etc/config/link.json", "/etc/config/folder_link/a b.json",
          "/etc/config//sub/./../sub/a b.json", "/etc/../etc/config/link.json",
          "/tmp/from_outside.json"}) {
        SCOPED_TRACE(path);
        EXPECT_EQ(read_json(path), R"({"error": 0, "data": {}})");
    }
}

// The folder itself may lie elsewhere.
TEST_F(vpncaas, folder_may_be_a_link) {
    fs::rename("/etc/config", "/etc/real");
    fs::create_symlink("real", "/etc/config");
    write_file("/etc/real/a.json", "{}");
    EXPECT_EQ(read_json("/etc/config/a.json"), R"({"error": 0, "data": {}})");
    EXPECT_EQ(read_json("/etc/real/a.json"), R"({"error": 0, "data": {}})");
    EXPECT_EQ(read_json("/etc/config/../passwd"), refused);
}

// None of these may keep the service waiting.
TEST_F(vpncaas, only_regular_files_are_read) {
    fs::create_directory("/etc/config/sub");
    ASSERT_EQ(mkfifo("/etc/config/pipe", 0644), 0);
    const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    strcpy(address.sun_path, "/etc/config/socket");
    ASSERT_EQ(bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    for (const char* path : {"/etc/config/sub", "/etc/config/pipe", "/etc/config/socket"}) {
        SCOPED_TRACE(path);
        EXPECT_EQ(read_json(path), unreadable);
    }
    fs::create_symlink("/dev/zero", "/etc/config/zero");
    fs::create_symlink("/dev/tty", "/etc/config/tty");
    EXPECT_EQ(read_json("/etc/config/zero"), refused);
    EXPECT_EQ(read_json("/etc/config/tty"), refused);
    close(listener);
}

// A JSON text of so many bytes.
std::string json_of(size_t size) {
    std::string text = "\"";
    text.append(size - 2, 'x').append("\"");
    return text;
}

TEST_F(vpncaas, file_up_to_4_MiB_is_read) {
    const size_t most = size_t{4} * 1024 * 1024;
    write_file(settings_path, json_of(most));
    EXPECT_EQ(read_json(settings_path).size(), most + strlen(R"({"error": 0, "data": })"));
    write_file(settings_path, json_of(most + 1));
    EXPECT_EQ(read_json(settings_path), unreadable);
    ASSERT_EQ(truncate(settings_path, off_t{1} << 40), 0);
    EXPECT_EQ(read_json(settings_path), unreadable);
}

TEST_F(vpncaas, file_that_may_not_be_read_is_unreadable) {
    write_file(settings_path, "{}");
    ASSERT_EQ(chmod(settings_path, 0), 0);
    EXPECT_EQ(read_json(settings_path), unreadable);
}

TEST_F(vpncaas, keeps_no_descriptor) {
    write_file(settings_path, "{}");
    (void)read_json(settings_path);
    const texts before = service.open_files();
    int pipe_ends[2];
    ASSERT_EQ(pipe2(pipe_ends, O_CLOEXEC), 0);
    for (int n = 0; n < 5; ++n) {
        (void)read_json(settings_path);
        (void)read_json("/etc/config");
        (void)read_json("/etc/passwd");
        (void)call("{}", "read_json", pipe_ends[1]);
        (void)call("{}", "unknown", pipe_ends[1]);
    }
    EXPECT_EQ(service.open_files(), before);
    close(pipe_ends[1]);
    pollfd event = {pipe_ends[0], 0, 0};
    EXPECT_EQ(poll(&event, 1, 10000), 1);
    EXPECT_NE(event.revents & POLLHUP, 0);
    close(pipe_ends[0]);
}

TEST_F(vpncaas, second_one_ends_at_once) {
    EXPECT_EQ(run_process({VPNCAAS}, {.output = "/tmp/second"}), 1);
    EXPECT_EQ(read_file("/tmp/second"),
              "zbservice: cannot create endpoint \"vpncaas\": Address already in use\n");
}

TEST_F(vpncaas, takes_no_arguments) {
    EXPECT_EQ(run_process({VPNCAAS, "-x"}, {.output = "/tmp/usage"}), 2);
    EXPECT_EQ(read_file("/tmp/usage"), std::string("usage: ") + VPNCAAS + "\n");
}

// --- The notifier --------------------------------------------------------------------------------

constexpr char notifications_path[] = "/var/log/network/notifications.jsonl";

// The notifier's words before the template.
texts sender(const std::string& level = "info") {
    return {NOTIFY, "send", "-A", "A238", "-C", "C001", "-M", "0020", "-l", level, "-t", "3"};
}

texts with(texts words, const texts& more) {
    words.insert(words.end(), more.begin(), more.end());
    return words;
}

int notify(const texts& form_and_arguments, const process_options& how = {}) {
    return run_process(with(sender(), form_and_arguments), how);
}

// The member of each line of the notifications file.
texts members(const char* name) {
    texts values;
    const std::string bytes = read_file(notifications_path);
    EXPECT_TRUE(bytes.empty() || bytes.back() == '\n');
    for (const std::string& line : split_lines(bytes)) {
        json_t* object = json_loads(line.c_str(), 0, nullptr);
        const char* value = json_string_value(json_object_get(object, name));
        values.emplace_back(value != nullptr ? value : "(none)");
        json_decref(object);
    }
    return values;
}

// The text of a notification with this template and these arguments.
std::string told(const texts& form_and_arguments) {
    fs::remove(notifications_path);
    EXPECT_EQ(notify(form_and_arguments), 0);
    const texts all = members("text");
    EXPECT_EQ(all.size(), 1U);
    return all.empty() ? "" : all[0];
}

TEST(notify, writes_one_json_line) {
    const time_t before = time(nullptr);
    ASSERT_EQ(run_process(with(sender("warn"),
                               {"[{0}] Username: {1} has been blocked.", "RAVO Service", "alice"})),
              0);
    const std::string line = read_file(notifications_path);
    json_t* object = json_loads(line.c_str(), 0, nullptr);
    const json_int_t at = json_integer_value(json_object_get(object, "time"));
    json_decref(object);
    EXPECT_GE(at, before);
    EXPECT_LE(at, time(nullptr));
    EXPECT_EQ(line,
              "{\"time\":" + std::to_string(at) +
                  ",\"application\":\"A238\",\"category\":\"C001\",\"id\":\"0020\",\"level\":"
                  "\"warn\",\"text\":\"[RAVO Service] Username: alice has been blocked.\"}\n");
}

TEST(notify, appends) {
    EXPECT_EQ(notify({"one"}), 0);
    EXPECT_EQ(notify({"two"}), 0);
    EXPECT_EQ(members("text"), (texts{"one", "two"}));
}

TEST(notify, makes_the_file_for_few_eyes) {
    EXPECT_EQ(notify({"one"}), 0);
    struct stat status = {};
    ASSERT_EQ(stat(notifications_path, &status), 0);
    EXPECT_EQ(status.st_mode & 0777 & ~0640U, 0U);
}

struct expansion {
    texts words;  // template and arguments
    const char* text;
};

TEST(notify, puts_arguments_into_their_places) {
    const expansion cases[] = {
        {{"{0} {1} {2}", "a", "b", "c"}, "a b c"},
        {{"{2}{1}{0}", "a", "b", "c"}, "cba"},
        {{"{0}{0}", "a"}, "aa"},
        {{"{0}", "a", "unused"}, "a"},
        {{"{0} {1}", "a"}, "a {1}"},
        {{"{0}"}, "{0}"},
        {{"", "a"}, ""},
        {{"{0}", ""}, ""},
        {{"{00} {001} {0001}", "a", "b"}, "a b {0001}"},
        {{"{ 0} {0 } {} {-1} {x} {0", "a"}, "{ 0} {0 } {} {-1} {x} {0"},
        {{"{{0}} {", "a"}, "{a} {"},
        {{"{10}", "0", "1", "2", "3", "4", "5", "6", "7", "8", "9", "ten"}, "ten"},
        {{"{99999999999999999999}", "a"}, "{99999999999999999999}"},
        {{"{\xc3\xa9}", "a"}, "{\xc3\xa9}"},
    };
    for (const expansion& c : cases) {
        SCOPED_TRACE(c.words[0]);
        EXPECT_EQ(told(c.words), c.text);
    }
}

TEST(notify, argument_is_data) {
    const texts hostile = {"{0}",
                           "{1}",
                           "{2}{0}",
                           "quote\" quote'",
                           "line\nbreak",
                           "\r\n",
                           "tab\ttab",
                           "back\\slash",
                           "%s%n",
                           "-A",
                           "--help",
                           "$(id)`id`",
                           "\",\"id\":\"0000",
                           "\x1b[2J",
                           "\x7f",
                           "\xc3\xa9\xe2\x82\xac",
                           "\xc2\x85\xe2\x80\xa8"};
    for (const std::string& argument : hostile) {
        SCOPED_TRACE(argument);
        EXPECT_EQ(told({"[{0}] <{1}> <{2}>", "RAVO Service", argument, "last"}),
                  "[RAVO Service] <" + argument + "> <last>");
        EXPECT_EQ(count_of(read_file(notifications_path), "\n"), 1U);
    }
}

TEST(notify, text_that_is_no_utf8_has_its_bytes_escaped) {
    EXPECT_EQ(told({"<{0}>", "a\xff\xc3z"}), "<a\\xff\\xc3z>");
    EXPECT_EQ(told({"<{0}> \xc3\xa9", "\x80"}), "<\\x80> \\xc3\\xa9");
}

TEST(notify, words_that_are_no_utf8_are_told_as_well) {
    EXPECT_EQ(run_process({NOTIFY, "send", "-A", "\xff", "-C", "\xfe", "-M", "1", "-l", "warn",
                           "-t", "3", "text"}),
              0);
    EXPECT_EQ(members("application"), texts{"\\xff"});
    EXPECT_EQ(members("category"), texts{"\\xfe"});
}

TEST(notify, large_arguments_pass) {
    const std::string large(100000, 'x');
    EXPECT_EQ(told({"{0}", large}), large);
}

TEST(notify, wrong_words_end_with_2_and_write_nothing) {
    const texts whole = sender();
    std::vector<texts> cases = {
        {NOTIFY}, {NOTIFY, "send"}, {NOTIFY, "receive"}, {NOTIFY, "--help"}};
    cases.push_back(whole);                        // no template
    cases.push_back(with(whole, {"-x", "text"}));  // unknown option
    cases.push_back(
        {NOTIFY, "list", "-A", "A238", "-C", "C", "-M", "1", "-l", "warn", "-t", "3", "text"});
    for (size_t option = 2; option < whole.size(); option += 2) {
        texts without = whole;
        without.erase(without.begin() + static_cast<long>(option),
                      without.begin() + static_cast<long>(option) + 2);
        cases.push_back(with(without, {"text"}));
    }
    for (const texts& words : cases) {
        EXPECT_EQ(run_process(words, {.output = "/tmp/usage"}), 2);
        EXPECT_NE(read_file("/tmp/usage").find("usage: notify send -A APP"), std::string::npos);
    }
    EXPECT_FALSE(fs::exists(notifications_path));
}

TEST(notify, missing_folder_is_told) {
    fs::remove_all("/var/log/network");
    EXPECT_EQ(notify({"text"}, {.output = "/tmp/out"}), 1);
    EXPECT_EQ(read_file("/tmp/out"), "notify: cannot write /var/log/network/notifications.jsonl\n");
}

TEST(notify, full_disk_ends_with_1_and_leaves_whole_lines) {
    write_file("/small/notifications.jsonl", "");
    fs::create_symlink("/small/notifications.jsonl", notifications_path);
    ASSERT_EQ(notify({"{0}", std::string(1000, 'a')}), 0);
    const std::string first = read_file(notifications_path);
    // Leaves room for half a line.
    const int fd = open("/small/ballast", O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    const std::string block(4096, 'x');
    while (write(fd, block.data(), block.size()) > 0) {
    }
    close(fd);
    EXPECT_EQ(notify({"{0}", std::string(50000, 'b')}, {.output = "/tmp/out"}), 1);
    EXPECT_EQ(read_file(notifications_path), first);
    fs::remove("/small/ballast");
    EXPECT_EQ(notify({"again"}), 0);
    EXPECT_EQ(members("text"), (texts{std::string(1000, 'a'), "again"}));
}

TEST(notify, writers_at_the_same_time_leave_whole_lines) {
    constexpr int writers = 40;
    std::vector<pid_t> running;
    texts expected;
    for (int n = 0; n < writers; ++n) {
        expected.push_back(std::to_string(1000 + n) + std::string(20000, 'x'));
        running.push_back(start_process(with(sender(), {"{0}", expected.back()})));
    }
    for (const pid_t pid : running) EXPECT_EQ(wait_for_exit(pid), 0);
    texts found = members("text");
    std::sort(found.begin(), found.end());
    EXPECT_EQ(found, expected);
}

TEST(notify, does_not_wait_for_a_reader_of_a_pipe) {
    ASSERT_EQ(mkfifo(notifications_path, 0644), 0);
    EXPECT_EQ(notify({"text"}, {.output = "/tmp/out"}), 1);
    const int reader = open(notifications_path, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    EXPECT_EQ(notify({"text"}, {.output = "/tmp/out"}), 1);
    close(reader);
}

class system_log {
  public:
    system_log() : fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        strcpy(address.sun_path, "/dev/log");
        EXPECT_EQ(bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    }
    ~system_log() { close(fd); }
    system_log(const system_log&) = delete;
    system_log& operator=(const system_log&) = delete;

    // The one message there is: its priority in front, what follows "notify[PID]: " behind.
    std::string message() const {
        std::string text(size_t{256} * 1024, '\0');
        const ssize_t length = recv(fd, text.data(), text.size(), MSG_DONTWAIT);
        if (length <= 0) return "(none)";
        text.resize(static_cast<size_t>(length));
        const size_t tag = text.find("notify[");
        const size_t start = text.find("]: ", tag);
        return text.substr(0, text.find('>') + 1) + text.substr(start + 3);
    }

  private:
    int fd;
};

TEST(notify, tells_the_system_log_on_one_line) {
    const system_log log;
    EXPECT_EQ(notify({"[{0}] {1}", "RAVO Service", "a\nb\rc\x1b[2J\x7f\xc2\x85%s"}), 0);
    EXPECT_EQ(log.message(), "<30>[RAVO Service] a\\x0ab\\x0dc\\x1b[2J\\x7f\\xc2\\x85%s");
    EXPECT_EQ(notify({"\xc3\xa9"}), 0);
    EXPECT_EQ(log.message(), "<30>\xc3\xa9");
    EXPECT_EQ(notify({"\x85\xc3\xa9"}), 0);
    EXPECT_EQ(log.message(), "<30>\\x85\\xc3\\xa9");
    EXPECT_EQ(log.message(), "(none)");
}

TEST(notify, level_is_the_system_logs_priority) {
    const system_log log;
    const std::vector<std::pair<std::string, std::string>> levels = {
        {"warn", "<28>t"}, {"error", "<27>t"}, {"info", "<30>t"}, {"anything", "<30>t"}};
    for (const auto& [level, message] : levels) {
        EXPECT_EQ(run_process(with(sender(level), {"t"})), 0);
        EXPECT_EQ(log.message(), message);
    }
}

TEST(notify, tells_the_system_log_also_when_the_file_cannot_be_written) {
    fs::remove_all("/var/log/network");
    const system_log log;
    EXPECT_EQ(notify({"text"}, {.output = "/tmp/out"}), 1);
    EXPECT_EQ(log.message(), "<30>text");
}

}  // namespace
