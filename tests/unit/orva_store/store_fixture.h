#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>
#include <string>

#include "orva_cli/failure.h"
#include "orva_cli/store_commands.h"
#include "orva_store/store_writer.h"
#include "support/temp_folder.h"

namespace orva::store {

struct CommandResult {
  int exitCode = -1;
  std::string out;
  std::string err;
};

// Stores in a folder of their own, and the commands on them.
class StoreTest : public ::testing::Test {
 protected:
  // Runs `orva` with these arguments, without a shell; a Failure's text is in `err`.
  static CommandResult orva(const std::vector<std::string>& arguments) {
    std::vector<const char*> words{"orva"};
    for (const std::string& argument : arguments) words.push_back(argument.c_str());
    std::ostringstream out;
    std::ostringstream err;
    cli::Options options;
    CommandResult result;
    const auto done =
        cli::readOptions(static_cast<int>(words.size()), words.data(), options, out, err);
    try {
      result.exitCode = done ? *done : cli::storeCommand(options, out, err);
    } catch (const cli::UsageError& error) {
      result.exitCode = cli::kExitUsage;
      err << error.what();
    } catch (const cli::Failure& error) {
      result.exitCode = cli::kExitFailure;
      err << error.what();
    }
    result.out = out.str();
    result.err = err.str();
    return result;
  }
  // Writes rows, without the first line, into a file.
  std::string csv(const std::string& rows, const std::string& name = "rows.csv") const {
    return folder_.write(name, "time_ms,item_id,path,type,value,quality\n" + rows);
  }
  CommandResult import(const std::string& rows) const {
    return orva({"store", "import", place(), csv(rows)});
  }
  std::string exported(const std::string& layer = "0") const {
    const CommandResult result = orva({"store", "export", place(), "--layer", layer});
    EXPECT_EQ(result.exitCode, 0) << result.err;
    const std::string head = "time_ms,item_id,path,type,value,quality\n";
    EXPECT_EQ(result.out.substr(0, head.size()), head);
    return result.out.substr(head.size());
  }
  // A change of the file, as damage does it.
  void change(const char* sql) const {
    sqlite::Database db;
    ASSERT_TRUE(db.open(file(), sqlite::Database::Mode::kReadWrite)) << db.failure();
    ASSERT_TRUE(db.exec(sql)) << db.failure();
  }
  // A change of the segments of which their index learns nothing.
  void changeBehindTheIndex(const std::string& sql) const {
    change(("PRAGMA writable_schema = ON;"
            "CREATE TEMP TABLE kept AS SELECT * FROM sqlite_master WHERE name = 'segment_by_time';"
            "DELETE FROM sqlite_master WHERE name = 'segment_by_time';"
            "PRAGMA writable_schema = RESET;" +
            sql + ";PRAGMA writable_schema = ON; INSERT INTO sqlite_master SELECT * FROM kept")
               .c_str());
  }
  std::int64_t number(const char* sql) const {
    sqlite::Database db;
    EXPECT_TRUE(db.open(file(), sqlite::Database::Mode::kReadOnly)) << db.failure();
    const std::int64_t found = db.number(sql, -1);
    EXPECT_FALSE(db.failed()) << db.failure();
    return found;
  }
  std::string place() const { return folder_.path("store"); }
  std::string file() const { return folder_.path("store/archive.db"); }

  test::TempFolder folder_;
};

}  // namespace orva::store
