#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <iterator>
#include <map>
#include <memory>
#include <set>
#include <system_error>
#include <utility>

#include "simulator/Action.h"
#include "simulator/Commands.h"
#include "simulator/Fields.h"
#include "simulator/Vocabulary.h"

namespace simulator {

namespace {

constexpr size_t kMaxFileSize = size_t{32} * 1024 * 1024;
constexpr size_t kMaxDepth = 16;
constexpr int64_t kMaxDescription = 1000;
constexpr size_t kReadSize = 65536;
const std::string kClockStart = "start";
const std::string kClockFirstClient = "first-client";
constexpr int64_t kMaxSeconds = int64_t{24} * 60 * 60;

/// Adds one step to a JSON pointer.
std::string Below(const std::string& place, const std::string& name) {
    std::string step;
    for (const char c : name) {
        if (c == '~')
            step += "~0";
        else if (c == '/')
            step += "~1";
        else
            step += c;
    }
    return place + "/" + Printable(step);
}

std::string Below(const std::string& place, size_t index) {
    return place + "/" + std::to_string(index);
}

/**
 * Finds what a tree of values cannot show any more: mistakes of the syntax with their line, and
 * members that are there twice. Stops at the first.
 */
class SyntaxCheck : public nlohmann::json_sax<Json> {
public:
    explicit SyntaxCheck(const std::string& text) : m_Text(text) {}

    /// The place and what is wrong there.
    const std::string& Error() const { return m_strError; }

    bool null() override { return OnValue(); }
    bool boolean(bool) override { return OnValue(); }
    bool number_integer(number_integer_t) override { return OnValue(); }
    bool number_unsigned(number_unsigned_t) override { return OnValue(); }
    bool number_float(number_float_t, const string_t&) override { return OnValue(); }
    bool string(string_t&) override { return OnValue(); }
    bool binary(binary_t&) override { return OnValue(); }
    bool start_object(size_t) override { return OnStart(true); }
    bool start_array(size_t) override { return OnStart(false); }
    bool end_object() override { return OnEnd(); }
    bool end_array() override { return OnEnd(); }
    bool key(string_t& name) override;
    bool parse_error(size_t position,
                     const std::string& token,
                     const nlohmann::detail::exception& error) override;

private:
    struct Level {
        bool isObject;
        size_t count = 0;  // of an array's values
        std::string name = {};
        std::set<std::string> names = {};
    };

    bool OnValue() {
        if (!m_Levels.empty())
            ++m_Levels.back().count;
        return true;
    }
    bool OnStart(bool isObject);
    bool OnEnd() {
        m_Levels.pop_back();
        return true;
    }
    std::string Place() const;

    const std::string& m_Text;
    std::vector<Level> m_Levels;
    std::string m_strError;
};

bool SyntaxCheck::OnStart(bool isObject) {
    OnValue();
    m_Levels.push_back({isObject});
    if (m_Levels.size() <= kMaxDepth)
        return true;
    m_Levels.pop_back();
    m_strError = " " + Place() + ": expected a simple value, found a deeply nested one";
    return false;
}

bool SyntaxCheck::key(string_t& name) {
    Level& level = m_Levels.back();
    level.name = name;
    if (level.names.insert(name).second)
        return true;
    m_strError = " " + Place() + ": expected once, found twice";
    return false;
}

std::string SyntaxCheck::Place() const {
    std::string place;
    for (const Level& level : m_Levels)
        place = level.isObject ? Below(place, level.name) : Below(place, level.count - 1);
    return place;
}

std::string LineAndColumn(const std::string& text, size_t at) {
    const auto end = text.begin() + static_cast<std::ptrdiff_t>(std::min(at, text.size()));
    const auto lineStart = std::find(std::make_reverse_iterator(end), text.rend(), '\n').base();
    return std::to_string(1 + std::count(text.begin(), end, '\n')) + ":" +
           std::to_string(1 + end - lineStart);
}

bool SyntaxCheck::parse_error(size_t position,
                              const std::string& token,
                              const nlohmann::detail::exception& error) {
    std::string what = error.what();
    what.erase(0, what.find("] ") + 2);
    const bool overflow = what.find("number overflow") == 0;
    if (overflow)
        what = "expected a number of a possible size, found " + Quoted(token);
    else
        what.erase(0, what.find(": ") + 2);
    what.resize(std::min(what.find("; last read"), what.size()));
    // The position is that of the last byte that was read, counted from 1.
    size_t at = std::max<size_t>(std::min(position, m_Text.size() + 1), 1) - 1;
    if (overflow || what.find("unexpected number literal") != std::string::npos ||
        what.find("unexpected string literal") != std::string::npos)
        at -= std::min(at, token.size() - 1);
    m_strError = LineAndColumn(m_Text, at) + ": " + what;
    return false;
}

// --- From values to a scenario ---

Field SecondsField(const char* name, int64_t leastMs) {
    return Required({name, Field::Type::Seconds, leastMs, kMaxSeconds * 1000});
}

const Fields& RootFields() {
    static const Fields fields = {
        Required({"description", Field::Type::Text, 0, kMaxDescription}),
        {"clock", Field::Type::Choice, 0, 0, {kClockStart, kClockFirstClient}},
        {"senders", Field::Type::Array},
        {"moderator", Field::Type::Object},
        {"crowd", Field::Type::Object},
        {"timeline", Field::Type::Array},
    };
    return fields;
}

const Fields& FirstSenderFields() {
    static const Fields fields = [] {
        Fields all = SenderFields();
        all.push_back(Byte("shown"));
        return all;
    }();
    return fields;
}

const Fields& CrowdFields() {
    static const Fields fields = {
        Required(Int32("key")),
        Required(WholeNumber("count", 1, static_cast<int64_t>(kMaxSenders))),
        Required(WholeNumber("present", 0, static_cast<int64_t>(kMaxSenders))),
        SecondsField("every", 1),
    };
    return fields;
}

const Fields& EntryFields() {
    static const Fields fields = {
        SecondsField("at", 0),
        Required({"do", Field::Type::Choice, 0, 0, TimelineCommands()}),
    };
    return fields;
}

std::chrono::milliseconds Milliseconds(const Json& seconds) {
    return std::chrono::milliseconds(std::llround(seconds.get<double>() * 1000));
}

/// Stops at the first mistake.
class Reader {
public:
    explicit Reader(Scenario::Data& data) : m_Data(data) {}

    bool Read(const Json& root);
    /// The place and what was expected there.
    const std::string& Error() const { return m_strError; }

private:
    bool Fail(const std::string& place, const std::string& text);
    bool Check(const std::string& place, const Json& values, const Fields& fields);
    bool ReadSender(const std::string& place, const Json& values);
    bool ReadSenders(const Json& list);
    bool ReadModerator(const Json& values);
    bool ReadCrowd(const Json& values);
    bool ReadEntry(const std::string& place, const Json& values);
    bool ReadTimeline(const Json& list);
    bool IsKnown(int32_t key) const;

    Scenario::Data& m_Data;
    std::map<int32_t, std::string> m_Places;  // where a sender's key stands
    std::set<int32_t> m_Joining;
    std::string m_strError;
};

bool Reader::Fail(const std::string& place, const std::string& text) {
    m_strError = (place.empty() ? "" : place + ": ") + text;
    return false;
}

bool Reader::Check(const std::string& place, const Json& values, const Fields& fields) {
    if (!values.is_object())
        return Fail(place, Expected("an object", values));
    const auto mistake = CheckFields(values, fields);
    return !mistake || Fail(Below(place, mistake->field), mistake->text);
}

bool Reader::Read(const Json& root) {
    if (!Check("", root, RootFields()))
        return false;
    m_Data.description = root.at("description").get<std::string>();
    m_Data.startsWithClient = root.value("clock", kClockStart) == kClockFirstClient;
    return (!root.contains("senders") || ReadSenders(root.at("senders"))) &&
           (!root.contains("moderator") || ReadModerator(root.at("moderator"))) &&
           (!root.contains("crowd") || ReadCrowd(root.at("crowd"))) &&
           (!root.contains("timeline") || ReadTimeline(root.at("timeline")));
}

bool Reader::ReadSenders(const Json& list) {
    if (list.size() > kMaxSenders)
        return Fail("/senders", "expected at most " + std::to_string(kMaxSenders) +
                                    " senders, found " + std::to_string(list.size()));
    for (size_t i = 0; i < list.size(); ++i) {
        if (!ReadSender(Below("/senders", i), list[i]))
            return false;
    }
    return true;
}

bool Reader::ReadSender(const std::string& place, const Json& values) {
    if (!Check(place, values, FirstSenderFields()))
        return false;
    const Sender sender = MakeSender(values);
    const auto [known, isNew] = m_Places.emplace(sender.key, place + "/key");
    if (!isNew)
        return Fail(place + "/key",
                    Expected("a key of its own", values.at("key")) + " as in " + known->second);
    if (values.contains("shown")) {
        if (!sender.valid)
            return Fail(place + "/shown", "expected only with a valid sender");
        m_Data.shown.emplace_back(sender.key, values.at("shown").get<uint8_t>());
    }
    m_Data.senders.push_back(sender);
    return true;
}

bool Reader::ReadModerator(const Json& values) {
    static const Fields fields = {Required(Int32("id")), Required(Byte("flag"))};
    if (!Check("/moderator", values, fields))
        return false;
    m_Data.moderator = {values.at("id").get<int32_t>(), values.at("flag").get<uint8_t>()};
    return true;
}

bool Reader::ReadCrowd(const Json& values) {
    const std::string place = "/crowd";
    if (!Check(place, values, CrowdFields()))
        return false;
    Crowd crowd;
    crowd.key = values.at("key").get<int32_t>();
    crowd.count = values.at("count").get<int32_t>();
    crowd.present = values.at("present").get<int32_t>();
    crowd.every = Milliseconds(values.at("every"));
    const size_t room = kMaxSenders - m_Data.senders.size();
    if (static_cast<size_t>(crowd.count) > room)
        return Fail(place + "/count",
                    Expected("at most " + std::to_string(room) + " with the other senders",
                             values.at("count")));
    if (crowd.key > INT32_MAX - (crowd.count - 1))
        return Fail(place + "/key",
                    Expected("a key with room for the count's keys behind it", values.at("key")));
    if (crowd.present > crowd.count)
        return Fail(place + "/present", Expected("at most the count", values.at("present")));
    const auto taken = m_Places.lower_bound(crowd.key);
    if (taken != m_Places.end() && taken->first <= crowd.key + (crowd.count - 1))
        return Fail(place + "/key", "expected keys of the crowd's own, found " +
                                        std::to_string(taken->first) + " as in " + taken->second);
    m_Data.crowd = crowd;
    return true;
}

bool Reader::ReadTimeline(const Json& list) {
    for (size_t i = 0; i < list.size(); ++i) {
        if (!ReadEntry(Below("/timeline", i), list[i]))
            return false;
    }
    for (size_t i = 0; i < list.size(); ++i) {
        const auto key = list[i].find("key");
        if (key != list[i].end() && !IsKnown(key->get<int32_t>()))
            return Fail(Below("/timeline", i) + "/key",
                        Expected("the key of a sender of this file", *key));
    }
    std::stable_sort(m_Data.timeline.begin(), m_Data.timeline.end(),
                     [](const TimedAction& a, const TimedAction& b) { return a.at < b.at; });
    return true;
}

bool Reader::ReadEntry(const std::string& place, const Json& values) {
    if (!values.is_object())
        return Fail(place, Expected("an object", values));
    Json head = Json::object();
    for (const Field& field : EntryFields()) {
        if (values.contains(field.name))
            head[field.name] = values.at(field.name);
    }
    if (!Check(place, head, EntryFields()))
        return false;
    const auto command = values.at("do").get<std::string>();
    if (const auto mistake = CheckCommand(command, values, EntryFields()))
        return Fail(mistake->field.empty() ? place : Below(place, mistake->field), mistake->text);
    if (command == "join")
        m_Joining.insert(values.at("key").get<int32_t>());
    m_Data.timeline.push_back({Milliseconds(values.at("at")), MakeAction(command, values)});
    return true;
}

bool Reader::IsKnown(int32_t key) const {
    const auto& crowd = m_Data.crowd;
    return m_Places.count(key) != 0 || m_Joining.count(key) != 0 ||
           (crowd && key >= crowd->key && key <= crowd->key + (crowd->count - 1));
}

struct CloseFile {
    void operator()(FILE* file) const { std::fclose(file); }
};

/// What went wrong; nothing when the whole file is in `text`.
std::string ReadFile(const std::string& name, std::string& text) {
    const std::unique_ptr<FILE, CloseFile> file(std::fopen(name.c_str(), "rbe"));
    if (file == nullptr)
        return std::generic_category().message(errno);
    std::string buffer(kReadSize, '\0');
    while (text.size() <= kMaxFileSize) {
        const size_t size = std::fread(&buffer[0], 1, buffer.size(), file.get());
        if (std::ferror(file.get()) != 0)
            return std::generic_category().message(errno);
        if (size == 0)
            return "";
        text.append(buffer, 0, size);
    }
    return "expected at most " + std::to_string(kMaxFileSize) + " bytes";
}

}  // namespace

Scenario::Scenario(std::shared_ptr<const Data> data) : m_pData(std::move(data)) {}

const std::string& Scenario::Description() const {
    return m_pData->description;
}

std::optional<Scenario> Scenario::Load(const std::string& file, std::string& error) {
    std::string text;
    const std::string trouble = ReadFile(file, text);
    if (trouble.empty())
        return Parse(text, file, error);
    error = file + ": " + trouble;
    return std::nullopt;
}

std::optional<Scenario> Scenario::Parse(const std::string& text,
                                        const std::string& name,
                                        std::string& error) {
    // To the JSON parser it is the end of the text.
    const size_t nul = text.find('\0');
    if (nul != std::string::npos) {
        error = name + ":" + LineAndColumn(text, nul) + ": expected text, found a NUL byte";
        return std::nullopt;
    }
    SyntaxCheck syntax(text);
    if (!Json::sax_parse(text, &syntax)) {
        error = name + ":" + syntax.Error();
        return std::nullopt;
    }
    const auto data = std::make_shared<Data>();
    Reader reader(*data);
    if (!reader.Read(Json::parse(text, nullptr, false))) {
        error = name + ": " + reader.Error();
        return std::nullopt;
    }
    return Scenario(data);
}

}  // namespace simulator
