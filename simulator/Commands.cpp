#include "simulator/Commands.h"

#include <algorithm>
#include <utility>

#include "simulator/FaultTable.h"
#include "simulator/Vocabulary.h"
#include "simulator/Wire.h"

namespace simulator {

namespace {

using Perform = std::function<std::string(ReceiverSimulator&)>;

struct CommandRow {
    std::string name;
    std::string help;
    bool inTimeline;
    Fields fields;
    size_t positional;                   // so many may stand without their names
    Fields (*more)(const Json& values);  // for no values: all that there may be
    Perform (*make)(const Json& values);
    size_t fewest = 0;  // so many fields there must be
};

const std::vector<CommandRow>& Commands();
const CommandRow* FindCommand(const std::string& name);

// --- What the commands do ---

std::string Answer(Result result) {
    if (result == kResultOk)
        return "ok";
    return "error " + std::to_string(result) + " " + ResultName(result);
}

std::string NoSender(int32_t key) {
    return "error no sender has the key " + std::to_string(key);
}

std::optional<Sender> FindSender(const ReceiverSimulator& receiver, int32_t key) {
    for (const Sender& sender : receiver.Senders()) {
        if (sender.key == key)
            return sender;
    }
    return std::nullopt;
}

int32_t KeyOf(const Json& values) {
    return values.at("key").get<int32_t>();
}

Perform MakeJoin(const Json& values) {
    return [sender = MakeSender(values)](ReceiverSimulator& receiver) -> std::string {
        if (receiver.AddSender(sender))
            return "ok";
        if (FindSender(receiver, sender.key))
            return "error a sender has the key " + std::to_string(sender.key) + " already";
        return "error there are " + std::to_string(kMaxSenders) + " senders already";
    };
}

Perform MakeLeave(const Json& values) {
    return [key = KeyOf(values)](ReceiverSimulator& receiver) {
        return receiver.RemoveSender(key) ? "ok" : NoSender(key);
    };
}

Perform MakeChange(const Json& values) {
    return [values](ReceiverSimulator& receiver) {
        const auto change = [&](Sender& sender) { SetMembers(sender, values); };
        return receiver.ChangeSender(KeyOf(values), change) ? "ok" : NoSender(KeyOf(values));
    };
}

Perform MakeShow(const Json& values) {
    const auto option = values.at("option").get<uint8_t>();
    return [key = KeyOf(values), option](ReceiverSimulator& receiver) {
        return Answer(receiver.StartPlay(key, option));
    };
}

Perform MakeHide(const Json& values) {
    return [key = KeyOf(values)](ReceiverSimulator& receiver) {
        return Answer(receiver.StopPlay(key));
    };
}

Perform MakeModerator(const Json& values) {
    const Moderator moderator{values.at("id").get<int32_t>(), values.at("flag").get<uint8_t>()};
    return [moderator](ReceiverSimulator& receiver) {
        receiver.SetModerator(moderator);
        return "ok";
    };
}

Perform MakeNotify(const Json& values) {
    const auto first = values.at("first").get<int32_t>();
    const auto second = values.at("second").get<int32_t>();
    const auto third = values.at("third").get<int32_t>();
    return [=](ReceiverSimulator& receiver) {
        receiver.Notify(first, second, third);
        return "ok";
    };
}

Perform MakeDrop(const Json&) {
    return [](ReceiverSimulator& receiver) {
        receiver.DropClients();
        return "ok";
    };
}

Perform MakeFaultOn(const Json& values) {
    return [fault = MakeFault(values)](ReceiverSimulator& receiver) {
        return receiver.FaultOn(fault) ? "ok" : "error there cannot be such a fault";
    };
}

Fields FaultOffFields(const Json& values) {
    if (!values.empty() && !values.contains("kind"))
        return {};
    Fields fields = FaultFields(values);
    const auto isOther = [](const Field& field) { return field.name != "command"; };
    fields.erase(std::remove_if(fields.begin(), fields.end(), isOther), fields.end());
    return fields;
}

Perform MakeFaultOff(const Json& values) {
    if (!values.contains("kind")) {
        return [](ReceiverSimulator& receiver) {
            receiver.FaultsOff();
            return "ok";
        };
    }
    std::optional<int> command;
    if (values.contains("command"))
        command = CodeOf(values.at("command"));
    return [kind = KindOf(values), command](ReceiverSimulator& receiver) {
        return receiver.FaultOff(kind, command) ? "ok" : "error no such fault is on";
    };
}

/// In ASCII only: then nothing in a name can end the line.
std::string InOneLine(const OrderedJson& json) {
    return json.dump(-1, ' ', true, OrderedJson::error_handler_t::replace);
}

Perform MakeState(const Json&) {
    return [](ReceiverSimulator& receiver) {
        OrderedJson senders = OrderedJson::array();
        for (const Sender& sender : receiver.Senders()) {
            senders.push_back(ToJson(sender));
            const std::optional<uint8_t> option = receiver.ShownOption(sender.key);
            senders.back()["shown"] = option ? OrderedJson(*option) : OrderedJson();
        }
        OrderedJson faults = OrderedJson::array();
        for (const Fault& fault : receiver.Faults())
            faults.push_back(ToJson(fault));
        const Moderator moderator = receiver.GetModerator();
        OrderedJson state;
        state["senders"] = std::move(senders);
        state["moderator"] = {{"id", moderator.id}, {"flag", moderator.flag}};
        state["control"] = receiver.ConfControlClient();
        state["faults"] = std::move(faults);
        state["clients"] = receiver.ClientCount();
        return "ok " + InOneLine(state);
    };
}

Perform MakeStatistics(const Json&) {
    return [](ReceiverSimulator& receiver) {
        const Statistics counts = receiver.GetStatistics();
        const OrderedJson statistics = {{"connected", receiver.ClientCount()},
                                        {"clients", counts.clients},
                                        {"clients_dropped", counts.clientsDropped},
                                        {"bytes_received", counts.bytesReceived},
                                        {"frames_received", counts.framesReceived},
                                        {"frames_sent", counts.framesSent},
                                        {"garbage_bytes", counts.garbageBytes},
                                        {"unknown_commands", counts.unknownCommands},
                                        {"faults_done", counts.faultsDone}};
        return "ok " + InOneLine(statistics);
    };
}

Perform MakeReceived(const Json& values) {
    const auto code = static_cast<uint8_t>(CodeOf(values.at("code")));
    return [code](ReceiverSimulator& receiver) {
        return "ok " + std::to_string(receiver.FramesReceived(code));
    };
}

Fields FieldsOf(const CommandRow& command, const Json& values) {
    Fields fields = command.fields;
    if (command.more != nullptr) {
        for (Field& field : command.more(values))
            fields.push_back(std::move(field));
    }
    return fields;
}

std::string Capitals(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 32) : c; });
    return text;
}

std::string Usage(const CommandRow& command) {
    const Fields fields = FieldsOf(command, Json::object());
    std::string usage = command.name;
    for (size_t i = 0; i < fields.size(); ++i) {
        const Field& field = fields[i];
        const std::string word = i < command.positional ? Capitals(field.name) : field.name + "=";
        usage += field.required ? " " + word : " [" + word + "]";
    }
    return usage;
}

std::vector<std::string> CommandNames(bool ofTimelineOnly) {
    std::vector<std::string> names;
    for (const CommandRow& command : Commands()) {
        if (command.inTimeline || !ofTimelineOnly)
            names.push_back(command.name);
    }
    return names;
}

Fields HelpFields(const Json&) {
    return {{"command", Field::Type::Choice, 0, 0, CommandNames(false)}};
}

Perform MakeHelp(const Json& values) {
    std::string text = Join(CommandNames(false));
    if (values.contains("command")) {
        const CommandRow& command = *FindCommand(values.at("command").get<std::string>());
        text = Usage(command) + ": " + command.help;
    }
    return [text](ReceiverSimulator&) { return "ok " + text; };
}

// --- The table ---

const std::vector<CommandRow>& Commands() {
    static const Field key = Required(Int32("key"));
    static const std::vector<CommandRow> commands = {
        {"join", "a sender joins; what is not given is as in the simulator's samples", true,
         SenderFields(), 1, nullptr, MakeJoin},
        {"leave", "a sender leaves", true, {key}, 1, nullptr, MakeLeave},
        {"change", "a sender changes; what is not given stays", true, SenderFields(), 1, nullptr,
         MakeChange, 2},
        {"show", "a sender is shown", true, {key, Required(Byte("option"))}, 2, nullptr, MakeShow},
        {"hide", "a sender is no longer shown", true, {key}, 1, nullptr, MakeHide},
        {"moderator",
         "sets the moderator",
         true,
         {Required(Int32("id")), Required(Byte("flag"))},
         2,
         nullptr,
         MakeModerator},
        {"notify",
         "notifies all clients of three values",
         true,
         {Required(Int32("first")), Required(Int32("second")), Required(Int32("third"))},
         3,
         nullptr,
         MakeNotify},
        {"drop", "closes the connections of all clients", true, {}, 0, nullptr, MakeDrop},
        {"fault on",
         "frames or connections go wrong from now on; KIND is one of " + Join(KindField().words) +
             ", and tells which of the others there may be",
         true,
         {Required(KindField())},
         1,
         FaultFields,
         MakeFaultOn},
        {"fault off",
         "ends the faults of a kind, or all",
         true,
         {KindField()},
         1,
         FaultOffFields,
         MakeFaultOff},
        {"state",
         "the senders, the moderator, the faults and more as JSON",
         false,
         {},
         0,
         nullptr,
         MakeState},
        {"statistics", "counts since the start as JSON", false, {}, 0, nullptr, MakeStatistics},
        {"received",
         "how many frames with this command byte came from clients",
         false,
         {Required(RequestCode("code"))},
         1,
         nullptr,
         MakeReceived},
        {"help", "all commands, or how one is used", false, {}, 1, HelpFields, MakeHelp},
    };
    return commands;
}

const CommandRow* FindCommand(const std::string& name) {
    for (const CommandRow& command : Commands()) {
        if (command.name == name)
            return &command;
    }
    return nullptr;
}

// --- Lines ---

struct Word {
    std::string name;  // in front of a '='
    bool named = false;
    std::string text;
};

/// `at` stands behind the first quote, then behind the last.
bool ReadQuoted(const std::string& line, size_t& at, std::string& text, std::string& error) {
    for (; at < line.size(); ++at) {
        if (line[at] == '"') {
            ++at;
            if (at == line.size() || line[at] == ' ')
                return true;
            error = "expected a blank behind " + Quoted(text);
            return false;
        }
        if (line[at] == '\\') {
            ++at;
            if (at == line.size() || (line[at] != '"' && line[at] != '\\')) {
                error = "expected \\\" or \\\\ in quotes behind " + Quoted(text);
                return false;
            }
        }
        text += line[at];
    }
    error = "expected a quote behind " + Quoted(text);
    return false;
}

bool ReadWord(const std::string& line, size_t& at, Word& word, std::string& error) {
    for (; at < line.size() && line[at] != ' '; ++at) {
        if (line[at] == '"') {
            if (word.text.empty())
                return ReadQuoted(line, ++at, word.text, error);
            error = "expected no quote behind " + Quoted(word.text);
            return false;
        }
        if (line[at] == '=' && !word.named) {
            word.named = true;
            word.name.swap(word.text);
        } else {
            word.text += line[at];
        }
    }
    return true;
}

bool ReadWords(const std::string& line, std::vector<Word>& words, std::string& error) {
    if (HasControlCharacter(line)) {
        error = "expected a line without control characters";
        return false;
    }
    size_t at = line.find_first_not_of(' ');
    while (at < line.size()) {
        words.emplace_back();
        if (!ReadWord(line, at, words.back(), error))
            return false;
        at = line.find_first_not_of(' ', at);
    }
    if (words.empty())
        error = "no command";
    return !words.empty();
}

/// Takes the command's words from the front.
const CommandRow* TakeCommand(std::vector<Word>& words, std::string& error) {
    std::string name;
    for (size_t count = 1; count <= std::min<size_t>(words.size(), 2); ++count) {
        const Word& word = words[count - 1];
        if (word.named)
            break;
        name += (name.empty() ? "" : " ") + word.text;
        if (const CommandRow* command = FindCommand(name)) {
            words.erase(words.begin(), words.begin() + static_cast<std::ptrdiff_t>(count));
            return command;
        }
    }
    error = "unknown command " + Quoted(words[0].text) + ", expected one of " +
            Join(CommandNames(false));
    return nullptr;
}

/// Gives the words without a name theirs. The last such field takes all words that are left.
bool NamePositional(const CommandRow& command, std::vector<Word>& words, std::string& error) {
    const std::vector<std::string> names = NamesOf(FieldsOf(command, Json::object()));
    size_t positional = 0;
    std::vector<Word> named;
    for (Word& word : words) {
        const bool inFront = !word.named && named.size() == positional;
        if (inFront && positional < command.positional) {
            word.name = names[positional++];
        } else if (inFront && positional > 0) {
            named.back().text += " " + word.text;
            continue;
        } else if (!word.named) {
            error = "expected name=value or nothing more, found " + Quoted(word.text);
            return false;
        }
        named.push_back(std::move(word));
    }
    words.swap(named);
    return true;
}

bool ReadValues(const CommandRow& command,
                const std::vector<Word>& words,
                Json& values,
                std::string& error) {
    values = Json::object();
    for (const Word& word : words) {
        if (values.contains(word.name)) {
            error = Printable(word.name) + ": expected once, found twice";
            return false;
        }
        values[word.name] = word.text;
    }
    for (const Field& field : FieldsOf(command, values)) {
        if (values.contains(field.name))
            values[field.name] = FromWord(field, values[field.name].get<std::string>());
    }
    return true;
}

std::string ToLine(const CommandRow& command, const Json& values) {
    std::string line = command.name;
    const Fields fields = FieldsOf(command, values);
    for (size_t i = 0; i < fields.size(); ++i) {
        const auto value = values.find(fields[i].name);
        if (value == values.end())
            continue;
        line += i < command.positional ? " " : " " + fields[i].name + "=";
        line += ToWord(fields[i], *value);
    }
    return line;
}

}  // namespace

std::vector<std::string> TimelineCommands() {
    return CommandNames(true);
}

std::optional<Mistake> CheckCommand(const std::string& command,
                                    const Json& values,
                                    const Fields& further) {
    const CommandRow& row = *FindCommand(command);
    Fields fields = FieldsOf(row, values);
    fields.insert(fields.end(), further.begin(), further.end());
    if (auto mistake = CheckFields(values, fields))
        return mistake;
    if (row.make == MakeFaultOn && !CanBe(MakeFault(values)))
        return Mistake{"command", "expected the answer of a request for this kind"};
    if (values.size() >= row.fewest + further.size())
        return std::nullopt;
    std::vector<std::string> names = NamesOf(row.fields);
    names.erase(names.begin(), names.begin() + static_cast<std::ptrdiff_t>(row.positional));
    return Mistake{"", "expected at least one of " + Join(names)};
}

Action MakeAction(const std::string& command, const Json& values) {
    const CommandRow& row = *FindCommand(command);
    return {ToLine(row, values), row.make(values)};
}

std::optional<Action> ParseCommand(const std::string& line, std::string& error) {
    std::vector<Word> words;
    if (!ReadWords(line, words, error))
        return std::nullopt;
    const CommandRow* command = TakeCommand(words, error);
    Json values;
    if (command == nullptr || !NamePositional(*command, words, error) ||
        !ReadValues(*command, words, values, error))
        return std::nullopt;
    if (const auto mistake = CheckCommand(command->name, values, {})) {
        error = (mistake->field.empty() ? "" : Printable(mistake->field) + ": ") + mistake->text;
        return std::nullopt;
    }
    return MakeAction(command->name, values);
}

}  // namespace simulator
