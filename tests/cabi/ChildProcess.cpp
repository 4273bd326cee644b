#include "tests/cabi/ChildProcess.h"

#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <system_error>

#include "tests/support/ScriptedPeer.h"

namespace sr_test {

namespace {

constexpr int kLooksAsleep = 5;  // a millisecond apart

}  // namespace

ChildProcess::ChildProcess(const std::string& program, const std::vector<std::string>& arguments)
    : m_Pid(-1) {
    std::string path = std::string(SR_PROGRAM_DIR "/") + program;
    std::vector<std::string> texts = arguments;
    std::vector<char*> argv = {&path[0]};
    for (std::string& text : texts)
        argv.push_back(&text[0]);
    argv.push_back(nullptr);
    const int error = ::posix_spawn(&m_Pid, path.c_str(), nullptr, nullptr, argv.data(), environ);
    if (error != 0)
        throw std::system_error(error, std::generic_category(), path);
}

ChildProcess::~ChildProcess() {
    if (m_Pid == -1)
        return;
    ::kill(m_Pid, SIGKILL);
    ::waitpid(m_Pid, nullptr, 0);
}

void ChildProcess::Signal(int signal) {
    if (m_Pid != -1)
        ::kill(m_Pid, signal);
}

bool ChildProcess::AwaitAsleep() const {
    const std::string path = "/proc/" + std::to_string(m_Pid) + "/stat";
    int looks = 0;
    return WaitFor([&] {
        std::ifstream file(path);
        std::string stat;
        std::getline(file, stat);
        // The state follows the name, which is in parentheses.
        const size_t name = stat.rfind(") ");
        looks = name != std::string::npos && stat[name + 2] == 'S' ? looks + 1 : 0;
        return looks == kLooksAsleep;
    });
}

End ChildProcess::Wait(std::chrono::milliseconds limit) {
    int status = 0;
    if (!WaitFor([&] { return ::waitpid(m_Pid, &status, WNOHANG) == m_Pid; }, limit)) {
        ::kill(m_Pid, SIGKILL);
        ::waitpid(m_Pid, &status, 0);
        m_Pid = -1;
        return {End::Kind::Hung, 0};
    }
    m_Pid = -1;
    if (WIFEXITED(status))
        return ExitedWith(WEXITSTATUS(status));
    return {End::Kind::Killed, WTERMSIG(status)};
}

End RunProgram(const std::string& program,
               const std::vector<std::string>& arguments,
               std::chrono::milliseconds limit) {
    return ChildProcess(program, arguments).Wait(limit);
}

}  // namespace sr_test
