// The system properties, kept in the board directory from one power cycle to the next.
#pragma once

#include <filesystem>
#include <map>
#include <string>

namespace quil::board {

class Properties {
  public:
    explicit Properties(std::filesystem::path file);
    ~Properties();
    Properties(const Properties&) = delete;
    Properties& operator=(const Properties&) = delete;

    std::string get(const std::string& name, const std::string& fallback = "") const;
    void set(const std::string& name, const std::string& value);

  private:
    std::filesystem::path file_;
    std::map<std::string, std::string> values_;
};

}  // namespace quil::board
