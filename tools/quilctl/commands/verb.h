// How a command joins the command line.
#pragma once

#include <CLI/CLI.hpp>
#include <memory>
#include <string>

#include "tools/quilctl/cli.h"

namespace quil::tools {

struct VerbText {
    const char* name;
    const char* purpose;
    std::string footer;  // notes and an example
    // The options of a board that have an effect; the others are refused.
    unsigned boardOptions = kAllBoardOptions;
    Place place = Place::kInTurn;
};

template <typename Arguments>
struct Verb {
    CLI::App& command;     // options and positional arguments are added here,
    Arguments& arguments;  // and fill these
};

// A command that runs `act` with its arguments.
template <typename Arguments>
Verb<Arguments> addVerb(CLI::App& parent, Cli& cli, const VerbText& text,
                        void (*act)(const Cli&, const Arguments&, Result&)) {
    const auto arguments = std::make_shared<Arguments>();
    CLI::App* command = parent.add_subcommand(text.name, text.purpose);
    command->footer(text.footer);
    command->callback([&cli, arguments, act, options = text.boardOptions, place = text.place] {
        cli.boardOptions = options;
        cli.place = place;
        cli.action = [&cli, arguments, act](Result& result) { act(cli, *arguments, result); };
    });
    return {*command, *arguments};
}

// A command without arguments.
inline CLI::App& addVerb(CLI::App& parent, Cli& cli, const VerbText& text,
                         void (*act)(const Cli&, Result&)) {
    CLI::App* command = parent.add_subcommand(text.name, text.purpose);
    command->footer(text.footer);
    command->callback([&cli, act, options = text.boardOptions, place = text.place] {
        cli.boardOptions = options;
        cli.place = place;
        cli.action = [&cli, act](Result& result) { act(cli, result); };
    });
    return *command;
}

// A word whose commands follow it: "mcu" in "mcu update".
inline CLI::App& addGroup(CLI::App& parent, const VerbText& text) {
    CLI::App* group = parent.add_subcommand(text.name, text.purpose);
    group->require_subcommand(1);
    group->footer(text.footer);
    return *group;
}

}  // namespace quil::tools
