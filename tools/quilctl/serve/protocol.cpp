#include "tools/quilctl/serve/protocol.h"

#include <stdint.h>

namespace quil::tools {
namespace {

// Json would convert a fraction, or what is beyond the type, without a word.
int64_t numberIn(const Json& document, int64_t most) {
    if (document.is_number_integer()) {
        const auto number = document.get<int64_t>();
        if (number >= 0 && number <= most) return number;
    }
    throw Failure(kUsage, "no request: " + document.dump() + " is no number from 0 to " +
                              std::to_string(most));
}

Json screenDocument(const Screen& screen) {
    return {
        {"terminal", screen.isTerminal}, {"styled", screen.isStyled}, {"columns", screen.columns}};
}

Screen screenIn(const Json& document) {
    return {document.at("terminal").get<bool>(), document.at("styled").get<bool>(),
            static_cast<size_t>(numberIn(document.at("columns"), INT32_MAX))};
}

std::vector<std::string> commandWords(const Json& document) {
    std::vector<std::string> words;
    for (const Json& word : document) words.push_back(bytesIn(word));
    return words;
}

Request requestOf(const Json& document) {
    if (numberIn(document.at("version"), INT32_MAX) != kProtocol) {
        throw Failure(kUsage, "this board speaks version " + std::to_string(kProtocol));
    }
    Request request;
    if (document.contains("watch")) {
        request.kind = Request::Kind::kWatch;
        for (const Json& kind : document.at("watch")) request.kinds.insert(kind.get<std::string>());
        return request;
    }
    request.words = commandWords(document.at("run"));
    request.folder = bytesIn(document.at("folder"));
    request.board = bytesIn(document.at("board"));
    request.atOnce = document.at("at_once").get<bool>();
    request.out = screenIn(document.at("out"));
    request.err = screenIn(document.at("err"));
    return request;
}

}  // namespace

std::string protocolLine(const Json& document) {
    return document.dump(-1, ' ', false, Json::error_handler_t::replace) + '\n';
}

Json jsonOfBytes(const std::string& bytes) {
    if (isText(bytes)) return bytes;
    return std::vector<uint8_t>(bytes.begin(), bytes.end());
}

std::string bytesIn(const Json& document) {
    try {
        if (document.is_string()) return document.get<std::string>();
        std::string bytes;
        for (const Json& byte : document.get_ref<const Json::array_t&>()) {
            bytes += static_cast<char>(numberIn(byte, UINT8_MAX));
        }
        return bytes;
    } catch (const Json::exception& error) {
        throw Failure(kUsage, std::string("no text: ") + error.what());
    }
}

std::string protocolLine(const Request& request) {
    if (request.kind == Request::Kind::kWatch) {
        return protocolLine(Json{{"version", kProtocol}, {"watch", request.kinds}});
    }
    auto words = Json::array();
    for (const std::string& word : request.words) words.push_back(jsonOfBytes(word));
    return protocolLine(Json{{"version", kProtocol},
                             {"run", words},
                             {"folder", jsonOfBytes(request.folder)},
                             {"board", jsonOfBytes(request.board)},
                             {"at_once", request.atOnce},
                             {"out", screenDocument(request.out)},
                             {"err", screenDocument(request.err)}});
}

Request requestIn(const std::string& line) {
    try {
        return requestOf(Json::parse(line));
    } catch (const Json::exception& error) {
        throw Failure(kUsage, std::string("no request: ") + error.what());
    }
}

std::optional<std::string> Lines::next() {
    const size_t end = mBytes.find('\n', mBegin);
    if (end == std::string::npos) {
        mBytes.erase(0, mBegin);
        mBegin = 0;
        return std::nullopt;
    }
    std::string line = mBytes.substr(mBegin, end - mBegin);
    mBegin = end + 1;
    return line;
}

}  // namespace quil::tools
