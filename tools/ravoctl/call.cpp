// One raw call of a method, for looking at an endpoint by hand.
#include "call.h"

#include <fmt/format.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "bus.h"
#include "text.h"

namespace {

constexpr size_t largest_request = 4U << 20U;  // bytes that the bus takes
constexpr size_t longest_method = 255;
constexpr size_t longest_address = 107;  // bytes after the '@'
constexpr std::string_view registered_services = "/var/run/zbservice/";

struct call_request {
    std::string method;
    std::string endpoint = daemon_endpoint;
    int timeout_s = call_timeout_s;
    std::optional<std::string> text;  // at most one of the three payloads is given
    std::optional<std::string> hex;
    std::optional<std::string> file;  // "-" is standard input
    bool raw = false;
};

struct file_closer {
    void operator()(FILE* file) const {
        if (file != stdin) (void)fclose(file);
    }
};

int hex_digit(char c) {
    if ('0' <= c && c <= '9') return c - '0';
    if ('a' <= c && c <= 'f') return c - 'a' + 10;
    if ('A' <= c && c <= 'F') return c - 'A' + 10;
    return -1;
}

// Spaces and newlines between the digits are for the reader.
std::string from_hex(const std::string& text) {
    std::string digits;
    for (const char c : text) {
        if (c == ' ' || c == '\n') continue;
        if (hex_digit(c) < 0) {
            throw usage_error(fmt::format("--hex: \"{}\" is no hexadecimal digit",
                                          escaped(std::string_view(&c, 1))));
        }
        digits += c;
    }
    if (digits.size() % 2 != 0) throw usage_error("--hex: the number of digits is odd");
    std::string bytes;
    for (size_t i = 0; i < digits.size(); i += 2) {
        bytes += static_cast<char>(hex_digit(digits[i]) * 16 + hex_digit(digits[i + 1]));
    }
    return bytes;
}

// Stops behind the largest request, so that an endless file is refused, too.
std::string read_file(const std::string& path) {
    std::string bytes(largest_request + 1, '\0');
    errno = 0;
    const std::unique_ptr<FILE, file_closer> file(path == "-" ? stdin : fopen(path.c_str(), "re"));
    if (file != nullptr) bytes.resize(fread(bytes.data(), 1, bytes.size(), file.get()));
    if (file == nullptr || ferror(file.get()) != 0) {
        throw usage_error(fmt::format("--file: {}: {}", escaped(path), strerror(errno)));
    }
    return bytes;
}

std::string payload_of(const call_request& request) {
    if (request.text) return *request.text;
    if (request.hex) return from_hex(*request.hex);
    if (request.file) return read_file(*request.file);
    return {};
}

void check_address(const std::string& endpoint) {
    const bool is_abstract = endpoint.starts_with('@');
    const size_t length =
        is_abstract ? endpoint.size() - 1 : registered_services.size() + endpoint.size();
    const bool is_name = is_abstract || endpoint.find('/') == std::string::npos;
    if (is_name && endpoint.size() > (is_abstract ? 1 : 0) && length <= longest_address) return;
    throw usage_error(
        fmt::format("--endpoint: \"{}\" is neither \"@ADDRESS\" with at most {} bytes "
                    "nor the name of a registered service",
                    escaped(endpoint), longest_address));
}

void check_method(const std::string& method) {
    if (!method.empty() && method.size() <= longest_method) return;
    throw usage_error(fmt::format("a method's name has 1 to {} bytes", longest_method));
}

void print_reply(std::string_view reply, bool raw) {
    if (!raw && !is_printable(reply)) {
        fmt::print("{}", hex_dump(reply));
        return;
    }
    (void)fwrite(reply.data(), 1, reply.size(), stdout);
    if (!raw && !reply.empty() && !reply.ends_with('\n')) fmt::print("\n");
}

exit_status call_method(const call_request& request) {
    check_address(request.endpoint);
    check_method(request.method);
    const std::string payload = payload_of(request);
    if (payload.size() > largest_request) {
        throw usage_error(fmt::format("a request has at most {} bytes", largest_request));
    }
    const io_owner io = make_request(payload);
    const int result =
        zb_call(request.endpoint.c_str(), request.method.c_str(), io.get(), request.timeout_s, -1);
    if (result != 0) throw call_failure(request.endpoint, result);
    size_t length = 0;
    const auto* reply = static_cast<const char*>(zb_io_read(io.get(), &length));
    print_reply({reply, length}, request.raw);
    return done;
}

// --- The command line ---------------------------------------------------------------------------

void declare_payload_options(CLI::App& app, call_request& request) {
    auto* text = app.add_option("--text", request.text, "Send these characters")->type_name("TEXT");
    auto* hex = app.add_option("--hex", request.hex, "Send the bytes that these digits tell")
                    ->type_name("DIGITS");
    app.add_option("--file", request.file, "Send a file's content; - is standard input")
        ->type_name("PATH")
        ->excludes(text)
        ->excludes(hex);
    hex->excludes(text);
}

}  // namespace

void declare_call(command_line& line) {
    constexpr int longest_timeout = 86400;
    const auto request = std::make_shared<call_request>();
    CLI::App* call = line.app.add_subcommand("call", "Call a method and print its reply");
    call->add_option("method", request->method, "Name of the method")->required();
    call->add_option("--endpoint", request->endpoint, "Address, or name of a registered service")
        ->type_name("ADDRESS")
        ->capture_default_str();
    call->add_option("--timeout", request->timeout_s, "Seconds to wait without progress")
        ->type_name("SECONDS")
        ->check(CLI::Range(1, longest_timeout))
        ->capture_default_str();
    declare_payload_options(*call, *request);
    call->add_flag("--raw", request->raw, "Print the reply byte for byte");
    line.runs(call, [request] { return call_method(*request); });
}
