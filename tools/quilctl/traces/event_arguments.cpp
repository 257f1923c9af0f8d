#include "tools/quilctl/traces/event_arguments.h"

#include <array>

#include "board/core/bytes.h"
#include "tools/quilctl/output/values.h"

namespace quil::tools {
namespace {

constexpr auto kLastOfKinds = static_cast<int>(board::EventKind::kMcu);

bool isText(const std::string& text) {
    try {
        return !Json(text).dump().empty();
    } catch (const Json::type_error&) {
        return false;
    }
}

void addTextTo(Json& arguments, const std::string& name, const std::string& text) {
    if (isText(text)) {
        arguments[name] = text;
    } else {
        arguments[name + "_bytes"] = toHex(Bytes(text.begin(), text.end()));
    }
}

std::string argumentText(const Json& arguments, const std::string& name) {
    if (const auto text = arguments.find(name); text != arguments.end()) {
        return text->get<std::string>();
    }
    const Bytes bytes = parseHex(arguments.value(name + "_bytes", "")).value_or(Bytes());
    return {bytes.begin(), bytes.end()};
}

}  // namespace

board::EventKind kindNamed(const std::string& name) {
    for (int kind = 0; kind <= kLastOfKinds; ++kind) {
        if (name == nameOf(static_cast<board::EventKind>(kind))) {
            return static_cast<board::EventKind>(kind);
        }
    }
    throw Failure(kBadData, "'" + name + "' is no kind of event");
}

Json argumentsOf(const board::Event& event, size_t number) {
    Json arguments = {{"event", number}, {"kind", nameOf(event.kind)}, {"at", event.at.count()}};
    addTextTo(arguments, "source", event.source);
    addTextTo(arguments, "text", event.text);
    if (!event.bytes.empty()) arguments["bytes"] = toHex(event.bytes);
    return arguments;
}

board::Event eventIn(const Json& arguments) {
    try {
        return {board::Nanos(arguments.at("at").get<int64_t>()),
                kindNamed(arguments.at("kind").get<std::string>()),
                argumentText(arguments, "source"), argumentText(arguments, "text"),
                parseHex(arguments.value("bytes", "")).value_or(Bytes())};
    } catch (const Json::exception& error) {
        throw Failure(kBadData, std::string("an event of the trace: ") + error.what());
    }
}

std::string shownText(const std::string& text) {
    const Json document = text;
    return Json::parse(document.dump(-1, ' ', false, Json::error_handler_t::replace))
        .get<std::string>();
}

}  // namespace quil::tools
