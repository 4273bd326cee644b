#include "simulator/Fields.h"

#include <algorithm>
#include <boost/asio/ip/address_v4.hpp>
#include <charconv>
#include <system_error>

namespace simulator {

namespace {

constexpr size_t kExcerptSize = 40;

std::string MillisecondsAsSeconds(int64_t milliseconds) {
    const double seconds = static_cast<double>(milliseconds) / 1000;
    return milliseconds % 1000 == 0 ? std::to_string(milliseconds / 1000) : Json(seconds).dump();
}

std::string WhatItMayBe(const Field& field) {
    const std::string range =
        "from " + std::to_string(field.least) + " to " + std::to_string(field.most);
    switch (field.type) {
        case Field::Type::Integer:
            return "a whole number " + range;
        case Field::Type::Seconds:
            return "seconds from " + MillisecondsAsSeconds(field.least) + " to " +
                   MillisecondsAsSeconds(field.most);
        case Field::Type::Flag:
            return "true or false";
        case Field::Type::Text:
            return "text of at most " + std::to_string(field.most) +
                   " bytes without control characters";
        case Field::Type::Address:
            return "an IPv4 address like 192.168.10.20";
        case Field::Type::Choice:
            return "one of " + Join(field.words);
        case Field::Type::Code:
            return "a whole number " + range + " or one of " + Join(field.words);
        case Field::Type::Array:
            return "an array";
        case Field::Type::Object:
            return "an object";
    }
    return "";
}

bool IsInteger(const Json& value, int64_t least, int64_t most) {
    if (!value.is_number_integer())
        return false;
    if (value.is_number_unsigned() && value.get<uint64_t>() > uint64_t{INT64_MAX})
        return false;
    const auto number = value.get<int64_t>();
    return number >= least && number <= most;
}

bool IsSeconds(const Json& value, int64_t least, int64_t most) {
    if (!value.is_number())
        return false;
    const double milliseconds = value.get<double>() * 1000;
    return milliseconds >= static_cast<double>(least) && milliseconds <= static_cast<double>(most);
}

bool IsOneOf(const Json& value, const std::vector<std::string>& words) {
    return value.is_string() && std::find(words.begin(), words.end(),
                                          value.get_ref<const std::string&>()) != words.end();
}

bool IsText(const Json& value, int64_t most) {
    if (!value.is_string())
        return false;
    const auto& text = value.get_ref<const std::string&>();
    return text.size() <= static_cast<size_t>(most) && !HasControlCharacter(text);
}

bool IsAddress(const Json& value) {
    if (!value.is_string())
        return false;
    const auto& text = value.get_ref<const std::string&>();
    boost::system::error_code error;
    const auto address = boost::asio::ip::make_address_v4(text, error);
    return !error && address.to_string() == text;
}

bool Fits(const Field& field, const Json& value) {
    switch (field.type) {
        case Field::Type::Integer:
            return IsInteger(value, field.least, field.most);
        case Field::Type::Seconds:
            return IsSeconds(value, field.least, field.most);
        case Field::Type::Flag:
            return value.is_boolean();
        case Field::Type::Text:
            return IsText(value, field.most);
        case Field::Type::Address:
            return IsAddress(value);
        case Field::Type::Choice:
            return IsOneOf(value, field.words);
        case Field::Type::Code:
            return IsInteger(value, field.least, field.most) || IsOneOf(value, field.words);
        case Field::Type::Array:
            return value.is_array();
        case Field::Type::Object:
            return value.is_object();
    }
    return false;
}

Json IntegerFromWord(const std::string& word) {
    int64_t number = 0;
    const char* end = word.data() + word.size();
    const auto [stop, error] = std::from_chars(word.data(), end, number);
    return error == std::errc() && stop == end ? Json(number) : Json(word);
}

std::string InQuotes(const std::string& text) {
    std::string quoted = "\"";
    for (const char c : text) {
        if (c == '"' || c == '\\')
            quoted += '\\';
        quoted += c;
    }
    return quoted + "\"";
}

}  // namespace

std::vector<std::string> NamesOf(const Fields& fields) {
    std::vector<std::string> names;
    for (const Field& field : fields)
        names.push_back(field.name);
    return names;
}

std::optional<Mistake> CheckFields(const Json& values, const Fields& fields) {
    for (const Field& field : fields) {
        const auto value = values.find(field.name);
        if (value == values.end()) {
            if (field.required)
                return Mistake{field.name, "missing, expected " + WhatItMayBe(field)};
        } else if (!Fits(field, *value)) {
            return Mistake{field.name, Expected(WhatItMayBe(field), *value)};
        }
    }
    for (auto value = values.begin(); value != values.end(); ++value) {
        const auto isIt = [&](const Field& field) { return field.name == value.key(); };
        if (std::none_of(fields.begin(), fields.end(), isIt))
            return Mistake{value.key(), fields.empty()
                                            ? "unknown, expected nothing here"
                                            : "unknown, expected one of " + Join(NamesOf(fields))};
    }
    return std::nullopt;
}

std::string Expected(const std::string& what, const Json& found) {
    std::string excerpt;
    if (found.is_object())
        excerpt = "an object";
    else if (found.is_array())
        excerpt = "an array";
    else if (found.is_string())
        excerpt = Quoted(found.get_ref<const std::string&>());
    else
        excerpt = found.dump();
    return "expected " + what + ", found " + excerpt;
}

Json FromWord(const Field& field, const std::string& word) {
    switch (field.type) {
        case Field::Type::Integer:
        case Field::Type::Code:
            return IntegerFromWord(word);
        case Field::Type::Flag:
            return word == "true" || word == "false" ? Json(word == "true") : Json(word);
        default:
            return word;
    }
}

std::string ToWord(const Field& field, const Json& value) {
    if (!value.is_string())
        return value.dump();
    const auto& text = value.get_ref<const std::string&>();
    const bool bare = field.type != Field::Type::Text && text.find(' ') == std::string::npos;
    return bare ? text : InQuotes(text);
}

std::string Quoted(const std::string& text) {
    size_t size = std::min(text.size(), kExcerptSize);
    // Not in the middle of a character.
    while (size > 0 && size < text.size() &&
           (static_cast<unsigned char>(text[size]) & 0xC0u) == 0x80)
        --size;
    const std::string shown = size < text.size() ? text.substr(0, size) + "..." : text;
    return Json(shown).dump(-1, ' ', true, Json::error_handler_t::replace);
}

std::string Printable(const std::string& text) {
    const std::string quoted = Quoted(text);
    return quoted.substr(1, quoted.size() - 2);
}

std::string Join(const std::vector<std::string>& words) {
    std::string text;
    for (const std::string& word : words)
        text += (text.empty() ? "" : ", ") + word;
    return text;
}

bool HasControlCharacter(const std::string& text) {
    return std::any_of(text.begin(), text.end(), [](char c) {
        const auto byte = static_cast<unsigned char>(c);
        return byte < 0x20 || byte == 0x7F;
    });
}

}  // namespace simulator
