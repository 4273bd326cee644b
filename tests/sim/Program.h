#ifndef TESTS_SIM_PROGRAM_H_
#define TESTS_SIM_PROGRAM_H_

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "RawClient.h"

namespace sim_test {

/// receiver-sim as a child process; what it prints, both streams, comes through one pipe.
class Program {
public:
    /// Standard input is a pipe, see Type().
    explicit Program(const std::vector<std::string>& arguments) {
        int ends[2] = {-1, -1};
        EXPECT_EQ(0, pipe2(ends, O_CLOEXEC));
        m_nInput = ends[1];
        Start(arguments, ends[0]);
        close(ends[0]);
    }

    /// Standard input is this descriptor, which stays the caller's; -1: it is closed.
    Program(const std::vector<std::string>& arguments, int input) { Start(arguments, input); }

    ~Program() {
        if (m_nPid > 0) {
            kill(m_nPid, SIGKILL);
            waitpid(m_nPid, nullptr, 0);
        }
        EndInput();
        CloseOutput();
    }

    Program(const Program&) = delete;
    Program& operator=(const Program&) = delete;

    bool Type(const std::string& text) {
        return write(m_nInput, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    }

    void EndInput() {
        if (m_nInput >= 0)
            close(m_nInput);
        m_nInput = -1;
    }

    /// From now on nobody reads what it prints.
    void CloseOutput() {
        if (m_nOutput >= 0)
            close(m_nOutput);
        m_nOutput = -1;
    }

    /// The next line without its end; empty when the output has ended.
    std::string Line() {
        while (m_strRead.find('\n') == std::string::npos) {
            if (!ReadMore())
                break;
        }
        const size_t end = m_strRead.find('\n');
        const std::string line = m_strRead.substr(0, end);
        m_strRead.erase(0, end == std::string::npos ? end : end + 1);
        return line;
    }

    /// All that is printed from now to the end.
    std::string Rest() {
        while (ReadMore()) {
        }
        return m_strRead;
    }

    /// Bytes that it has printed and nobody has read.
    int Unread() const {
        int size = 0;
        ioctl(m_nOutput, FIONREAD, &size);
        return size;
    }

    void Signal(int number) { kill(m_nPid, number); }

    /// It is there to be waited for, still.
    bool HasEnded() const {
        siginfo_t info = {};
        waitid(P_PID, static_cast<id_t>(m_nPid), &info, WEXITED | WNOHANG | WNOWAIT);
        return info.si_pid == m_nPid;
    }

    /// -1 when a signal ended it, -2 when it does not end.
    int ExitCode() {
        int status = 0;
        if (!WaitFor([this] { return HasEnded(); }))
            return -2;
        EXPECT_EQ(m_nPid, waitpid(m_nPid, &status, 0));
        m_nPid = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

private:
    void Start(const std::vector<std::string>& arguments, int input) {
        int ends[2] = {-1, -1};
        EXPECT_EQ(0, pipe2(ends, O_CLOEXEC));
        m_nOutput = ends[0];
        std::vector<char*> argv = {const_cast<char*>(RECEIVER_SIM_PROGRAM)};
        for (const std::string& argument : arguments)
            argv.push_back(const_cast<char*>(argument.c_str()));
        argv.push_back(nullptr);
        m_nPid = fork();
        if (m_nPid == 0) {
            if (input >= 0)
                dup2(input, STDIN_FILENO);
            else
                close(STDIN_FILENO);
            dup2(ends[1], STDOUT_FILENO);
            dup2(ends[1], STDERR_FILENO);
            execv(argv[0], argv.data());
            _exit(127);
        }
        close(ends[1]);
    }

    bool ReadMore() {
        pollfd entry = {m_nOutput, POLLIN, 0};
        if (poll(&entry, 1, static_cast<int>(kLimit.count())) <= 0)
            return false;
        char chunk[4096];
        const ssize_t size = read(m_nOutput, chunk, sizeof chunk);
        if (size <= 0)
            return false;
        m_strRead.append(chunk, static_cast<size_t>(size));
        return true;
    }

    pid_t m_nPid = -1;
    int m_nInput = -1;
    int m_nOutput = -1;
    std::string m_strRead;
};

/// Programs on an address of their own.
class ProgramFixture : public ::testing::Test {
protected:
    std::vector<std::string> With(const std::vector<std::string>& more) const {
        std::vector<std::string> all = {"--address", m_strAddress, "--port", "0"};
        all.insert(all.end(), more.begin(), more.end());
        return all;
    }

    /// Waits for the line that says where the program listens; its port, 0 when there is no such
    /// line.
    uint16_t ListeningPort(Program& program) const {
        const std::string line = program.Line();
        const std::string start = "listening on " + m_strAddress + ":";
        EXPECT_EQ(start, line.substr(0, start.size()));
        if (line.size() <= start.size())
            return 0;
        return static_cast<uint16_t>(std::strtoul(line.c_str() + start.size(), nullptr, 10));
    }

    /// A request and its answer show that the program serves.
    void ExpectServing(uint16_t port) const {
        RawClient client(m_strAddress, port);
        EXPECT_TRUE(client.Send(Frame32("20", "01")));
        EXPECT_EQ(Frame32("21"), client.Receive(40));
    }

    const std::string m_strAddress = OwnAddress();
};

}  // namespace sim_test

#endif  // TESTS_SIM_PROGRAM_H_
