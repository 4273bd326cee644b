#include <benchmark/benchmark.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <string>
#include <vector>

#include "ScreenReceiver/ScreenReceiverStub.h"
#include "simulator/ReceiverSimulator.h"

// What an application waits for: the client against a simulated receiver on loopback. The network
// thread looks at an idle connection every 30 ms, so a round trip takes up to that long by design.

namespace {

class ConnectedClient {
public:
    explicit ConnectedClient(int senders,
                             simulator::RecordSize records = simulator::RecordSize::Long)
        : m_Receiver(OptionsFor(records)) {
        for (int i = 1; i <= senders; ++i) {
            simulator::Sender sender;
            sender.key = i;
            sender.userName = "presenter " + std::to_string(i);
            m_Receiver.AddSender(sender);
        }
        if (m_Receiver.Start() || m_Client.Init(kAddress, false) != 0)
            std::abort();
        // A connection's first 30 ms of waiting are spent in select(), which ends at once when bytes
        // come; only after them the pacing is what applications see.
        usleep(100 * 1000);
    }

    ScreenReceiverStub& Client() { return m_Client; }

private:
    static constexpr const char* kAddress = "127.7.7.7";

    static simulator::Options OptionsFor(simulator::RecordSize records) {
        simulator::Options options;
        options.address = kAddress;
        options.records = records;
        return options;
    }

    simulator::ReceiverSimulator m_Receiver;
    ScreenReceiverStub m_Client;
};

// Times each request by itself; median and worst in milliseconds.
template <class Request>
void TimeRequests(benchmark::State& state, Request request) {
    std::vector<double> times;
    for (auto _ : state) {
        const auto start = std::chrono::steady_clock::now();
        if (request() != 0)
            state.SkipWithError("request failed");
        times.push_back(
            std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start)
                .count());
    }
    std::sort(times.begin(), times.end());
    state.counters["median_ms"] = times[times.size() / 2];
    state.counters["worst_ms"] = times.back();
    state.counters["best_ms"] = times.front();
}

void RoundTrip(benchmark::State& state) {
    ConnectedClient connected(4);
    ScreenReceiverStub::ModeratorInfo info;
    TimeRequests(state, [&] { return connected.Client().GetModeratorInfo(info); });
}
BENCHMARK(RoundTrip)->Iterations(200)->Unit(benchmark::kMillisecond)->UseRealTime();

void ReadSenderList(benchmark::State& state) {
    ConnectedClient connected(static_cast<int>(state.range(0)));
    std::vector<ScreenSenderInfo> senders;
    TimeRequests(state, [&] { return connected.Client().GetSenderList(senders); });
}
BENCHMARK(ReadSenderList)
    ->Arg(1)
    ->Arg(65535)
    ->Iterations(40)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

double ProcessCpuSeconds() {
    rusage usage;
    getrusage(RUSAGE_SELF, &usage);
    const auto seconds = [](const timeval& time) {
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) * 1e-6;
    };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

// CPU of a connection on which nothing happens, in percent of one core.
void IdleConnection(benchmark::State& state) {
    ConnectedClient connected(4);
    const unsigned seconds = static_cast<unsigned>(state.range(0));
    for (auto _ : state) {
        const double before = ProcessCpuSeconds();
        sleep(seconds);
        state.counters["cpu_percent"] = 100 * (ProcessCpuSeconds() - before) / seconds;
    }
}
BENCHMARK(IdleConnection)->Arg(20)->Iterations(1)->Unit(benchmark::kSecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
