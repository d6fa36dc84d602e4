#include "siblings/deployment/deployment.hpp"

#include "support/test.hpp"

namespace tidalcrest::sync::deployment {
namespace {

class Deployment : public ::testing::Test {
 public:
  Deployment() { settings.wheel_cache_dir = wheels.path(); }
  ~Deployment() override { configure({}); }

  // An installer that leaves its arguments in a file and ends with this status.
  void use_installer(const std::string& ending) {
    settings.installer_command = {
        "/bin/sh", "-c", "printf '%s\\n' \"$@\" > '" + wheels.path("args") + "'; " + ending, "sh", "install"};
    configure(settings);
  }

  testing::TempDir wheels;
  Settings settings;
};

TEST_F(Deployment, VersionsAreOrdered) {
  const char* ascending[] = {"0.0.3.dev1", "0.0.3a1",     "0.0.3a2", "0.0.3b1.dev2", "0.0.3b1", "0.0.3rc1",
                             "0.0.3",      "0.0.3.post1", "0.0.10",  "0.1",          "1.0.0.1", "1.2"};
  for (std::size_t low = 0; low < std::size(ascending); ++low) {
    for (std::size_t high = 0; high < std::size(ascending); ++high) {
      const int order = (low > high) - (low < high);
      EXPECT_EQ(_compare_versions(ascending[low], ascending[high]), order) << low << " " << high;
    }
  }
  EXPECT_EQ(_compare_versions("v1.0", " 1.0.0+local.2 "), 0);
  for (const char* bad : {"", "banana", "1..2", "1.0-", "1.0.x", "99999999999999999999"}) {
    EXPECT_THROW(_compare_versions(bad, "1.0"), ValueError) << bad;
  }
  EXPECT_EQ(_compare_versions(_current_version(), "0.0.0"), 1);
}

TEST_F(Deployment, FindsTheHighestWheelAboveTheRunningVersion) {
  EXPECT_EQ(check_update("0.0.3"), std::nullopt);  // no cache set
  configure(settings);
  EXPECT_EQ(check_update("0.0.3"), std::nullopt);
  for (const char* name : {"tidalcrest-0.0.9-py3-none-any.whl", "tidalcrest-0.0.10-py3-none-any.whl",
                           "tidalcrest-banana-py3.whl", "tidalcrest-9.9.tar.gz", "other-9.9-py3.whl"}) {
    wheels.write(name, "");
  }
  EXPECT_EQ(check_update("0.0.3"), "0.0.10");
  EXPECT_EQ(check_update("0.0.10"), std::nullopt);
  EXPECT_THROW(check_update("banana"), ValueError);
  settings.wheel_cache_dir = wheels.path("missing");
  configure(settings);
  EXPECT_THROW(check_update("0.0.3"), ConnectionError);
}

TEST_F(Deployment, InstallsWhatSatisfiesTheFloor) {
  wheels.write("tidalcrest-0.0.9-py3-none-any.whl", "");
  use_installer("exit 0");
  EXPECT_EQ(auto_update("0.0.5").success, true);
  EXPECT_EQ(wheels.read("args"), "install\n" + wheels.path("tidalcrest-0.0.9-py3-none-any.whl") + "\n");

  const UpdateResult above = auto_update("0.1.0");
  EXPECT_EQ(above.success, false);
  EXPECT_EQ(above.warning, "no local wheel of version 0.1.0 or above");

  use_installer("echo token=hunter2 >&2; exit 3");
  const UpdateResult failed = auto_update("0.0.5");
  EXPECT_EQ(failed.success, false);
  EXPECT_THAT(*failed.warning, StartsWith("installer ended with status 3 "));
  EXPECT_EQ(failed.warning->find("hunter2"), std::string::npos);

  settings.installer_timeout_seconds = 0.2;
  use_installer("exec sleep 60");
  EXPECT_EQ(auto_update("0.0.5").warning, "installer did not end within 0.2 seconds");
  settings.installer_command = {"/no/such/program"};
  configure(settings);
  EXPECT_EQ(auto_update("0.0.5").success, false);
}

}  // namespace
}  // namespace tidalcrest::sync::deployment
