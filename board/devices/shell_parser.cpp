// The parser of the board's shell.
#include <ctype.h>

#include <optional>
#include <stdexcept>

#include "board/devices/shell.h"

namespace quil::board {
namespace {

// A word, or an operator; a word may be empty when it was quoted.
struct Token {
    bool isOperator;
    std::string text;
};

[[noreturn]] void refuseWord(const std::string& what) {
    throw std::runtime_error("syntax error: " + what + " unexpected");
}

class Lexer {
  public:
    explicit Lexer(std::string_view line) : mRest(line) {}

    std::optional<Token> next() {
        while (!mRest.empty() && (mRest[0] == ' ' || mRest[0] == '\t')) mRest.remove_prefix(1);
        if (mRest.empty() || mRest[0] == '#') return std::nullopt;
        for (const std::string_view sign :
             {"2>&1", "2>>", "2>", "1>>", "1>", "&&", "||", ">>", ">", "<", ";", "\n"}) {
            if (mRest.substr(0, sign.size()) != sign) continue;
            mRest.remove_prefix(sign.size());
            return Token{true, std::string(sign == "\n" ? ";" : sign)};
        }
        return Token{false, word()};
    }

  private:
    std::string word() {
        std::string text;
        while (!mRest.empty() && std::string_view(" \t\n;<>").find(mRest[0]) == mRest.npos) {
            const char c = take();
            if (c == '\'') {
                while (char quoted = inQuotes('\'')) text += quoted;
            } else if (c == '"') {
                doubleQuoted(text);
            } else if (c == '\\') {
                if (!mRest.empty()) text += take();
            } else if (std::string_view("$`|&()*?[{~").find(c) != std::string_view::npos) {
                refuseWord(std::string("'") + c + "'");
            } else {
                text += c;
            }
        }
        return text;
    }

    void doubleQuoted(std::string& text) {
        while (char c = inQuotes('"')) {
            if (c == '$' || c == '`') refuseWord(std::string("'") + c + "'");
            const bool escapes =
                c == '\\' && !mRest.empty() && (mRest[0] == '"' || mRest[0] == '\\');
            text += escapes ? take() : c;
        }
    }

    // The next character inside quotes; 0 at their end.
    char inQuotes(char quote) {
        if (mRest.empty()) refuseWord("end of file");
        const char c = take();
        return c == quote ? '\0' : c;
    }

    char take() {
        const char c = mRest[0];
        mRest.remove_prefix(1);
        return c;
    }

    std::string_view mRest;
};

Shell::Redirection redirection(const std::string& sign, Lexer& lexer) {
    if (sign == "2>&1") return {2, false, true, ""};
    const int fd = sign[0] == '2' ? 2 : sign[0] == '<' ? 0 : 1;
    const auto target = lexer.next();
    if (!target || target->isOperator) refuseWord(target ? "'" + target->text + "'" : "newline");
    return {fd, sign.size() >= 2 && sign.substr(sign.size() - 2) == ">>", false, target->text};
}

bool isEmpty(const Shell::Command& command) {
    return command.argv.empty() && command.redirections.empty();
}

}  // namespace

std::vector<Shell::Command> parseShellLine(std::string_view line) {
    std::vector<Shell::Command> commands;
    Shell::Command current;
    Lexer lexer(line);
    while (const auto token = lexer.next()) {
        if (!token->isOperator) {
            current.argv.push_back(token->text);
        } else if (token->text == ";" || token->text == "&&" || token->text == "||") {
            if (isEmpty(current)) refuseWord("'" + token->text + "'");
            commands.push_back(std::move(current));
            current = {{}, {}, token->text};
        } else {
            current.redirections.push_back(redirection(token->text, lexer));
        }
    }
    if (!isEmpty(current)) {
        commands.push_back(std::move(current));
    } else if (current.before == "&&" || current.before == "||") {
        refuseWord("newline");
    }
    return commands;
}

}  // namespace quil::board
