#include "tools/quilctl/serve/watched_event.h"

#include <math.h>

#include "tools/quilctl/output/values.h"
#include "tools/quilctl/serve/protocol.h"
#include "tools/quilctl/traces/event_arguments.h"

namespace quil::tools {

Json watchedDocument(const board::Event& event) {
    return {{"at", secondsOf(event.at)},
            {"kind", board::nameOf(event.kind)},
            {"source", jsonOfBytes(event.source)},
            {"text", jsonOfBytes(event.text)},
            {"bytes", event.bytes}};
}

board::Event watchedEvent(const Json& document) {
    try {
        return {board::Nanos(llround(document.at("at").get<double>() * 1e9)),
                kindNamed(document.at("kind").get<std::string>()), bytesIn(document.at("source")),
                bytesIn(document.at("text")), document.at("bytes").get<std::vector<uint8_t>>()};
    } catch (const Json::exception& error) {
        throw Failure(kBadData, std::string("an event of the board: ") + error.what());
    }
}

}  // namespace quil::tools
