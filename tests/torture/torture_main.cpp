// Drives every command of quilctl under every condition and prints what came out.
#include <signal.h>
#include <stdio.h>

#include <CLI/CLI.hpp>
#include <thread>

#include "tests/torture/conditions.h"
#include "tests/torture/torture.h"

namespace {

using namespace quil::torture;

void print(const Finding& finding, bool withDetails) {
    if (!finding.complaint.empty()) {
        fprintf(stderr, "FAILED %s: %s: %s: %s\n       %s\n", finding.condition.c_str(),
                finding.verb.c_str(), finding.caseName.c_str(), finding.complaint.c_str(),
                replayOf(finding).c_str());
    }
    if (withDetails) fprintf(stderr, "%s\n%s", finding.caseName.c_str(), finding.details.c_str());
}

Row sumOf(const std::vector<Row>& rows) {
    Row sum{"all"};
    for (const Row& row : rows) {
        sum.cases += row.cases;
        sum.failures += row.failures;
        sum.took += row.took;
    }
    return sum;
}

void printTable(std::vector<Row> rows) {
    rows.push_back(sumOf(rows));
    printf("%-22s %7s %9s %10s\n", "condition", "cases", "failures", "run time");
    for (const Row& row : rows) {
        if (row.cases == 0) continue;
        printf("%-22s %7d %9d %8.1f s\n", row.condition.c_str(), row.cases, row.failures,
               static_cast<double>(row.took.count()) / 1000);
    }
}

}  // namespace

int main(int argc, char** argv) try {
    Choice choice;
    choice.jobs = std::thread::hardware_concurrency();
    CLI::App app("Drives every command of quilctl under every condition.", "./run torture");
    app.add_option("--verb", choice.verb, "Only this command, for example 'mcu update'");
    std::vector<std::string> names;
    for (const Condition& condition : conditions()) names.emplace_back(condition.name);
    app.add_option("--condition", choice.condition, "Only this condition")
        ->check(CLI::IsMember(names));
    app.add_option("--case", choice.number, "Only the case with this number; prints what it said");
    app.add_flag("--sample", choice.sample, "One case of each eighth pair, as the tests do");
    app.add_option("--seed", choice.seed, "Chooses the sample");
    app.add_option("--jobs", choice.jobs, "Cases at a time (default: the number of cores)");
    std::string shard;
    app.add_option("--shard", shard, "I/N: the I-th of N equal shares, from 0")
        ->check([&choice](const std::string& text) {
            const bool known = sscanf(text.c_str(), "%u/%u", &choice.shard, &choice.shards) == 2 &&
                               choice.shard < choice.shards;
            return known ? "" : "a shard is I/N, with I from 0 to N - 1";
        });
    CLI11_PARSE(app, argc, argv);
    const auto rows =
        torture(choice, [&choice](const Finding& finding) { print(finding, choice.number != 0); });
    printTable(rows);
    return sumOf(rows).failures == 0 ? 0 : 1;
} catch (const std::exception& error) {
    fprintf(stderr, "torture: %s\n", error.what());
    return 2;
}
