#include "simulator/Vocabulary.h"

#include <algorithm>
#include <array>
#include <boost/asio/ip/address_v4.hpp>
#include <utility>

#include "simulator/FaultTable.h"
#include "simulator/Wire.h"

namespace simulator {

namespace {

constexpr int64_t kMaxCount = 1000000000;
constexpr int64_t kMaxMilliseconds = std::chrono::milliseconds(kMaxFaultTime).count();

constexpr std::array<FaultKind, 13> kKinds = {
    FaultKind::Silent,     FaultKind::Delay,    FaultKind::WrongCode,     FaultKind::Twice,
    FaultKind::Unasked,    FaultKind::Cut,      FaultKind::Trickle,       FaultKind::Garbage,
    FaultKind::FalseCount, FaultKind::OpenName, FaultKind::CloseOnAccept, FaultKind::NeverRead,
    FaultKind::Flood};

const std::vector<std::string> kEnds = {"later", "close", "reset"};      // as CutEnd
const std::vector<std::string> kPlaces = {"before", "inside", "after"};  // as GarbagePlace

using Code = std::pair<std::string, int>;

const std::vector<Code>& RequestCodes() {
    static const std::vector<Code> codes = [] {
        std::vector<Code> found;
        for (int code = kGetSenderList; code <= kSetModeratorInfo; code += 2)
            found.emplace_back(CommandName(static_cast<uint8_t>(code)), code);
        return found;
    }();
    return codes;
}

const std::vector<Code>& AllCodes() {
    static const std::vector<Code> codes = [] {
        std::vector<Code> all = RequestCodes();
        all.emplace_back("event", kNotifications);
        all.emplace_back("answers", kEveryAnswer);
        all.emplace_back("all", kEveryFrame);
        return all;
    }();
    return codes;
}

Field CodeField(const std::string& name, const std::vector<Code>& codes) {
    Field field{name, Field::Type::Code, 0, 255};
    for (const Code& code : codes)
        field.words.push_back(code.first);
    return field;
}

size_t IndexOf(const std::vector<std::string>& words, const Json& word) {
    return static_cast<size_t>(std::find(words.begin(), words.end(), word) - words.begin());
}

/// Sets `target` if there is such a value.
template <typename Target>
void Take(const Json& values, const char* name, Target& target) {
    const auto value = values.find(name);
    if (value != values.end())
        target = value->get<Target>();
}

std::string TextOf(const Json& values, const char* name) {
    const auto value = values.find(name);
    return value != values.end() && value->is_string() ? value->get<std::string>() : "";
}

Field MillisecondsField() {
    return WholeNumber("time", 0, kMaxMilliseconds);
}

Fields OwnFields(FaultKind kind, bool goesOnLater) {
    switch (kind) {
        case FaultKind::Delay:
        case FaultKind::Unasked:
            return {MillisecondsField()};
        case FaultKind::WrongCode:
            return {Byte("code")};
        case FaultKind::Cut: {
            Fields fields = {WholeNumber("bytes", 0, kMaxFaultBytes),
                             {"end", Field::Type::Choice, 0, 0, kEnds}};
            if (goesOnLater)
                fields.push_back(MillisecondsField());
            return fields;
        }
        case FaultKind::Trickle:
            return {WholeNumber("bytes", 1, kMaxFaultBytes), MillisecondsField()};
        case FaultKind::Garbage:
            return {WholeNumber("bytes", 0, kMaxGarbage),
                    {"place", Field::Type::Choice, 0, 0, kPlaces},
                    {"prefix", Field::Type::Flag}};
        case FaultKind::FalseCount:
            return {WholeNumber("records", 0, static_cast<int64_t>(kMaxSenders))};
        case FaultKind::Flood:
            return {WholeNumber("rate", 1, kMaxFloodRate)};
        default:
            return {};
    }
}

bool ActsByItself(FaultKind kind) {
    return kind == FaultKind::Unasked || kind == FaultKind::Flood;
}

bool IsOfConnections(FaultKind kind) {
    return kind == FaultKind::CloseOnAccept || kind == FaultKind::NeverRead;
}

Fields FieldsOfKind(FaultKind kind, bool goesOnLater) {
    Fields fields;
    if (kind != FaultKind::Flood && !IsOfConnections(kind))
        fields.push_back(CodeField("command", AllCodes()));
    fields.push_back(WholeNumber("count", 0, kMaxCount));
    if (!ActsByItself(kind))
        fields.push_back(WholeNumber("percent", 1, 100));
    for (Field& field : OwnFields(kind, goesOnLater))
        fields.push_back(std::move(field));
    return fields;
}

Fields FieldsOfAllKinds() {
    Fields all;
    for (const FaultKind kind : kKinds) {
        for (Field& field : FieldsOfKind(kind, true)) {
            const auto isSame = [&](const Field& one) { return one.name == field.name; };
            if (std::none_of(all.begin(), all.end(), isSame))
                all.push_back(std::move(field));
        }
    }
    return all;
}

OrderedJson CodeText(int code) {
    for (const Code& known : AllCodes()) {
        if (known.second == code)
            return known.first;
    }
    return code;
}

}  // namespace

Field WholeNumber(const std::string& name, int64_t least, int64_t most) {
    return {name, Field::Type::Integer, least, most};
}

Field Byte(const std::string& name) {
    return WholeNumber(name, 0, UINT8_MAX);
}

Field Int32(const std::string& name) {
    return WholeNumber(name, INT32_MIN, INT32_MAX);
}

Field RequestCode(const std::string& name) {
    return CodeField(name, RequestCodes());
}

int CodeOf(const Json& value) {
    if (value.is_number())
        return value.get<int>();
    const auto& codes = AllCodes();
    return std::find_if(codes.begin(), codes.end(),
                        [&](const Code& code) { return value == code.first; })
        ->second;
}

const Fields& SenderFields() {
    static const Fields fields = {
        Required(Int32("key")),
        {"name", Field::Type::Text, 0, static_cast<int64_t>(kMaxUserName)},
        {"address", Field::Type::Address},
        WholeNumber("status", 0, UINT16_MAX),
        Byte("position"),
        WholeNumber("os", 0, UINT16_MAX),
        WholeNumber("app", 0, UINT16_MAX),
        WholeNumber("pointer", 0, UINT16_MAX),
        {"local", Field::Type::Flag},
        {"valid", Field::Type::Flag},
    };
    return fields;
}

void SetMembers(Sender& sender, const Json& values) {
    Take(values, "key", sender.key);
    Take(values, "name", sender.userName);
    if (values.contains("address"))
        sender.address =
            boost::asio::ip::make_address_v4(values.at("address").get<std::string>()).to_uint();
    Take(values, "status", sender.status);
    Take(values, "position", sender.splitScreen);
    Take(values, "os", sender.osType);
    Take(values, "app", sender.appType);
    Take(values, "pointer", sender.pointerInputType);
    Take(values, "local", sender.local);
    Take(values, "valid", sender.valid);
}

Sender MakeSender(const Json& values) {
    Sender sender = SampleSender(values.at("key").get<int32_t>());
    SetMembers(sender, values);
    return sender;
}

OrderedJson ToJson(const Sender& sender) {
    return {{"key", sender.key},
            {"name", sender.userName},
            {"address", boost::asio::ip::make_address_v4(sender.address).to_string()},
            {"status", sender.status},
            {"position", sender.splitScreen},
            {"os", sender.osType},
            {"app", sender.appType},
            {"pointer", sender.pointerInputType},
            {"local", sender.local},
            {"valid", sender.valid}};
}

Field KindField() {
    Field field{"kind", Field::Type::Choice};
    for (const FaultKind kind : kKinds)
        field.words.emplace_back(FaultName(kind));
    return field;
}

Fields FaultFields(const Json& values) {
    const std::string name = TextOf(values, "kind");
    for (const FaultKind kind : kKinds) {
        if (name == FaultName(kind))
            return FieldsOfKind(kind, TextOf(values, "end") == "later");
    }
    return FieldsOfAllKinds();
}

FaultKind KindOf(const Json& values) {
    return kKinds[IndexOf(KindField().words, values.at("kind"))];
}

Fault MakeFault(const Json& values) {
    Fault fault;
    fault.kind = KindOf(values);
    if (values.contains("command"))
        fault.command = CodeOf(values.at("command"));
    Take(values, "count", fault.count);
    Take(values, "percent", fault.percent);
    if (values.contains("time"))
        fault.time = std::chrono::milliseconds(values.at("time").get<int64_t>());
    Take(values, "bytes", fault.bytes);
    Take(values, "code", fault.code);
    Take(values, "records", fault.records);
    Take(values, "rate", fault.rate);
    if (values.contains("end"))
        fault.end = static_cast<CutEnd>(IndexOf(kEnds, values.at("end")));
    if (values.contains("place"))
        fault.place = static_cast<GarbagePlace>(IndexOf(kPlaces, values.at("place")));
    Take(values, "prefix", fault.prefixParts);
    return fault;
}

OrderedJson ToJson(const Fault& fault) {
    OrderedJson all = {{"command", CodeText(fault.command)},
                       {"count", fault.count},
                       {"percent", fault.percent},
                       {"time", fault.time.count()},
                       {"rate", fault.rate},
                       {"end", kEnds[static_cast<size_t>(fault.end)]},
                       {"place", kPlaces[static_cast<size_t>(fault.place)]},
                       {"prefix", fault.prefixParts}};
    if (fault.bytes >= 0)
        all["bytes"] = fault.bytes;
    if (fault.code >= 0)
        all["code"] = fault.code;
    if (fault.records >= 0)
        all["records"] = fault.records;
    OrderedJson used = {{"kind", FaultName(fault.kind)}};
    for (const Field& field : FieldsOfKind(fault.kind, fault.end == CutEnd::Later)) {
        if (all.contains(field.name))
            used[field.name] = all[field.name];
    }
    return used;
}

}  // namespace simulator
