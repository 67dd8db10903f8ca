#pragma once

#include <string>
#include <vector>

namespace orva::sqlite {

// What the free text "parameters" of an archive's connection may say: pairs key=value, separated by
// semicolons; blanks around a key or value do not count, keys and words in any case.
//
//   synchronous=OFF|NORMAL|FULL|EXTRA   how far a transaction is on the disk when it counts as
//                                       written (default FULL)
//   cacheKiB=N                          page cache of each connection, 64 to 1048576 (default 2000)
//   checkpointPages=N                   pages the write-ahead log may grow to before they are
//                                       copied into the file, 16 to 1000000 (default 1000)
struct StoreParameters {
  std::string synchronous = "FULL";
  int cacheKiB = 2000;
  int checkpointPages = 1000;
};

// Reads the text. What is not understood keeps its default and adds one line to `problems`.
StoreParameters parseStoreParameters(const std::string& text, std::vector<std::string>& problems);
// The same, with the problems traced; `provider` begins each line.
StoreParameters tracedStoreParameters(const char* provider, const std::string& location,
                                      const std::string& text);

}  // namespace orva::sqlite
