#include "tools/quilctl/output/result.h"

#include <errno.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <ostream>

#include "tools/quilctl/output/reporter.h"

namespace quil::tools {
namespace {

constexpr int kSchema = 1;  // docs/quilctl.md describes it

std::string messagesOf(const std::vector<Failure>& failures) {
    std::string text;
    for (const Failure& failure : failures) {
        text += (text.empty() ? "" : "; ") + std::string(failure.what());
    }
    return text;
}

std::string documentOf(const std::string& command, const Json& result,
                       const std::vector<Failure>& failures) {
    const ExitCode code = failures.empty() ? kOk : failures.front().code();
    Json document{{"schema", kSchema}, {"command", command}, {"exit_code", static_cast<int>(code)}};
    if (code != kOk) {
        document["error"] = {{"kind", nameOf(code)}, {"message", messagesOf(failures)}};
        const std::string& remedy = failures.front().remedy();
        if (!remedy.empty()) document["error"]["remedy"] = remedy;
    }
    if (!result.empty()) document["result"] = result;
    // Texts of the board may hold any bytes: what is no UTF-8 is replaced.
    return document.dump(-1, ' ', false, Json::error_handler_t::replace) + '\n';
}

}  // namespace

// Nearly all text is ASCII, which shows without encoding it.
bool isText(const std::string& bytes) {
    const auto isAscii = [](char c) { return static_cast<unsigned char>(c) < 0x80; };
    if (std::all_of(bytes.begin(), bytes.end(), isAscii)) return true;
    try {
        return !Json(bytes).dump().empty();
    } catch (const Json::type_error&) {
        return false;
    }
}

const char* nameOf(ExitCode code) {
    const auto row = std::find_if(kExitCodes.begin(), kExitCodes.end(),
                                  [code](const ExitCodeRow& one) { return one.code == code; });
    return row == kExitCodes.end() ? kExitCodes.at(kInternal).name : row->name;
}

Failure failureOf(ExitCode code, const std::string& what, int error) {
    return {code, error == 0 ? what : what + ": " + strerror(error)};
}

void requireWritable(const std::string& file, const std::string& called) {
    if (access(file.c_str(), W_OK) == 0) return;
    if (errno == ENOENT) {
        const std::filesystem::path folder = std::filesystem::path(file).parent_path();
        if (access(folder.empty() ? "." : folder.c_str(), W_OK | X_OK) == 0) return;
    }
    throw failureOf(kNotWritten, called + ": cannot be written", errno);
}

void Result::show() {
    if (mLive == nullptr) return;
    *mLive << text.str();
    mLive->flush();
    mShown += text.str();
    text.str("");
}

ExitCode print(const Output& output, const std::string& command, Result& result,
               std::vector<Failure> failures) {
    errno = 0;
    output.out << (output.asJson ? documentOf(command, result.json, failures) : result.text.str());
    output.out.flush();
    if (!output.out) {
        failures.insert(failures.begin(),
                        failureOf(kNotWritten, "standard output cannot be written", errno));
    }
    for (const Failure& failure : failures) output.report.fail(failure);
    return failures.empty() ? kOk : failures.front().code();
}

}  // namespace quil::tools
