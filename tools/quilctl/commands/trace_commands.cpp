// Traces of two runs beside each other.
#include <math.h>
#include <stdio.h>
#include <stdlib.h>

#include <algorithm>
#include <map>
#include <optional>

#include "tools/quilctl/commands/verb.h"
#include "tools/quilctl/files/input_file.h"
#include "tools/quilctl/traces/trace_file.h"

namespace quil::tools {
namespace {

constexpr char kTotal[] = "total";

struct CompareArguments {
    std::string first, second;
    std::vector<std::string> budgets;
};

struct StageTimes {
    std::string stage;
    std::optional<double> first, second;  // seconds
};

double secondsOfSpan(int64_t nanoseconds) { return static_cast<double>(nanoseconds) / 1e9; }

// A stage that comes several times counts with all of its times.
std::map<std::string, double> stagesIn(const std::string& file, std::vector<std::string>& order) {
    const auto spans = stagesOf(readTraceFile(readInput(file)));
    if (spans.empty()) {
        throw Failure(kBadData,
                      file +
                          ": it has no stages: no start-up, no step of the demo, no erasing, "
                          "writing or reading of a flash, and no request",
                      "quilctl --trace " + file + " boot");
    }
    std::map<std::string, double> times;
    int64_t end = spans.front().from;
    for (const TraceSpan& span : spans) {
        const std::string stage = span.name.substr(0, span.name.find(": "));
        times[stage] += secondsOfSpan(span.took);
        end = std::max(end, span.from + span.took);
        if (std::find(order.begin(), order.end(), stage) == order.end()) order.push_back(stage);
    }
    times[kTotal] = secondsOfSpan(end - spans.front().from);
    return times;
}

std::vector<StageTimes> compared(const CompareArguments& arguments) {
    std::vector<std::string> order;
    const auto first = stagesIn(arguments.first, order), second = stagesIn(arguments.second, order);
    order.emplace_back(kTotal);
    const auto timeIn = [](const auto& times, const std::string& stage) {
        const auto found = times.find(stage);
        return found == times.end() ? std::nullopt : std::optional(found->second);
    };
    std::vector<StageTimes> rows;
    rows.reserve(order.size());
    for (const std::string& stage : order) {
        rows.push_back({stage, timeIn(first, stage), timeIn(second, stage)});
    }
    return rows;
}

std::string cell(const std::optional<double>& seconds, const char* form) {
    if (!seconds) return "-";
    char text[32];
    snprintf(text, sizeof(text), form, *seconds);
    return text;
}

size_t widthOf(const std::vector<StageTimes>& rows) {
    size_t width = 20;
    for (const StageTimes& row : rows) width = std::max(width, row.stage.size());
    return width;
}

std::string tableLine(const std::string& stage, size_t width, const std::string& a,
                      const std::string& b, const std::string& more) {
    char cells[96];
    snprintf(cells, sizeof(cells), " %12s %12s %13s\n", a.c_str(), b.c_str(), more.c_str());
    return stage + std::string(width - stage.size(), ' ') + cells;
}

void show(const StageTimes& row, size_t width, Result& result) {
    std::optional<double> more;
    if (row.first && row.second) more = *row.second - *row.first;
    result.text << tableLine(row.stage, width, cell(row.first, "%.3f s"),
                             cell(row.second, "%.3f s"), cell(more, "%+.3f s"));
    const auto number = [](const std::optional<double>& value) {
        return value ? Json(*value) : Json();
    };
    result.json["stages"].push_back({{"stage", row.stage},
                                     {"a", number(row.first)},
                                     {"b", number(row.second)},
                                     {"difference", number(more)}});
}

struct Budget {
    std::string stage;
    double seconds;
};

std::optional<Budget> budgetIn(const std::string& text) {
    const size_t equals = text.rfind('=');
    if (equals == std::string::npos || equals == 0 || equals + 1 == text.size()) return {};
    char* end = nullptr;
    const double seconds = strtod(text.c_str() + equals + 1, &end);
    if (*end != '\0' || !(seconds >= 0) || !isfinite(seconds)) return {};
    return Budget{text.substr(0, equals), seconds};
}

// A budget that holds for nothing is a mistake: it would never be exceeded.
double timeOf(const Budget& budget, const std::vector<StageTimes>& rows, const std::string& file) {
    for (const StageTimes& row : rows) {
        if (row.stage == budget.stage && row.second) return *row.second;
    }
    std::string stages;
    for (const StageTimes& row : rows) {
        if (row.second) stages.append(stages.empty() ? "" : ", ").append(row.stage);
    }
    throw Failure(kUsage, "--budget " + budget.stage + ": " + file + " has no such stage",
                  "it has " + stages);
}

void compareTraces(const Cli& /*cli*/, const CompareArguments& arguments, Result& result) {
    const std::vector<StageTimes> rows = compared(arguments);
    const size_t width = widthOf(rows);
    result.text << tableLine("stage", width, "A", "B", "B - A");
    for (const StageTimes& row : rows) show(row, width, result);
    std::string over;
    result.json["over"] = Json::array();
    for (const std::string& text : arguments.budgets) {
        const Budget budget = *budgetIn(text);
        const double took = timeOf(budget, rows, arguments.second);
        if (took <= budget.seconds) continue;
        over.append(over.empty() ? "" : "; ")
            .append(budget.stage + " took " + cell(took, "%.3f s") + ", its budget is " +
                    cell(budget.seconds, "%.3f s"));
        result.json["over"].push_back(
            {{"stage", budget.stage}, {"seconds", took}, {"budget", budget.seconds}});
    }
    if (!over.empty()) throw Failure(kOverBudget, over);
}

CLI::Validator stageBudget() {
    return CLI::Validator(
        [](std::string& text) -> std::string {
            if (budgetIn(text)) return {};
            return "'" + text + "' is no budget such as network=1.5";
        },
        "STAGE=SECONDS");
}

}  // namespace

void addTraceCommands(CLI::App& app, Cli& cli) {
    CLI::App& trace = addGroup(
        app, {"trace", "What --trace has written", "Example: quilctl trace compare --help"});
    const auto [command, arguments] =
        addVerb(trace, cli,
                {"compare", "Compare the stages of two runs",
                 "Reads what --trace writes as .json or .pftrace. Stages are those that boot,\n"
                 "fpga load and demo tell; of another command what it did: it connected to the\n"
                 "MCU's boot loader, erased, wrote and read its flash, programmed the FPGA's\n"
                 "flash, asked the service. The budgets are those of B; 'total' is the time\n"
                 "from the first stage's beginning to the last one's end. Exit code 10 when one\n"
                 "is exceeded.\n"
                 "Example: quilctl --trace a.json boot\n"
                 "         quilctl --trace b.pftrace boot --update-fpga\n"
                 "         quilctl trace compare a.json b.pftrace --budget network=1.5",
                 kNoBoardOption},
                compareTraces);
    command.add_option("A", arguments.first, "The trace to compare with")->required();
    command.add_option("B", arguments.second, "The trace that has to keep the budgets")->required();
    command
        .add_option("--budget", arguments.budgets,
                    "The most that a stage of B may take, in seconds of board time; may be given "
                    "several times")
        ->take_all()
        ->allow_extra_args(false)
        ->check(stageBudget());
}

}  // namespace quil::tools
