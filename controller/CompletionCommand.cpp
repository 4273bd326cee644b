#include <fmt/format.h>

#include <CLI/App.hpp>
#include <CLI/Option.hpp>
#include <CLI/StringTools.hpp>
#include <CLI/Validators.hpp>
#include <algorithm>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "controller/Command.h"

namespace screenctl {

namespace {

using Options = std::vector<const CLI::Option*>;

/// A subcommand as it can be typed. The program itself is the first one.
struct Place {
    std::string path;  // "screenctl moderator set"
    std::vector<const CLI::App*> subcommands;
    Options options;  // those of the commands above too, where they are taken here
    Options arguments;
};

bool TakesValue(const CLI::Option& option) {
    return option.get_items_expected_max() > 0;
}

std::vector<std::string> Names(const CLI::Option& option) {
    std::vector<std::string> names;
    for (const std::string& name : option.get_snames())
        names.push_back("-" + name);
    for (const std::string& name : option.get_lnames())
        names.push_back("--" + name);
    return names;
}

/// What may be given, when the help lists it: "TEXT:{table,json,csv}".
std::vector<std::string> Choices(const CLI::Option& option) {
    const std::string type = option.get_type_name();
    const std::string list = type.substr(std::min(type.find(':'), type.size() - 1) + 1);
    if (list.size() > 2 && list.front() == '{' && list.back() == '}')
        return CLI::detail::split(list.substr(1, list.size() - 2), ',');
    return {};
}

bool IsFile(const CLI::Option& option) {
    const std::string type = option.get_type_name();
    return type.find("FILE") != std::string::npos || type.find("PATH") != std::string::npos;
}

/// "FORMAT" of a type that the help shows as "FORMAT:{table,json,csv}".
std::string ValueName(const CLI::Option& option) {
    const std::string name = option.get_positional() ? option.get_name(true) : "";
    const std::string type = option.get_type_name();
    return name.empty() ? type.substr(0, type.find(':')) : name;
}

std::string Description(const std::string& text) {
    std::string line = text;
    std::replace(line.begin(), line.end(), '\n', ' ');
    return line;
}

void AddOptions(const CLI::App& app, Place& place) {
    const auto known = [&place](const CLI::Option& option) {
        return std::any_of(
            place.options.begin(), place.options.end(),
            [&](const CLI::Option* other) { return Names(*other) == Names(option); });
    };
    for (const CLI::Option* option : app.get_options()) {
        if (option->nonpositional() && !option->get_group().empty() && !known(*option))
            place.options.push_back(option);
    }
}

/// In the order in which help shows them, each command before those inside it.
void AddPlaces(const CLI::App& app, const std::string& above, std::vector<Place>& places) {
    Place place;
    place.path = above + app.get_name();
    place.subcommands = app.get_subcommands(
        [](const CLI::App* sub) { return !sub->get_name().empty() && !sub->get_group().empty(); });
    place.arguments = app.get_options([](const CLI::Option* option) {
        return option->get_positional() && !option->get_group().empty();
    });
    for (const CLI::App* from = &app; from != nullptr;
         from = from->get_fallthrough() ? from->get_parent() : nullptr)
        AddOptions(*from, place);
    places.push_back(place);
    for (const CLI::App* sub : place.subcommands)
        AddPlaces(*sub, place.path + " ", places);
}

std::vector<Place> Places(const CLI::App& app) {
    std::vector<Place> places;
    AddPlaces(app, "", places);
    return places;
}

/// A backslash before each of these characters.
std::string Escaped(const std::string& text, const char* characters) {
    std::string escaped;
    for (const char c : text) {
        if (std::string(characters).find(c) != std::string::npos)
            escaped += '\\';
        escaped += c;
    }
    return escaped;
}

/// As one word of bash or zsh.
std::string ShellWord(const std::string& text) {
    return "'" + CLI::detail::find_and_replace(text, "'", R"('\'')") + "'";
}

std::string FishWord(const std::string& text) {
    return "'" + Escaped(text, R"(\')") + "'";
}

using Quote = std::string (*)(const std::string&);

std::string Words(const std::vector<std::string>& texts, Quote quote) {
    return CLI::detail::join(
        texts, [quote](const std::string& text) { return quote(text); }, " ");
}

/// The names of a place's options that take a value, each behind the place's path.
std::vector<std::string> ValueOptions(const Place& place) {
    std::vector<std::string> all;
    for (const CLI::Option* option : place.options) {
        if (!TakesValue(*option))
            continue;
        for (const std::string& name : Names(*option))
            all.push_back(place.path + " " + name);
    }
    return all;
}

// What follows is a line of a script's "case" each.

std::string BashSteps(const std::vector<Place>& places) {
    std::string text;
    for (const Place& place : places) {
        for (const CLI::App* sub : place.subcommands)
            text += fmt::format("            {0}) path={0} place=0 ;;\n",
                                ShellWord(place.path + " " + sub->get_name()));
        const std::vector<std::string> options = ValueOptions(place);
        if (!options.empty())
            text += fmt::format("            {}) option=$word ;;\n",
                                CLI::detail::join(options, ShellWord, " | "));
    }
    return text;
}

/// What may stand for the value of `option` behind `pattern`.
std::string BashValue(const std::string& pattern, const CLI::Option& option) {
    const std::vector<std::string> choices = Choices(option);
    if (!choices.empty())
        return fmt::format("            {}) words=({}) ;;\n", ShellWord(pattern),
                           Words(choices, ShellWord));
    if (IsFile(option))
        return fmt::format("            {}) files=1 ;;\n", ShellWord(pattern));
    return "";
}

std::string BashOptionValues(const std::vector<Place>& places) {
    std::string text;
    for (const Place& place : places) {
        for (const CLI::Option* option : place.options) {
            for (const std::string& name : Names(*option)) {
                if (TakesValue(*option))
                    text += BashValue(place.path + " " + name, *option);
            }
        }
    }
    return text;
}

std::string BashArguments(const std::vector<Place>& places) {
    std::string text;
    for (const Place& place : places) {
        std::vector<std::string> names;
        for (const CLI::App* sub : place.subcommands)
            names.push_back(sub->get_name());
        if (!names.empty())
            text += fmt::format("            {}) words=({}) ;;\n", ShellWord(place.path + " 0"),
                                Words(names, ShellWord));
        for (size_t i = 0; i < place.arguments.size(); ++i)
            text += BashValue(fmt::format("{} {}", place.path, i), *place.arguments[i]);
    }
    return text;
}

std::string BashOptions(const std::vector<Place>& places) {
    std::string text;
    for (const Place& place : places) {
        std::vector<std::string> names;
        for (const CLI::Option* option : place.options) {
            for (const std::string& name : Names(*option))
                names.push_back(name);
        }
        text += fmt::format("            {}) words=({}) ;;\n", ShellWord(place.path),
                            Words(names, ShellWord));
    }
    return text;
}

std::string Bash(const CLI::App& app) {
    static constexpr const char* kScript = R"(# bash completion for {0}

_{0}() {{
    local path={0} option= current=${{COMP_WORDS[COMP_CWORD]}} before= files= word
    local -i place=0 i
    local -a words=()
    COMPREPLY=()
    # Of --option=value, bash makes three words.
    for ((i = 1; i < COMP_CWORD; i++)); do
        word=${{COMP_WORDS[i]}}
        [[ $word == '=' ]] && continue
        if [[ -n $option ]]; then
            option=
            continue
        fi
        case "$path $word" in
{1}            *' -'*) ;;
            *) place+=1 ;;
        esac
    done
    if [[ $current == '=' ]]; then
        current=
    elif [[ -z $option && $current == --*=* ]]; then
        option=${{current%%=*}}
        before=$option=
        current=${{current#*=}}
    fi

    if [[ -n $option ]]; then
        case "$path $option" in
{2}        esac
    elif [[ $current != -* ]]; then
        case "$path $place" in
{3}        esac
    fi
    if [[ $current == -* || ( -z $option$files$current && ${{#words[@]}} -eq 0 ) ]]; then
        case "$path" in
{4}        esac
    fi

    if [[ -n $files ]]; then
        compopt -o filenames 2>/dev/null
        mapfile -t COMPREPLY < <(compgen -f -P "$before" -- "$current")
        return
    fi
    for word in "${{words[@]}}"; do
        if [[ $word == "$current"* ]]; then
            COMPREPLY+=("$before$word")
        fi
    done
}}

complete -F _{0} {0}
)";
    const std::vector<Place> places = Places(app);
    return fmt::format(kScript, app.get_name(), BashSteps(places), BashOptionValues(places),
                       BashArguments(places), BashOptions(places));
}

/// ":what:how to complete it", as the end of what _arguments is told.
std::string ZshValue(const CLI::Option& option) {
    const std::vector<std::string> choices = Choices(option);
    std::string action = " ";
    if (!choices.empty())
        action = "(" + CLI::detail::join(choices, " ") + ")";
    else if (IsFile(option))
        action = "_files";
    else if (option.get_positional())
        // Or its description would keep an option that is begun from being completed.
        action = fmt::format("_guard \"^-*\" {}", ValueName(option));
    return fmt::format(":{}:{}", Escaped(ValueName(option), R"(\:)"), action);
}

std::vector<std::string> ZshOptions(const Place& place) {
    std::vector<std::string> lines;
    for (const CLI::Option* option : place.options) {
        const std::vector<std::string> names = Names(*option);
        const std::string description = Escaped(Description(option->get_description()), R"(\[]:)");
        for (const std::string& name : names) {
            const std::string join = name.substr(0, 2) == "--" ? "=" : "+";
            lines.push_back(
                ShellWord(fmt::format("({}){}{}[{}]{}", CLI::detail::join(names, " "), name,
                                      TakesValue(*option) ? join : "", description,
                                      TakesValue(*option) ? ZshValue(*option) : "")));
        }
    }
    return lines;
}

std::string FunctionName(const std::string& path) {
    std::string name = "_" + path;
    std::replace_if(
        name.begin(), name.end(), [](char c) { return c == ' ' || c == '-'; }, '_');
    return name;
}

/// A function that completes what may stand behind a path.
std::string ZshFunction(const Place& place) {
    std::vector<std::string> lines = ZshOptions(place);
    std::string subcommands;
    std::string calls;
    for (const CLI::App* sub : place.subcommands) {
        subcommands += fmt::format("                {}\n",
                                   ShellWord(Escaped(sub->get_name(), R"(\:)") + ":" +
                                             Escaped(Description(sub->get_description()), R"(\)")));
        calls += fmt::format("                {}) {} ;;\n", ShellWord(sub->get_name()),
                             FunctionName(place.path + " " + sub->get_name()));
    }
    for (const CLI::Option* argument : place.arguments)
        lines.push_back(ShellWord(ZshValue(*argument)));
    if (!place.subcommands.empty()) {
        // Options that follow the subcommand are completed behind it.
        lines.push_back("'(-): :->subcommand'");
        lines.push_back("'(-)*:: :->arguments'");
    }
    std::string text =
        fmt::format(R"({0}() {{
    local curcontext=$curcontext state line
    typeset -A opt_args
    _arguments -C -s \
        {1})",
                    FunctionName(place.path), CLI::detail::join(lines, " \\\n        "));
    if (place.subcommands.empty())
        return text + "\n}\n\n";
    return text + fmt::format(R"( && return
    case $state in
        subcommand)
            local -a subcommands=(
{0}            )
            _describe -t commands subcommand subcommands
            ;;
        arguments)
            case $line[1] in
{1}            esac
            ;;
    esac
}}

)",
                              subcommands, calls);
}

std::string Zsh(const CLI::App& app) {
    std::string text = fmt::format("#compdef {0}\n# zsh completion for {0}\n\n", app.get_name());
    for (const Place& place : Places(app))
        text += ZshFunction(place);
    // Autoloaded, the file is the function; sourced, it has to be announced.
    return text + fmt::format(R"(if [ "$funcstack[1]" = "_{0}" ]; then
    _{0} "$@"
else
    compdef _{0} {0}
fi
)",
                              app.get_name());
}

std::string FishSteps(const std::vector<Place>& places) {
    std::string text;
    for (const Place& place : places) {
        for (const CLI::App* sub : place.subcommands)
            text += fmt::format(
                "            case {0}\n                set path {0}\n                set place 0\n",
                FishWord(place.path + " " + sub->get_name()));
        const std::vector<std::string> options = ValueOptions(place);
        if (!options.empty())
            text += fmt::format("            case {}\n                set option $word\n",
                                Words(options, FishWord));
    }
    return text;
}

/// What "complete" is told of a value.
std::string FishValue(const CLI::Option& option) {
    const std::vector<std::string> choices = Choices(option);
    if (!choices.empty())
        return " -x -a " + FishWord(CLI::detail::join(choices, " "));
    return IsFile(option) ? " -r -F" : " -x";
}

std::string FishLines(const std::string& program, const Place& place) {
    const auto when = [&](const std::string& more) {
        return fmt::format(
            "complete -c {} -n {}", program,
            FishWord(fmt::format("__{}_at {}{}", program, FishWord(place.path), more)));
    };
    std::string text;
    for (const CLI::App* sub : place.subcommands)
        text += fmt::format("{} -a {} -d {}\n", when(" 0"), FishWord(sub->get_name()),
                            FishWord(Description(sub->get_description())));
    for (size_t i = 0; i < place.arguments.size(); ++i)
        text += when(fmt::format(" {}", i)) + FishValue(*place.arguments[i]) + "\n";
    for (const CLI::Option* option : place.options) {
        std::string names;
        for (const std::string& name : option->get_snames())
            names += " -s " + name;
        for (const std::string& name : option->get_lnames())
            names += " -l " + name;
        text += fmt::format("{}{}{} -d {}\n", when(""), names,
                            TakesValue(*option) ? FishValue(*option) : "",
                            FishWord(Description(option->get_description())));
    }
    return text;
}

std::string Fish(const CLI::App& app) {
    static constexpr const char* kHead = R"(# fish completion for {0}

# Whether what is typed so far stands at this path and, when it is given, before this argument.
function __{0}_at
    set -l path {0}
    set -l place 0
    set -l option ''
    set -l words (commandline -opc)
    set -e words[1]
    for word in $words
        if test -n "$option"
            set option ''
            continue
        end
        switch "$path $word"
{1}            case '* -*'
            case '*'
                set place (math $place + 1)
        end
    end
    test "$path" = "$argv[1]"; and test "$place" = "$argv[2]" -o -z "$argv[2]"
end

complete -c {0} -f
)";
    const std::vector<Place> places = Places(app);
    std::string text = fmt::format(kHead, app.get_name(), FishSteps(places));
    for (const Place& place : places)
        text += FishLines(app.get_name(), place);
    return text;
}

}  // namespace

void AddCompletion(CLI::App& app, const Common& /*common*/, Run& run) {
    const auto shell = std::make_shared<std::string>();
    CLI::App* command =
        app.add_subcommand("completion", "Prints the completion script for a shell");
    command->add_option("shell", *shell, "the shell that is to complete")
        ->required()
        ->type_name("SHELL")
        ->check(OneOf({"bash", "zsh", "fish"}));
    command->callback([&app, &run, shell] {
        run = [&app, shell] {
            const std::string script = *shell == "bash"  ? Bash(app)
                                       : *shell == "zsh" ? Zsh(app)
                                                         : Fish(app);
            std::fputs(script.c_str(), stdout);
            return static_cast<int>(Exit::Done);
        };
    });
}

}  // namespace screenctl
