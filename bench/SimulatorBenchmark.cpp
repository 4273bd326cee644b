#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstddef>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "simulator/ReceiverSimulator.h"

// What the simulator bears, seen from plain sockets on loopback.

namespace {

constexpr char kAddress[] = "127.7.7.8";
constexpr size_t kNotificationSize = 20;
constexpr size_t kListHeadSize = 40;
constexpr size_t kLongRecordSize = 128;

class Client {
public:
    explicit Client(uint16_t port) : m_nSocket(socket(AF_INET, SOCK_STREAM, 0)) {
        sockaddr_in peer = {};
        peer.sin_family = AF_INET;
        peer.sin_port = htons(port);
        peer.sin_addr.s_addr = inet_addr(kAddress);
        if (connect(m_nSocket, reinterpret_cast<sockaddr*>(&peer), sizeof peer) != 0)
            std::abort();
    }
    ~Client() { close(m_nSocket); }
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    void Ask(char command) {
        std::string frame = "RecvIPC";
        frame += command;
        frame.resize(kListHeadSize, '\0');
        if (send(m_nSocket, frame.data(), frame.size(), MSG_NOSIGNAL) < 0)
            std::abort();
    }

    void Drain(size_t size) {
        while (size > 0) {
            const ssize_t got =
                recv(m_nSocket, m_Chunk.data(), size < m_Chunk.size() ? size : m_Chunk.size(), 0);
            if (got <= 0)
                std::abort();
            size -= static_cast<size_t>(got);
        }
    }

private:
    int m_nSocket;
    std::vector<char> m_Chunk = std::vector<char>(1 << 20);
};

std::unique_ptr<simulator::ReceiverSimulator> StartReceiver(int senders) {
    simulator::Options options;
    options.address = kAddress;
    options.port = 0;
    auto receiver = std::make_unique<simulator::ReceiverSimulator>(options);
    for (int key = 1; key <= senders; ++key)
        receiver->AddSender(simulator::SampleSender(key));
    if (receiver->Start())
        std::abort();
    return receiver;
}

// One second of 1,000,000 notifications, as fast as one client gets them.
void Flood(benchmark::State& state) {
    const auto receiver = StartReceiver(4);
    Client client(receiver->Port());
    client.Ask(32);
    client.Drain(kListHeadSize);
    constexpr uint64_t kCount = 1000000;
    for (auto _ : state) {
        simulator::Fault flood;
        flood.kind = simulator::FaultKind::Flood;
        flood.rate = kCount;
        flood.count = kCount;
        receiver->FaultOn(flood);
        client.Drain(kCount * kNotificationSize);
    }
    state.SetItemsProcessed(static_cast<int64_t>(kCount) * state.iterations());
}
BENCHMARK(Flood)->Iterations(3)->Unit(benchmark::kMillisecond)->UseRealTime();

// A list of 65,535 long records for each of so many clients; every time somebody has changed before.
void LongLists(benchmark::State& state) {
    const auto receiver = StartReceiver(65535);
    std::vector<std::unique_ptr<Client>> clients;
    for (int64_t i = 0; i < state.range(0); ++i)
        clients.push_back(std::make_unique<Client>(receiver->Port()));
    for (auto _ : state) {
        for (const auto& client : clients)
            client->Ask(16);
        for (const auto& client : clients)
            client->Drain(kListHeadSize + 65535 * kLongRecordSize);
        state.PauseTiming();
        receiver->RemoveSender(1);
        receiver->AddSender(simulator::SampleSender(1));
        for (const auto& client : clients)
            client->Drain(2 * kNotificationSize);
        state.ResumeTiming();
    }
}
BENCHMARK(LongLists)->Arg(1)->Arg(10)->Iterations(5)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
