#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "controller/Command.h"
#include "controller/Text.h"

namespace screenctl {

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr milliseconds kPollEvery(500);
// Between two looks, so that many notifications do not become as many requests.
constexpr milliseconds kLookGap(50);
constexpr int kMaxStatus = 65535;

constexpr const char* kFooter =
    R"(CONDITION is "sender NAME present", "sender NAME gone" or "sender NAME status=N". NAME is
what stands between the first blank and the last one, and is compared byte for byte; it may have
blanks itself, and needs no quotes. Of several senders of one name, one is enough for present and
status, and all must have left for gone.

The condition is looked for in the list of senders, so one that holds already ends the command at
once. The time counts from the first connection, for which --wait waits. A receiver that goes away
after that may come back. A request that is under way when the time is over is waited for.

Exit code: 0 the condition holds; 2 it is no condition; 3 there is no connection; 4 the time is
over.

Example:
  screenctl wait --until 'sender Ada Lovelace status=1' --timeout 60)";

struct Condition {
    enum class Kind { Present, Gone, Status };
    std::string text;
    std::string name;
    Kind kind = Kind::Present;
    int status = 0;
};

/// Takes what follows the name; false when that is no condition.
bool ParseWanted(std::string word, Condition& condition) {
    const std::string status = "status=";
    if (word == "present" || word == "gone") {
        condition.kind = word == "present" ? Condition::Kind::Present : Condition::Kind::Gone;
        return true;
    }
    if (word.compare(0, status.size(), status) != 0)
        return false;
    word.erase(0, status.size());
    if (!Number(0, kMaxStatus)(word).empty())
        return false;
    condition.kind = Condition::Kind::Status;
    condition.status = std::stoi(word);
    return true;
}

bool ParseCondition(const std::string& text, Condition& condition) {
    const std::string start = "sender ";
    const size_t end = text.rfind(' ');
    if (text.compare(0, start.size(), start) != 0 || end <= start.size())
        return false;
    condition.text = text;
    condition.name = text.substr(start.size(), end - start.size());
    return ParseWanted(text.substr(end + 1), condition);
}

CLI::Validator IsCondition() {
    return CLI::Validator(
        [](std::string& text) {
            Condition condition;
            if (ParseCondition(text, condition))
                return std::string();
            return fmt::format(
                "expected 'sender NAME present', 'sender NAME gone' or 'sender NAME status=N' "
                "with N from 0 to {}, found '{}'",
                kMaxStatus, text);
        },
        "");
}

bool Holds(const Condition& condition, const std::vector<int>& statuses) {
    switch (condition.kind) {
        case Condition::Kind::Present:
            return !statuses.empty();
        case Condition::Kind::Gone:
            return statuses.empty();
        case Condition::Kind::Status:
            break;
    }
    return std::find(statuses.begin(), statuses.end(), condition.status) != statuses.end();
}

std::string StateOf(const Condition& condition, const std::vector<int>& statuses) {
    const std::string name = Printable(condition.name);
    if (statuses.empty())
        return fmt::format("there is no sender \"{}\"", name);
    return fmt::format("sender \"{}\" is there with status {}", name, fmt::join(statuses, " and "));
}

/// The receiver's list, watched for one condition.
class Waiter {
public:
    Waiter(const Common& common, const Condition& condition)
        : m_Common(common), m_Condition(condition), m_Receiver(common.host, common.trace) {
        m_Receiver.Listen([this](const int* values) { Notified(values); });
    }

    int Wait(milliseconds timeout) {
        if (const Receiver::Result failure = m_Receiver.Connect(Milliseconds(m_Common.wait)))
            return Report(*failure, m_Common.json);
        m_Begin = steady_clock::now();
        const auto end = m_Begin + timeout;
        for (;;) {
            // What began after the time was over has seen the state at its end.
            const bool last = steady_clock::now() >= end;
            const Receiver::Result failure = Look();
            if (!failure && Holds(m_Condition, m_vecStatuses))
                return Succeed();
            // A look may fail after many seconds; another one would take as long again.
            if (failure && steady_clock::now() >= end)
                return Report(*failure, m_Common.json);
            if (last)
                return TimeIsOver(timeout);
            Pause(end);
        }
    }

private:
    // Without values the link has broken; that needs no hurry, and a receiver that closes every
    // connection would otherwise be asked without pause.
    void Notified(const int* values) {
        if (values == nullptr)
            return;
        const std::lock_guard<std::mutex> lock(m_Mutex);
        m_bNotified = true;
        m_Changed.notify_one();
    }

    Receiver::Result Look() {
        {
            const std::lock_guard<std::mutex> lock(m_Mutex);
            m_bNotified = false;
        }
        if (!m_Receiver.IsConnected()) {
            if (Receiver::Result failure = m_Receiver.Connect())
                return failure;
        }
        std::vector<ScreenSenderInfo> senders;
        if (Receiver::Result failure = m_Receiver.List(Which::All, senders))
            return failure;
        m_vecStatuses.clear();
        for (const ScreenSenderInfo& sender : senders) {
            if (sender.GetUserName() == m_Condition.name)
                m_vecStatuses.push_back(sender.GetStatus());
        }
        return std::nullopt;
    }

    void Pause(steady_clock::time_point end) {
        std::this_thread::sleep_until(std::min(end, steady_clock::now() + kLookGap));
        std::unique_lock<std::mutex> lock(m_Mutex);
        m_Changed.wait_until(lock, std::min(end, steady_clock::now() + kPollEvery),
                             [this] { return m_bNotified; });
    }

    int Succeed() const {
        PrintOutcome(true);
        return static_cast<int>(Exit::Done);
    }

    int TimeIsOver(milliseconds timeout) const {
        PrintOutcome(false);
        return Report(
            {Exit::TimedOut, 0, "",
             fmt::format("After {:g} s {}, so \"{}\" does not hold: give it more time "
                         "with --timeout, or check the name with screenctl list.",
                         std::chrono::duration<double>(timeout).count(),
                         StateOf(m_Condition, m_vecStatuses), Printable(m_Condition.text))},
            m_Common.json);
    }

    void PrintOutcome(bool held) const {
        if (!m_Common.json)
            return;
        const std::chrono::duration<double> waited = steady_clock::now() - m_Begin;
        PrintJson({{"until", Printable(m_Condition.text)},
                   {"held", held},
                   {"waited_s", std::round(waited.count() * 1000) / 1000}});
    }

    const Common& m_Common;
    const Condition& m_Condition;
    steady_clock::time_point m_Begin;
    std::vector<int> m_vecStatuses;  // of the senders of that name, when they were last listed
    std::mutex m_Mutex;
    std::condition_variable m_Changed;
    bool m_bNotified = false;  // guarded by m_Mutex
    Receiver m_Receiver;       // the last member: its threads use those above
};

struct WaitOptions {
    std::string until;
    double timeout = 30;  // seconds
};

}  // namespace

void AddWait(CLI::App& app, const Common& common, Run& run) {
    CLI::App* command =
        app.add_subcommand("wait", "Waits until a sender is there, or is not, or has a status");
    const auto options = std::make_shared<WaitOptions>();
    command->add_option("--until", options->until, "what to wait for, see below")
        ->required()
        ->type_name("CONDITION")
        ->check(IsCondition());
    command->add_option("--timeout", options->timeout, "seconds to wait; 0 looks once")
        ->type_name("SECONDS")
        ->check(Seconds(0))
        ->capture_default_str();
    command->footer(kFooter);
    command->callback([&common, &run, options] {
        run = [&common, options] {
            Condition condition;
            ParseCondition(options->until, condition);
            return Waiter(common, condition).Wait(Milliseconds(options->timeout));
        };
    });
}

}  // namespace screenctl
