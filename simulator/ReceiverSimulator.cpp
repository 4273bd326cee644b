#include "simulator/ReceiverSimulator.h"

#include <utility>

#include "simulator/Action.h"
#include "simulator/SimulatorImpl.h"

namespace simulator {

ReceiverSimulator::ReceiverSimulator(Options options, Observer observer)
    : m_pImpl(std::make_unique<Impl>(*this, std::move(options), std::move(observer))) {}

ReceiverSimulator::~ReceiverSimulator() {
    Stop();
}

std::error_code ReceiverSimulator::Start() {
    return m_pImpl->Start();
}

void ReceiverSimulator::Stop() {
    m_pImpl->Stop();
}

const std::string& ReceiverSimulator::Address() const {
    return m_pImpl->GetOptions().address;
}

uint16_t ReceiverSimulator::Port() const {
    return m_pImpl->Port();
}

bool ReceiverSimulator::AddSender(const Sender& sender) {
    return m_pImpl->ChangeState([&](ReceiverState& state, ReceiverState::Notes& notes) {
        return state.Add(sender, notes);
    });
}

bool ReceiverSimulator::RemoveSender(int32_t key) {
    return m_pImpl->ChangeState([&](ReceiverState& state, ReceiverState::Notes& notes) {
        return state.Remove(key, notes);
    });
}

bool ReceiverSimulator::ChangeSender(int32_t key, const std::function<void(Sender&)>& change) {
    return m_pImpl->ChangeState([&](ReceiverState& state, ReceiverState::Notes& notes) {
        return state.Change(key, change, notes);
    });
}

void ReceiverSimulator::SetModerator(const Moderator& moderator) {
    m_pImpl->ChangeState([&](ReceiverState& state, ReceiverState::Notes& notes) {
        state.SetModerator(moderator, notes);
        return true;
    });
}

void ReceiverSimulator::Notify(int32_t first, int32_t second, int32_t third) {
    m_pImpl->ChangeState([&](ReceiverState&, ReceiverState::Notes& notes) {
        notes.push_back({first, second, third});
        return true;
    });
}

Result ReceiverSimulator::StartPlay(int32_t key, uint8_t option) {
    Result result = kResultOk;
    m_pImpl->ChangeState([&](ReceiverState& state, ReceiverState::Notes& notes) {
        result = state.StartPlay(key, option, notes);
        return true;
    });
    return result;
}

Result ReceiverSimulator::StopPlay(int32_t key) {
    Result result = kResultOk;
    m_pImpl->ChangeState([&](ReceiverState& state, ReceiverState::Notes& notes) {
        result = state.StopPlay(key, notes);
        return true;
    });
    return result;
}

void ReceiverSimulator::DropClients() {
    m_pImpl->DropClients();
}

bool ReceiverSimulator::FaultOn(const Fault& fault) {
    return m_pImpl->FaultOn(fault);
}

bool ReceiverSimulator::FaultOff(FaultKind kind, std::optional<int> command) {
    return m_pImpl->FaultOff(kind, command);
}

void ReceiverSimulator::FaultsOff() {
    m_pImpl->FaultsOff();
}

std::vector<Fault> ReceiverSimulator::Faults() const {
    return m_pImpl->Faults();
}

std::string ReceiverSimulator::Execute(const std::string& command) {
    std::string error;
    const std::optional<Action> action = ParseCommand(command, error);
    return action ? action->perform(*this) : "error " + error;
}

std::error_code ReceiverSimulator::Play(const Scenario& scenario) {
    return m_pImpl->Play(scenario);
}

std::vector<Sender> ReceiverSimulator::Senders() const {
    return m_pImpl->LookAtState([](const ReceiverState& state) { return state.Senders(); });
}

Moderator ReceiverSimulator::GetModerator() const {
    return m_pImpl->LookAtState([](const ReceiverState& state) { return state.GetModerator(); });
}

bool ReceiverSimulator::ConfControlHeld() const {
    return ConfControlClient() != 0;
}

uint64_t ReceiverSimulator::ConfControlClient() const {
    return m_pImpl->LookAtState(
        [](const ReceiverState& state) { return state.ConfControlClient(); });
}

bool ReceiverSimulator::IsShown(int32_t key) const {
    return ShownOption(key).has_value();
}

std::optional<uint8_t> ReceiverSimulator::ShownOption(int32_t key) const {
    return m_pImpl->LookAtState([&](const ReceiverState& state) { return state.ShownOption(key); });
}

size_t ReceiverSimulator::ClientCount() const {
    return m_pImpl->ClientCount();
}

uint64_t ReceiverSimulator::FramesReceived(uint8_t code) const {
    return m_pImpl->FramesReceived(code);
}

Statistics ReceiverSimulator::GetStatistics() const {
    return m_pImpl->GetStatistics();
}

}  // namespace simulator
