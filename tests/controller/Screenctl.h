#ifndef TESTS_CONTROLLER_SCREENCTL_H_
#define TESTS_CONTROLLER_SCREENCTL_H_

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <system_error>
#include <vector>

#include "simulator/ReceiverSimulator.h"
#include "tests/support/ScriptedPeer.h"

namespace screenctl_test {

using nlohmann::ordered_json;
using sr_test::milliseconds;
using sr_test::WaitFor;

/// A program in the background; its two output streams come through two pipes. Killed at the end of
/// its scope if it still runs. For one thread.
class Screenctl {
public:
    /// `environment`: entries like "COLUMNS=40", in place of this process's own of that name.
    /// `ignored`: signals that the program's parent has it ignore.
    explicit Screenctl(const std::vector<std::string>& arguments,
                       const std::vector<std::string>& environment = {},
                       const std::vector<int>& ignored = {}) {
        int out[2] = {-1, -1};
        int err[2] = {-1, -1};
        EXPECT_EQ(0, pipe2(out, O_CLOEXEC));
        EXPECT_EQ(0, pipe2(err, O_CLOEXEC));
        m_Out.descriptor = out[0];
        m_Err.descriptor = err[0];
        // Others may be ignored by whoever has started the tests.
        for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGQUIT})
            signal(number, SIG_DFL);
        for (const int number : ignored)
            signal(number, SIG_IGN);
        Start(arguments, environment, out[1], err[1]);
        for (const int number : ignored)
            signal(number, SIG_DFL);
        close(out[1]);
        close(err[1]);
    }

    ~Screenctl() {
        if (m_nPid > 0) {
            kill(m_nPid, SIGKILL);
            waitpid(m_nPid, nullptr, 0);
        }
        CloseOutput();
        Close(m_Err);
    }

    Screenctl(const Screenctl&) = delete;
    Screenctl& operator=(const Screenctl&) = delete;

    pid_t Pid() const { return m_nPid; }
    void Signal(int number) {
        if (m_nPid > 0)
            kill(m_nPid, number);
    }

    /// The next line of standard output without its end; empty when it has ended, or none comes.
    std::string Line(milliseconds limit = milliseconds(30000)) {
        WaitFor([this] { return HasLine(m_Out) || !Read(); }, limit);
        const size_t end = m_Out.text.find('\n');
        const std::string line = m_Out.text.substr(0, end);
        m_Out.text.erase(0, end == std::string::npos ? end : end + 1);
        return line;
    }

    /// Nobody reads its standard output any more.
    void CloseOutput() { Close(m_Out); }

    /// Waits for its end. -1 when a signal ended it, -2 when it does not end: then it is killed.
    int ExitCode(milliseconds limit = milliseconds(60000)) {
        if (m_nPid <= 0)
            return m_nExit;
        int status = 0;
        const bool ended = WaitFor(
            [&] {
                Read();
                return waitpid(m_nPid, &status, WNOHANG) == m_nPid;
            },
            limit);
        if (!ended) {
            kill(m_nPid, SIGKILL);
            waitpid(m_nPid, &status, 0);
        }
        m_nPid = -1;
        Read();
        m_nExit = !ended ? -2 : WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        return m_nExit;
    }

    /// What was printed up to now and not taken by Line(); all of it once ExitCode() was called.
    const std::string& Out() {
        Read();
        return m_Out.text;
    }
    const std::string& Err() {
        Read();
        return m_Err.text;
    }

private:
    struct Stream {
        int descriptor = -1;
        std::string text;
    };

    static bool HasLine(const Stream& stream) {
        return stream.text.find('\n') != std::string::npos;
    }

    static void Close(Stream& stream) {
        if (stream.descriptor >= 0)
            close(stream.descriptor);
        stream.descriptor = -1;
    }

    static std::vector<std::string> Environment(const std::vector<std::string>& own) {
        std::vector<std::string> all = own;
        const auto isOwn = [&own](const std::string& entry) {
            for (const std::string& replacement : own) {
                const size_t name = replacement.find('=') + 1;
                if (entry.compare(0, name, replacement, 0, name) == 0)
                    return true;
            }
            return false;
        };
        for (char** entry = environ; *entry != nullptr; ++entry) {
            // The width of a table is each test's own affair.
            const std::string text = *entry;
            if (!isOwn(text) && text.compare(0, 8, "COLUMNS=") != 0)
                all.push_back(text);
        }
        return all;
    }

    void Start(std::vector<std::string> arguments,
               const std::vector<std::string>& environment,
               int out,
               int err) {
        std::vector<std::string> variables = Environment(environment);
        std::vector<char*> argv = {const_cast<char*>(SCREENCTL_PROGRAM)};
        for (std::string& argument : arguments)
            argv.push_back(argument.data());
        argv.push_back(nullptr);
        std::vector<char*> envp;
        for (std::string& variable : variables)
            envp.push_back(variable.data());
        envp.push_back(nullptr);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
        posix_spawn_file_actions_adddup2(&actions, out, STDOUT_FILENO);
        posix_spawn_file_actions_adddup2(&actions, err, STDERR_FILENO);
        EXPECT_EQ(0, posix_spawn(&m_nPid, argv[0], &actions, nullptr, argv.data(), envp.data()));
        posix_spawn_file_actions_destroy(&actions);
    }

    /// Takes what is there from both streams, so that neither fills up. False once standard output
    /// has ended.
    bool Read() {
        ReadFrom(m_Err);
        return ReadFrom(m_Out);
    }

    static bool ReadFrom(Stream& stream) {
        if (stream.descriptor < 0)
            return false;
        for (;;) {
            pollfd entry = {stream.descriptor, POLLIN, 0};
            if (poll(&entry, 1, 0) <= 0)
                return true;
            char chunk[4096];
            const ssize_t size = read(stream.descriptor, chunk, sizeof chunk);
            if (size == -1 && errno == EINTR)
                continue;
            if (size <= 0)
                return false;
            stream.text.append(chunk, static_cast<size_t>(size));
        }
    }

    pid_t m_nPid = -1;
    int m_nExit = 0;
    Stream m_Out;
    Stream m_Err;
};

/// How a program ended, and what it printed.
struct Ended {
    int exit;
    std::string out;
    std::string err;
};

struct ShellRun {
    int exit = -1;
    std::string output;  // both streams
};

/// Runs a line of the shell from start to end.
inline ShellRun RunShell(const std::string& command) {
    ShellRun run;
    FILE* pipe = popen(("{ " + command + "\n} 2>&1").c_str(), "r");
    EXPECT_NE(nullptr, pipe);
    if (pipe == nullptr)
        return run;
    char chunk[4096];
    for (size_t size = 0; (size = fread(chunk, 1, sizeof chunk, pipe)) > 0;)
        run.output.append(chunk, size);
    const int status = pclose(pipe);
    run.exit = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return run;
}

/// Runs the program from start to end.
inline Ended RunScreenctl(const std::vector<std::string>& arguments,
                          const std::vector<std::string>& environment = {}) {
    Screenctl program(arguments, environment);
    const int exit = program.ExitCode();
    return {exit, program.Out(), program.Err()};
}

inline std::vector<std::string> Lines(const std::string& text) {
    std::vector<std::string> lines;
    for (size_t begin = 0; begin < text.size();) {
        const size_t end = std::min(text.find('\n', begin), text.size());
        lines.push_back(text.substr(begin, end - begin));
        begin = end + 1;
    }
    return lines;
}

/// A line that is not JSON fails the test.
inline ordered_json Parse(const std::string& line) {
    const ordered_json value = ordered_json::parse(line, nullptr, false);
    EXPECT_FALSE(value.is_discarded()) << line;
    return value;
}

inline std::vector<ordered_json> ParseLines(const std::string& text) {
    std::vector<ordered_json> values;
    for (const std::string& line : Lines(text))
        values.push_back(Parse(line));
    return values;
}

/// The names of an object's members, in their order, with a blank behind each.
inline std::string KeysOf(const ordered_json& object) {
    std::string keys;
    for (const auto& member : object.items())
        keys += member.key() + " ";
    return keys;
}

inline simulator::Sender MakeSender(int32_t key, const std::string& name) {
    simulator::Sender sender;
    sender.key = key;
    sender.address = 0xC0000200u + static_cast<uint32_t>(key);  // 192.0.2.key
    sender.userName = name;
    return sender;
}

/// An address of its own, and, once Serve() is called, a receiver there.
class ReceiverFixture : public ::testing::Test {
protected:
    ReceiverFixture() { m_Options.address = sr_test::UniqueAddress(); }

    void Serve() {
        m_pReceiver = std::make_unique<simulator::ReceiverSimulator>(m_Options);
        Start();
    }

    void Start() {
        const std::error_code error = m_pReceiver->Start();
        ASSERT_FALSE(error) << error.message();
    }

    const std::string& Host() const { return m_Options.address; }

    /// `arguments`, with this host.
    std::vector<std::string> With(std::vector<std::string> arguments) const {
        arguments.insert(arguments.end(), {"--host", Host()});
        return arguments;
    }

    Ended Run(const std::vector<std::string>& arguments,
              const std::vector<std::string>& environment = {}) const {
        return RunScreenctl(With(arguments), environment);
    }

    simulator::Options m_Options;
    std::unique_ptr<simulator::ReceiverSimulator> m_pReceiver;
};

}  // namespace screenctl_test

#endif  // TESTS_CONTROLLER_SCREENCTL_H_
