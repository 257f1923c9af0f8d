#include "tests/swarm/spread.h"

#include <stdio.h>
#include <stdlib.h>

#include "board/core/temporary_directory.h"

namespace quil::swarm {

void addSpread(CLI::App& app, Spread& spread, const std::string& piece) {
    app.add_option("--seconds", spread.seconds, "For how long at most");
    const auto taken = [](const std::string& /*text*/) {};  // by the check
    app.add_option_function<std::string>("--shard", taken,
                                         "I/N: every N-th " + piece + ", from the I-th on")
        ->check([&](const std::string& text) { return problemOfShard(text, spread.shard); });
    app.add_option("--jobs", spread.jobs, "Processes at once")->check(CLI::Range(1, 1024));
    app.add_flag("--json", spread.json, "A line of JSON for each finding, and one at the end");
}

std::string lineOf(const nlohmann::json& value) {
    return value.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

int runSpread(const char* name, const char* does, int count, char** values,
              const Prepare& prepare) try {
    CLI::App app(does, name);
    const auto work = prepare(app);
    CLI11_PARSE(app, count, values);
    const board::TemporaryDirectory place("quil-spread");
    setenv("TMPDIR", place.path().c_str(), 1);
    return work();
} catch (const std::exception& error) {
    fprintf(stderr, "%s: %s\n", name, error.what());
    return 2;
}

}  // namespace quil::swarm
