// Lines that fit a terminal.
#pragma once

#include <ostream>
#include <streambuf>
#include <string>

namespace quil::tools {

// Breaks each line that is longer at spaces. What follows stands below the last column of a table
// when there is room for it, and otherwise a little to the right of the line. A longer word stays
// whole, so that it can be copied.
std::string wrapped(const std::string& text, size_t columns);

// Passes lines on to a stream, wrapped. What has no end yet, such as a bar that will be written
// over, goes out as it is when the stream is flushed.
class WrappingBuffer : public std::streambuf {
  public:
    WrappingBuffer(std::ostream& to, size_t columns) : mTo(to), mColumns(columns) {}

  private:
    int overflow(int character) override;
    std::streamsize xsputn(const char* text, std::streamsize count) override;
    int sync() override;
    void put(char character);

    std::ostream& mTo;
    const size_t mColumns;
    std::string mLine;
};

}  // namespace quil::tools
