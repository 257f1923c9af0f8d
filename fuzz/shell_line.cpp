// A line for the board's shell: its parsing and its run. Input: the line.
#include <algorithm>
#include <stdexcept>

#include "fuzz/check.h"
#include "fuzz/input.h"
#include "fuzz/powered_board.h"
#include "fuzz/targets.h"

namespace quil::fuzz {
namespace {

using board::Shell;
using Commands = std::vector<Shell::Command>;

std::string quoted(const std::string& word) {
    std::string text = "'";
    for (const char c : word) text += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return text + "'";
}

std::string lineOf(const Shell::Redirection& to) {
    if (to.toStandardOutput) return " 2>&1";
    const std::string sign = to.fd == 0 ? "<" : to.append ? ">>" : ">";
    return (to.fd == 2 ? " 2" : " ") + sign + quoted(to.path);
}

std::string lineOf(const Commands& commands) {
    std::string line;
    for (const Shell::Command& command : commands) {
        line += " " + command.before;
        for (const std::string& word : command.argv) line += " " + quoted(word);
        for (const Shell::Redirection& to : command.redirections) line += lineOf(to);
    }
    return line;
}

bool isSame(const Shell::Redirection& left, const Shell::Redirection& right) {
    return left.fd == right.fd && left.append == right.append &&
           left.toStandardOutput == right.toStandardOutput && left.path == right.path;
}

bool isSame(const Shell::Command& left, const Shell::Command& right) {
    return left.argv == right.argv && left.before == right.before &&
           std::equal(left.redirections.begin(), left.redirections.end(),
                      right.redirections.begin(), right.redirections.end(),
                      [](const auto& a, const auto& b) { return isSame(a, b); });
}

bool isSame(const Commands& left, const Commands& right) {
    return std::equal(left.begin(), left.end(), right.begin(), right.end(),
                      [](const auto& a, const auto& b) { return isSame(a, b); });
}

void checkRun(const std::string& line, bool isGood) {
    PoweredBoard board;
    const auto before = board->now();
    const int status = board->shell().run(line);
    check((status & ~0xFF00) == 0, "no wait status of an exit");
    check(board->now() >= before, "board time went back");
    if (isGood) return;
    check(status == 1 << 8, "a line that is none did not fail");
    check(board->violations().size() == 1, "a line that is none is no violation");
}

}  // namespace

void shellLine(std::span<const uint8_t> input) {
    const std::string whole = textOf(input);
    const std::string line = whole.substr(0, whole.find('\0'));  // system() takes a C string
    Commands commands;
    bool isGood = true;
    try {
        commands = board::parseShellLine(line);
    } catch (const std::runtime_error&) {
        isGood = false;
    }
    if (isGood) {
        check(isSame(board::parseShellLine(lineOf(commands)), commands),
              "quoted, it reads otherwise");
    }
    checkRun(line, isGood);
}

}  // namespace quil::fuzz
