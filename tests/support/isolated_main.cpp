// The main of every test executable: before any test runs, HOME and the XDG folders point at a
// fresh temporary tree, so that no test reads or writes the user's files. The tree is removed
// when the tests end.
#include <cstdlib>
#include <string>

#include <boost/filesystem.hpp>
#include <gtest/gtest.h>

namespace {

class IsolatedHome : public ::testing::Environment {
 public:
  void SetUp() override {
    namespace fs = boost::filesystem;
    root_ = fs::temp_directory_path() / fs::unique_path("bexko-test-%%%%-%%%%-%%%%");
    for (const char* sub : {"home", "config", "data", "cache", "runtime"}) {
      fs::create_directories(root_ / sub);
    }
    setenv("HOME", (root_ / "home").c_str(), 1);
    setenv("XDG_CONFIG_HOME", (root_ / "config").c_str(), 1);
    setenv("XDG_DATA_HOME", (root_ / "data").c_str(), 1);
    setenv("XDG_CACHE_HOME", (root_ / "cache").c_str(), 1);
    setenv("XDG_RUNTIME_DIR", (root_ / "runtime").c_str(), 1);
    // System folders would leak the machine's configuration into the tests.
    setenv("XDG_CONFIG_DIRS", (root_ / "config-system").c_str(), 1);
    setenv("XDG_DATA_DIRS", (root_ / "data-system").c_str(), 1);
    setenv("BEXKO_TEST_ROOT", root_.c_str(), 1);
  }
  void TearDown() override {
    boost::system::error_code ignored;
    boost::filesystem::remove_all(root_, ignored);
  }

 private:
  boost::filesystem::path root_;
};

}  // namespace

int main(int argc, char** argv) {
  ::testing::InitGoogleTest(&argc, argv);
  ::testing::AddGlobalTestEnvironment(new IsolatedHome);
  return RUN_ALL_TESTS();
}
