#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "RawClient.h"

namespace {

using namespace sim_test;

/// receiver-sim as a child process; what it prints, both streams, comes through one pipe.
class Program {
public:
    explicit Program(const std::vector<std::string>& arguments) {
        int ends[2] = {-1, -1};
        EXPECT_EQ(0, pipe2(ends, O_CLOEXEC));
        m_nOutput = ends[0];
        std::vector<char*> argv = {const_cast<char*>(RECEIVER_SIM_PROGRAM)};
        for (const std::string& argument : arguments)
            argv.push_back(const_cast<char*>(argument.c_str()));
        argv.push_back(nullptr);
        m_nPid = fork();
        if (m_nPid == 0) {
            dup2(ends[1], STDOUT_FILENO);
            dup2(ends[1], STDERR_FILENO);
            execv(argv[0], argv.data());
            _exit(127);
        }
        close(ends[1]);
    }

    ~Program() {
        if (m_nPid > 0) {
            kill(m_nPid, SIGKILL);
            waitpid(m_nPid, nullptr, 0);
        }
        close(m_nOutput);
    }

    Program(const Program&) = delete;
    Program& operator=(const Program&) = delete;

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

    void Signal(int number) { kill(m_nPid, number); }

    /// -1 when a signal ended it.
    int ExitCode() {
        int status = 0;
        EXPECT_EQ(m_nPid, waitpid(m_nPid, &status, 0));
        m_nPid = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

private:
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
    int m_nOutput = -1;
    std::string m_strRead;
};

class ReceiverSimProgramTest : public ::testing::Test {
protected:
    std::vector<std::string> With(std::vector<std::string> more) const {
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

    const std::string m_strAddress = OwnAddress();
};

TEST_F(ReceiverSimProgramTest, ServesUntilSigtermAndSaysWhatItDid) {
    Program program(With({}));
    const uint16_t port = ListeningPort(program);
    {
        RawClient client(m_strAddress, port);
        ASSERT_TRUE(client.Send(Frame32("10", "01")));
        const std::string list = client.Receive(40 + 4 * 128);
        ASSERT_EQ(40u + 4 * 128, list.size());
        EXPECT_EQ(Frame32("11", "00 04 01"), list.substr(0, 40));
        EXPECT_EQ(Hex("00 00 00 01 C0 A8 0A 14 41 64 61 00"), list.substr(40, 12));
        ASSERT_TRUE(client.Send(Frame32("1A", "01")));
        EXPECT_EQ(Frame32("1B", "00 03 01"), client.Receive(40));
        EXPECT_EQ(3u * 128, client.Receive(3 * 128).size());
        ASSERT_TRUE(client.Send(Frame32("1C", "01")));
        EXPECT_EQ(Frame32("1D", "00 03 01"), client.Receive(40));
    }
    program.Signal(SIGTERM);
    EXPECT_EQ("served 1 clients (0 dropped), 3 frames received, 3 sent\n", program.Rest());
    EXPECT_EQ(0, program.ExitCode());
}

TEST_F(ReceiverSimProgramTest, SigintEndsItWithClientsConnected) {
    Program program(With({}));
    RawClient client(m_strAddress, ListeningPort(program));
    ASSERT_TRUE(client.Send(Frame32("20", "01")));
    EXPECT_EQ(Frame32("21"), client.Receive(40));
    program.Signal(SIGINT);
    EXPECT_TRUE(client.IsClosedByPeer());
    EXPECT_EQ("served 1 clients (0 dropped), 1 frames received, 1 sent\n", program.Rest());
    EXPECT_EQ(0, program.ExitCode());
}

TEST_F(ReceiverSimProgramTest, SendersAndRecordsAreChosenByOptions) {
    Program program(With({"--senders", "15", "--records", "short"}));
    RawClient client(m_strAddress, ListeningPort(program));
    ASSERT_TRUE(client.Send(Frame32("10", "01")));
    const std::string list = client.Receive(40 + 15 * 64);
    ASSERT_EQ(40u + 15 * 64, list.size());
    EXPECT_EQ(Frame32("11", "00 0F 00"), list.substr(0, 40));
    EXPECT_EQ(Hex("00 00 00 0F"), list.substr(40 + 14 * 64, 4));
}

TEST_F(ReceiverSimProgramTest, NotifiesAtItsInterval) {
    Program program(With({"--senders", "0", "--notify-every", "0.01"}));
    RawClient client(m_strAddress, ListeningPort(program));
    const std::string first = client.Receive(20);
    const std::string second = client.Receive(20);
    ASSERT_EQ(20u, second.size());
    EXPECT_EQ(NotifyFrame("00 00 00 08"), first.substr(0, 12));
    EXPECT_EQ(NotifyFrame("00 00 00 08"), second.substr(0, 12));
    EXPECT_LT(first.substr(12, 4), second.substr(12, 4));
    EXPECT_EQ(Zeros(4), second.substr(16, 4));
}

TEST_F(ReceiverSimProgramTest, VerbosePrintsFramesBothWays) {
    Program program(With({"-v"}));
    {
        RawClient client(m_strAddress, ListeningPort(program));
        ASSERT_TRUE(client.Send(Frame32("12", "00 00 00 01 05")));
        EXPECT_EQ(60u, client.Receive(60).size());
    }
    // "HH:MM:SS.mmm " stands in front of each.
    const std::string connected = "#1 -- connected from 127.0.0.1:";
    EXPECT_EQ(connected, program.Line().substr(13).substr(0, connected.size()));
    EXPECT_EQ("#1 <- StartPlayImage: sender 1, option 5", program.Line().substr(13));
    EXPECT_EQ("#1 -> StartPlayImage answer: 0 ok", program.Line().substr(13));
    EXPECT_EQ("#1 -> notify: 4 show started, 1, 5", program.Line().substr(13));
    EXPECT_EQ("#1 -- left", program.Line().substr(13));
}

TEST_F(ReceiverSimProgramTest, TakenAddressIsOneSentenceAndExitCodeOne) {
    Program first(With({}));
    const std::string port = std::to_string(ListeningPort(first));
    Program second({"--address", m_strAddress, "--port", port});
    EXPECT_EQ("receiver-sim: cannot listen on " + m_strAddress + ":" + port +
                  ": Address already in use\n",
              second.Rest());
    EXPECT_EQ(1, second.ExitCode());
}

TEST_F(ReceiverSimProgramTest, WrongUsageIsExitCodeTwo) {
    const std::vector<std::vector<std::string>> wrong = {
        {"--nonsense"},
        {"stray"},
        {"--address", "localhost"},
        {"--port", "65536"},
        {"--port", "-1"},
        {"--port", "x"},
        {"--senders", "-1"},
        {"--senders", "65536"},
        {"--records", "middle"},
        {"--notify-every", "0"},
        {"--notify-every", "-1"},
        {"--notify-every"},
    };
    for (const std::vector<std::string>& arguments : wrong) {
        Program program(arguments);
        EXPECT_NE("", program.Rest()) << arguments[0];
        EXPECT_EQ(2, program.ExitCode()) << arguments[0];
    }
}

TEST_F(ReceiverSimProgramTest, HelpNamesEveryOption) {
    Program program({"--help"});
    const std::string help = program.Rest();
    for (const char* option :
         {"--address", "--port", "--senders", "--records", "--notify-every", "-v"})
        EXPECT_NE(std::string::npos, help.find(option)) << option;
    EXPECT_EQ(0, program.ExitCode());
}

}  // namespace
