#include "controller/WatchScreen.h"

#include <fmt/format.h>
#include <poll.h>
#include <pthread.h>
#include <sys/ioctl.h>
#include <sys/signalfd.h>
#include <termios.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <system_error>
#include <variant>
#include <vector>

#include "controller/Text.h"
#include "controller/WatchModel.h"
#include "controller/WatchView.h"

// Last, for it defines macros.
#include <curses.h>

namespace screenctl {

namespace {

constexpr int kTickMs = 250;  // for the seconds that are counted down
constexpr int kEscapeMs = 50;

/// The terminal, as long as it is taken.
class Terminal {
public:
    Terminal() : m_pScreen(newterm(nullptr, stdout, stdin)) {
        if (m_pScreen != nullptr && tigetstr("cup") == nullptr)
            Release();
        if (m_pScreen == nullptr)
            return;
        set_escdelay(kEscapeMs);
        cbreak();
        noecho();
        keypad(stdscr, TRUE);
        IgnoreFlowControl();
        nodelay(stdscr, TRUE);
        curs_set(0);
        if (has_colors()) {
            start_color();
            init_pair(kGood, COLOR_BLACK, COLOR_GREEN);
            init_pair(kBad, COLOR_WHITE, COLOR_RED);
        }
        Resize();
    }
    ~Terminal() {
        if (m_pScreen != nullptr)
            Release();
    }
    Terminal(const Terminal&) = delete;
    Terminal& operator=(const Terminal&) = delete;

    /// False for a terminal on which the cursor cannot be placed.
    bool IsOpen() const { return m_pScreen != nullptr; }

    /// Takes the size that the terminal has now.
    void Resize() {
        winsize size = {};
        if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_row > 0 && size.ws_col > 0)
            resizeterm(size.ws_row, size.ws_col);
    }

    size_t Rows() const { return static_cast<size_t>(getmaxy(stdscr)); }
    size_t Columns() const { return static_cast<size_t>(getmaxx(stdscr)); }

    void Show(const std::vector<ViewLine>& lines) {
        erase();
        for (size_t row = 0; row < lines.size(); ++row) {
            attrset(static_cast<int>(AttributesOf(lines[row].style)));
            mvaddstr(static_cast<int>(row), 0, lines[row].text.c_str());
        }
        refresh();
    }

    /// ERR when none waits.
    int Key() { return getch(); }

private:
    static constexpr short kGood = 1;
    static constexpr short kBad = 2;

    void Release() {
        endwin();
        delscreen(m_pScreen);
        m_pScreen = nullptr;
    }

    /// Else Ctrl-S would let the next drawing wait for ever, and the signals with it.
    static void IgnoreFlowControl() {
        termios settings = {};
        if (tcgetattr(STDOUT_FILENO, &settings) != 0)
            return;
        settings.c_iflag &= ~static_cast<tcflag_t>(IXON);
        tcsetattr(STDOUT_FILENO, TCSANOW, &settings);
        def_prog_mode();
    }

    static chtype AttributesOf(Style style) {
        switch (style) {
            case Style::Heading:
                return A_BOLD;
            case Style::Chosen:
                return A_REVERSE;
            case Style::Good:
                return has_colors() ? static_cast<chtype>(COLOR_PAIR(kGood)) : A_REVERSE;
            case Style::Bad:
                return has_colors() ? static_cast<chtype>(COLOR_PAIR(kBad)) : A_REVERSE;
            case Style::Plain:
                break;
        }
        return A_NORMAL;
    }

    SCREEN* m_pScreen;
};

/// Signals become readable, so that whatever ends the program finds the terminal's state whole.
class Signals {
public:
    Signals() {
        sigset_t set;
        sigemptyset(&set);
        for (const int number : {SIGINT, SIGQUIT, SIGTERM, SIGHUP, SIGWINCH})
            sigaddset(&set, number);
        pthread_sigmask(SIG_BLOCK, &set, nullptr);
        m_nDescriptor = signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
        if (m_nDescriptor == -1)
            throw std::system_error(errno, std::generic_category(), "signalfd");
    }
    ~Signals() { close(m_nDescriptor); }
    Signals(const Signals&) = delete;
    Signals& operator=(const Signals&) = delete;

    int Descriptor() const { return m_nDescriptor; }

    /// 0 when none waits.
    int Next() {
        signalfd_siginfo info = {};
        return read(m_nDescriptor, &info, sizeof info) == sizeof info
                   ? static_cast<int>(info.ssi_signo)
                   : 0;
    }

private:
    int m_nDescriptor = -1;
};

const char* NameOf(Order::Act act) {
    switch (act) {
        case Order::Act::Play:
            return "play";
        case Order::Act::Stop:
            return "stop";
        case Order::Act::Logout:
            return "log out";
        case Order::Act::Refresh:
            break;
    }
    return "refresh";
}

/// The code in front, for the end may be cut.
std::string ReasonOf(int code, const std::string& message) {
    return message.empty() ? std::to_string(code) : fmt::format("{} {}", code, message);
}

class WatchScreen {
public:
    WatchScreen(WatchFeed& feed, const std::string& host) : m_Feed(feed), m_strHost(host) {}

    Receiver::Result Run();

    void operator()(const Notified& notified);
    void operator()(const Lost& lost);
    void operator()(const Listed& listed);
    void operator()(const Linked& linked);
    void operator()(const Acted& acted);
    void operator()(const Unusable& unusable);

private:
    void Draw();
    void Wait();
    void TakeSignals();
    void TakeEvents();
    void TakeKeys();
    void Press(int key);
    void Answer(int key);
    void Act(Order::Act act);
    void AskLogout();
    std::optional<Order> OrderFor(Order::Act act);
    std::string Status() const;

    WatchFeed& m_Feed;
    const std::string m_strHost;
    WatchModel m_Model;
    Signals m_Signals;
    Terminal m_Terminal;
    std::string m_strStatus;
    bool m_bQuit = false;
    Receiver::Result m_Failure;
};

Receiver::Result WatchScreen::Run() {
    if (!m_Terminal.IsOpen()) {
        const char* type = std::getenv("TERM");
        return Failure{Exit::WrongUsage, 0, "",
                       fmt::format("The terminal type \"{}\" is not known or cannot fill a screen: "
                                   "set TERM to what the terminal is, or use --json.",
                                   Printable(type == nullptr ? "" : type))};
    }
    while (!m_bQuit) {
        Draw();
        Wait();
        TakeSignals();
        // Before the keys, which are meant for what is there.
        TakeEvents();
        TakeKeys();
    }
    return m_Failure;
}

void WatchScreen::operator()(const Notified& notified) {
    m_Model.Log(notified.time, fmt::format("notification {}, {}, {}", notified.values[0],
                                           notified.values[1], notified.values[2]));
}

void WatchScreen::operator()(const Lost& lost) {
    m_Model.Log(lost.time, fmt::format("{} notifications were not kept", lost.count));
}

void WatchScreen::operator()(const Listed& listed) {
    for (const Change& change : m_Model.Update(listed.senders, listed.time)) {
        const char* what = change.kind == Change::Kind::Joined ? "joined"
                           : change.kind == Change::Kind::Left ? "left"
                                                               : "changed";
        m_Model.Log(listed.time, fmt::format("{}: {} {}", what, change.sender.GetPrimaryKey(),
                                             Printable(change.sender.GetUserName())));
    }
}

void WatchScreen::operator()(const Linked& linked) {
    if (!m_Model.SetLink(linked.link))
        return;
    m_Model.Log(linked.time,
                linked.link.connected
                    ? "connected"
                    : "no connection: " + ReasonOf(linked.link.code, linked.link.message));
}

void WatchScreen::operator()(const Acted& acted) {
    const std::string what = fmt::format("{} {}", NameOf(acted.order.act), acted.order.sender);
    if (!acted.failure) {
        m_Model.SetAnswered(acted.time);
        m_strStatus = what + ": done";
    } else if (acted.failure->exit == Exit::Refused) {
        m_Model.SetAnswered(acted.time);
        m_strStatus =
            fmt::format("{}: the receiver answered with the result {}", what, acted.failure->code);
    } else {
        m_strStatus = fmt::format("{}: failed, {}", what,
                                  ReasonOf(acted.failure->code, acted.failure->message));
    }
}

void WatchScreen::operator()(const Unusable& unusable) {
    m_Failure = unusable.failure;
    m_bQuit = true;
}

void WatchScreen::Draw() {
    m_Terminal.Show(ViewOf(m_Model, {m_strHost, Status(), m_Terminal.Rows(), m_Terminal.Columns(),
                                     std::chrono::steady_clock::now()}));
}

std::string WatchScreen::Status() const {
    if (const std::optional<ScreenSenderInfo>& asked = m_Model.Asked())
        return fmt::format("log out {} {}? (y/n)", asked->GetPrimaryKey(),
                           Printable(asked->GetUserName()));
    return m_Feed.IsWaiting() ? "waiting for an answer" : m_strStatus;
}

void WatchScreen::Wait() {
    std::array<pollfd, 3> entries = {{{STDIN_FILENO, POLLIN, 0},
                                      {m_Feed.Descriptor(), POLLIN, 0},
                                      {m_Signals.Descriptor(), POLLIN, 0}}};
    poll(entries.data(), entries.size(), kTickMs);
    // The terminal has gone away.
    if ((entries[0].revents & (POLLHUP | POLLERR | POLLNVAL)) != 0)
        m_bQuit = true;
}

void WatchScreen::TakeSignals() {
    while (const int number = m_Signals.Next()) {
        if (number == SIGWINCH)
            m_Terminal.Resize();
        else
            m_bQuit = true;
    }
}

void WatchScreen::TakeEvents() {
    const std::optional<ScreenSenderInfo> asked = m_Model.Asked();
    for (const WatchEvent& event : m_Feed.Take())
        std::visit(*this, event);
    if (asked && !m_Model.Asked())
        m_strStatus = fmt::format("log out {}: not done, the sender or the link has changed",
                                  asked->GetPrimaryKey());
}

void WatchScreen::TakeKeys() {
    for (int key = m_Terminal.Key(); key != ERR; key = m_Terminal.Key()) {
        if (key == KEY_RESIZE)
            continue;
        if (m_Model.Asked())
            Answer(key);
        else
            Press(key);
    }
}

void WatchScreen::Press(int key) {
    switch (key) {
        case KEY_UP:
        case 'k':
            return m_Model.Move(-1);
        case KEY_DOWN:
        case 'j':
            return m_Model.Move(1);
        case 'p':
            return Act(Order::Act::Play);
        case 's':
            return Act(Order::Act::Stop);
        case 'l':
            return AskLogout();
        case 'r':
            m_strStatus.clear();
            return m_Feed.Give({});
        case 'q':
            m_bQuit = true;
            return;
        default:
            return;
    }
}

void WatchScreen::Answer(int key) {
    const int sender = m_Model.Asked()->GetPrimaryKey();
    m_Model.EndQuestion();
    m_strStatus = fmt::format("log out {}: not done", sender);
    if (key == 'y') {
        m_strStatus.clear();
        m_Feed.Give({Order::Act::Logout, sender});
    }
}

void WatchScreen::Act(Order::Act act) {
    if (const std::optional<Order> order = OrderFor(act)) {
        m_strStatus.clear();
        m_Feed.Give(*order);
    }
}

void WatchScreen::AskLogout() {
    if (OrderFor(Order::Act::Logout))
        m_Model.AskLogout();
}

/// For the chosen sender; none, and the status says why, when it cannot be given.
std::optional<Order> WatchScreen::OrderFor(Order::Act act) {
    const std::optional<size_t> row = m_Model.Chosen();
    if (!m_Model.Link() || !m_Model.Link()->connected)
        m_strStatus = fmt::format("{}: not connected", NameOf(act));
    else if (!m_Model.IsListCurrent())
        m_strStatus = fmt::format("{}: the list has not come yet", NameOf(act));
    else if (!row)
        m_strStatus = fmt::format("{}: no sender is chosen, press up or down", NameOf(act));
    else
        return Order{act, m_Model.Senders()[*row].GetPrimaryKey()};
    return std::nullopt;
}

}  // namespace

Receiver::Result RunWatchScreen(WatchFeed& feed, const std::string& host) {
    return WatchScreen(feed, host).Run();
}

}  // namespace screenctl
