#include "tests/image/blueprint.h"

#include <ctype.h>

#include <algorithm>
#include <stdexcept>

namespace quil::tests {
namespace {

class Reader {
  public:
    explicit Reader(const std::string& text) : mText(text) {}

    std::vector<BlueprintModule> modules() {
        std::vector<BlueprintModule> found;
        for (skipSpace(); mAt < mText.size(); skipSpace()) {
            BlueprintModule module;
            module.type = name();
            module.properties = map();
            found.push_back(std::move(module));
        }
        return found;
    }

  private:
    [[noreturn]] void fail(const std::string& what) const {
        const auto line = 1 + std::count(mText.begin(), mText.begin() + ptrdiff_t(mAt), '\n');
        throw std::runtime_error("line " + std::to_string(line) + ": " + what);
    }

    bool startsWith(const char* words) const { return mText.compare(mAt, 2, words) == 0; }

    // Behind blanks and comments.
    void skipSpace() {
        for (;;) {
            if (startsWith("//")) {
                mAt = std::min(mText.find('\n', mAt), mText.size());
            } else if (startsWith("/*")) {
                const size_t end = mText.find("*/", mAt);
                if (end == std::string::npos) fail("a comment without an end");
                mAt = end + 2;
            } else if (mAt < mText.size() && isspace(static_cast<unsigned char>(mText[mAt]))) {
                ++mAt;
            } else {
                return;
            }
        }
    }

    bool take(char wanted) {
        skipSpace();
        if (mAt >= mText.size() || mText[mAt] != wanted) return false;
        ++mAt;
        return true;
    }

    void expect(char wanted) {
        if (!take(wanted)) fail(std::string("expected ") + wanted);
    }

    std::string name() {
        skipSpace();
        const size_t start = mAt;
        while (mAt < mText.size() &&
               (isalnum(static_cast<unsigned char>(mText[mAt])) || mText[mAt] == '_')) {
            ++mAt;
        }
        if (mAt == start) fail("expected a name");
        return mText.substr(start, mAt - start);
    }

    std::string quoted() {
        expect('"');
        const size_t end = mText.find_first_of("\"\\\n", mAt);
        if (end == std::string::npos || mText[end] != '"') fail("a string without a plain end");
        std::string text = mText.substr(mAt, end - mAt);
        mAt = end + 1;
        return text;
    }

    std::vector<std::string> list() {
        std::vector<std::string> words;
        expect('[');
        while (!take(']')) {
            words.push_back(quoted());
            if (!take(',')) {
                expect(']');
                break;
            }
        }
        return words;
    }

    std::map<std::string, BlueprintValue> map() {
        std::map<std::string, BlueprintValue> properties;
        expect('{');
        while (!take('}')) {
            const std::string key = name();
            expect(':');
            if (!properties.emplace(key, value()).second) fail(key + " stands twice");
            if (!take(',')) {
                expect('}');
                break;
            }
        }
        return properties;
    }

    BlueprintValue value() {
        skipSpace();
        BlueprintValue value;
        const char first = mAt < mText.size() ? mText[mAt] : '\0';
        if (first == '{') {
            value.properties = map();
        } else if (first == '[') {
            value.isList = true;
            value.words = list();
        } else if (first == '"') {
            value.words = {quoted()};
        } else {
            value.words = {name()};
            if (value.words[0] != "true" && value.words[0] != "false") fail("expected a value");
        }
        return value;
    }

    const std::string& mText;
    size_t mAt = 0;
};

}  // namespace

std::vector<std::string> BlueprintModule::words(const std::string& property) const {
    const auto found = properties.find(property);
    return found == properties.end() ? std::vector<std::string>() : found->second.words;
}

std::string BlueprintModule::word(const std::string& property) const {
    const std::vector<std::string> all = words(property);
    return all.empty() ? std::string() : all.front();
}

std::vector<BlueprintModule> readBlueprint(const std::string& text) {
    return Reader(text).modules();
}

BlueprintModule withDefaults(const BlueprintModule& module,
                             const std::vector<BlueprintModule>& all) {
    BlueprintModule whole = module;
    for (const std::string& name : module.words("defaults")) {
        const auto found = std::find_if(all.begin(), all.end(), [&](const BlueprintModule& one) {
            return one.type == "cc_defaults" && one.word("name") == name;
        });
        if (found == all.end()) throw std::runtime_error("no defaults of the name " + name);
        for (const auto& [key, value] : found->properties) {
            if (key == "name") continue;
            BlueprintValue& own = whole.properties.emplace(key, BlueprintValue()).first->second;
            if (!value.isList && !own.words.empty()) continue;
            own.words.insert(own.words.begin(), value.words.begin(), value.words.end());
        }
    }
    return whole;
}

}  // namespace quil::tests
