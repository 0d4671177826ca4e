// The documents and requests of the two JSON services: any bytes are answered with an object whose
// "error" is one of those promised, and what the network service says of a setting is one line.
//
// The services' programs are linked whole; the linker puts this program in the place of the frame
// that would serve their methods, and it calls them.
//
// Input: a byte for what is done; a request, up to a zero byte; then the file's bytes.
#include <fcntl.h>
#include <jansson.h>
#include <sys/mman.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <memory>
#include <thread>

#include "fuzz_target.h"
#include "json_service.h"
#include "vpn_options.h"

int network_service_main(int argc, char** argv);
int vpncaas_main(int argc, char** argv);

namespace {
const json_service* registered = nullptr;
}

extern "C" int __wrap__Z16run_json_serviceRK12json_serviceiPPc(const json_service& service, int,
                                                               char**);
extern "C" int __wrap__Z16run_json_serviceRK12json_serviceiPPc(const json_service& service, int,
                                                               char**) {
    static json_service copies[2];
    static size_t count = 0;
    copies[count] = service;
    registered = &copies[count++];
    if (service.prepare != nullptr) service.prepare();
    return 0;
}

namespace {

constexpr char profiles_path[] = "/etc/config/vpn_profiles.conf";
constexpr char settings_path[] = "/etc/config/vpn_block.conf";
constexpr char outside_path[] = "/tmp/outside.conf";

// The methods of a program, once it has been started.
const json_service& service_of(int (*program)(int, char**)) {
    char name[] = "service";
    char* words[] = {name, nullptr};
    (void)program(1, words);
    return *registered;
}

// The answer to a request. Expects an object with one of the errors up to the highest.
json_ptr ask(const json_service& service, const char* method, const std::string& request,
             json_int_t highest_error) {
    for (const json_method& each : service.methods) {
        if (strcmp(each.name, method) != 0) continue;
        json_ptr answer = each.answer(request.c_str());
        const json_t* error = json_object_get(answer.get(), "error");
        fuzz::expect(json_is_integer(error), "an answer has its error");
        const json_int_t number = json_integer_value(error);
        fuzz::expect(number >= 0 && number <= highest_error, "it is one of those promised");
        fuzz::expect((json_object_get(answer.get(), "data") != nullptr) ==
                         (number == 0 && strcmp(method, "external_dev.update_vpn_gw") != 0),
                     "data comes with success");
        return answer;
    }
    fuzz::expect(false, "the method is there");
    return nullptr;
}

json_ptr parse(const std::string& bytes, size_t flags = 0) {
    return json_ptr(json_loadb(bytes.data(), bytes.size(), flags, nullptr));
}

// --- The network service ------------------------------------------------------------------------

void expect_profiles(const json_service& service, const std::string& request,
                     const std::string& bytes) {
    fuzz::put_file(profiles_path, bytes);
    const json_ptr answer = ask(service, "external_dev.list", request, 2);
    const json_ptr file = parse(bytes);
    const char* name = nullptr;
    json_t* entry = nullptr;
    json_object_foreach(json_object_get(answer.get(), "data"), name, entry) {
        fuzz::expect(json_is_string(json_object_get(entry, "profile")), "an entry has a profile");
        fuzz::expect(json_equal(entry, json_object_get(file.get(), name)) == 1, "it is the file's");
    }
}

bool is_plain_line(const std::string& text) {
    for (size_t at = 0; at + 1 < text.size(); ++at) {
        const auto byte = static_cast<unsigned char>(text[at]);
        const bool is_second_block =
            byte == 0xc2 && static_cast<unsigned char>(text[at + 1]) < 0xa0;
        if (byte < 0x20 || byte == 0x7f || is_second_block) return false;
    }
    return text.ends_with('\n') && json_ptr(json_string(text.c_str())) != nullptr;
}

// A file in the place of standard output, which libFuzzer leaves alone.
class caught_output {
  public:
    caught_output() : fd_(memfd_create("output", MFD_CLOEXEC)) { (void)dup2(fd_, STDOUT_FILENO); }
    // What was written since the last time. Waits for something for some seconds.
    std::string take() {
        std::string text(65536, '\0');
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        ssize_t length = 0;
        while (length <= 0 && std::chrono::steady_clock::now() < end) {
            std::this_thread::yield();
            length = pread(fd_, text.data(), text.size(), 0);
        }
        text.resize(length > 0 ? static_cast<size_t>(length) : 0);
        (void)!ftruncate(fd_, 0);
        (void)lseek(fd_, 0, SEEK_SET);
        return text;
    }

  private:
    int fd_;
};

caught_output* output = nullptr;

void expect_setting(const json_service& service, const std::string& bytes) {
    fuzz::put_file(ravo::options_path, bytes);
    const json_ptr answer = ask(service, "external_dev.update_vpn_gw", "", 0);
    const std::string line = output->take();
    fuzz::expect(is_plain_line(line) && line.size() < 1000, "the setting is one plain line");
    fuzz::expect(json_is_object(parse(bytes).get()) || line == "no VPN gateway\n",
                 "what is no object has no gateway");
}

// --- The settings service -----------------------------------------------------------------------

void expect_settings(const json_service& service, const std::string& request,
                     const std::string& bytes) {
    fuzz::put_file(settings_path, bytes);
    fuzz::put_file(outside_path, R"("outside")");
    const json_ptr answer = ask(service, "read_json", request, 3);
    const char* told = json_string_value(json_object_get(answer.get(), "data"));
    fuzz::expect(
        told == nullptr || strcmp(told, "outside") != 0 || bytes.find("outside") != bytes.npos,
        "nothing outside the folder is read");
    const json_ptr named =
        ask(service, "read_json", R"({"path": "/etc/config/vpn_block.conf"})", 3);
    const json_ptr expected = parse(bytes, JSON_DECODE_ANY);
    const json_t* data = json_object_get(named.get(), "data");
    fuzz::expect((data != nullptr) == (expected != nullptr), "a JSON file is read, and no other");
    fuzz::expect(data == nullptr || json_equal(data, expected.get()) == 1, "it is read whole");
}

// The network service says its setting when it starts as well.
const json_service& start_network_service() {
    output = new caught_output;
    const json_service& service = service_of(network_service_main);
    fuzz::expect(output->take() == "no VPN gateway\n", "it begins without a file");
    return service;
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const json_service& network = start_network_service();
    static const json_service& settings = service_of(vpncaas_main);
    fuzz::input in(data, size);
    const uint8_t action = in.below(3);
    const std::string request = in.line();
    const std::string bytes = in.rest();
    if (action == 0) expect_profiles(network, request, bytes);
    if (action == 1) expect_setting(network, bytes);
    if (action == 2) expect_settings(settings, request, bytes);
    return 0;
}
