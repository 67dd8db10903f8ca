#include "fuzz/fuzz_targets.h"

namespace orva::fuzz {

const std::vector<Target>& targets() {
  static const std::vector<Target> all = {
      {"configuration", configuration},
      {"continuation", continuation},
      {"csv_source", csvSource},
      {"datagrams", datagrams},
      {"history_query", historyQuery},
      {"lua_block", luaBlock},
      {"remote_answer", remoteAnswer},
      {"request_endpoint", requestEndpoint},
      {"segment", segment},
  };
  return all;
}

}  // namespace orva::fuzz
