#ifndef SIMULATOR_PROGRAM_CONTROLSERVER_H_
#define SIMULATOR_PROGRAM_CONTROLSERVER_H_

#include <sys/stat.h>

#include <boost/asio/io_context.hpp>
#include <boost/asio/local/stream_protocol.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/asio/steady_timer.hpp>
#include <cstddef>
#include <functional>
#include <string>

namespace receiver_sim {

/// The longest command line, with its end.
constexpr size_t kMaxLine = size_t{64} * 1024;

struct Reply {
    std::string text;  // one line without its end
    bool quit = false;
};

/// Carries a command line out. It comes without its end.
using Interpreter = std::function<Reply(const std::string& line)>;

/**
 * Commands from standard input, until its end. Whatever that is: a terminal, a pipe, a file.
 *
 * Threads: the one that runs the io_context, which must end before this goes.
 */
class StandardInput {
public:
    /// Throws boost::system::system_error when there is no descriptor left.
    /// `answered` gets every reply, and sees to it that the program ends if the reply says so.
    StandardInput(boost::asio::io_context& io,
                  Interpreter interpreter,
                  std::function<void(const Reply&)> answered);

private:
    void Wait();
    void WaitForForeground();
    void OnReady();
    void TakeLines();

    const Interpreter m_Interpreter;
    const std::function<void(const Reply&)> m_Answered;
    // Watches standard input. Given to Asio itself that would become non-blocking, and with it the
    // terminal of everybody who has it open.
    boost::asio::posix::stream_descriptor m_Watch;
    bool m_bWatched = false;
    boost::asio::steady_timer m_Timer;
    std::string m_strRead;  // the beginning of a line
};

/**
 * Commands from any number of clients of a Unix socket. Every client's lines are answered in their
 * order; a client that does not read its answer has its next line read when it did.
 *
 * Owns the socket's file, which only this user may open, and removes it at the end.
 *
 * Threads: as StandardInput.
 */
class ControlSocket {
public:
    /// `quit` is called after a reply that says so is sent.
    /// Throws boost::system::system_error when there can be no such socket or it is served.
    /// Changes the process's umask for a moment, so not beside other threads that make files.
    ControlSocket(boost::asio::io_context& io,
                  const std::string& path,
                  Interpreter interpreter,
                  std::function<void()> quit);
    ~ControlSocket();
    ControlSocket(const ControlSocket&) = delete;
    ControlSocket& operator=(const ControlSocket&) = delete;

private:
    void Accept();

    const std::string m_strPath;
    const Interpreter m_Interpreter;
    const std::function<void()> m_Quit;
    boost::asio::local::stream_protocol::acceptor m_Acceptor;
    boost::asio::steady_timer m_AcceptTimer;
    struct stat m_File {};
};

}  // namespace receiver_sim

#endif  // SIMULATOR_PROGRAM_CONTROLSERVER_H_
