#include "orva_host/addin_loader.h"

#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gnu/libc-version.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <stdexcept>

namespace orva::host {
namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;

// The entries of made-up add-ins, and the order in which they were called.
std::vector<std::string> calls;
int initFirst(HostCallback) { return calls.emplace_back("init first"), 0; }
int initSecond(HostCallback) { return calls.emplace_back("init second"), 0; }
int startSecond(HostCallback) { return calls.emplace_back("start second"), 0; }
int failing(HostCallback) { return static_cast<int>(0x80030000U); }
int throwing(HostCallback) { throw std::runtime_error("no"); }
int callsBack(HostCallback host) {
  calls.emplace_back("callback " + std::to_string(host(0, nullptr, 0, nullptr, 0, nullptr) < 0));
  return 0;
}

class AddinLoaderTest : public testing::Test {
 protected:
  AddinLoaderTest() {
    calls.clear();
    std::filesystem::create_directories(folder_);
  }
  ~AddinLoaderTest() override { std::filesystem::remove_all(folder_); }

  std::string errorOf(const std::string& name) const {
    std::string error;
    loadAddin(name, {folder_, "/nowhere"}, error);
    return error;
  }

  const std::string folder_ = testing::TempDir() + "addin_loader." + std::to_string(getpid());
};

TEST_F(AddinLoaderTest, MissingFileIsNamedWithTheFoldersSearched) {
  EXPECT_EQ(errorOf("libnone.so"), "add-in \"libnone.so\": not found in " + folder_ + ", /nowhere");
}

TEST_F(AddinLoaderTest, MissingPathIsNamed) {
  EXPECT_THAT(errorOf("/nowhere/libnone.so"),
              AllOf(HasSubstr("add-in \"/nowhere/libnone.so\": "), HasSubstr("No such file")));
}

TEST_F(AddinLoaderTest, FileThatIsNoLibraryIsRefused) {
  std::ofstream(folder_ + "/libtext.so") << "this is no library, however long it may be";
  EXPECT_THAT(errorOf("libtext.so"), HasSubstr("add-in \"libtext.so\": " + folder_));
}

TEST_F(AddinLoaderTest, LibraryWithoutTheEntryIsRefused) {
  Dl_info info{};
  ASSERT_NE(dladdr(reinterpret_cast<void*>(&gnu_get_libc_version), &info), 0);
  EXPECT_THAT(errorOf(info.dli_fname), EndsWith(" has no entry InitAddin"));
}

TEST_F(AddinLoaderTest, FirstThatCannotBeLoadedEndsTheLoading) {
  std::string error;
  loadAddins({"libnone.so", "libother.so"}, {folder_}, error);
  EXPECT_THAT(error, HasSubstr("libnone.so"));
}

TEST_F(AddinLoaderTest, EntriesAreCalledInOrder) {
  const std::vector<Addin> addins = {{"first", initFirst, nullptr},
                                     {"second", initSecond, startSecond}};
  EXPECT_EQ(initAddins(addins), "");
  EXPECT_EQ(startAddins(addins), "");
  EXPECT_THAT(calls, ElementsAre("init first", "init second", "start second"));
}

TEST_F(AddinLoaderTest, FailingEntryEndsTheStart) {
  EXPECT_EQ(initAddins({{"bad", failing, nullptr}, {"first", initFirst, nullptr}}),
            "add-in \"bad\": InitAddin returned 0x80030000");
  EXPECT_EQ(startAddins({{"bad", initFirst, throwing}}),
            "add-in \"bad\": StartAddin let an exception out");
  EXPECT_TRUE(calls.empty());
}

TEST_F(AddinLoaderTest, EntriesGetACallbackThatServesNothing) {
  EXPECT_EQ(initAddins({{"asks", callsBack, nullptr}}), "");
  EXPECT_THAT(calls, ElementsAre("callback 1"));
}

TEST_F(AddinLoaderTest, DefaultFoldersStandBesideTheProgram) {
  const auto folders = addinFolders("");
  ASSERT_EQ(folders.size(), 2U);
  EXPECT_THAT(folders[0], AllOf(testing::StartsWith("/"), EndsWith("/lib")));
  EXPECT_EQ(folders[1], folders[0] + "/orva");
  EXPECT_THAT(addinFolders("/a/../b"), ElementsAre("/b"));
}

}  // namespace
}  // namespace orva::host
