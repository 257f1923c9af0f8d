// Whether the part behind a port is the one that is meant. The board's own flow asks the part for
// its name, and erases whatever the answer; this listens to both, and holds the erase back.
#pragma once

#include <optional>
#include <string>

#include "board/core/trace.h"
#include "programmer/parts.h"
#include "tools/quilctl/programming/product_id.h"

namespace quil::tools {

class PartGate {
  public:
    PartGate(std::string port, const programmer::Part& expected)
        : mPort(std::move(port)), mExpected(expected) {}

    void see(const board::Event& event);
    // Asked before each write to the port. False: an erase, and the part has not said that it is
    // the expected one.
    bool passes(std::span<const uint8_t> request);
    // Why something was held back; "" if nothing was.
    const std::string& refusal() const { return mRefusal; }

  private:
    void answered();
    bool isExpected() const;

    const std::string mPort;
    const programmer::Part& mExpected;
    Bytes mAsked, mAnswer;
    std::optional<ProductId> mId;
    std::string mName;  // of an N32
    std::string mRefusal;
};

}  // namespace quil::tools
