// The system properties, kept in the board's file "properties" from one power cycle to the next.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <string_view>

#include "board/core/services.h"

namespace quil::board {

class Properties {
  public:
    explicit Properties(BoardServices&);
    ~Properties();
    Properties(const Properties&) = delete;
    Properties& operator=(const Properties&) = delete;

    // Makes no copy, since programs read a property before each log message: the text is valid
    // while the board's lock is held.
    std::string_view find(std::string_view name, std::string_view fallback) const;
    std::string get(const std::string& name, const std::string& fallback = "") const;
    void set(const std::string& name, const std::string& value);
    // Stands before the kept value until the board is off, or until it is dropped.
    void setForThisRun(const std::string& name, const std::string& value);
    void dropForThisRun(const std::string& name);

  private:
    using Values = std::map<std::string, std::string, std::less<>>;

    BoardServices& mBoard;
    Values mValues, mOfThisRun;
    // What was found last, null: nothing. The same property is read before each log message.
    mutable std::string mLastName;
    mutable const std::string* mLastValue = nullptr;
};

}  // namespace quil::board
