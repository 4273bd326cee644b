#ifndef TESTS_CABI_CHILDPROCESS_H_
#define TESTS_CABI_CHILDPROCESS_H_

#include <sys/types.h>

#include <chrono>
#include <ostream>
#include <string>
#include <vector>

namespace sr_test {

/// How a program ended.
struct End {
    enum class Kind { Exited, Killed, Hung };  // Hung: it was still running, and was killed for it
    Kind kind;
    int value;  // exit code or signal
};

inline bool operator==(const End& a, const End& b) {
    return a.kind == b.kind && a.value == b.value;
}

inline std::ostream& operator<<(std::ostream& out, const End& end) {
    switch (end.kind) {
        case End::Kind::Exited:
            return out << "exit code " << end.value;
        case End::Kind::Killed:
            return out << "killed by signal " << end.value;
        case End::Kind::Hung:
            return out << "still running";
    }
    return out;
}

inline End ExitedWith(int code) {
    return {End::Kind::Exited, code};
}

/// One of this folder's programs, started by a test; its output goes to the test's.
class ChildProcess {
public:
    ChildProcess(const std::string& program, const std::vector<std::string>& arguments);
    /// Kills it if nobody has waited for its end.
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    void Signal(int signal);

    /// Waits until its main thread is in a wait that lasts.
    bool AwaitAsleep() const;

    /// Waits for the end; `limit` is stretched in slow builds.
    End Wait(std::chrono::milliseconds limit);

private:
    pid_t m_Pid;
};

/// Runs a program from start to end.
End RunProgram(const std::string& program,
               const std::vector<std::string>& arguments,
               std::chrono::milliseconds limit = std::chrono::milliseconds(10000));

}  // namespace sr_test

#endif  // TESTS_CABI_CHILDPROCESS_H_
