#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Program.h"
#include "RawClient.h"

namespace {

using namespace sim_test;

/// Owns a descriptor.
class Descriptor {
public:
    explicit Descriptor(int descriptor) : m_nDescriptor(descriptor) { EXPECT_GE(descriptor, 0); }
    Descriptor(Descriptor&& other) noexcept
        : m_nDescriptor(std::exchange(other.m_nDescriptor, -1)) {}
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    ~Descriptor() {
        if (m_nDescriptor >= 0)
            close(m_nDescriptor);
    }

    int Get() const { return m_nDescriptor; }

    bool Write(const std::string& text) const {
        return write(m_nDescriptor, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    }

private:
    int m_nDescriptor;
};

/// A client of the Unix socket.
class ControlClient {
public:
    explicit ControlClient(const std::string& path)
        : m_Socket(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        const sockaddr_un address = AddressOf(path);
        m_bConnected = connect(m_Socket.Get(), reinterpret_cast<const sockaddr*>(&address),
                               sizeof address) == 0;
    }

    static sockaddr_un AddressOf(const std::string& path) {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        return address;
    }

    bool IsConnected() const { return m_bConnected; }

    bool Send(const std::string& text) const {
        for (size_t sent = 0; sent < text.size();) {
            const ssize_t size =
                send(m_Socket.Get(), text.data() + sent, text.size() - sent, MSG_NOSIGNAL);
            if (size <= 0)
                return false;
            sent += static_cast<size_t>(size);
        }
        return true;
    }

    /// Bytes that the far end takes without any of its answers being read, at most so many.
    size_t SendUnread(const std::string& text, size_t most) const {
        size_t sent = 0;
        pollfd entry = {m_Socket.Get(), POLLOUT, 0};
        while (sent < most && poll(&entry, 1, 1000) > 0) {
            const ssize_t size =
                send(m_Socket.Get(), text.data(), text.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
            sent += size > 0 ? static_cast<size_t>(size) : 0;
        }
        return sent;
    }

    void EndSending() const { shutdown(m_Socket.Get(), SHUT_WR); }

    /// The next line without its end; "(end)" when there is none any more.
    std::string Line() {
        size_t end = 0;
        while ((end = m_strRead.find('\n')) == std::string::npos) {
            pollfd entry = {m_Socket.Get(), POLLIN, 0};
            char chunk[4096];
            if (poll(&entry, 1, static_cast<int>(kLimit.count())) <= 0)
                return "(nothing came)";
            const ssize_t size = recv(m_Socket.Get(), chunk, sizeof chunk, 0);
            if (size <= 0)
                return "(end)";
            m_strRead.append(chunk, static_cast<size_t>(size));
        }
        const std::string line = m_strRead.substr(0, end);
        m_strRead.erase(0, end + 1);
        return line;
    }

    std::string Ask(const std::string& line) {
        EXPECT_TRUE(Send(line + "\n"));
        return Line();
    }

private:
    Descriptor m_Socket;
    bool m_bConnected = false;
    std::string m_strRead;
};

/// Has a folder of its own.
class ControlTest : public ProgramFixture {
protected:
    ControlTest() {
        std::string folder = ::testing::TempDir() + "sim-XXXXXX";
        EXPECT_NE(nullptr, mkdtemp(folder.data()));
        m_strFolder = folder;
        m_strPath = folder + "/control";
    }
    ~ControlTest() override { std::filesystem::remove_all(m_strFolder); }

    std::vector<std::string> WithControl() const { return With({"--control", m_strPath}); }

    Descriptor FileWith(const std::string& text) const {
        const std::string name = m_strFolder + "/input";
        std::ofstream(name) << text;
        return Descriptor(open(name.c_str(), O_RDONLY | O_CLOEXEC));
    }

    /// A socket's file that nobody serves.
    void LeaveStaleSocket() const {
        const Descriptor listener(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        const sockaddr_un address = ControlClient::AddressOf(m_strPath);
        ASSERT_EQ(
            0, bind(listener.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address));
    }

    void ExpectRefused(const std::string& path, const std::string& reason) const {
        Program program(With({"--control", path}));
        EXPECT_EQ("receiver-sim: cannot make the control socket " + path + ": " + reason + "\n",
                  program.Rest());
        EXPECT_EQ(1, program.ExitCode());
    }

    std::string m_strFolder;
    std::string m_strPath;
};

bool StartsWith(const std::string& text, const std::string& start) {
    return text.compare(0, start.size(), start) == 0;
}

// --- Standard input ---

class StandardInputTest : public ControlTest {
protected:
    /// After what has been typed to it, the program answers and serves.
    void ExpectAnswers(Program& program) {
        const uint16_t port = ListeningPort(program);
        EXPECT_EQ("ok", program.Line());
        EXPECT_TRUE(StartsWith(program.Line(), "error "));
        ExpectServing(port);
        program.Signal(SIGTERM);
        EXPECT_TRUE(StartsWith(program.Rest(), "served 1 clients "));
        EXPECT_EQ(0, program.ExitCode());
    }

    static constexpr const char* kCommands = "join 7 name=Ada\nnonsense\n";
};

TEST_F(StandardInputTest, PipeIsReadAndItsEndDoesNotEndTheProgram) {
    Program program(With({}));
    ASSERT_TRUE(program.Type(kCommands));
    program.EndInput();
    ExpectAnswers(program);
}

TEST_F(StandardInputTest, SocketIsRead) {
    int ends[2] = {-1, -1};
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends));
    const Descriptor ours(ends[0]);
    const Descriptor theirs(ends[1]);
    ASSERT_TRUE(ours.Write(kCommands));
    Program program(With({}), theirs.Get());
    ExpectAnswers(program);
}

TEST_F(StandardInputTest, FifoIsReadAcrossItsWriters) {
    const std::string name = m_strFolder + "/fifo";
    ASSERT_EQ(0, mkfifo(name.c_str(), 0600));
    // A reader and a writer in one, as a shell's `<>` opens it: it never ends.
    const Descriptor input(open(name.c_str(), O_RDWR | O_CLOEXEC));
    Program program(With({}), input.Get());
    for (const char* line : {"join 7 name=Ada\n", "nonsense\n"})
        ASSERT_TRUE(Descriptor(open(name.c_str(), O_WRONLY | O_CLOEXEC)).Write(line));
    ExpectAnswers(program);
}

TEST_F(StandardInputTest, FileIsRead) {
    const Descriptor file = FileWith(kCommands);
    Program program(With({}), file.Get());
    ExpectAnswers(program);
}

TEST_F(StandardInputTest, LongFileIsReadToItsEndWhileClientsAreServed) {
    constexpr int kLines = 5000;
    std::string lines;
    for (int i = 0; i < kLines; ++i)
        lines += "nonsense\n";
    const Descriptor file = FileWith(lines + "join 7");
    Program program(With({}), file.Get());
    const uint16_t port = ListeningPort(program);
    ExpectServing(port);
    for (int i = 0; i < kLines; ++i)
        ASSERT_TRUE(StartsWith(program.Line(), "error "));
    EXPECT_EQ("ok", program.Line());
    ExpectServing(port);
}

TEST_F(StandardInputTest, NothingToReadDoesNotEndTheProgram) {
    const Descriptor nothing(open("/dev/null", O_RDONLY | O_CLOEXEC));
    const Descriptor folder(open("/", O_RDONLY | O_CLOEXEC));
    for (const int input : {nothing.Get(), folder.Get()}) {
        Program program(With({}), input);
        ExpectServing(ListeningPort(program));
        program.Signal(SIGTERM);
        EXPECT_EQ(0, program.ExitCode());
    }
}

TEST_F(StandardInputTest, ClosedInputIsNotMistakenForASocket) {
    Program program(WithControl(), -1);
    const uint16_t port = ListeningPort(program);
    RawClient client(m_strAddress, port);
    ASSERT_TRUE(client.Send("quit\nquit\n" + Frame32("20", "01")));
    EXPECT_EQ(Frame32("21"), client.Receive(40));
    EXPECT_EQ("ok", ControlClient(m_strPath).Ask("join 7"));
    ExpectServing(port);
    program.Signal(SIGTERM);
    EXPECT_TRUE(StartsWith(program.Rest(), "served 2 clients "));
    EXPECT_EQ(0, program.ExitCode());
}

TEST_F(StandardInputTest, LineMayComeInPieces) {
    Program program(With({}));
    ListeningPort(program);
    for (const char letter : std::string("join 7 name=Ada\r\nnonsense\r\n"))
        ASSERT_TRUE(program.Type(std::string(1, letter)));
    EXPECT_EQ("ok", program.Line());
    EXPECT_TRUE(StartsWith(program.Line(), "error "));
}

TEST_F(StandardInputTest, LastLineNeedsNoEnd) {
    Program program(With({}));
    ListeningPort(program);
    ASSERT_TRUE(program.Type("join 7"));
    program.EndInput();
    EXPECT_EQ("ok", program.Line());
}

TEST_F(StandardInputTest, TooLongALineEndsTheReadingOnly) {
    const Descriptor file = FileWith("join 7\n" + std::string(70000, 'x') + "\njoin 8\n");
    Program program(With({}), file.Get());
    const uint16_t port = ListeningPort(program);
    EXPECT_EQ("ok", program.Line());
    EXPECT_EQ("error line too long", program.Line());
    ExpectServing(port);
    program.Signal(SIGTERM);
    EXPECT_TRUE(StartsWith(program.Rest(), "served 1 clients "));
}

TEST_F(StandardInputTest, QuitEndsTheProgramAndWhatFollowsIsNotDone) {
    Program program(With({}));
    ListeningPort(program);
    ASSERT_TRUE(program.Type(" quit \njoin 7\n"));
    EXPECT_EQ("ok\nserved 0 clients (0 dropped), 0 frames received, 0 sent, 0 faults done\n",
              program.Rest());
    EXPECT_EQ(0, program.ExitCode());
}

TEST_F(StandardInputTest, HelpListsQuit) {
    Program program(With({}));
    ListeningPort(program);
    ASSERT_TRUE(program.Type("help\nhelp quit\n"));
    const std::string help = program.Line();
    EXPECT_TRUE(StartsWith(help, "ok "));
    for (const char* command : {"join", "leave", "fault", "quit"})
        EXPECT_NE(std::string::npos, help.find(command)) << help;
    EXPECT_TRUE(StartsWith(program.Line(), "ok quit"));
}

// --- A terminal ---

/// A terminal of which the test is the user.
class TerminalTest : public StandardInputTest {
protected:
    void SetUp() override {
        const int user = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
        if (user < 0)
            GTEST_SKIP() << "this machine has no pseudo-terminals";
        m_User.emplace(user);
        ASSERT_EQ(0, grantpt(user));
        ASSERT_EQ(0, unlockpt(user));
        char name[64];
        ASSERT_EQ(0, ptsname_r(user, name, sizeof name));
        m_strTerminal = name;
    }

    Descriptor Open() const {
        return Descriptor(open(m_strTerminal.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC));
    }

    std::optional<Descriptor> m_User;
    std::string m_strTerminal;
};

TEST_F(TerminalTest, IsReadAndStaysBlocking) {
    const Descriptor terminal = Open();
    Program program(With({}), terminal.Get());
    ASSERT_TRUE(m_User->Write(kCommands));
    const uint16_t port = ListeningPort(program);
    EXPECT_EQ("ok", program.Line());
    EXPECT_TRUE(StartsWith(program.Line(), "error "));
    EXPECT_EQ(0, fcntl(terminal.Get(), F_GETFL) & O_NONBLOCK);
    ASSERT_TRUE(m_User->Write("\x04"));  // Ctrl-D
    ExpectServing(port);
    program.Signal(SIGTERM);
    EXPECT_TRUE(StartsWith(program.Rest(), "served 1 clients "));
    EXPECT_EQ(0, program.ExitCode());
}

/// A shell on that terminal, which has the program as one of its jobs.
class JobTest : public TerminalTest {
protected:
    JobTest() : m_strOutput(m_strFolder + "/output"), m_strPidFile(m_strFolder + "/pid") {}

    void SetUp() override {
        TerminalTest::SetUp();
        if (IsSkipped() || HasFatalFailure())
            return;
        m_nShell = fork();
        ASSERT_GE(m_nShell, 0);
        if (m_nShell == 0) {
            setsid();
            const int terminal = open(m_strTerminal.c_str(), O_RDWR);
            for (const int standard : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
                dup2(terminal, standard);
            execl("/bin/sh", "sh", "-i", nullptr);
            _exit(127);
        }
    }

    ~JobTest() override {
        if (m_nShell <= 0)
            return;
        const pid_t job = static_cast<pid_t>(std::atoi(Contents(m_strPidFile).c_str()));
        if (job > 0 && Contents(m_strOutput).find("served ") == std::string::npos)
            kill(job, SIGKILL);
        kill(m_nShell, SIGKILL);
        waitpid(m_nShell, nullptr, 0);
    }

    static std::string Contents(const std::string& file) {
        std::ifstream stream(file);
        return std::string(std::istreambuf_iterator<char>(stream), {});
    }

    bool AwaitOutput(const std::string& text) const {
        return WaitFor([&] { return Contents(m_strOutput).find(text) != std::string::npos; });
    }

    uint16_t StartInBackground() const {
        EXPECT_TRUE(m_User->Write(std::string(RECEIVER_SIM_PROGRAM) + " --address " + m_strAddress +
                                  " --port 0 >" + m_strOutput + " 2>&1 &\necho $! >" +
                                  m_strPidFile + "\n"));
        EXPECT_TRUE(AwaitOutput("\n"));
        const std::string line = Contents(m_strOutput);
        const size_t colon = line.find(':');
        EXPECT_NE(std::string::npos, colon) << line;
        return static_cast<uint16_t>(std::strtoul(line.c_str() + colon + 1, nullptr, 10));
    }

    const std::string m_strOutput;
    const std::string m_strPidFile;
    pid_t m_nShell = -1;
};

TEST_F(JobTest, ServesInTheBackgroundAndTakesCommandsInTheForeground) {
    const uint16_t port = StartInBackground();
    for (int i = 0; i < 10; ++i) {
        const std::string mark = m_strFolder + "/" + std::to_string(i);
        ASSERT_TRUE(m_User->Write(": >" + mark + "\n"));
        ASSERT_TRUE(WaitFor([&] { return access(mark.c_str(), F_OK) == 0; }));
        ExpectServing(port);
    }
    ASSERT_TRUE(m_User->Write("fg\n"));
    ASSERT_TRUE(WaitFor([&] { return tcgetpgrp(m_User->Get()) != m_nShell; }));
    ASSERT_TRUE(m_User->Write("join 7\n"));
    EXPECT_TRUE(AwaitOutput("\nok\n"));
    ASSERT_TRUE(m_User->Write("quit\n"));
    EXPECT_TRUE(AwaitOutput("served 10 clients "));
}

// --- Unix socket ---

class ControlSocketTest : public ControlTest {
protected:
    static mode_t ModeOf(const std::string& path) {
        struct stat file {};
        return lstat(path.c_str(), &file) == 0 ? file.st_mode : 0;
    }
};

TEST_F(ControlSocketTest, LinesAreAnsweredInTheirOrder) {
    Program program(WithControl());
    ListeningPort(program);
    ControlClient client(m_strPath);
    ASSERT_TRUE(client.Send("join 7\njoin 7\r\nleave 7\nquit now\nleave 7\n"));
    EXPECT_EQ("ok", client.Line());
    EXPECT_TRUE(StartsWith(client.Line(), "error "));
    EXPECT_EQ("ok", client.Line());
    EXPECT_TRUE(StartsWith(client.Line(), "error "));
    EXPECT_TRUE(StartsWith(client.Line(), "error "));
}

TEST_F(ControlSocketTest, CommandsActOnTheReceiver) {
    Program program(With({"--control", m_strPath, "--senders", "0", "--records", "short"}));
    RawClient client(m_strAddress, ListeningPort(program));
    ASSERT_TRUE(client.Send(Frame32("20", "01")));
    ASSERT_EQ(40u, client.Receive(40).size());
    EXPECT_EQ("ok", ControlClient(m_strPath).Ask("notify 1 -1 256"));
    EXPECT_EQ(NotifyFrame("00 00 00 01 FF FF FF FF 00 00 01 00"), client.Receive(20));
    EXPECT_EQ("ok", ControlClient(m_strPath).Ask("drop"));
    EXPECT_TRUE(client.IsClosedByPeer());
}

TEST_F(ControlSocketTest, LineMayComeInPieces) {
    Program program(WithControl());
    ListeningPort(program);
    ControlClient client(m_strPath);
    for (const char letter : std::string("join 7 name=Ada\r\nleave 7\n"))
        ASSERT_TRUE(client.Send(std::string(1, letter)));
    EXPECT_EQ("ok", client.Line());
    EXPECT_EQ("ok", client.Line());
}

TEST_F(ControlSocketTest, LastLineNeedsNoEnd) {
    Program program(WithControl());
    ListeningPort(program);
    ControlClient client(m_strPath);
    ASSERT_TRUE(client.Send("join 7\nleave 7"));
    client.EndSending();
    EXPECT_EQ("ok", client.Line());
    EXPECT_EQ("ok", client.Line());
    EXPECT_EQ("(end)", client.Line());
}

TEST_F(ControlSocketTest, ManyClientsAreAnsweredAtOnce) {
    Program program(WithControl());
    ListeningPort(program);
    std::vector<std::unique_ptr<ControlClient>> clients;
    for (int key = 100; key < 150; ++key) {
        clients.push_back(std::make_unique<ControlClient>(m_strPath));
        ASSERT_TRUE(clients.back()->IsConnected());
        ASSERT_TRUE(clients.back()->Send("join " + std::to_string(key)));
    }
    for (auto client = clients.rbegin(); client != clients.rend(); ++client)
        EXPECT_EQ("ok", (*client)->Ask(""));
}

TEST_F(ControlSocketTest, LongestLineIsCarriedOutAndALongerOneEndsItsConnection) {
    constexpr size_t kMost = 64 * 1024;  // with its end
    Program program(WithControl());
    ListeningPort(program);
    ControlClient client(m_strPath);
    ASSERT_TRUE(client.Send("join 7" + std::string(kMost - 7, ' ') + "\n"));
    EXPECT_EQ("ok", client.Line());
    ASSERT_TRUE(client.Send("join 8" + std::string(kMost - 6, ' ')));
    EXPECT_EQ("error line too long", client.Line());
    EXPECT_EQ("(end)", client.Line());
    EXPECT_EQ("ok", ControlClient(m_strPath).Ask("join 8"));
}

TEST_F(ControlSocketTest, ClientThatNeverReadsIsNotReadEither) {
    constexpr size_t kMost = 64 * 1024 * 1024;
    Program program(WithControl());
    ListeningPort(program);
    ControlClient client(m_strPath);
    EXPECT_LT(client.SendUnread("help\nhelp\nhelp\nhelp\n", kMost), kMost / 2);
    EXPECT_EQ("ok", ControlClient(m_strPath).Ask("join 7"));
}

TEST_F(ControlSocketTest, ClientsThatGoDisturbNobody) {
    Program program(WithControl());
    ListeningPort(program);
    for (const char* text : {"", "jo", "help\nhelp\nhelp\nhel", "\n\n\n"})
        ASSERT_TRUE(ControlClient(m_strPath).Send(text));
    EXPECT_EQ("ok", ControlClient(m_strPath).Ask("join 7"));
}

TEST_F(ControlSocketTest, QuitEndsTheProgramAsCtrlCDoes) {
    Program program(WithControl());
    RawClient client(m_strAddress, ListeningPort(program));
    ASSERT_TRUE(client.Send(Frame32("20", "01")));
    ASSERT_EQ(40u, client.Receive(40).size());
    ControlClient control(m_strPath);
    EXPECT_EQ("ok", control.Ask("quit"));
    EXPECT_EQ("(end)", control.Line());
    EXPECT_TRUE(client.IsClosedByPeer());
    EXPECT_TRUE(StartsWith(program.Rest(), "served 1 clients "));
    EXPECT_EQ(0, program.ExitCode());
}

// --- The socket's file ---

TEST_F(ControlSocketTest, FileIsForThisUserAloneAndRemovedAtTheEnd) {
    Program program(WithControl());
    ListeningPort(program);
    EXPECT_EQ(static_cast<mode_t>(S_IFSOCK | 0600), ModeOf(m_strPath));
    program.Signal(SIGINT);
    EXPECT_EQ(0, program.ExitCode());
    EXPECT_EQ(0u, ModeOf(m_strPath));
}

TEST_F(ControlSocketTest, StaleFileIsReplaced) {
    LeaveStaleSocket();
    ASSERT_NE(0u, ModeOf(m_strPath));
    Program program(WithControl());
    ListeningPort(program);
    EXPECT_EQ("ok", ControlClient(m_strPath).Ask("join 7"));
}

TEST_F(ControlSocketTest, ServedSocketIsRefusedAndGoesOn) {
    Program program(WithControl());
    ListeningPort(program);
    ExpectRefused(m_strPath, "Address already in use");
    EXPECT_EQ("ok", ControlClient(m_strPath).Ask("join 7"));
}

TEST_F(ControlSocketTest, FileThatIsNoSocketIsRefusedAndKept) {
    std::ofstream(m_strPath) << "precious";
    ExpectRefused(m_strPath, "File exists");
    EXPECT_EQ(8u, std::filesystem::file_size(m_strPath));
    ExpectRefused(m_strFolder, "File exists");
}

TEST_F(ControlSocketTest, PathThatCannotBeIsRefused) {
    ExpectRefused(m_strFolder + "/nowhere/control", "No such file or directory");
    ExpectRefused(m_strFolder + "/" + std::string(100, 'x'), "File name too long");
}

TEST_F(ControlSocketTest, FileIsRemovedWhenTheReceiverCannotListen) {
    Program first(With({}));
    const std::string port = std::to_string(ListeningPort(first));
    Program second({"--address", m_strAddress, "--port", port, "--control", m_strPath});
    EXPECT_TRUE(StartsWith(second.Rest(), "receiver-sim: cannot listen on "));
    EXPECT_EQ(1, second.ExitCode());
    EXPECT_EQ(0u, ModeOf(m_strPath));
}

TEST_F(ControlSocketTest, FileOfSomebodyElseIsKept) {
    Program program(WithControl());
    ListeningPort(program);
    std::filesystem::remove(m_strPath);
    std::ofstream(m_strPath) << "precious";
    program.Signal(SIGTERM);
    EXPECT_EQ(0, program.ExitCode());
    EXPECT_EQ(8u, std::filesystem::file_size(m_strPath));
}

}  // namespace
