#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
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

struct ShellRun {
    int exit = -1;
    std::string output;  // both streams
};

ShellRun RunShell(const std::string& command) {
    ShellRun run;
    FILE* pipe = popen(("{ " + command + "; } 2>&1").c_str(), "r");
    EXPECT_NE(nullptr, pipe);
    if (pipe == nullptr)
        return run;
    char chunk[4096];
    for (size_t size = 0; (size = fread(chunk, 1, sizeof chunk, pipe)) > 0;)
        run.output.append(chunk, size);
    run.exit = pclose(pipe);
    return run;
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

/// {"table", "json"} of "--format ENUM:table|json=table" and of "--format TEXT:{table,json}".
Words ChoicesIn(const std::string& line) {
    Words choices;
    const size_t colon = line.find(':');
    if (colon == std::string::npos || line.find_first_of("|{", colon) == std::string::npos)
        return choices;
    std::string list = line.substr(colon + 1, line.find_first_of("= }", colon) - colon - 1);
    std::replace_if(
        list.begin(), list.end(), [](char c) { return c == '{' || c == ',' || c == '|'; }, ' ');
    std::istringstream words(list);
    for (std::string word; words >> word;)
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
    EXPECT_THAT(HeadingsIn(section, ".It"),
                ElementsAre("0", "1", "2", "3", "4", "10", "11", "12", "13", "14", "15", "16"));
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
