#include "simulator/program/ControlServer.h"

#include <sys/epoll.h>
#include <unistd.h>

#include <boost/asio/buffer.hpp>
#include <boost/asio/error.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/read_until.hpp>
#include <boost/asio/write.hpp>
#include <boost/system/system_error.hpp>
#include <cerrno>
#include <chrono>
#include <memory>
#include <utility>

namespace receiver_sim {

namespace {

using boost::asio::local::stream_protocol;
using ErrorCode = boost::system::error_code;

constexpr std::chrono::milliseconds kForegroundCheck(500);
constexpr std::chrono::milliseconds kAcceptRetry(100);
constexpr size_t kChunk = 512;  // a few lines: standard input is not the only one to be served
constexpr const char* kTooLong = "error line too long";

std::string WithoutEnd(std::string line) {
    if (!line.empty() && line.back() == '\n')
        line.pop_back();
    if (!line.empty() && line.back() == '\r')
        line.pop_back();
    return line;
}

/// Takes the first `size` bytes.
std::string TakeLine(std::string& read, size_t size) {
    std::string line = read.substr(0, size);
    read.erase(0, size);
    return WithoutEnd(std::move(line));
}

/// Reading would stop the program, or fail: the terminal is another job's.
bool IsInBackground() {
    const pid_t foreground = isatty(STDIN_FILENO) == 1 ? tcgetpgrp(STDIN_FILENO) : -1;
    return foreground > 0 && foreground != getpgrp();
}

/// One client of the socket; its pending operation keeps it alive.
class ControlClient : public std::enable_shared_from_this<ControlClient> {
public:
    ControlClient(stream_protocol::socket socket,
                  Interpreter interpreter,
                  std::function<void()> quit)
        : m_Socket(std::move(socket)),
          m_Interpreter(std::move(interpreter)),
          m_Quit(std::move(quit)) {}

    void ReadLine() {
        boost::asio::async_read_until(
            m_Socket, boost::asio::dynamic_buffer(m_strRead, kMaxLine), '\n',
            [self = shared_from_this()](const ErrorCode& error, size_t size) {
                self->OnLine(error, size);
            });
    }

private:
    void OnLine(const ErrorCode& error, size_t size) {
        if (error == boost::asio::error::not_found) {
            m_bLast = true;
            Send({kTooLong});
        } else if (!error) {
            Send(m_Interpreter(TakeLine(m_strRead, size)));
        } else if (error == boost::asio::error::eof && !m_strRead.empty()) {
            m_bLast = true;
            Send(m_Interpreter(TakeLine(m_strRead, m_strRead.size())));
        }
    }

    void Send(Reply reply) {
        m_strAnswer = std::move(reply.text) + '\n';
        boost::asio::async_write(
            m_Socket, boost::asio::buffer(m_strAnswer),
            [self = shared_from_this(), quit = reply.quit](const ErrorCode& error, size_t) {
                if (quit)
                    self->m_Quit();
                else if (!error && !self->m_bLast)
                    self->ReadLine();
            });
    }

    stream_protocol::socket m_Socket;
    const Interpreter m_Interpreter;
    const std::function<void()> m_Quit;
    std::string m_strRead;
    std::string m_strAnswer;
    bool m_bLast = false;  // no line is read after this one
};

[[noreturn]] void Throw(int error) {
    throw boost::system::system_error(error, boost::system::system_category());
}

/// Removes the socket of a program that is gone.
void MakeRoom(boost::asio::io_context& io, const std::string& path) {
    struct stat file {};
    if (lstat(path.c_str(), &file) != 0)
        return;  // what else is wrong with the path, bind() tells
    if (!S_ISSOCK(file.st_mode))
        Throw(EEXIST);
    stream_protocol::socket attempt(io, stream_protocol());
    attempt.non_blocking(true);
    ErrorCode error;
    attempt.connect(path, error);
    if (error != boost::asio::error::connection_refused)
        Throw(EADDRINUSE);
    if (unlink(path.c_str()) != 0)
        Throw(errno);
}

/// Makes the socket's file for this user alone, from its first moment.
void Bind(stream_protocol::acceptor& acceptor, const stream_protocol::endpoint& path) {
    const mode_t before = umask(S_IXUSR | S_IRWXG | S_IRWXO);
    ErrorCode error;
    acceptor.bind(path, error);
    umask(before);
    if (error)
        throw boost::system::system_error(error);
}

}  // namespace

StandardInput::StandardInput(boost::asio::io_context& io,
                             Interpreter interpreter,
                             std::function<void(const Reply&)> answered)
    : m_Interpreter(std::move(interpreter)),
      m_Answered(std::move(answered)),
      m_Watch(io),
      m_Timer(io) {
    const int watch = epoll_create1(EPOLL_CLOEXEC);
    if (watch < 0)
        Throw(errno);
    m_Watch.assign(watch);
    epoll_event readable = {};
    readable.events = EPOLLIN;
    // Files cannot be watched; they are always ready.
    m_bWatched = epoll_ctl(watch, EPOLL_CTL_ADD, STDIN_FILENO, &readable) == 0;
    Wait();
}

void StandardInput::Wait() {
    if (!m_bWatched) {
        boost::asio::post(m_Watch.get_executor(), [this] { OnReady(); });
        return;
    }
    m_Watch.async_wait(boost::asio::posix::stream_descriptor::wait_read,
                       [this](const ErrorCode& error) {
                           if (!error)
                               OnReady();
                       });
}

void StandardInput::WaitForForeground() {
    m_Timer.expires_after(kForegroundCheck);
    m_Timer.async_wait([this](const ErrorCode& error) {
        if (!error)
            Wait();
    });
}

void StandardInput::OnReady() {
    if (IsInBackground())
        return WaitForForeground();
    char chunk[kChunk];
    const ssize_t size = read(STDIN_FILENO, chunk, sizeof chunk);
    if (size > 0) {
        m_strRead.append(chunk, static_cast<size_t>(size));
        return TakeLines();
    }
    if (size < 0 && (errno == EINTR || errno == EAGAIN))
        return Wait();
    // It may have become a background job after the look.
    if (size < 0 && errno == EIO && IsInBackground())
        return WaitForForeground();
    if (!m_strRead.empty())
        m_Answered(m_Interpreter(TakeLine(m_strRead, m_strRead.size())));
}

void StandardInput::TakeLines() {
    for (size_t end = 0; (end = m_strRead.find('\n')) != std::string::npos;) {
        const Reply reply = m_Interpreter(TakeLine(m_strRead, end + 1));
        m_Answered(reply);
        if (reply.quit)
            return;
    }
    if (m_strRead.size() < kMaxLine)
        Wait();
    else
        m_Answered({kTooLong});
}

ControlSocket::ControlSocket(boost::asio::io_context& io,
                             const std::string& path,
                             Interpreter interpreter,
                             std::function<void()> quit)
    : m_strPath(path),
      m_Interpreter(std::move(interpreter)),
      m_Quit(std::move(quit)),
      m_Acceptor(io),
      m_AcceptTimer(io) {
    MakeRoom(io, path);
    m_Acceptor.open(stream_protocol());
    Bind(m_Acceptor, path);
    lstat(path.c_str(), &m_File);
    m_Acceptor.listen();
    Accept();
}

ControlSocket::~ControlSocket() {
    struct stat file {};
    // Somebody may have put another file in its place.
    if (lstat(m_strPath.c_str(), &file) == 0 && file.st_dev == m_File.st_dev &&
        file.st_ino == m_File.st_ino)
        unlink(m_strPath.c_str());
}

void ControlSocket::Accept() {
    m_Acceptor.async_accept([this](const ErrorCode& error, stream_protocol::socket socket) {
        if (error == boost::asio::error::operation_aborted)
            return;
        if (!error) {
            std::make_shared<ControlClient>(std::move(socket), m_Interpreter, m_Quit)->ReadLine();
            return Accept();
        }
        m_AcceptTimer.expires_after(kAcceptRetry);  // such as no descriptor free
        m_AcceptTimer.async_wait([this](const ErrorCode& stopped) {
            if (!stopped)
                Accept();
        });
    });
}

}  // namespace receiver_sim
