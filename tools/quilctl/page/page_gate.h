// Who may ask the page's server what. It answers on 127.0.0.1, where every user of the machine and
// every page in the user's browser can send requests.
#pragma once

#include <httplib.h>

#include <optional>
#include <string>
#include <vector>

namespace quil::tools {

struct PageGate {
    int port;
    std::string token;

    std::string cookieName() const { return "quil_" + std::to_string(port); }
    std::string origin() const { return "http://127.0.0.1:" + std::to_string(port); }
    // True for the address that serve prints, with the token in it.
    bool isFirstVisit(const httplib::Request& request) const;
    // The status and why, when it is refused.
    struct Refusal {
        int status;
        const char* why;
    };
    std::optional<Refusal> refusalFor(const httplib::Request& request) const;
};

std::string newToken();  // 128 bits of chance

// A command that the page may run, and whether it waits for its turn.
struct PageCommand {
    std::vector<std::string> words;
    bool atOnce;
    bool isLocal;  // it needs no board
};
// None for what the page has no business with: a command that writes files, an option of that kind.
std::optional<PageCommand> pageCommandIn(const std::string& body);

}  // namespace quil::tools
