#include "tools/quilctl/output/wrap.h"

#include <algorithm>
#include <vector>

namespace quil::tools {
namespace {

constexpr char kStyleBegins = '\033', kStyleEnds = 'm';

// For each place of the line, the columns before it: style sequences and the further bytes of a
// character take none.
std::vector<size_t> columnsOf(const std::string& line) {
    std::vector<size_t> columns;
    size_t column = 0;
    bool isStyle = false;
    for (const char c : line) {
        columns.push_back(column);
        isStyle = isStyle || c == kStyleBegins;
        const bool isFurtherByte = (static_cast<unsigned char>(c) & 0xC0) == 0x80;
        if (!isStyle && !isFurtherByte) ++column;
        if (c == kStyleEnds) isStyle = false;
    }
    columns.push_back(column);
    return columns;
}

// Where the lines that follow begin.
size_t indentOf(const std::string& line, size_t columns) {
    constexpr size_t kColumnsApart = 2, kDeep = 8;
    const size_t leading = std::min(line.find_first_not_of(' '), line.size());
    size_t indent = leading >= kDeep ? leading : leading + kColumnsApart;
    for (size_t at = leading; (at = line.find("  ", at)) != std::string::npos;) {
        at = line.find_first_not_of(' ', at);
        if (at == std::string::npos || at > columns / 2) break;
        indent = at;
    }
    return std::min(indent, columns / 2);
}

// The place after which the line is broken; its size when it is not.
size_t breakOf(const std::string& line, size_t columns) {
    const auto widths = columnsOf(line);
    if (widths.back() <= columns) return line.size();
    const size_t first = line.find_first_not_of(' ');
    size_t best = line.size();
    for (size_t at = first; at < line.size(); ++at) {
        const bool isPlace = line[at] == ' ' || (line[at] == ',' && line[at + 1] != ' ');
        if (!isPlace) continue;
        const size_t end = line[at] == ' ' ? widths[at] : widths[at + 1];
        if (end > columns && best != line.size()) break;
        best = line[at] == ' ' ? at : at + 1;
        if (end > columns) break;
    }
    return best;
}

void wrapLine(std::string line, size_t columns, std::string& text) {
    const std::string indent(indentOf(line, columns), ' ');
    for (;;) {
        const size_t end = breakOf(line, columns);
        const size_t next = std::min(line.find_first_not_of(' ', end), line.size());
        std::string head = line.substr(0, end);
        head.erase(head.find_last_not_of(' ') + 1);
        text += next == line.size() ? line : head;
        if (next == line.size()) return;
        text += '\n';
        line.replace(0, next, indent);
    }
}

}  // namespace

std::string wrapped(const std::string& text, size_t columns) {
    if (columns == 0) return text;
    std::string result;
    for (size_t begin = 0; begin < text.size();) {
        const size_t end = std::min(text.find('\n', begin), text.size());
        wrapLine(text.substr(begin, end - begin), columns, result);
        if (end < text.size()) result += '\n';
        begin = end + 1;
    }
    return result;
}

void WrappingBuffer::put(char character) {
    mLine += character;
    if (character != '\n') return;
    mTo << wrapped(mLine, mColumns);
    mLine.clear();
}

int WrappingBuffer::overflow(int character) {
    if (character != traits_type::eof()) put(traits_type::to_char_type(character));
    return mTo ? traits_type::not_eof(character) : traits_type::eof();
}

std::streamsize WrappingBuffer::xsputn(const char* text, std::streamsize count) {
    for (std::streamsize i = 0; i < count; ++i) put(text[i]);
    return mTo ? count : 0;
}

int WrappingBuffer::sync() {
    mTo << mLine;
    mLine.clear();
    mTo.flush();
    return mTo ? 0 : -1;
}

}  // namespace quil::tools
