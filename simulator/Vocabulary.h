#ifndef SIMULATOR_VOCABULARY_H_
#define SIMULATOR_VOCABULARY_H_

#include <chrono>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "simulator/Fields.h"
#include "simulator/ReceiverSimulator.h"

// What commands, scenarios and the state's report call the members of senders and faults.
namespace simulator {

using OrderedJson = nlohmann::ordered_json;

Field WholeNumber(const std::string& name, int64_t least, int64_t most);
Field Byte(const std::string& name);
Field Int32(const std::string& name);
/// A command byte, or the request's name.
Field RequestCode(const std::string& name);
int CodeOf(const Json& value);

/// "key" first.
const Fields& SenderFields();
/// Members that `values` does not have stay.
void SetMembers(Sender& sender, const Json& values);
/// What is not given is as in SampleSender().
Sender MakeSender(const Json& values);
OrderedJson ToJson(const Sender& sender);

Field KindField();
/// Those that the kind uses, besides "kind"; those of all kinds when the values name none.
Fields FaultFields(const Json& values);
FaultKind KindOf(const Json& values);
Fault MakeFault(const Json& values);
OrderedJson ToJson(const Fault& fault);

}  // namespace simulator

#endif  // SIMULATOR_VOCABULARY_H_
