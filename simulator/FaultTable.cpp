#include "simulator/FaultTable.h"

#include <algorithm>
#include <utility>

#include "simulator/Wire.h"

namespace simulator {

namespace {

constexpr int64_t kDefaultGarbage = 16;
constexpr int kRightCodePlus = 2;

/// A request's command byte as its answer's.
int AnswerCode(int command) {
    return command >= 0 && command != kNotifyEvent ? command | 1 : command;
}

bool Matches(int command, uint8_t code) {
    if (command == kEveryAnswer)
        return code != kNotifyEvent;
    return command == kEveryFrame || AnswerCode(command) == code;
}

/// The others have no command.
bool IsOfFrames(FaultKind kind) {
    return kind != FaultKind::Flood && kind != FaultKind::CloseOnAccept &&
           kind != FaultKind::NeverRead;
}

bool IsSame(const Fault& left, const Fault& right) {
    return left.kind == right.kind && AnswerCode(left.command) == AnswerCode(right.command) &&
           (left.kind != FaultKind::Garbage || left.place == right.place);
}

std::string MakeGarbage(const Fault& fault, Random& random) {
    const std::string& prefix = FramePrefix();
    const auto size = static_cast<size_t>(fault.bytes < 0 ? kDefaultGarbage : fault.bytes);
    std::string garbage;
    while (garbage.size() < size) {
        if (fault.prefixParts)
            garbage.append(prefix, 0, 1 + static_cast<size_t>(random() % (prefix.size() - 1)));
        else
            garbage += static_cast<char>(static_cast<unsigned char>(random() & 0xFFu));
    }
    garbage.resize(size);
    return garbage;
}

size_t CountPrefixes(const std::string& bytes) {
    size_t count = 0;
    const std::string& prefix = FramePrefix();
    for (size_t at = bytes.find(prefix); at != std::string::npos; at = bytes.find(prefix, at + 1))
        ++count;
    return count;
}

/// `size` is that of the frame, which `bytes` may hold twice.
void AddGarbage(std::string& bytes, size_t size, const Fault& fault, Random& random) {
    size_t at = 0;
    if (fault.place == GarbagePlace::Inside)
        at = size / 2;
    else if (fault.place == GarbagePlace::After)
        at = bytes.size();
    const std::string garbage = MakeGarbage(fault, random);
    std::string whole = bytes;
    whole.insert(at, garbage);
    // A whole prefix would begin a frame, and what follows would be no garbage.
    if (CountPrefixes(whole) != CountPrefixes(bytes))
        whole.replace(at, garbage.size(), garbage.size(), '~');
    bytes.swap(whole);
}

Bytes Share(std::string bytes) {
    return std::make_shared<const std::string>(std::move(bytes));
}

/// `size` as for AddGarbage().
std::vector<Piece> CutBytes(std::string bytes, size_t size, const Fault& cut) {
    const size_t first =
        cut.bytes < 0 ? size / 2 : std::min(static_cast<size_t>(cut.bytes), bytes.size());
    std::vector<Piece> pieces(1);
    if (cut.end == CutEnd::Later) {
        Piece pause;
        pause.bytes = Share("");
        pause.pause = cut.time;
        pieces.push_back(pause);
        pieces.emplace_back();
        pieces.back().bytes = Share(bytes.substr(first));
    } else {
        pieces.front().end = cut.end == CutEnd::Close ? PieceEnd::Close : PieceEnd::Reset;
    }
    bytes.resize(first);
    pieces.front().bytes = Share(std::move(bytes));
    return pieces;
}

std::vector<Piece> Whole(Bytes bytes) {
    std::vector<Piece> pieces(1);
    pieces.front().bytes = std::move(bytes);
    return pieces;
}

void TrickleBytes(std::vector<Piece>& pieces, const Fault& trickle) {
    for (Piece& piece : pieces) {
        if (piece.bytes->empty())
            continue;
        piece.chunk = static_cast<size_t>(std::max<int64_t>(trickle.bytes, 1));
        piece.pause = trickle.time;
    }
}

}  // namespace

bool CanBe(const Fault& fault) {
    const bool frames = fault.command >= kEveryFrame && fault.command <= 255 &&
                        !(fault.kind == FaultKind::Unasked && fault.command == kNotifications);
    const bool share = fault.percent >= 1 && fault.percent <= 100;
    const bool time = fault.time.count() >= 0 && fault.time <= kMaxFaultTime;
    const int64_t most = fault.kind == FaultKind::Garbage ? kMaxGarbage : kMaxFaultBytes;
    const int64_t least = fault.kind == FaultKind::Trickle ? 1 : 0;
    const bool bytes = fault.bytes == -1 || (fault.bytes >= least && fault.bytes <= most);
    const bool code = fault.code >= -1 && fault.code <= 255;
    const bool records = fault.records >= -1 && fault.records <= static_cast<int>(kMaxSenders);
    const bool rate = fault.rate >= 1 && fault.rate <= kMaxFloodRate;
    return frames && share && time && bytes && code && records && rate;
}

const char* FaultName(FaultKind kind) {
    switch (kind) {
        case FaultKind::Silent:
            return "silent";
        case FaultKind::Delay:
            return "delay";
        case FaultKind::WrongCode:
            return "wrong-code";
        case FaultKind::Twice:
            return "twice";
        case FaultKind::Unasked:
            return "unasked";
        case FaultKind::Cut:
            return "cut";
        case FaultKind::Trickle:
            return "trickle";
        case FaultKind::Garbage:
            return "garbage";
        case FaultKind::FalseCount:
            return "false-count";
        case FaultKind::OpenName:
            return "open-name";
        case FaultKind::CloseOnAccept:
            return "close-on-accept";
        case FaultKind::NeverRead:
            return "never-read";
        case FaultKind::Flood:
            return "flood";
    }
    return "";
}

std::optional<uint64_t> FaultTable::On(Fault fault) {
    if (!CanBe(fault))
        return std::nullopt;
    if (!IsOfFrames(fault.kind))
        fault.command = kEveryAnswer;
    m_Entries.erase(std::remove_if(m_Entries.begin(), m_Entries.end(),
                                   [&](const Entry& entry) { return IsSame(entry.fault, fault); }),
                    m_Entries.end());
    m_Entries.push_back({m_nNextNumber, fault});
    return m_nNextNumber++;
}

bool FaultTable::Off(FaultKind kind, std::optional<int> command) {
    const auto isMeant = [&](const Entry& entry) {
        return entry.fault.kind == kind &&
               (!command || !IsOfFrames(kind) ||
                AnswerCode(entry.fault.command) == AnswerCode(*command));
    };
    const auto kept = std::remove_if(m_Entries.begin(), m_Entries.end(), isMeant);
    const bool any = kept != m_Entries.end();
    m_Entries.erase(kept, m_Entries.end());
    return any;
}

std::vector<Fault> FaultTable::Active() const {
    std::vector<Fault> faults;
    for (const Entry& entry : m_Entries)
        faults.push_back(entry.fault);
    return faults;
}

std::vector<uint64_t> FaultTable::Repeating() const {
    std::vector<uint64_t> numbers;
    for (const Entry& entry : m_Entries) {
        if (entry.fault.kind == FaultKind::Unasked || entry.fault.kind == FaultKind::Flood)
            numbers.push_back(entry.number);
    }
    return numbers;
}

std::optional<Delivery> FaultTable::Plan(const Bytes& frame, Random& random) {
    if (m_Entries.empty())
        return std::nullopt;
    const uint8_t code = CodeOf(*frame);
    Delivery delivery;
    const auto take = [&](FaultKind kind) {
        std::optional<Fault> fault = Take(kind, code, random);
        if (fault)
            delivery.faults += (delivery.faults.empty() ? "" : ", ") + std::string(FaultName(kind));
        return fault;
    };
    if (take(FaultKind::Silent)) {
        delivery.sent = false;
        return delivery;
    }
    std::string bytes = *frame;
    if (IsListAnswer(code)) {
        if (const auto fault = take(FaultKind::FalseCount))
            AnnounceRecords(bytes, fault->records);
        if (HasRecords(bytes) && take(FaultKind::OpenName))
            LeaveNamesOpen(bytes);
    }
    if (const auto fault = take(FaultKind::WrongCode))
        SetCode(bytes, fault->code < 0 ? code + kRightCodePlus : fault->code);
    if (take(FaultKind::Twice))
        bytes += std::string(bytes);
    if (const auto fault = take(FaultKind::Garbage))
        AddGarbage(bytes, frame->size(), *fault, random);
    const auto cut = take(FaultKind::Cut);
    const auto trickle = take(FaultKind::Trickle);
    const auto delay = take(FaultKind::Delay);
    if (delivery.faults.empty())
        return std::nullopt;
    delivery.pieces =
        cut ? CutBytes(std::move(bytes), frame->size(), *cut) : Whole(Share(std::move(bytes)));
    if (trickle)
        TrickleBytes(delivery.pieces, *trickle);
    if (delay)
        delivery.delay = delay->time;
    return delivery;
}

bool FaultTable::TakesConnection(FaultKind kind, Random& random) {
    return Take(kind, std::nullopt, random).has_value();
}

std::optional<Fault> FaultTable::Repeat(uint64_t number, uint64_t& wanted) {
    const auto entry = std::find_if(m_Entries.begin(), m_Entries.end(),
                                    [&](const Entry& one) { return one.number == number; });
    if (entry == m_Entries.end())
        return std::nullopt;
    const Fault fault = entry->fault;
    if (fault.count != 0)
        wanted = std::min(wanted, fault.count);
    Use(entry, wanted);
    return fault;
}

std::optional<Fault> FaultTable::Take(FaultKind kind, std::optional<uint8_t> code, Random& random) {
    for (auto entry = m_Entries.begin(); entry != m_Entries.end(); ++entry) {
        const Fault& fault = entry->fault;
        if (fault.kind != kind || (code && !Matches(fault.command, *code)))
            continue;
        if (fault.percent < 100 && static_cast<int>(random() % 100) >= fault.percent)
            continue;
        const Fault taken = fault;
        Use(entry, 1);
        return taken;
    }
    return std::nullopt;
}

void FaultTable::Use(std::vector<Entry>::iterator entry, uint64_t times) {
    m_nDone += times;
    if (entry->fault.count == 0)
        return;
    entry->fault.count -= times;
    if (entry->fault.count == 0)
        m_Entries.erase(entry);
}

}  // namespace simulator
