#include "tools/quilctl/shell/completion.h"

#include <set>

namespace quil::tools {
namespace {

using CommandOptions = std::vector<CommandOption>;

std::string listed(const std::vector<std::string>& words, const std::string& separator) {
    std::string text;
    for (const std::string& word : words) text += (text.empty() ? "" : separator) + word;
    return text;
}

// In single quotes, for each of the shells.
std::string quoted(const std::string& text, const std::string& quote) {
    std::string inside;
    for (const char c : text) inside += c == '\'' ? quote : std::string(1, c == '\n' ? ' ' : c);
    return "'" + inside + "'";
}
constexpr char kShellQuote[] = "'\\''", kFishQuote[] = "\\'";

// The options of the whole program whose next word is no command.
std::vector<std::string> optionsWithValue(const CommandNode& program) {
    std::set<std::string> names;
    for (const CommandNode* command : allOf(program)) {
        for (const CommandOption& option : command->options) {
            if (!option.value.empty()) names.insert(option.name);
        }
    }
    return {names.begin(), names.end()};
}

std::vector<std::string> pathsOf(const CommandNode& program) {
    std::vector<std::string> paths;
    for (const CommandNode* command : allOf(program)) {
        if (!command->words.empty()) paths.push_back("'" + command->path() + "'");
    }
    return paths;
}

std::vector<std::string> wordsOf(const CommandOptions& arguments) {
    std::vector<std::string> words;
    for (const CommandOption& argument : arguments) {
        words.insert(words.end(), argument.words.begin(), argument.words.end());
    }
    return words;
}

// What bash and zsh share: `at` becomes the command's words, `kind` what an option's value is.
// Bash has "--option=value" in three words.
std::string wordsBehind(const CommandNode& program, const std::string& words,
                        const std::string& last, const std::string& first) {
    return "    for ((i = " + first + "; i < " + last +
           "; ++i)); do\n"
           "        word=${" +
           words +
           "[i]}\n"
           "        case $word in\n"
           "            " +
           listed(optionsWithValue(program), " | ") +
           ")\n"
           "                [[ ${" +
           words +
           "[i + 1]} == '=' ]] && ((++i))\n"
           "                ((++i)) ;;\n"
           "            -*) ;;\n"
           "            *)\n"
           "                case \"${at:+$at }$word\" in\n"
           "                    " +
           listed(pathsOf(program), " | ") +
           ")\n"
           "                        at=\"${at:+$at }$word\" ;;\n"
           "                esac ;;\n"
           "        esac\n"
           "    done\n";
}

// A global option has the same values behind every command; a command's own come first.
std::string valueCases(const CommandNode& program) {
    std::string own, global;
    for (const CommandNode* command : allOf(program)) {
        for (const CommandOption& option : command->options) {
            if (option.value.empty()) continue;
            const bool isGlobal = command->words.empty();
            (isGlobal ? global : own) +=
                "        " +
                (isGlobal ? "*/" + option.name : "'" + command->path() + "'/" + option.name) +
                ") kind=value choices='" + listed(option.words, " ") + "'" +
                (option.isFile ? " files=1" : "") + (option.isDirectory ? " directories=1" : "") +
                " ;;\n";
        }
    }
    return "    case \"$at/$before\" in\n" + own + global + "    esac\n";
}

std::string argumentFlags(const CommandNode& command) {
    std::string flags;
    for (const CommandOption& argument : command.arguments) {
        if (argument.isFile) flags += " files=1";
        if (argument.isDirectory) flags += " directories=1";
    }
    return flags;
}

std::vector<std::string> namesOf(const CommandOptions& options) {
    std::vector<std::string> names;
    for (const CommandOption& option : options) names.push_back(option.name);
    return names;
}

std::string bashCommandCases(const CommandNode& program) {
    std::string cases;
    for (const CommandNode* command : allOf(program)) {
        std::vector<std::string> next = wordsOf(command->arguments);
        for (const CommandNode& below : command->commands) next.push_back(below.name());
        cases += "        '" + command->path() + "') choices='" + listed(next, " ") + "'" +
                 argumentFlags(*command) + "\n            options='" +
                 listed(namesOf(command->options), " ") + "' ;;\n";
    }
    return cases;
}

std::string zshDescribed(const std::string& name, const std::string& purpose) {
    return quoted(name + ":" + purpose, kShellQuote);
}

std::string zshCommandCases(const CommandNode& program) {
    std::string cases;
    for (const CommandNode* command : allOf(program)) {
        std::string next, options;
        for (const CommandNode& below : command->commands) {
            next += " " + zshDescribed(below.name(), below.purpose);
        }
        for (const std::string& word : wordsOf(command->arguments))
            next += " " + zshDescribed(word, "");
        for (const CommandOption& option : command->options) {
            options += " " + zshDescribed(option.name, option.purpose);
        }
        cases.append("        '").append(command->path()).append("') commands=(").append(next);
        cases.append(" )").append(argumentFlags(*command));
        cases.append("\n            options=(").append(options).append(" ) ;;\n");
    }
    return cases;
}

std::string zshGlobalOptions(const CommandNode& program) {
    std::string options;
    for (const CommandOption& option : program.options) {
        options += " " + zshDescribed(option.name, option.purpose);
    }
    return options;
}

std::string fishValue(const CommandOption& option) {
    if (option.value.empty()) return "";
    const std::string files = option.isFile || option.isDirectory ? " -r -F" : " -x";
    return files +
           (option.words.empty() ? "" : " -a " + quoted(listed(option.words, " "), kFishQuote));
}

std::string fishLines(const CommandNode& command) {
    const std::string here =
        "complete -c quilctl -n " + quoted("__quilctl_at '" + command.path() + "'", kFishQuote);
    std::string lines;
    for (const CommandNode& below : command.commands) {
        lines += here + " -a " + below.name() + " -d " + quoted(below.purpose, kFishQuote) + "\n";
    }
    for (const CommandOption& option : command.options) {
        // A global option is taken behind every command.
        lines += (command.words.empty() ? "complete -c quilctl" : here) + " -l " +
                 option.name.substr(2) + fishValue(option) + " -d " +
                 quoted(option.purpose, kFishQuote) + "\n";
    }
    for (const CommandOption& argument : command.arguments) {
        if (argument.isFile || argument.isDirectory) lines += here + " -F\n";
        if (argument.words.empty()) continue;
        lines += here + " -a " + quoted(listed(argument.words, " "), kFishQuote) + "\n";
    }
    return lines;
}

}  // namespace

std::string bashCompletion(const CommandNode& program) {
    return "# Completion of quilctl in bash, made by: quilctl completion bash\n"
           "_quilctl() {\n"
           "    local cur=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD - 1]}\n"
           "    local at='' word='' kind='' choices='' options='' files='' directories='' i\n"
           "    [[ $cur == '=' ]] && cur=''\n"
           "    [[ $before == '=' ]] && before=${COMP_WORDS[COMP_CWORD - 2]}\n" +
           wordsBehind(program, "COMP_WORDS", "COMP_CWORD", "1") + valueCases(program) +
           "    [[ -n $kind ]] || case \"$at\" in\n" + bashCommandCases(program) +
           "    esac\n"
           "    options+=' " +
           listed(namesOf(program.options), " ") +
           "'\n"
           "    [[ -z $kind && $cur == -* ]] && choices=$options files='' directories=''\n"
           "    mapfile -t COMPREPLY < <(\n"
           "        compgen -W \"$choices\" -- \"$cur\"\n"
           "        [[ -z $files ]] || compgen -f -- \"$cur\"\n"
           "        [[ -z $directories ]] || compgen -d -- \"$cur\")\n"
           "    [[ -z $files$directories ]] || compopt -o filenames 2>/dev/null\n"
           "}\n"
           "complete -F _quilctl quilctl\n";
}

std::string zshCompletion(const CommandNode& program) {
    return "#compdef quilctl\n"
           "# Completion of quilctl in zsh, made by: quilctl completion zsh\n"
           "_quilctl() {\n"
           "    local cur=${words[CURRENT]} before=${words[CURRENT - 1]}\n"
           "    local at='' word='' kind='' choices='' files='' directories=''\n"
           "    local -a line=(\"${words[@]}\") commands options\n"
           "    integer i\n" +
           wordsBehind(program, "line", "CURRENT", "2") + valueCases(program) +
           "    if [[ -n $kind ]]; then\n"
           "        [[ -z $choices ]] || compadd -- ${=choices}\n"
           "        [[ -z $files ]] || _files\n"
           "        [[ -z $directories ]] || _files -/\n"
           "        return\n"
           "    fi\n"
           "    case \"$at\" in\n" +
           zshCommandCases(program) +
           "    esac\n"
           "    options+=(" +
           zshGlobalOptions(program) +
           " )\n"
           "    if [[ $cur == -* ]]; then\n"
           "        _describe -o option options\n"
           "        return\n"
           "    fi\n"
           "    _describe command commands\n"
           "    [[ -z $files ]] || _files\n"
           "    [[ -z $directories ]] || _files -/\n"
           "}\n"
           "if [[ ${funcstack[1]} == _quilctl ]]; then\n"
           "    _quilctl \"$@\"\n"
           "else\n"
           "    compdef _quilctl quilctl\n"
           "fi\n";
}

std::string fishCompletion(const CommandNode& program) {
    std::string text =
        "# Completion of quilctl in fish, made by: quilctl completion fish\n"
        "function __quilctl_at\n"
        "    set -l at\n"
        "    set -l skip 0\n"
        "    for word in (commandline -opc)[2..-1]\n"
        "        if test $skip = 1\n"
        "            set skip 0\n"
        "            continue\n"
        "        end\n"
        "        switch $word\n"
        "            case " +
        listed(optionsWithValue(program), " ") +
        "\n"
        "                set skip 1\n"
        "            case '-*'\n"
        "            case '*'\n"
        "                set -l longer (string join ' ' -- $at $word)\n"
        "                switch $longer\n"
        "                    case " +
        listed(pathsOf(program), " ") +
        "\n"
        "                        set at $longer\n"
        "                end\n"
        "        end\n"
        "    end\n"
        "    test \"$at\" = \"$argv[1]\"\n"
        "end\n"
        "complete -c quilctl -f\n";
    for (const CommandNode* command : allOf(program)) text += fishLines(*command);
    return text;
}

}  // namespace quil::tools
