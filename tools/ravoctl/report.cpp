// A page for a browser: sessions on a time line, the hours of the day, the users with most traffic.
#include "report.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <ctime>
#include <iterator>
#include <map>
#include <string_view>
#include <utility>

#include "text.h"

namespace {

// ---- The page's look ---------------------------------------------------------------------------

constexpr std::string_view style = R"(
:root{--page:#fff;--ink:#1d2733;--dim:#667385;--line:#e3e8ee;--bar:#2f7dc4;--open:#2f9e69;--lost:#d9822b;--bad:#c6373f;--heat:47,125,196}
@media(prefers-color-scheme:dark){:root{--page:#14191f;--ink:#e4e9ef;--dim:#93a1b1;--line:#2a333d;--bar:#5aa5e6;--open:#4cc38a;--lost:#eba152;--bad:#f0656c;--heat:90,165,230}}
@media print{:root{--page:#fff;--ink:#000;--dim:#444;--line:#ccc}section{break-inside:avoid}}
*{box-sizing:border-box}
body{margin:0 auto;max-width:1080px;padding:24px;background:var(--page);color:var(--ink);font:15px/1.45 system-ui,sans-serif}
h1{margin:0;font-size:24px}h2{margin:32px 0 8px;font-size:17px}p{margin:4px 0;color:var(--dim)}
dl{display:flex;flex-wrap:wrap;gap:8px 36px;margin:18px 0 0}dt{color:var(--dim);font-size:13px}dd{margin:0;font-size:22px;font-variant-numeric:tabular-nums}
svg{display:block;width:100%;height:auto;font-size:12px}svg text{fill:var(--ink)}.d{fill:var(--dim)}
.g{stroke:var(--line);fill:none}.e{fill:var(--bar)}.e .g{fill:none}.o{fill:var(--open)}.l{fill:url(#h);stroke:var(--lost)}.k{fill:var(--bad);opacity:.22}.f{fill:var(--bad)}.s{fill:var(--open)}
.c{fill:rgb(var(--heat))}
table{border-collapse:collapse}td,th{padding:3px 18px 3px 0;text-align:left;border-bottom:1px solid var(--line)}td.n{text-align:right;font-variant-numeric:tabular-nums}
ul{display:flex;flex-wrap:wrap;gap:4px 20px;margin:6px 0;padding:0;list-style:none;color:var(--dim);font-size:13px}ul svg{display:inline-block;width:22px;height:11px;vertical-align:-1px;margin-right:6px}
)";

constexpr std::string_view hatching =
    R"svg(<defs><pattern id="h" width="5" height="5" patternUnits="userSpaceOnUse" patternTransform="rotate(45)"><path d="M0 0v5" stroke="var(--lost)" stroke-width="3"/></pattern></defs>)svg";

constexpr int page_width = 1000;
constexpr int label_width = 150;
constexpr int chart_width = page_width - label_width;
constexpr int half_time_text = 42;  // of the scale
constexpr int bar_height = 12;
constexpr int row_height = 15;
constexpr int lane_gap = 6;
constexpr size_t most_lanes = 80;
constexpr size_t most_ranked = 10;
constexpr size_t label_columns = 20;
constexpr int64_t hour = 3600;
constexpr int64_t day = 24 * hour;

// ---- Texts -------------------------------------------------------------------------------------

// For an element's content and for an attribute in double quotes; of a text that is escaped.
std::string markup(std::string_view escaped_text) {
    std::string out;
    for (const char c : escaped_text) {
        switch (c) {
            case '&':
                out += "&amp;";
                break;
            case '<':
                out += "&lt;";
                break;
            case '>':
                out += "&gt;";
                break;
            case '"':
                out += "&quot;";
                break;
            default:
                out += c;
        }
    }
    return out;
}

std::string shown_name(const std::string& user) {
    return user.empty() ? "(no name)" : escaped(user);
}

std::string label(const std::string& user) { return markup(shown_name(user)); }

// Cut to the room beside a drawing, with the whole of it to point at.
std::string short_label(const std::string& user) {
    const std::string name = shown_name(user);
    const std::string cut = cut_to_width(name, label_columns);
    return cut == name ? markup(name) : markup(cut) + "<title>" + markup(name) + "</title>";
}

tm local_time(int64_t seconds) {
    const time_t time = seconds;
    tm fields = {};
    (void)localtime_r(&time, &fields);
    return fields;
}

std::string time_text(int64_t seconds, const char* form = "%Y-%m-%d %H:%M") {
    const tm fields = local_time(seconds);
    char text[64];
    return std::string(text, strftime(text, sizeof text, form, &fields));
}

std::string span_text(int64_t seconds) {
    if (seconds < hour) return fmt::format("{}:{:02} min", seconds / 60, seconds % 60);
    if (seconds < 2 * day) return fmt::format("{}:{:02} h", seconds / hour, seconds / 60 % 60);
    return fmt::format("{:.1f} days", static_cast<double>(seconds) / static_cast<double>(day));
}

std::string bytes_text(double bytes) {
    static constexpr std::array units = {"B", "kB", "MB", "GB", "TB", "PB", "EB"};
    size_t unit = 0;
    while (bytes >= 999.5 && unit + 1 < units.size()) {
        bytes /= 1000;
        ++unit;
    }
    return fmt::format("{:.{}f} {}", bytes, unit == 0 || bytes >= 99.5 ? 0 : 1, units[unit]);
}

// ---- What is shown -----------------------------------------------------------------------------

int64_t end_of(const session& s, int64_t now) {
    return s.state == session_state::open ? std::max(now, s.start) : s.end;
}

struct lane {
    std::string user;
    std::vector<const session*> sessions;
    const failed_logins* failures = nullptr;
    int64_t connected = 0;  // seconds
    double received = 0;    // bytes
    double sent = 0;
};

class report_page {
  public:
    explicit report_page(const report_content& content)
        : content_(content), length_(std::max<int64_t>(content.until - content.since, 1)) {
        collect();
    }

    std::string write() {
        put("<!DOCTYPE html><html lang=\"en\"><head><meta charset=\"utf-8\"><title>VPN "
            "sessions</title>"
            "<meta name=\"viewport\" content=\"width=device-width\"><style>{}</style></head><body>",
            style);
        put_head();
        if (shown_ > 0 || !content_.failures.empty()) put_time_line();
        if (shown_ > 0) {
            put_hours();
            put_traffic();
        }
        put_failures();
        put("</body></html>\n");
        return std::move(out_);
    }

  private:
    template <class... Args>
    void put(fmt::format_string<Args...> form, Args&&... args) {
        fmt::format_to(std::back_inserter(out_), form, std::forward<Args>(args)...);
    }

    void collect();
    void put_head();
    void put_time_line();
    int put_lane(const lane& each, int top);
    void put_bar(const session& s, int top);
    void put_marks(const failed_logins& failures, int top, int height);
    void put_scale(int height);
    void put_hours();
    void put_traffic();
    void put_failures();

    bool is_shown(const session& s) const {
        return s.start < content_.until && end_of(s, content_.now) >= content_.since;
    }
    double x_of(int64_t time) const {
        const auto within =
            static_cast<double>(std::clamp(time, content_.since, content_.until) - content_.since);
        return label_width + within * chart_width / static_cast<double>(length_);
    }

    const report_content& content_;
    const int64_t length_;
    std::vector<lane> lanes_;  // those connected longest first
    size_t shown_ = 0;
    size_t open_ = 0;
    size_t lost_ = 0;
    std::string out_;
};

void report_page::collect() {
    std::map<std::string, lane> by_user;
    for (const session& s : content_.sessions) {
        if (!is_shown(s)) continue;
        lane& own = by_user[s.user];
        own.sessions.push_back(&s);
        own.connected +=
            std::min(end_of(s, content_.now), content_.until) - std::max(s.start, content_.since);
        own.received += static_cast<double>(std::max<int64_t>(s.received, 0));
        own.sent += static_cast<double>(std::max<int64_t>(s.sent, 0));
        ++shown_;
        if (s.state == session_state::open) ++open_;
        if (s.state == session_state::lost) ++lost_;
    }
    for (const failed_logins& each : content_.failures) by_user[each.user].failures = &each;
    for (auto& [user, own] : by_user) {
        own.user = user;
        lanes_.push_back(std::move(own));
    }
    std::stable_sort(lanes_.begin(), lanes_.end(),
                     [](const lane& a, const lane& b) { return a.connected > b.connected; });
}

void report_page::put_head() {
    double bytes = 0;
    size_t users = 0;
    for (const lane& each : lanes_) {
        bytes += each.received + each.sent;
        if (!each.sessions.empty()) ++users;
    }
    put("<h1>VPN sessions</h1><p>{} to {}, {}. Made {}.</p><dl>", time_text(content_.since),
        time_text(content_.until), markup(time_text(content_.until, "%Z")),
        time_text(content_.now));
    const std::pair<const char*, std::string> figures[] = {
        {"sessions", fmt::format("{}", shown_)}, {"users", fmt::format("{}", users)},
        {"open now", fmt::format("{}", open_)},  {"lost", fmt::format("{}", lost_)},
        {"transferred", bytes_text(bytes)},
    };
    for (const auto& [name, figure] : figures)
        put("<div><dt>{}</dt><dd>{}</dd></div>", name, figure);
    put("</dl>");
    if (shown_ == 0) put("<p>No session was recorded in this time.</p>");
}

// ---- The time line -----------------------------------------------------------------------------

void report_page::put_time_line() {
    put("<section><h2>Time line</h2><ul>");
    for (const auto& [look, meaning] :
         {std::pair("e", "ended"), std::pair("o", "still open"),
          std::pair("l", "lost: its end is not known"), std::pair("k", "blocked")}) {
        put("<li><svg viewBox=\"0 0 22 11\"><rect width=\"22\" height=\"11\" "
            "class=\"{}\"/></svg>{}</li>",
            look, meaning);
    }
    put("<li><svg viewBox=\"0 0 22 11\"><path class=\"f\" d=\"M11 1l5 9h-10z\"/></svg>last failed "
        "login</li></ul>");
    const size_t drawn = std::min(lanes_.size(), most_lanes);
    std::string page = std::exchange(out_, {});
    int top = 8;
    for (size_t n = 0; n < drawn; ++n) top = put_lane(lanes_[n], top);
    const std::string bars = std::exchange(out_, std::move(page));
    put("<svg viewBox=\"0 0 {} {}\" role=\"img\" aria-label=\"Sessions by user and time\">{}",
        page_width, top + 22, hatching);
    put_scale(top);
    put("<g class=\"e\">{}</g></svg>", bars);
    if (drawn < lanes_.size())
        put("<p>The {} users who were connected longest; {} more are not drawn.</p>", drawn,
            lanes_.size() - drawn);
    put("</section>");
}

// Sessions of one user that overlap stand in rows below each other. Returns the next lane's top.
int report_page::put_lane(const lane& each, int top) {
    std::vector<int64_t> row_ends;
    put("<text x=\"0\" y=\"{}\">{}</text>", top + 10, short_label(each.user));
    for (const session* s : each.sessions) {
        auto row = std::find_if(row_ends.begin(), row_ends.end(),
                                [s](int64_t end) { return end <= s->start; });
        if (row == row_ends.end()) row = row_ends.insert(row_ends.end(), 0);
        *row = end_of(*s, content_.now);
        put_bar(*s, top + static_cast<int>(row - row_ends.begin()) * row_height);
    }
    const int height = static_cast<int>(std::max<size_t>(row_ends.size(), 1)) * row_height;
    if (each.failures != nullptr) put_marks(*each.failures, top, height);
    put("<path class=\"g\" d=\"M0 {}h{}\"/>", top + height + lane_gap / 2 - 1, page_width);
    return top + height + lane_gap;
}

void report_page::put_bar(const session& s, int top) {
    const int64_t end = end_of(s, content_.now);
    const double left = x_of(s.start);
    const double width = std::max(x_of(end) - left, 1.5);
    const char* look = s.state == session_state::open   ? " class=\"o\""
                       : s.state == session_state::lost ? " class=\"l\""
                                                        : "";
    put("<path{} d=\"M{:.1f} {}h{:.1f}v{}h-{:.1f}z\"><title>{}, {}, {} in, {} "
        "out</title></path>",
        look, left, top, width, bar_height, width, time_text(s.start, "%m-%d %H:%M"),
        span_text(end - s.start), bytes_text(static_cast<double>(std::max<int64_t>(s.received, 0))),
        bytes_text(static_cast<double>(std::max<int64_t>(s.sent, 0))));
}

void report_page::put_marks(const failed_logins& failures, int top, int height) {
    if (failures.blocked_until > content_.since && failures.last < content_.until) {
        const double left = x_of(failures.last);
        put("<path class=\"k\" d=\"M{:.1f} {}h{:.1f}v{}H{:.1f}z\"/>", left, top - 2,
            std::max(x_of(failures.blocked_until) - left, 2.0), height, left);
    }
    if (failures.last < content_.since || failures.last > content_.until) return;
    put("<path class=\"f\" d=\"M{:.1f} {}l5 9h-10z\"><title>{} failed logins, the last "
        "{}</title></path>",
        x_of(failures.last), top, failures.count, time_text(failures.last));
}

// Lines at round times, of local days and hours, and not too many.
void report_page::put_scale(int height) {
    constexpr int64_t most_lines = 10;
    int64_t step = hour;
    for (const int64_t hours :
         {1, 2, 3, 6, 12, 24, 48, 24 * 7, 24 * 14, 24 * 30, 24 * 90, 24 * 365}) {
        step = hours * hour;
        if (length_ / step <= most_lines) break;
    }
    const int64_t offset = local_time(content_.since).tm_gmtoff;
    const int64_t first = (content_.since + offset + step - 1) / step * step - offset;
    const int64_t stride = std::max(step, (length_ / most_lines / step + 1) * step);
    for (int64_t time = first; time <= content_.until; time += stride) {
        const double x = x_of(time);
        put("<path class=\"g\" d=\"M{:.1f} 0V{}\"/>", x, height + 4);
        if (x > page_width - half_time_text) continue;  // it would be cut off
        put("<text class=\"d\" x=\"{:.1f}\" y=\"{}\" text-anchor=\"middle\">{}</text>", x,
            height + 18, time_text(time, step < day ? "%d %b %H:%M" : "%Y-%m-%d"));
    }
}

// ---- The hours ---------------------------------------------------------------------------------

// Adds a session's connected hours to the cells that it lies in.
template <class Add>
void for_each_hour(int64_t start, int64_t end, Add add) {
    const int64_t offset = local_time(start).tm_gmtoff;
    while (start < end) {
        const int64_t next = std::min(end, (start + offset) / hour * hour + hour - offset);
        add(local_time(start), static_cast<double>(next - start) / static_cast<double>(hour));
        start = next;
    }
}

void report_page::put_hours() {
    static constexpr std::array weekdays = {"Monday", "Tuesday",  "Wednesday", "Thursday",
                                            "Friday", "Saturday", "Sunday"};
    constexpr int left = 90;
    constexpr int cell_width = (page_width - left) / 24;
    constexpr int cell_height = 20;
    std::array<std::array<double, 24>, 7> hours = {};
    for (const lane& each : lanes_) {
        for (const session* s : each.sessions) {
            for_each_hour(std::max(s->start, content_.since),
                          std::min(end_of(*s, content_.now), content_.until),
                          [&hours](const tm& when, double connected) {
                              const auto row = static_cast<size_t>((when.tm_wday + 6) % 7);
                              hours[row][static_cast<size_t>(when.tm_hour)] += connected;
                          });
        }
    }
    double most = 0;
    for (const auto& row : hours) most = std::max(most, *std::max_element(row.begin(), row.end()));
    put("<section><h2>Days and hours</h2><p>Connected hours of all users; the strongest cell has "
        "{:.1f}."
        "</p><svg viewBox=\"0 0 {} {}\" role=\"img\" aria-label=\"Connected hours by day and "
        "hour\">",
        most, page_width, 7 * cell_height + 20);
    for (size_t row = 0; row < hours.size(); ++row) {
        const int top = static_cast<int>(row) * cell_height;
        put("<text x=\"0\" y=\"{}\">{}</text>", top + 14, weekdays[row]);
        for (size_t column = 0; column < 24; ++column) {
            const double connected = hours[row][column];
            put("<rect class=\"c\" x=\"{}\" y=\"{}\" width=\"{}\" height=\"{}\" "
                "opacity=\"{:.2f}\">",
                left + static_cast<int>(column) * cell_width, top, cell_width - 2, cell_height - 2,
                most > 0 ? 0.06 + 0.94 * connected / most : 0.06);
            if (connected > 0) put("<title>{:.1f} h</title>", connected);
            put("</rect>");
        }
    }
    for (int column = 0; column < 24; column += 3) {
        put("<text class=\"d\" x=\"{}\" y=\"{}\">{:02}:00</text>", left + column * cell_width,
            7 * cell_height + 14, column);
    }
    put("</svg></section>");
}

// ---- The users ---------------------------------------------------------------------------------

void report_page::put_traffic() {
    std::vector<const lane*> ranked;
    for (const lane& each : lanes_) {
        if (each.received + each.sent > 0) ranked.push_back(&each);
    }
    if (ranked.empty()) return;
    std::stable_sort(ranked.begin(), ranked.end(), [](const lane* a, const lane* b) {
        return a->received + a->sent > b->received + b->sent;
    });
    ranked.resize(std::min(ranked.size(), most_ranked));
    constexpr int half = (chart_width - 20) / 2;
    constexpr int text_room = 70;
    double most = 0;
    for (const lane* each : ranked) most = std::max({most, each->received, each->sent});
    put("<section><h2>Most traffic</h2><svg viewBox=\"0 0 {} {}\" role=\"img\" aria-label=\"Bytes "
        "by "
        "user\"><text class=\"d\" x=\"{}\" y=\"12\">received from the client</text><text "
        "class=\"d\" "
        "x=\"{}\" y=\"12\">sent to the client</text>",
        page_width, ranked.size() * 24 + 20, label_width, label_width + half + 20);
    int top = 20;
    for (const lane* each : ranked) {
        put("<text x=\"0\" y=\"{}\">{}</text>", top + 13, short_label(each->user));
        const auto put_side = [&](int left, const char* look, double bytes) {
            const double width = bytes * (half - text_room) / most;
            put("<rect class=\"{}\" x=\"{}\" y=\"{}\" width=\"{:.1f}\" height=\"16\"/><text "
                "x=\"{:.1f}\" y=\"{}\">{}</text>",
                look, left, top, width, left + width + 6, top + 13, bytes_text(bytes));
        };
        put_side(label_width, "e", each->received);
        put_side(label_width + half + 20, "s", each->sent);
        top += 24;
    }
    put("</svg></section>");
}

void report_page::put_failures() {
    if (content_.failures.empty()) return;
    put("<section><h2>Failed logins</h2><table><tr><th>User</th><th>Failures</th><th>The last</th>"
        "<th>Blocked until</th></tr>");
    for (const failed_logins& each : content_.failures) {
        put("<tr><td>{}</td><td class=\"n\">{}</td><td>{}</td><td>{}</td></tr>", label(each.user),
            each.count, time_text(each.last),
            each.blocked_until == 0 ? "not blocked" : time_text(each.blocked_until));
    }
    put("</table></section>");
}

}  // namespace

std::string to_html(const report_content& content) { return report_page(content).write(); }
