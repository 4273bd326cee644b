#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "controller/Command.h"
#include "tests/controller/Screenctl.h"

namespace screenctl_test {

namespace {

using ::testing::Contains;
using ::testing::ContainsRegex;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::UnorderedElementsAre;
using ::testing::UnorderedElementsAreArray;

using Words = std::vector<std::string>;
using Names = std::set<std::string>;

std::string Quoted(const std::string& word) {
    std::string quoted = "'";
    for (const char c : word)
        quoted += c == '\'' ? std::string(R"('\'')") : std::string(1, c);
    return quoted + "'";
}

bool IsInstalled(const std::string& program) {
    return RunShell("command -v " + program).exit == 0;
}

std::string ReadFile(const std::string& path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

/// A command as --help shows it.
struct Help {
    Names options;                                       // "-h", "--help"
    Words arguments;                                     // "id"
    Words subcommands;                                   // "get"
    std::vector<std::pair<std::string, Words>> choices;  // of an option
};

/// {"table", "json"} of "--format TEXT:{table,json}=table".
Words ChoicesIn(const std::string& line) {
    Words choices;
    const size_t brace = line.find(":{");
    if (brace == std::string::npos)
        return choices;
    std::istringstream words(line.substr(brace + 2, line.find('}', brace) - brace - 2));
    for (std::string word; std::getline(words, word, ',');)
        choices.push_back(word);
    return choices;
}

void TakeOption(const std::string& line, Help& help) {
    std::string names;
    std::istringstream(line) >> names;
    std::istringstream split(names);
    for (std::string name; std::getline(split, name, ',');) {
        help.options.insert(name);
        if (!ChoicesIn(line).empty())
            help.choices.emplace_back(name, ChoicesIn(line));
    }
}

Help ParseHelp(const std::string& text) {
    Help help;
    std::string heading;
    for (const std::string& line : Lines(text)) {
        if (line.empty() || line[0] != ' ')
            heading = line;
        if (line.substr(0, 2) != "  " || line[2] == ' ')
            continue;
        std::string word;
        std::istringstream(line) >> word;
        if (heading == "Options:")
            TakeOption(line, help);
        else if (heading == "Positionals:")
            help.arguments.push_back(word);
        else if (heading == "Subcommands:")
            help.subcommands.push_back(word);
    }
    return help;
}

struct Command {
    Words path;  // {"moderator", "set"}
    Help help;
    Names options;  // with those of all commands
};

std::string Path(const Command& command) {
    std::string path;
    for (const std::string& word : command.path)
        path += (path.empty() ? "" : " ") + word;
    return path;
}

void AddCommand(const Words& path, const Names& above, std::vector<Command>& commands) {
    Words arguments = path;
    arguments.push_back("--help");
    Command command = {path, ParseHelp(RunScreenctl(arguments).out), above};
    command.options.insert(command.help.options.begin(), command.help.options.end());
    commands.push_back(command);
    for (const std::string& name : command.help.subcommands) {
        Words longer = path;
        longer.push_back(name);
        AddCommand(longer, command.options, commands);
    }
}

/// The program itself, and all below it.
std::vector<Command> Commands() {
    std::vector<Command> commands;
    AddCommand({}, {}, commands);
    return commands;
}

class CompletionTest : public ::testing::Test {
protected:
    CompletionTest() {
        char folder[] = "/tmp/screenctl-completion-XXXXXX";
        EXPECT_NE(nullptr, mkdtemp(folder));
        m_strFolder = folder;
    }
    ~CompletionTest() override { std::filesystem::remove_all(m_strFolder); }

    /// Has the program write its script; where that is.
    std::string Script(const std::string& shell) const {
        const Ended ended = RunScreenctl({"completion", shell});
        EXPECT_EQ(0, ended.exit);
        EXPECT_EQ("", ended.err);
        return Write(shell, ended.out);
    }

    std::string Write(const std::string& name, const std::string& text) const {
        std::ofstream(m_strFolder + "/" + name) << text;
        return m_strFolder + "/" + name;
    }

    /// What bash offers for the last of these words, which follow "screenctl".
    Words Bash(const std::string& script, const Words& words) const {
        std::string command =
            R"(bash --norc -c 'source "$0" && cd "$1" && shift && COMP_WORDS=("$@") &&
            COMP_CWORD=$(($# - 1)) && _screenctl && printf "%s\n" "${COMPREPLY[@]}"' )";
        command += Quoted(script) + " " + Quoted(m_strFolder) + " screenctl";
        for (const std::string& word : words)
            command += " " + Quoted(word);
        const ShellRun run = RunShell(command);
        EXPECT_EQ(0, run.exit) << run.output;
        Words offered = Lines(run.output);
        offered.erase(std::remove(offered.begin(), offered.end(), ""), offered.end());
        return offered;
    }

    /// What becomes of each line when the tabulator key is hit at its end, in a zsh with a terminal.
    Words Zsh(const std::string& script, const Words& lines) const {
        const std::string setUp = Write("set-up.zsh", R"(
            autoload compinit; compinit -D -u; source )" + Quoted(script) +
                                                          R"(
            take() { print -r -- "$BUFFER" >> )" + Quoted(m_strFolder + "/taken") +
                                                          R"(; BUFFER= }
            zle -N take; bindkey '^T' take; bindkey '^I' expand-or-complete
            touch )" + Quoted(m_strFolder + "/ready"));
        std::string keys;
        for (const std::string& line : lines)
            keys += line + "\t\x14";
        const std::string driver = Write("driver.zsh", R"(
            zmodload zsh/zpty
            await() { repeat 600; do eval "$1" && return; sleep 0.1; done }
            zpty -b shell TERM=dumb zsh -f -i
            zpty -w shell source )" + Quoted(setUp) + R"(
            await '[[ -e )" + m_strFolder + R"(/ready ]]'
            zpty -w -n shell ")" + keys + R"("
            await '[[ $(cat )" + m_strFolder + "/taken 2>/dev/null | wc -l) -ge " +
                                                           std::to_string(lines.size()) + R"( ]]'
            zpty -d shell
        )");
        const ShellRun run = RunShell("zsh -f " + Quoted(driver));
        EXPECT_EQ(0, run.exit) << run.output;
        return Lines(ReadFile(m_strFolder + "/taken"));
    }

    /// What fish offers at the end of a line; only the words, unless descriptions are wanted.
    Words Fish(const std::string& script,
               const std::string& line,
               bool descriptions = false) const {
        const ShellRun run = RunShell("fish --no-config -c " +
                                      Quoted("source " + script + "; complete -C " + Quoted(line)));
        EXPECT_EQ(0, run.exit) << run.output;
        Words offered;
        for (const std::string& entry : Lines(run.output))
            offered.push_back(descriptions ? entry : entry.substr(0, entry.find('\t')));
        return offered;
    }

    std::string m_strFolder;
};

Words Behind(const Words& path, const Words& more) {
    Words words = path;
    words.insert(words.end(), more.begin(), more.end());
    return words;
}

}  // namespace

TEST_F(CompletionTest, ShellThatIsNotKnownIsWrongUsage) {
    EXPECT_EQ(2, RunScreenctl({"completion", "tcsh"}).exit);
    EXPECT_EQ(2, RunScreenctl({"completion"}).exit);
    EXPECT_EQ("", RunScreenctl({"completion", "tcsh"}).out);
}

TEST_F(CompletionTest, BashOffersJustTheSubcommandsOfHelp) {
    const std::string script = Script("bash");
    for (const Command& command : Commands()) {
        if (!command.help.subcommands.empty()) {
            EXPECT_THAT(Bash(script, Behind(command.path, {""})),
                        UnorderedElementsAreArray(command.help.subcommands))
                << Path(command);
        }
    }
}

TEST_F(CompletionTest, BashOffersJustTheOptionsOfHelp) {
    const std::string script = Script("bash");
    for (const Command& command : Commands())
        EXPECT_THAT(Bash(script, Behind(command.path, {"-"})),
                    UnorderedElementsAreArray(command.options))
            << Path(command);
}

TEST_F(CompletionTest, BashOffersTheChoicesOfHelp) {
    const std::string script = Script("bash");
    size_t tried = 0;
    for (const Command& command : Commands()) {
        for (const auto& [option, choices] : command.help.choices) {
            ++tried;
            EXPECT_THAT(Bash(script, Behind(command.path, {option, ""})),
                        UnorderedElementsAreArray(choices))
                << Path(command) << " " << option;
        }
    }
    EXPECT_GE(tried, 3u);
}

TEST_F(CompletionTest, BashCompletesWhatIsBegun) {
    const std::string script = Script("bash");
    EXPECT_THAT(Bash(script, {"mod"}), ElementsAre("moderator"));
    EXPECT_THAT(Bash(script, {"moderator", "s"}), ElementsAre("set"));
    EXPECT_THAT(Bash(script, {"list", "--form"}), ElementsAre("--format"));
    EXPECT_THAT(Bash(script, {"list", "--format", ""}),
                UnorderedElementsAre("table", "json", "csv"));
    EXPECT_THAT(Bash(script, {"list", "--format", "c"}), ElementsAre("csv"));
    EXPECT_THAT(Bash(script, {"list", "--hos"}), ElementsAre("--host"));
    EXPECT_THAT(Bash(script, {"completion", ""}), UnorderedElementsAre("bash", "zsh", "fish"));
    EXPECT_THAT(Bash(script, {"frobnicate"}), IsEmpty());
}

TEST_F(CompletionTest, BashCompletesBehindAnEqualsSign) {
    const std::string script = Script("bash");
    EXPECT_THAT(Bash(script, {"list", "--format", "="}),
                UnorderedElementsAre("table", "json", "csv"));
    EXPECT_THAT(Bash(script, {"list", "--format", "=", "j"}), ElementsAre("json"));
    EXPECT_THAT(Bash(script, {"list", "--format=j"}), ElementsAre("--format=json"));
    EXPECT_THAT(Bash(script, {"--host", "=", "192.0.2.7", "moderator", ""}),
                UnorderedElementsAre("get", "set"));
}

TEST_F(CompletionTest, BashTakesAnOptionsValueForNoSubcommand) {
    const std::string script = Script("bash");
    EXPECT_THAT(Bash(script, {"--host", "moderator", ""}), Contains("list"));
    EXPECT_THAT(Bash(script, {"--host", "192.0.2.7", "moderator", ""}),
                UnorderedElementsAre("get", "set"));
    EXPECT_THAT(Bash(script, {"completion", "bash", ""}), Not(Contains("zsh")));
    EXPECT_THAT(Bash(script, {"--host", ""}), IsEmpty());
}

TEST_F(CompletionTest, BashCompletesFilesOnlyWhereOneIsWanted) {
    const std::string script = Script("bash");
    Write("listing of today.log", "");
    EXPECT_THAT(Bash(script, {"list", "--trace", "listing"}), ElementsAre("listing of today.log"));
    EXPECT_THAT(Bash(script, {"--trace", "=", "listing"}), ElementsAre("listing of today.log"));
    EXPECT_THAT(Bash(script, {"list", "listing"}), IsEmpty());
    EXPECT_THAT(Bash(script, {"--host", "listing"}), IsEmpty());
}

TEST_F(CompletionTest, ZshScriptHasEveryCommandAndOption) {
    const std::string script = ReadFile(Script("zsh"));
    for (const Command& command : Commands()) {
        std::string name = "_screenctl";
        for (std::string word : command.path) {
            std::replace(word.begin(), word.end(), '-', '_');
            name += "_" + word;
        }
        const size_t begin = script.find("\n" + name + "() {\n");
        ASSERT_NE(std::string::npos, begin) << name;
        const std::string function = script.substr(begin, script.find("\n}\n", begin) - begin);
        for (const std::string& option : command.options)
            EXPECT_THAT(function, ContainsRegex("[)]" + option + "[+=]?\\[")) << name;
        for (const std::string& sub : command.help.subcommands)
            EXPECT_THAT(function, HasSubstr("'" + sub + ":")) << name;
    }
}

TEST_F(CompletionTest, ZshCompletesAtEveryPlace) {
    if (!IsInstalled("zsh"))
        GTEST_SKIP() << "no zsh here";
    EXPECT_THAT(
        Zsh(Script("zsh"),
            {"screenctl mod", "screenctl --hos", "screenctl --json li", "screenctl list --wh",
             "screenctl list --json --wh", "screenctl list --json --which no",
             "screenctl --json list --form", "screenctl moderator s",
             "screenctl moderator --json g", "screenctl moderator --host 192.0.2.7 s",
             "screenctl moderator get --js", "screenctl completion f",
             "screenctl wait --until x --time", "screenctl play --json --op"}),
        ElementsAre("screenctl moderator ", "screenctl --host=", "screenctl --json list ",
                    "screenctl list --which=", "screenctl list --json --which=",
                    "screenctl list --json --which nonlocal ",
                    "screenctl --json list --format=", "screenctl moderator set ",
                    "screenctl moderator --json get ", "screenctl moderator --host 192.0.2.7 set ",
                    "screenctl moderator get --json ", "screenctl completion fish ",
                    "screenctl wait --until x --timeout=", "screenctl play --json --option="));
}

TEST_F(CompletionTest, FishOffersEveryCommandAndOption) {
    if (!IsInstalled("fish"))
        GTEST_SKIP() << "no fish here";
    const std::string script = Script("fish");
    for (const Command& command : Commands()) {
        const std::string line = "screenctl " + Path(command) + (command.path.empty() ? "" : " ");
        const Words offered = Fish(script, line + "-");
        for (const std::string& option : command.options)
            EXPECT_THAT(offered, Contains(option)) << line;
        if (!command.help.subcommands.empty()) {
            EXPECT_THAT(Fish(script, line), UnorderedElementsAreArray(command.help.subcommands));
        }
    }
    EXPECT_THAT(Fish(script, "screenctl list --format "),
                UnorderedElementsAre("table", "json", "csv"));
    EXPECT_THAT(Fish(script, "screenctl --host moderator l"), Contains("list"));
}

class CompletionShellTest : public CompletionTest,
                            public ::testing::WithParamInterface<const char*> {
protected:
    void ExpectFishDescribes(const std::string& script, const std::string& text) const {
        EXPECT_THAT(Fish(script, "screenctl su", true), ElementsAre("sub\t" + text));
        EXPECT_THAT(Fish(script, "screenctl sub --fl", true), ElementsAre("--flag\t" + text));
        EXPECT_THAT(Fish(script, "screenctl sub --val", true), ElementsAre("--value\t" + text));
    }

    /// Prints what _arguments and _describe are given.
    static void ExpectZshDescribes(const std::string& script) {
        const std::string given =
            RunShell("zsh -f -c " + Quoted("compdef() { }; _arguments() { print -rl -- \"$@\"; "
                                           "state=subcommand; return 1; };"
                                           "_describe() { print -rl -- $subcommands; }; source " +
                                           script + "; _screenctl"))
                .output;
        EXPECT_THAT(given, HasSubstr(R"((--value)--value=[it's "all" \[of it\]\: $HOME `id` \\ )"
                                     R"($(id) 100% {a,b} <x>; #]:VALUE: )"));
        EXPECT_THAT(given, HasSubstr(R"(sub:it's "all" [of it]: $HOME `id` \\ )"
                                     R"($(id) 100% {a,b} <x>; #)"));
    }

    const std::string m_strShell = GetParam();
};

TEST_P(CompletionShellTest, ScriptLoadsWithoutAnError) {
    if (!IsInstalled(m_strShell))
        GTEST_SKIP() << "no " << m_strShell << " here";
    const std::string script = Script(m_strShell);
    const ShellRun checked = RunShell(m_strShell + " -n " + script);
    EXPECT_EQ(0, checked.exit);
    EXPECT_EQ("", checked.output);
    const std::string load =
        m_strShell == "zsh" ? "autoload compinit; compinit -D -u; source " : "source ";
    const ShellRun loaded = RunShell(m_strShell + " -c " + Quoted(load + script));
    EXPECT_EQ(0, loaded.exit);
    EXPECT_EQ("", loaded.output);
}

TEST_P(CompletionShellTest, AnyDescriptionIsQuotedRight) {
    if (!IsInstalled(m_strShell))
        GTEST_SKIP() << "no " << m_strShell << " here";
    constexpr const char* kText = R"(it's "all" [of it]: $HOME `id` \ $(id) 100% {a,b} <x>; #)";
    CLI::App app(kText, "screenctl");
    screenctl::Run run;
    app.fallthrough();
    app.add_subcommand("sub", kText)->add_flag("--flag", kText);
    app.add_option("--value", kText)->type_name("VALUE");
    screenctl::AddCompletion(app, {}, run);
    app.parse("completion " + m_strShell);
    ::testing::internal::CaptureStdout();
    EXPECT_EQ(0, run());
    std::fflush(stdout);
    const std::string script = Write("script", ::testing::internal::GetCapturedStdout());
    const ShellRun checked = RunShell(m_strShell + " -n " + script);
    EXPECT_EQ(0, checked.exit);
    EXPECT_EQ("", checked.output);
    if (m_strShell == "bash")
        EXPECT_THAT(Bash(script, {"sub", "--fl"}), ElementsAre("--flag"));
    else if (m_strShell == "fish")
        ExpectFishDescribes(script, kText);
    else
        ExpectZshDescribes(script);
}

INSTANTIATE_TEST_SUITE_P(Shells,
                         CompletionShellTest,
                         ::testing::Values("bash", "zsh", "fish"),
                         [](const auto& test) { return std::string(test.param); });

namespace {

/// The lines of a man page between a heading and the next one of its kind or above.
std::string Section(const std::string& page, const std::string& heading) {
    const size_t begin = page.find("\n" + heading + "\n");
    EXPECT_NE(std::string::npos, begin) << heading;
    if (begin == std::string::npos)
        return "";
    const size_t text = begin + heading.size() + 2;
    const size_t end = heading.substr(0, 3) == ".Ss"
                           ? std::min(page.find("\n.Ss ", text - 1), page.find("\n.Sh ", text - 1))
                           : page.find("\n.Sh ", text - 1);
    return page.substr(text, end == std::string::npos ? end : end + 1 - text);
}

/// The options that the items of a section's lists describe: ".It Fl v , -verbose" has two.
Names OptionsIn(const std::string& section) {
    Names options;
    for (const std::string& line : Lines(section)) {
        std::istringstream words(line);
        std::string word;
        if (!(words >> word) || word != ".It" || !(words >> word) || word != "Fl")
            continue;
        while (words >> word && word != "Ar" && word != "Cm") {
            if (word != ",")
                options.insert("-" + word);
        }
    }
    return options;
}

Words HeadingsIn(const std::string& page, const std::string& macro) {
    Words headings;
    for (const std::string& line : Lines(page)) {
        if (line.substr(0, macro.size() + 1) == macro + " ")
            headings.push_back(line.substr(macro.size() + 1));
    }
    return headings;
}

/// The lines of a command in the synopsis, up to the next one.
std::string Synopsis(const std::string& page, const std::string& path) {
    const std::string all = Section(page, ".Sh SYNOPSIS") + ".Nm\n";
    const std::string start = ".Nm\n.Cm " + path + "\n";
    const size_t begin = all.find(start);
    EXPECT_NE(std::string::npos, begin) << path;
    if (begin == std::string::npos)
        return "";
    return all.substr(begin, all.find(".Nm\n", begin + 1) - begin);
}

}  // namespace

class ManPageTest : public ::testing::TestWithParam<const char*> {
protected:
    const std::string m_strPage = ReadFile(GetParam());
};

TEST_P(ManPageTest, HasTheUsualSections) {
    Words sections = HeadingsIn(m_strPage, ".Sh");
    sections.erase(std::remove(sections.begin(), sections.end(), "COMMANDS"), sections.end());
    EXPECT_THAT(sections, ElementsAre("NAME", "SYNOPSIS", "DESCRIPTION", "JSON OUTPUT",
                                      "EXIT STATUS", "EXAMPLES", "SEE ALSO"));
}

TEST_P(ManPageTest, ClosesWhatItOpens) {
    const auto count = [this](const std::string& macro) {
        const Words lines = Lines(m_strPage);
        return std::count_if(lines.begin(), lines.end(), [&](const std::string& line) {
            return line.substr(0, macro.size()) == macro;
        });
    };
    EXPECT_GT(count(".Bl "), 0);
    EXPECT_EQ(count(".Bl "), count(".El"));
    EXPECT_EQ(count(".Bd "), count(".Ed"));
}

TEST_P(ManPageTest, IsFormattedWithoutAWarning) {
    if (!IsInstalled("groff"))
        GTEST_SKIP() << "no groff here";
    const ShellRun known = RunShell("printf '.Dd x\\n.Dt X 1\\n.Os\\n' | groff -mandoc -Tascii -z");
    if (known.output.find("mdoc") != std::string::npos)
        GTEST_SKIP() << "groff without its macros here";
    const ShellRun run = RunShell("groff -mandoc -ww -Tutf8 -z " + Quoted(GetParam()));
    EXPECT_EQ(0, run.exit);
    EXPECT_EQ("", run.output);
}

INSTANTIATE_TEST_SUITE_P(
    Pages, ManPageTest, ::testing::Values(MAN_PAGE, RECEIVER_SIM_MAN_PAGE), [](const auto& test) {
        return std::filesystem::path(test.param).stem() == "screenctl" ? "screenctl"
                                                                       : "receiver_sim";
    });

TEST(ScreenctlManPageTest, DescribesJustTheCommandsOfHelp) {
    Words paths = {"Options of all commands"};
    for (const Command& command : Commands()) {
        if (command.help.subcommands.empty())
            paths.push_back(Path(command));
    }
    EXPECT_THAT(HeadingsIn(ReadFile(MAN_PAGE), ".Ss"), UnorderedElementsAreArray(paths));
}

TEST(ScreenctlManPageTest, DescribesJustTheOptionsOfHelp) {
    const std::string page = ReadFile(MAN_PAGE);
    const std::vector<Command> commands = Commands();
    const Names& common = commands.front().help.options;
    EXPECT_EQ(common, OptionsIn(Section(page, ".Ss Options of all commands")));
    for (const Command& command : commands) {
        Names own;
        std::set_difference(command.help.options.begin(), command.help.options.end(),
                            common.begin(), common.end(), std::inserter(own, own.begin()));
        if (command.help.subcommands.empty())
            EXPECT_EQ(own, OptionsIn(Section(page, ".Ss " + Path(command)))) << Path(command);
        else
            EXPECT_TRUE(own.empty() || command.path.empty()) << Path(command);
    }
}

TEST(ScreenctlManPageTest, SynopsisHasEveryArgumentAndOption) {
    const std::string page = ReadFile(MAN_PAGE);
    const std::vector<Command> commands = Commands();
    for (const Command& command : commands) {
        if (!command.help.subcommands.empty()) {
            continue;
        }
        const std::string synopsis = Synopsis(page, Path(command));
        for (const std::string& argument : command.help.arguments)
            EXPECT_THAT(synopsis, HasSubstr("Ar " + argument + "\n")) << Path(command);
        for (const std::string& option : command.help.options) {
            if (commands.front().options.count(option) == 0) {
                EXPECT_THAT(synopsis, HasSubstr("Fl " + option.substr(1) + " ")) << Path(command);
            }
        }
    }
}

TEST(ScreenctlManPageTest, HasEveryExitCode) {
    const std::string section = Section(ReadFile(MAN_PAGE), ".Sh EXIT STATUS");
    EXPECT_THAT(HeadingsIn(section, ".It"), ElementsAre("0", "1", "2", "3", "4", "10", "11", "12",
                                                        "13", "14", "15", "16", "17", "18"));
}

// Help and JSON

TEST(ScreenctlHelpTest, NamesTheCommonOptionsOfEveryCommand) {
    const std::vector<Command> commands = Commands();
    for (const Command& command : commands) {
        if (command.path.empty())
            continue;
        const Ended help = RunScreenctl(Behind(command.path, {"--help"}));
        const std::string last = Lines(help.out).back();
        EXPECT_THAT(last, HasSubstr("screenctl --help")) << Path(command);
        for (const std::string& option : commands.front().help.options) {
            if (option != "-h" && option != "--help") {
                EXPECT_THAT(last, ContainsRegex(option + "[,;]")) << Path(command);
            }
        }
    }
}

using Keys = std::map<std::string, Names>;  // by command, "watch TYPE" or "error"

/// The words of ".Li key , name :" or ".It Cm play , moderator set No a line" up to "No"; those
/// between two commas are one.
Words Items(const std::string& line) {
    Words items = {""};
    std::istringstream words(line);
    for (std::string word; words >> word && word != "No";) {
        if (word == ",")
            items.emplace_back();
        else if (word[0] != '.' && word != "Cm" && word != "Li" && word != ":")
            items.back() += (items.back().empty() ? "" : " ") + word;
    }
    if (items.back().empty())
        items.pop_back();
    return items;
}

/// What the man page says, a sender's keys for a type of watch that has no others.
Keys DocumentedKeys() {
    Keys keys;
    Words described;
    for (const std::string& line : Lines(Section(ReadFile(MAN_PAGE), ".Sh JSON OUTPUT"))) {
        if (line.substr(0, 7) == ".It Cm ")
            described = Items(line);
        else if (line == ".Pp")
            described = {"error"};
        else if (line.substr(0, 7) == ".It Li ") {
            described.clear();
            for (const std::string& type : Items(line))
                described.push_back("watch " + type);
        }
        for (const std::string& name : described) {
            keys[name];
            if (line.substr(0, 4) == ".Li ") {
                for (const std::string& key : Items(line))
                    keys[name].insert(key);
            }
        }
    }
    for (auto& [name, own] : keys) {
        if (name.substr(0, 6) == "watch ") {
            const Names& sender = keys["list"];
            if (own.empty())
                own = sender;
            own.insert(keys["watch"].begin(), keys["watch"].end());
        }
    }
    keys.erase("watch");
    keys.erase("watch lost");  // comes after more notifications than are sent here
    return keys;
}

class JsonKeysTest : public ReceiverFixture {
protected:
    void Take(const std::string& name, const ordered_json& line, Keys& keys) const {
        for (const auto& member : line.items())
            keys[name].insert(member.key());
    }

    void TakeOutput(const std::string& name, const Words& arguments, Keys& keys) const {
        const Ended ended = Run(Behind(arguments, {"--json"}));
        EXPECT_EQ(0, ended.exit) << name << " " << ended.err;
        for (ordered_json line : ParseLines(ended.out)) {
            EXPECT_EQ(1, line["version"]);
            line.erase("version");
            Take(name, line, keys);
        }
    }

    void TakeError(Keys& keys) const {
        const ordered_json line = Parse(Run({"play", "99", "--json"}).err);
        Take("error", line, keys);
        Take("error", line["error"], keys);
    }

    /// The next line; its type.
    std::string TakeWatched(Screenctl& watch, Keys& keys) const {
        ordered_json line = Parse(watch.Line());
        line.erase("version");
        const std::string type = line.value("type", "");
        Take("watch " + type, line, keys);
        return type;
    }

    void TakeWatch(Keys& keys) const {
        Screenctl watch(With({"watch"}));
        const auto await = [&](const std::string& type) {
            for (std::string next; next != type;) {
                next = TakeWatched(watch, keys);
                ASSERT_NE("", next);
            }
        };
        await("list");
        m_pReceiver->AddSender(MakeSender(2, "Grace"));
        await("joined");
        m_pReceiver->ChangeSender(2, [](simulator::Sender& sender) { sender.status = 9; });
        await("changed");
        m_pReceiver->RemoveSender(2);
        await("left");
        m_pReceiver->Stop();
        await("link");
    }
};

TEST_F(JsonKeysTest, AreThoseOfTheManPage) {
    Serve();
    ASSERT_TRUE(m_pReceiver->AddSender(MakeSender(1, "Ada")));
    Keys printed;
    TakeOutput("list", {"list"}, printed);
    TakeOutput("moderator get", {"moderator", "get"}, printed);
    TakeOutput("moderator set", {"moderator", "set", "1", "1"}, printed);
    TakeOutput("play", {"play", "1"}, printed);
    TakeOutput("stop", {"stop", "1"}, printed);
    TakeOutput("keepalive", {"keepalive", "--count", "1"}, printed);
    TakeOutput("quit-control", {"quit-control"}, printed);
    TakeOutput("wait", {"wait", "--until", "sender Ada present"}, printed);
    TakeOutput("doctor", {"doctor"}, printed);
    TakeOutput("explain", {"explain", "1"}, printed);
    TakeOutput("logout", {"logout", "1"}, printed);
    TakeError(printed);
    TakeWatch(printed);
    EXPECT_EQ(DocumentedKeys(), printed);
}

TEST(ReceiverSimManPageTest, DescribesJustTheOptionsOfHelp) {
    const ShellRun help = RunShell(Quoted(RECEIVER_SIM_PROGRAM) + " --help");
    const Names options = ParseHelp(help.output).options;
    EXPECT_GE(options.size(), 10u);
    const std::string page = ReadFile(RECEIVER_SIM_MAN_PAGE);
    EXPECT_EQ(options, OptionsIn(Section(page, ".Sh DESCRIPTION")));
}

TEST(ReceiverSimManPageTest, DescribesJustTheCommandsOfHelp) {
    const ShellRun help =
        RunShell("printf 'help\\nquit\\n' | " + Quoted(RECEIVER_SIM_PROGRAM) + " --port 0");
    Names known;  // "ok join, leave, ..., fault on, ..."
    for (const std::string& line : Lines(help.output)) {
        if (line.substr(0, 8) != "ok join,")
            continue;
        std::istringstream names(line.substr(3));
        for (std::string name; std::getline(names >> std::ws, name, ',');)
            known.insert(name);
    }
    EXPECT_GE(known.size(), 10u) << help.output;
    Names described;
    const std::string section = Section(ReadFile(RECEIVER_SIM_MAN_PAGE), ".Sh COMMANDS");
    for (const std::string& item : HeadingsIn(section, ".It Cm"))
        described.insert(item.substr(0, std::min(item.find(" Ar "), item.find(" Op "))));
    EXPECT_EQ(known, described);
}

}  // namespace screenctl_test
