#include <gtest/gtest.h>

#include "platform/host/Features.h"
#include "tests/support/Sandbox.h"

namespace {

class FeaturesTest : public cstest::SandboxTest {
 protected:
  void WriteFeatures(const std::string& content) const { WriteFile("/etc/talvex/features", content); }
};

TEST_F(FeaturesTest, MissingFileGivesDefaults) {
  EXPECT_TRUE(Host::FeatureState_IsEnabled(Host::FEATURE_HOST_CONFIG_FILE));
  EXPECT_FALSE(Host::FeatureState_IsEnabled(Host::FEATURE_REDUCED_BACKUP_RESERVATION));
  EXPECT_TRUE(Host::FeatureState_IsEnabled(Host::FEATURE_SCHEMA_VERSIONING));
  EXPECT_TRUE(Host::FeatureState_IsEnabled(Host::FEATURE_SMARTNIC_SCHEMA_FILTER));
}

TEST_F(FeaturesTest, LinesSwitchFeaturesAndCommentsDoNot) {
  WriteFeatures(
      "# platform switches\n"
      "62=off\n"
      "70=on\n"
      "# 45=on\n"
      "  41 = off   # set by the installer\r\n"
      "620=on\n"
      "garbage line\n");
  struct Case {
    int feature;
    bool enabled;
  };
  const Case cases[] = {
      {Host::FEATURE_SCHEMA_VERSIONING, false},
      {Host::FEATURE_SMARTNIC_SCHEMA_FILTER, true},
      {Host::FEATURE_REDUCED_BACKUP_RESERVATION, false},  // commented out: default
      {Host::FEATURE_HOST_CONFIG_FILE, false},
      {6, true},  // not named: default on
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.feature);
    EXPECT_EQ(Host::FeatureState_IsEnabled(c.feature), c.enabled);
  }
}

TEST_F(FeaturesTest, UnknownValueKeepsTheDefault) {
  WriteFeatures("45=yes\n62=maybe\n");
  EXPECT_FALSE(Host::FeatureState_IsEnabled(Host::FEATURE_REDUCED_BACKUP_RESERVATION));
  EXPECT_TRUE(Host::FeatureState_IsEnabled(Host::FEATURE_SCHEMA_VERSIONING));
}

TEST_F(FeaturesTest, ChangedFileIsSeenByTheNextQuery) {
  WriteFeatures("45=on\n");
  EXPECT_TRUE(Host::FeatureState_IsEnabled(Host::FEATURE_REDUCED_BACKUP_RESERVATION));
  WriteFeatures("45=off\n");
  EXPECT_FALSE(Host::FeatureState_IsEnabled(Host::FEATURE_REDUCED_BACKUP_RESERVATION));
  Remove("/etc/talvex/features");
  EXPECT_FALSE(Host::FeatureState_IsEnabled(Host::FEATURE_REDUCED_BACKUP_RESERVATION));
  WriteFeatures("62=off\n");
  FeatureState_InitSilentMode();
  EXPECT_FALSE(Host::FeatureState_IsEnabled(Host::FEATURE_SCHEMA_VERSIONING));
  EXPECT_TRUE(log_.Lines().empty());
}

}  // namespace
