#include <string>
#include <vector>

#include "fuzz/fuzz_input.h"
#include "fuzz/fuzz_targets.h"
#include "orva_database/remote_message.h"
#include "orva_database/remote_source_info.h"

// The bytes are the number of the local variable's type, then the text of an answer to three
// questions with the randIDs 1, 2 and 3.

namespace orva::fuzz {
namespace {

using archive::RemoteAnswer;

// Takes the values of one item in, as the exchange does.
void takeValues(const archive::RemoteItemReply& reply, OpcUa_Byte localType) {
  if (reply.values == nullptr) return;
  archive::RemoteSourceInfo info;
  info.localType = localType;
  std::size_t taken = 0;
  for (const json::Value& value : reply.values->GetArray()) taken += info.addValue(value) ? 1 : 0;
  demand(info.values.size() == taken, "what is taken is there");
  for (const PinPtr& pin : info.values) {
    demand(!pin->value.IsArray(), "no array is taken");
    static_cast<void>(pin->value.ToText());
  }
}

}  // namespace

void remoteAnswer(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return;
  const std::vector<archive::RemoteQuestion> questions{{"a", 1, 0}, {"b", 2, -5}, {"c", 3, 1}};
  RemoteAnswer answer(std::string(reinterpret_cast<const char*>(data) + 1, size - 1));
  if (answer.read(questions) != RemoteAnswer::Kind::good) return;
  for (std::size_t i = 0; i < questions.size(); ++i) {
    takeValues(answer.item(i, questions[i]), static_cast<OpcUa_Byte>(data[0] % 32));
  }
}

}  // namespace orva::fuzz
