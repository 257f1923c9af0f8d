// The hardships that every command has to stand.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "tests/torture/case.h"

namespace quil::torture {

// A command, as the conditions see it.
struct Subject {
    tools::Words verb;
    bool powersBoard = true;
    bool serves = false;
    const std::vector<tools::Words>& others;  // all commands
    // The outcome of the case without its hardship.
    std::function<const Outcome&(const Case&)> usual;

    bool meetsBoard() const { return powersBoard || verb.front() == "board"; }
};

struct Condition {
    const char* name;
    std::vector<Case> (*cases)(const Subject& subject);
};

const std::vector<Condition>& conditions();

}  // namespace quil::torture
