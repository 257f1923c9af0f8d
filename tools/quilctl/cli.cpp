#include "tools/quilctl/cli.h"

#include <string.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <ostream>
#include <stdexcept>

#include "tools/quilctl/commands/verb.h"
#include "tools/quilctl/output/nearest_words.h"
#include "tools/quilctl/output/wrap.h"

namespace quil::tools {
namespace {

std::string listOf(const std::vector<std::string>& words, const char* separator = ", ") {
    std::string text;
    for (const std::string& word : words) text += (text.empty() ? "" : separator) + word;
    return text;
}

std::vector<const CLI::App*> commandsOf(const CLI::App& app) {
    return app.get_subcommands([](const CLI::App* /*any*/) { return true; });
}

std::vector<std::string> optionsOf(const CLI::App& app) {
    std::vector<std::string> names;
    for (const CLI::Option* option : app.get_options()) {
        for (const std::string& name : option->get_lnames()) names.push_back("--" + name);
    }
    return names;
}

// The innermost command that the parser recognised.
const CLI::App& reached(const CLI::App& app) {
    const auto chosen = app.get_subcommands();
    return chosen.empty() ? app : reached(*chosen.front());
}

// "mcu update"; empty for the program itself.
std::string wordsOf(const CLI::App& app) {
    const CLI::App* parent = app.get_parent();
    if (parent == nullptr) return "";
    const std::string before = wordsOf(*parent);
    return before.empty() ? app.get_name() : before + " " + app.get_name();
}

std::string unknownWord(const CLI::App& app, const CLI::App& at, const std::string& word) {
    std::vector<std::string> known;
    if (word.front() == '-') {
        known = optionsOf(at);
        for (const std::string& name : optionsOf(app)) {
            if (std::find(known.begin(), known.end(), name) == known.end()) known.push_back(name);
        }
    } else {
        for (const CLI::App* command : commandsOf(at)) known.push_back(command->get_name());
    }
    const auto nearest = nearestWords(word, known);
    std::string text = "unknown word '" + word + "'";
    if (!nearest.empty()) return text + "; the nearest: " + listOf(nearest);
    return known.empty() ? text : text + "; known: " + listOf(known);
}

// What is wrong with the command line, and where the help for it is.
std::string explain(const CLI::App& app, const CLI::ParseError& error) {
    const CLI::App& at = reached(app);
    std::string text = error.what();
    const auto remaining = app.remaining(true);
    const bool misses = !commandsOf(at).empty();
    if (!remaining.empty()) {
        text = unknownWord(app, at, remaining.front());
    } else if (misses && at.get_subcommands().empty()) {
        std::vector<std::string> names;
        for (const CLI::App* command : commandsOf(at)) names.push_back(command->get_name());
        text = "a command is missing: " + listOf(names);
    }
    const std::string words = wordsOf(at);
    return text + " (see quilctl " + (words.empty() ? "" : words + " ") + "--help)";
}

struct BoardOptionRow {
    const char* name;
    BoardOption bit;
};
constexpr BoardOptionRow kBoardOptions[] = {
    {"--board", kBoardOption}, {"--product", kProductOption},
    {"--trace", kTraceOption}, {"--log-level", kLogLevelOption},
    {"--seed", kSeedOption},   {"--realtime", kRealtimeOption},
};

// Notes which of them were given, and refuses those that would have no effect.
void checkBoardOptions(const CLI::App& app, Cli& cli) {
    std::string idle;
    for (const BoardOptionRow& row : kBoardOptions) {
        const CLI::Option* option = app.get_option_no_throw(row.name);
        if (option == nullptr || option->count() == 0) continue;
        cli.options.given |= row.bit;
        if ((cli.boardOptions & row.bit) == 0)
            idle += (idle.empty() ? "" : ", ") + std::string(row.name);
    }
    if (idle.empty()) return;
    const std::string words = wordsOf(reached(app));
    const bool hasBoard = (cli.boardOptions & kTraceOption) != 0;
    throw Failure(kUsage, idle + ": no effect on " + words +
                              (hasBoard ? "" : ", which powers no board") + " (see quilctl " +
                              words + " --help)");
}

struct HelpArguments {
    CLI::App* program = nullptr;
    std::vector<std::string> words;
};

// Help is for people: in a file it is as wide as on the usual terminal.
void addHelp(const CLI::App& command, const Screen& screen, Result& result) {
    constexpr size_t kWide = 80, kNarrow = 60;
    const size_t columns = screen.columns == 0 ? kWide : std::min(kWide, screen.columns);
    const std::string words = wordsOf(command);
    command.get_formatter()->column_width(columns < kNarrow ? 8 : 26);
    const std::string help = command.get_formatter()->make_help(
        &command, words.empty() ? "quilctl" : "quilctl " + words, CLI::AppFormatMode::Normal);
    result.text << wrapped(help, columns);
    result.json["help"] = wrapped(help, columns);
}

void showHelp(const Cli& cli, const HelpArguments& arguments, Result& result) {
    const CLI::App* command = arguments.program;
    for (const std::string& word : arguments.words) {
        const auto known = commandsOf(*command);
        const auto next = std::find_if(known.begin(), known.end(), [&](const CLI::App* one) {
            return one->get_name() == word;
        });
        if (next == known.end()) throw Failure(kUsage, unknownWord(*command, *command, word));
        command = *next;
    }
    addHelp(*command, cli.console.screen, result);
}

std::string footerOf(const Program& program) {
    std::string text = "Exit codes:\n";
    for (const ExitCodeRow& row : kExitCodes) {
        text += "  " + std::to_string(row.code) + "  " + row.meaning + "\n";
    }
    return text + "Examples:\n" + program.examples;
}

// A command's own help has its own options only, and says where the others are.
class HelpFormatter : public CLI::Formatter {
    std::string make_footer(const CLI::App* app) const override {
        if (app->get_parent() == nullptr) return CLI::Formatter::make_footer(app);
        const CLI::App* program = app;
        while (program->get_parent() != nullptr) program = program->get_parent();
        return CLI::Formatter::make_footer(app) +
               "\nGlobal options, described by quilctl --help:\n  " +
               listOf(optionsOf(*program), " ") + "\n";
    }
};

void build(const Program& program, CLI::App& app, Cli& cli) {
    app.formatter(std::make_shared<HelpFormatter>());
    app.footer(footerOf(program));
    app.require_subcommand(1);
    app.fallthrough();
    app.set_version_flag("--version", kVersion);
    app.add_flag("--json", cli.options.json, "Print one line of JSON (docs/quilctl.md)");
    app.add_flag("--quiet", cli.options.quiet, "No progress and no log on the error stream");
    app.add_option("--progress", cli.options.progress,
                   "Progress on the error stream as text or as one JSON object a line, or none")
        ->check(CLI::IsMember({"text", "json", "none"}));
    program.addCommands(app, cli);
    const auto help = addVerb(
        app, cli,
        {"help", "Print the help of a command", "Example: quilctl help get", kNoBoardOption},
        showHelp);
    help.arguments.program = &app;
    help.command.add_option("COMMAND", help.arguments.words, "The command's words");
}

void collect(const CLI::App& app, const Words& before, std::vector<Words>& verbs) {
    for (const CLI::App* command : commandsOf(app)) {
        Words words = before;
        words.push_back(command->get_name());
        if (commandsOf(*command).empty()) verbs.push_back(words);
        collect(*command, words, verbs);
    }
}

// Parses and acts. Help and the version are results like any other.
void perform(CLI::App& app, int argc, const char* const* argv, Cli& cli, Result& result,
             const std::function<bool()>& actsHere) {
    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp&) {
        return addHelp(reached(app), cli.console.screen, result);
    } catch (const CLI::CallForVersion&) {
        result.text << "quilctl " << kVersion << '\n';
        result.json["version"] = kVersion;
        return;
    } catch (const CLI::ParseError& error) {
        throw Failure(kUsage, explain(app, error));
    }
    checkBoardOptions(app, cli);
    if (cli.options.quiet) cli.console.report.silence();
    if (actsHere()) cli.action(result);
}

// The failures that ended a command early. An error of the system counts as one of the board.
std::vector<Failure> failuresOf(const std::function<void()>& command) {
    try {
        command();
    } catch (const Failure& failure) {
        return {failure};
    } catch (const std::runtime_error& error) {
        return {{kNoBoard, error.what()}};
    } catch (const std::bad_alloc&) {
        return {{kInternal, kNoMemory}};
    } catch (const std::exception& error) {
        return {{kInternal, std::string("internal error: ") + error.what()}};
    } catch (...) {
        return {{kInternal, "internal error"}};
    }
    return {};
}

bool isLost(const Failure& failure) { return failure.code() == kNoBoard; }
bool isInterruption(const Failure& failure) { return failure.code() >= kHungUp; }

// The command line, quoted so that it can be given to a shell again.
std::string typed(int argc, const char* const* argv) {
    std::string line = "quilctl";
    for (int i = 1; i < argc; ++i) {
        const std::string word = argv[i];
        const bool isPlain =
            !word.empty() &&
            word.find_first_not_of(
                "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_@%+=:,./-") ==
                std::string::npos;
        line += ' ';
        if (isPlain) {
            line += word;
            continue;
        }
        line += '\'';
        for (const char c : word) line += c == '\'' ? "'\\''" : std::string(1, c);
        line += '\'';
    }
    return line;
}

// The value of an option wherever it stands: what cannot be parsed has to be told in some form,
// too.
std::string givenValue(int argc, const char* const* argv, const std::string& option) {
    std::string value;
    for (int i = 1; i < argc; ++i) {
        const std::string word = argv[i];
        if (word == option && i + 1 < argc) value = argv[i + 1];
        if (word.rfind(option + "=", 0) == 0) value = word.substr(option.size() + 1);
    }
    return value;
}

ReportForm formOf(const std::string& name) {
    return name == "json"   ? ReportForm::kJson
           : name == "text" ? ReportForm::kText
           : name == "none" ? ReportForm::kNone
                            : ReportForm::kAuto;
}

// A trace that goes to standard output has it for itself: a program reads it there.
bool givesAwayOutput(const Options& options) {
    return std::any_of(options.traceFiles.begin(), options.traceFiles.end(), [](const auto& name) {
        return name == "-" || (name.size() > 2 && name.substr(name.size() - 2) == ":-");
    });
}

// Who reads the error stream sees the result as well.
bool isOnView(const Streams& streams, ReportForm form) {
    if (streams.outScreen.isTerminal) return form != ReportForm::kJson;
    return form == ReportForm::kAuto && !streams.errScreen.isTerminal;
}

int runAndPrint(const Program& program, int argc, const char* const* argv, const Streams& streams) {
    const bool asJson = std::any_of(argv, argv + argc,
                                    [](const char* word) { return strcmp(word, "--json") == 0; });
    Reporter report(streams.err, streams.errScreen, formOf(givenValue(argc, argv, "--progress")));
    WrappingBuffer lines(streams.out, streams.outScreen.columns);
    std::ostream text(&lines);
    std::ostream& out = asJson || !streams.outScreen.isTerminal ? streams.out : text;
    std::vector<Failure> late;
    Cli cli{{},
            {streams.in, streams.out, report.notes(), report, streams.outScreen,
             !asJson && isOnView(streams, report.form()), late},
            program.connect,
            {}};
    CLI::App app(program.purpose, "quilctl");
    build(program, app, cli);
    cli.options.commandLine = typed(argc, argv);
    Result result;
    const auto stream = [&]() -> std::ostream& {
        return givesAwayOutput(cli.options) ? streams.err : out;
    };
    std::optional<int> code;  // of a command that ran elsewhere
    auto failures = failuresOf([&] {
        perform(app, argc, argv, cli, result, [&] {
            if (!asJson) result.showOn(&stream());
            if (program.forward != nullptr) code = program.forward(cli, {argc, argv}, streams);
            return !code;
        });
    });
    if (code) return *code;
    // What fails after an interruption fails because of it.
    const auto other = std::stable_partition(late.begin(), late.end(), isInterruption);
    if (other != late.begin()) failures.clear();
    // The result is dropped: what it says was not stored, or not reached.
    if (other != late.begin() || std::any_of(late.begin(), late.end(), isLost)) {
        result.text.str("");
        result.json.clear();
    }
    failures.insert(failures.end(), late.begin(), late.end());
    if (cli.conclude) {
        const auto more = failuresOf([&] { cli.conclude(result, failures); });
        failures.insert(failures.end(), more.begin(), more.end());
    }
    return print({stream(), report, asJson}, wordsOf(reached(app)), result, failures);
}

}  // namespace

int run(const Program& program, int argc, const char* const* argv, const Streams& streams) {
    int code = kInternal;
    const auto failures = failuresOf([&] { code = runAndPrint(program, argc, argv, streams); });
    for (const Failure& failure : failures) streams.err << "quilctl: " << failure.what() << '\n';
    return failures.empty() ? code : kInternal;
}

std::vector<Words> verbsOf(const Program& program) {
    std::istream in(nullptr);
    std::ostream nowhere(nullptr);
    Reporter report(nowhere, {}, ReportForm::kNone);
    std::vector<Failure> late;
    Cli cli{{}, {in, nowhere, nowhere, report, {}, false, late}, program.connect, {}};
    CLI::App app(program.purpose, "quilctl");
    build(program, app, cli);
    std::vector<Words> verbs;
    collect(app, {}, verbs);
    return verbs;
}

}  // namespace quil::tools
