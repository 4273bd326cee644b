#ifndef SIMULATOR_FIELDS_H_
#define SIMULATOR_FIELDS_H_

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <utility>
#include <vector>

// Named values, as the words of a line and the members of a scenario give them, and what each may
// be. Messages are printable ASCII in one line, whatever the values are.
namespace simulator {

using Json = nlohmann::json;

struct Field {
    enum class Type {
        Integer,  // from `least` to `most`
        Seconds,  // from `least` to `most` milliseconds
        Flag,
        Text,  // at most `most` bytes
        Address,
        Choice,  // one of `words`
        Code,    // an integer or one of `words`
        Array,
        Object,
    };

    std::string name;
    Type type = Type::Integer;
    int64_t least = 0;
    int64_t most = 0;
    std::vector<std::string> words = {};
    bool required = false;
};

using Fields = std::vector<Field>;

inline Field Required(Field field) {
    field.required = true;
    return field;
}

std::vector<std::string> NamesOf(const Fields& fields);

/// Which field is wrong; none when it is all of them together.
struct Mistake {
    std::string field;
    std::string text;
};

/// `values` is an object.
std::optional<Mistake> CheckFields(const Json& values, const Fields& fields);

/// E.g. "expected an array, found 7".
std::string Expected(const std::string& what, const Json& found);

/// What a word of a line is in a scenario; text when it cannot be of the field's type.
Json FromWord(const Field& field, const std::string& word);
/// The other way round; the value has passed CheckFields().
std::string ToWord(const Field& field, const Json& value);

/// Cut to what fits into a message.
std::string Printable(const std::string& text);
/// The same in quotes.
std::string Quoted(const std::string& text);
std::string Join(const std::vector<std::string>& words);
bool HasControlCharacter(const std::string& text);

}  // namespace simulator

#endif  // SIMULATOR_FIELDS_H_
