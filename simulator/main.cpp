#include <sys/time.h>

#include <CLI/CLI.hpp>
#include <array>
#include <boost/asio/io_context.hpp>
#include <boost/asio/signal_set.hpp>
#include <boost/asio/steady_timer.hpp>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <exception>
#include <memory>
#include <string>
#include <system_error>

#include "simulator/ReceiverSimulator.h"

namespace {

constexpr int kExitCannotListen = 1;
constexpr int kExitWrongUsage = 2;
constexpr double kMinIntervalSeconds = 0.001;
constexpr double kMaxIntervalSeconds = 86400;

struct Arguments {
    simulator::Options options;
    int senders = 4;
    std::string records = "long";
    double notifyEvery = 0;  // seconds; 0: never
    bool verbose = false;
};

void AddOptions(CLI::App& app, Arguments& arguments) {
    app.add_option("--address", arguments.options.address, "IPv4 address to listen on")
        ->check(CLI::ValidIPV4)
        ->capture_default_str();
    app.add_option("--port", arguments.options.port, "port to listen on; 0 takes any free one")
        ->capture_default_str();
    app.add_option("--senders", arguments.senders, "number of senders that are there at the start")
        ->check(CLI::Range(0, static_cast<int>(simulator::kMaxSenders)))
        ->capture_default_str();
    app.add_option("--records", arguments.records, "size of the records in sender lists")
        ->check(CLI::IsMember({"short", "long"}))
        ->capture_default_str();
    app.add_option("--notify-every", arguments.notifyEvery,
                   "seconds between notifications (8, running number, 0); none by default")
        ->check(CLI::Range(kMinIntervalSeconds, kMaxIntervalSeconds));
    app.add_flag("-v,--verbose", arguments.verbose, "print every frame, decoded");
}

/// One of a set that is the same in every run: all kinds of senders are there from the fourth on.
simulator::Sender MakeSender(int number) {
    static const std::array<const char*, 12> kNames = {"Ada",  "Grace",   "Edsger", "Barbara",
                                                       "Alan", "Frances", "Donald", "Hedy",
                                                       "Alan", "Radia",   "Dennis", "Margaret"};
    const auto index = static_cast<unsigned>(number - 1);
    simulator::Sender sender;
    sender.key = number;
    sender.address = 0xC0A80A00u + index + 20;  // 192.168.10.20 and on
    sender.userName = kNames[index % kNames.size()];
    if (index >= kNames.size())
        sender.userName += " " + std::to_string(index / kNames.size() + 1);
    sender.osType = static_cast<uint16_t>(index % 4 + 1);
    sender.appType = static_cast<uint16_t>(index % 2 + 1);
    sender.pointerInputType = static_cast<uint16_t>(index % 3);
    sender.local = index % 4 == 2;
    sender.valid = index % 4 != 3;
    sender.status = sender.valid ? simulator::kStatusReady : simulator::kStatusIdle;
    return sender;
}

std::string TimeNow() {
    timeval now{};
    gettimeofday(&now, nullptr);
    tm local{};
    localtime_r(&now.tv_sec, &local);
    char text[32];
    const size_t size = std::strftime(text, sizeof text, "%H:%M:%S", &local);
    std::snprintf(text + size, sizeof text - size, ".%03d",
                  static_cast<int>(now.tv_usec / 1000 % 1000));
    return text;
}

void PrintLine(FILE* stream, uint64_t client, const char* mark, const std::string& text) {
    std::fprintf(stream, "%s #%llu %s %s\n", TimeNow().c_str(),
                 static_cast<unsigned long long>(client), mark, text.c_str());
    std::fflush(stream);
}

void PrintFrame(const simulator::Frame& frame) {
    PrintLine(stdout, frame.client, frame.incoming ? "<-" : "->", simulator::Describe(frame));
}

void PrintClient(uint64_t client, simulator::ClientChange change, const std::string& peer) {
    using simulator::ClientChange;
    switch (change) {
        case ClientChange::Connected:
            PrintLine(stdout, client, "--", "connected from " + peer);
            break;
        case ClientChange::Left:
            PrintLine(stdout, client, "--", "left");
            break;
        case ClientChange::Closed:
            PrintLine(stdout, client, "--", "closed");
            break;
        case ClientChange::BacklogDropped:
            PrintLine(stderr, client, "--", "dropped: it does not read");
            break;
        case ClientChange::Failed:
            PrintLine(stderr, client, "--", "dropped: out of memory");
            break;
    }
}

bool IsTrouble(simulator::ClientChange change) {
    return change == simulator::ClientChange::BacklogDropped ||
           change == simulator::ClientChange::Failed;
}

simulator::Observer MakeObserver(bool verbose) {
    simulator::Observer observer;
    if (verbose)
        observer.frame = PrintFrame;
    observer.client = [verbose](uint64_t client, simulator::ClientChange change,
                                const std::string& peer) {
        if (verbose || IsTrouble(change))
            PrintClient(client, change, peer);
    };
    return observer;
}

/// Sends a notification every interval, for as long as its io_context runs.
class Ticker {
public:
    Ticker(boost::asio::io_context& io, simulator::ReceiverSimulator& receiver, double seconds)
        : m_Timer(io),
          m_Receiver(receiver),
          m_Interval(std::chrono::duration_cast<std::chrono::steady_clock::duration>(
              std::chrono::duration<double>(seconds))),
          m_Next(std::chrono::steady_clock::now()) {
        Wait();
    }

private:
    void Wait() {
        m_Next += m_Interval;
        m_Timer.expires_at(m_Next);
        m_Timer.async_wait([this](const boost::system::error_code& error) {
            if (error)
                return;
            m_nTicks = m_nTicks == INT32_MAX ? 1 : m_nTicks + 1;
            m_Receiver.Notify(simulator::kNotifyTick, m_nTicks, 0);
            Wait();
        });
    }

    boost::asio::steady_timer m_Timer;
    simulator::ReceiverSimulator& m_Receiver;
    const std::chrono::steady_clock::duration m_Interval;
    std::chrono::steady_clock::time_point m_Next;
    int32_t m_nTicks = 0;
};

void PrintSummary(const simulator::Statistics& statistics) {
    std::printf("served %llu clients (%llu dropped), %llu frames received, %llu sent\n",
                static_cast<unsigned long long>(statistics.clients),
                static_cast<unsigned long long>(statistics.clientsDropped),
                static_cast<unsigned long long>(statistics.framesReceived),
                static_cast<unsigned long long>(statistics.framesSent));
}

int Run(const Arguments& arguments) {
    boost::asio::io_context io{1};
    // From here on the two signals end the program in order, also while it is still starting.
    boost::asio::signal_set signals(io, SIGINT, SIGTERM);
    signals.async_wait([&io](const boost::system::error_code&, int) { io.stop(); });

    simulator::ReceiverSimulator receiver(arguments.options, MakeObserver(arguments.verbose));
    for (int number = 1; number <= arguments.senders; ++number)
        receiver.AddSender(MakeSender(number));
    if (const std::error_code error = receiver.Start()) {
        std::fprintf(stderr, "receiver-sim: cannot listen on %s:%u: %s\n",
                     receiver.Address().c_str(), static_cast<unsigned>(receiver.Port()),
                     error.message().c_str());
        return kExitCannotListen;
    }
    std::printf("listening on %s:%u\n", receiver.Address().c_str(),
                static_cast<unsigned>(receiver.Port()));
    std::fflush(stdout);

    std::unique_ptr<Ticker> ticker;
    if (arguments.notifyEvery > 0)
        ticker = std::make_unique<Ticker>(io, receiver, arguments.notifyEvery);
    io.run();
    receiver.Stop();
    PrintSummary(receiver.GetStatistics());
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        Arguments arguments;
        CLI::App app("Simulated screen receiver: serves the receiver's protocol until Ctrl-C.",
                     "receiver-sim");
        AddOptions(app, arguments);
        try {
            app.parse(argc, argv);
        } catch (const CLI::ParseError& error) {
            return app.exit(error) == 0 ? 0 : kExitWrongUsage;
        }
        if (arguments.records == "short")
            arguments.options.records = simulator::RecordSize::Short;
        return Run(arguments);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "receiver-sim: %s\n", error.what());
        return kExitCannotListen;
    }
}
