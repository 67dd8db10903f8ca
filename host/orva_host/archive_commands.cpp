#include "orva_host/archive_commands.h"

#include <cstdio>
#include <exception>
#include <limits>
#include <utility>

#include "orva_host/time_text.h"
#include "orva_host/value_text.h"
#include "orva_host/variables.h"
#include "share/status_codes.h"

namespace orva::host {
namespace {

constexpr double kMicrosecondsOfSecond = 1e6;
constexpr std::int64_t kLargest32Bits = std::numeric_limits<std::uint32_t>::max();

std::string statusText(OpcUa_StatusCode status) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%08X", static_cast<unsigned>(status));
  return text;
}

std::string withReason(OpcUa_StatusCode status) {
  switch (status) {
    case status::kBadNotFound:
      return statusText(status) + " (not found)";
    case status::kBadTimeout:
      return statusText(status) + " (timed out)";
    default:
      return statusText(status);
  }
}

// The type that values of an item have; of an item that no variable has it is not known.
OpcUa_Byte typeOfItem(int item) {
  const auto variable = itemByLowBits(static_cast<std::uint32_t>(item));
  return variable ? variable->type : OpcUa_Byte{OpcUaType_Null};
}

// What a filter command sets; the rest stays.
struct FilterSettings {
  boost::optional<bool> allValues;
  boost::optional<bool> writeByChange;
  boost::optional<long long> maxWritePeriod;
  boost::optional<long long> minWritePeriod;
  boost::optional<double> deadband;
  boost::optional<bool> blocksWrite;

  void take(CommandArguments& arguments) {
    const CommandArguments::Setting setting = arguments.setting();
    const std::string& key = setting.key;
    if (key == "allValues") {
      allValues = arguments.flagOf(setting);
    } else if (key == "writeByChange") {
      writeByChange = arguments.flagOf(setting);
    } else if (key == "maxWritePeriod") {
      maxWritePeriod = arguments.integerOf(setting, 0, INT64_MAX);
    } else if (key == "minWritePeriod") {
      minWritePeriod = arguments.integerOf(setting, 0, INT64_MAX);
    } else if (key == "deadband") {
      deadband = arguments.numberOf(setting);
    } else if (key == "blocksWrite") {
      blocksWrite = arguments.flagOf(setting);
    } else {
      arguments.wrong("a filter has no \"" + key + "\"");
    }
  }
};

void takeReadSetting(CommandArguments& arguments, ArchiveRequest& request) {
  const CommandArguments::Setting setting = arguments.setting();
  if (setting.key == "max") {
    request.maxValues = static_cast<std::uint32_t>(arguments.integerOf(setting, 0, kLargest32Bits));
  } else if (setting.key == "interval") {
    request.interval = arguments.numberOf(setting) * kMicrosecondsOfSecond;
    if (request.interval < 0) arguments.wrong("interval: a time span is not negative");
  } else {
    arguments.wrong("a read has no \"" + setting.key + "\"");
  }
}

}  // namespace

struct ArchiveCommands::Command {
  const char* name;
  const char* arguments;
  const char* help;
  void (ArchiveCommands::*run)(CommandArguments&);
};

const ArchiveCommands::Command ArchiveCommands::kCommands[] = {
    {"find", "ID", "makes a variable known, prints its item", &ArchiveCommands::findItem},
    {"id", "ID NAME", "prints the cache id of a variable and path", &ArchiveCommands::getItemId},
    {"write", "ITEM TIME VALUE [STATUS]", "hands a sample to the filter", &ArchiveCommands::write},
    {"filter", "ITEM KEY=VALUE...",
     "sets allValues, writeByChange, blocksWrite (true or false), maxWritePeriod, minWritePeriod "
     "(ticks), deadband",
     &ArchiveCommands::setFilter},
    {"disable-write-by-change", "ITEM [true|false]", "sets the flag; without one, prints it",
     &ArchiveCommands::disableWriteByChange},
    {"read", "ITEM[,ITEM...] FROM TO [max=N] [interval=SECONDS]",
     "prints samples: item, time, value, status", &ArchiveCommands::read},
    {"last", "ITEM", "prints the time of the newest sample, or none", &ArchiveCommands::lastTime},
    {"source", "NUMBER", "goes on with another source; the first one is 0",
     &ArchiveCommands::chooseSource},
    {"help", "", "prints this", &ArchiveCommands::showHelp},
};

std::string ArchiveCommands::help() {
  std::string text;
  for (const Command& command : kCommands) {
    text += std::string("  ") + command.name + (*command.arguments == '\0' ? "" : " ") +
            command.arguments + "\n      " + command.help + "\n";
  }
  return text +
         "TIME, FROM and TO: \"2024-05-17\", \"2024-05-17T08:09:10.1234567Z\" (UTC), ticks of "
         "100 ns since 1601, or now; 0 for FROM or TO is open.\n"
         "Text with blanks stands in double quotes. # begins a comment.\n";
}

bool ArchiveCommands::use(int number) {
  ArchiveSource* source = sources_(number);
  if (source != nullptr) source_ = source;
  return source != nullptr;
}

const ArchiveCommands::Command* ArchiveCommands::find(const std::string& name) {
  for (const Command& command : kCommands) {
    if (name == command.name) return &command;
  }
  return nullptr;
}

CommandResult ArchiveCommands::execute(std::string_view line) {
  result_ = {};
  CommandWords words;
  if (const char* error = splitCommand(line, words)) {
    fail(error);
  } else if (!words.empty()) {
    CommandArguments arguments(words);
    const Command* command = find(words.front().text);
    if (command != nullptr) {
      run(*command, arguments);
    } else {
      fail("no command is called \"" + words.front().text + "\"");
    }
  }
  return std::exchange(result_, {});
}

void ArchiveCommands::run(const Command& command, CommandArguments& arguments) {
  try {
    (this->*command.run)(arguments);
  } catch (const std::exception& error) {
    fail(error.what());
  } catch (...) {
    fail("an exception of an unknown type");
  }
  if (!result_.error.empty()) result_.error.insert(0, std::string(command.name) + ": ");
}

bool ArchiveCommands::complete(const CommandArguments& arguments) {
  fail(arguments.error());
  return result_.error.empty();
}

bool ArchiveCommands::succeeded(const char* operation, int result) {
  if (result == 0) return true;
  fail(std::string(operation) + " returns " + withReason(static_cast<OpcUa_StatusCode>(result)));
  return false;
}

void ArchiveCommands::chooseSource(CommandArguments& arguments) {
  const auto number = static_cast<int>(arguments.integer("NUMBER", INT32_MIN, INT32_MAX));
  if (!complete(arguments)) return;
  if (!use(number)) fail("there is no source " + std::to_string(number));
}

void ArchiveCommands::findItem(CommandArguments& arguments) {
  const std::int64_t id = arguments.integer("ID");
  if (!complete(arguments)) return;
  int item = 0;
  if (!succeeded("FindArchiveItemId", source_->FindArchiveItemId(id, "", item))) return;
  print(std::to_string(item));
}

void ArchiveCommands::getItemId(CommandArguments& arguments) {
  const std::int64_t id = arguments.integer("ID");
  const std::string name = arguments.text("NAME");
  if (!complete(arguments)) return;
  int item = 0;
  if (!succeeded("GetArchiveItemId", source_->GetArchiveItemId(id, name, "", item))) return;
  print(std::to_string(item));
}

void ArchiveCommands::write(CommandArguments& arguments) {
  const int item = arguments.item("ITEM");
  ArchiveRec rec;
  rec.time = arguments.time("TIME");
  const CommandWord value = arguments.word("VALUE");
  if (!arguments.atEnd()) rec.status = arguments.status("STATUS");
  if (!complete(arguments)) return;
  if (!readValueWord(value, typeOfItem(item), rec.value)) {
    fail("VALUE: \"" + value.text + "\" is none of the variable's type");
    return;
  }
  succeeded("AddValue", source_->AddValue(item, rec));
}

void ArchiveCommands::setFilter(CommandArguments& arguments) {
  const int item = arguments.item("ITEM");
  FilterSettings settings;
  do {
    settings.take(arguments);
  } while (!arguments.atEnd());
  if (!complete(arguments)) return;
  succeeded("SetFilter", source_->SetFilter(item, settings.allValues, settings.writeByChange,
                                            settings.maxWritePeriod, settings.minWritePeriod,
                                            settings.deadband, settings.blocksWrite));
}

void ArchiveCommands::disableWriteByChange(CommandArguments& arguments) {
  const int item = arguments.item("ITEM");
  const bool asks = arguments.atEnd();
  const bool disable = !asks && arguments.flag("FLAG");
  if (!complete(arguments)) return;
  if (asks) {
    print(source_->GetDisableWriteByChange(item) ? "true" : "false");
  } else {
    succeeded("SetDisableWriteByChange", source_->SetDisableWriteByChange(item, disable));
  }
}

void ArchiveCommands::read(CommandArguments& arguments) {
  ArchiveRequest request;
  request.items = arguments.items("ITEM");
  request.startTime = arguments.time("FROM");
  request.endTime = arguments.time("TO");
  while (!arguments.atEnd()) takeReadSetting(arguments, request);
  if (!complete(arguments)) return;
  request.id = ++requests_;
  if (!succeeded("AddRequest", source_->AddRequest(&request))) return;
  request.Wait();
  printRecords(request);
  if (isBad(request.status)) fail("the answer has the status " + withReason(request.status));
}

void ArchiveCommands::printRecords(const ArchiveRequest& request) {
  for (const ArchiveRec& rec : request.records) {
    print(std::to_string(rec.item) + " " + exactUtcText(rec.time) + " " + valueWord(rec.value) +
          " " + statusText(rec.status));
  }
}

void ArchiveCommands::lastTime(CommandArguments& arguments) {
  const int item = arguments.item("ITEM");
  if (!complete(arguments)) return;
  long long time = 0;
  if (!succeeded("GetLastTime", source_->GetLastTime(item, time))) return;
  print(time == 0 ? "none" : exactUtcText(time));
}

void ArchiveCommands::showHelp(CommandArguments& arguments) {
  if (complete(arguments)) result_.out = help();
}

}  // namespace orva::host
