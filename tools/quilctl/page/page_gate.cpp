#include "tools/quilctl/page/page_gate.h"

#include <sys/random.h>

#include <algorithm>
#include <array>
#include <set>
#include <stdexcept>

#include "tools/quilctl/output/result.h"

namespace quil::tools {
namespace {

// Takes the same time wherever they differ.
bool areSame(const std::string& a, const std::string& b) {
    unsigned difference = a.size() == b.size() ? 0 : 1;
    for (size_t i = 0; i < std::min(a.size(), b.size()); ++i) {
        difference |= static_cast<unsigned char>(a[i]) ^ static_cast<unsigned char>(b[i]);
    }
    return difference == 0;
}

// The value of a cookie in "a=1; b=2".
std::string cookieIn(const std::string& header, const std::string& name) {
    size_t at = 0;
    while (at < header.size()) {
        const size_t end = std::min(header.find(';', at), header.size());
        const size_t begin = header.find_first_not_of(' ', at);
        const std::string pair = begin < end ? header.substr(begin, end - begin) : "";
        if (pair.rfind(name + "=", 0) == 0) return pair.substr(name.size() + 1);
        at = end + 1;
    }
    return "";
}

struct PageCommandRow {
    const char* words;
    bool atOnce;
    bool isLocal;
};
constexpr std::array<PageCommandRow, 19> kPageCommands = {{
    {"status", true, false},        {"power cut", true, false},    {"fault add", true, false},
    {"fault list", true, false},    {"fault clear", true, false},  {"power on", false, false},
    {"board reset", false, false},  {"power low", false, false},   {"power normal", false, false},
    {"get", false, false},          {"set", false, false},         {"self-test", false, false},
    {"boot", false, false},         {"mcu update", false, false},  {"mcu version", false, false},
    {"fpga load", false, false},    {"fpga status", false, false}, {"config show", false, false},
    {"commands list", false, true},
}};

bool isAllowedOption(const std::string& word) {
    static const std::set<std::string> allowed = {"--data", "--break", "--fault", "--update-fpga",
                                                  "--log-level"};
    return word.empty() || word.front() != '-' || allowed.count(word) != 0;
}

const PageCommandRow* pageRowOf(const std::vector<std::string>& words) {
    if (words.empty()) return nullptr;
    const std::string two = words.size() > 1 ? words[0] + " " + words[1] : "";
    const auto* const row = std::find_if(
        kPageCommands.begin(), kPageCommands.end(),
        [&](const PageCommandRow& one) { return one.words == words[0] || one.words == two; });
    return row == kPageCommands.end() ? nullptr : row;
}

}  // namespace

std::string newToken() {
    std::array<unsigned char, 16> bytes{};
    if (getrandom(bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size())) {
        throw std::runtime_error("the system has no random bytes for the page's token");
    }
    std::string token;
    for (const unsigned char byte : bytes) {
        constexpr char kDigits[] = "0123456789abcdef";
        token += kDigits[byte >> 4];
        token += kDigits[byte & 15];
    }
    return token;
}

bool PageGate::isFirstVisit(const httplib::Request& request) const {
    return request.method == "GET" && request.path == "/" &&
           areSame(request.get_param_value("token"), token);
}

// A foreign page can make the browser send a request, but neither choose its Host nor hide its
// Origin; and a cookie that is SameSite=Strict does not go with it.
std::optional<PageGate::Refusal> PageGate::refusalFor(const httplib::Request& request) const {
    const std::string host = request.get_header_value("Host");
    if (host != origin().substr(sizeof("http://") - 1)) return Refusal{403, "another host"};
    const bool isPost = request.method == "POST";
    if (!isPost && request.method != "GET") return Refusal{405, "only GET and POST"};
    const std::string from = request.get_header_value("Origin");
    if (isPost ? from != origin() : !from.empty() && from != origin()) {
        return Refusal{403, "another origin"};
    }
    if (isPost && request.get_header_value("Content-Type") != "application/json") {
        return Refusal{415, "only application/json"};
    }
    if (isFirstVisit(request)) return std::nullopt;
    if (!areSame(cookieIn(request.get_header_value("Cookie"), cookieName()), token)) {
        return Refusal{401, "open the address that quilctl has printed"};
    }
    return std::nullopt;
}

std::optional<PageCommand> pageCommandIn(const std::string& body) {
    const Json document = Json::parse(body, nullptr, false);
    if (!document.is_object() || !document.contains("words")) return std::nullopt;
    PageCommand command{};
    for (const Json& word : document["words"]) {
        if (!word.is_string()) return std::nullopt;
        command.words.push_back(word.get<std::string>());
        if (!isAllowedOption(command.words.back())) return std::nullopt;
    }
    const PageCommandRow* row = pageRowOf(command.words);
    if (row == nullptr) return std::nullopt;
    command.atOnce = row->atOnce;
    command.isLocal = row->isLocal;
    command.words.insert(command.words.begin(), {"--json", "--progress", "json"});
    return command;
}

}  // namespace quil::tools
