#include "tools/quilctl/traces/event_arguments.h"

#include <array>

#include "board/core/bytes.h"
#include "tools/quilctl/output/values.h"

namespace quil::tools {
namespace {

constexpr auto kLastOfKinds = static_cast<int>(board::EventKind::kMcu);

Argument textArgument(const char* name, const char* nameOfBytes, const std::string& text) {
    if (isText(text)) return {name, text};
    return {nameOfBytes, toHex(Bytes(text.begin(), text.end()))};
}

std::string argumentText(const Json& document, const std::string& name) {
    if (const auto text = document.find(name); text != document.end()) {
        return text->get<std::string>();
    }
    const Bytes bytes = parseHex(document.value(name + "_bytes", "")).value_or(Bytes());
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

std::vector<Argument> argumentsOf(const board::Event& event) {
    std::vector<Argument> arguments = {{"kind", nameOf(event.kind)},
                                       {"at", event.at.count()},
                                       textArgument("source", "source_bytes", event.source),
                                       textArgument("text", "text_bytes", event.text)};
    if (!event.bytes.empty()) arguments.push_back({"bytes", toHex(event.bytes)});
    return arguments;
}

Json documentOf(const std::vector<Argument>& arguments) {
    Json document;
    for (const auto& [name, value] : arguments) {
        std::visit([&document, name = name](const auto& one) { document[name] = one; }, value);
    }
    return document;
}

board::Event eventIn(const Json& document) {
    try {
        return {board::Nanos(document.at("at").get<int64_t>()),
                kindNamed(document.at("kind").get<std::string>()), argumentText(document, "source"),
                argumentText(document, "text"),
                parseHex(document.value("bytes", "")).value_or(Bytes())};
    } catch (const Json::exception& error) {
        throw Failure(kBadData, std::string("an event of a board: ") + error.what());
    }
}

std::string shownText(const std::string& text) {
    if (isText(text)) return text;
    const Json document = text;
    return Json::parse(document.dump(-1, ' ', false, Json::error_handler_t::replace))
        .get<std::string>();
}

}  // namespace quil::tools
