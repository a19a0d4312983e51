#include "rtmps_policy.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>

#include "temp_dir.h"

namespace {

constexpr char kVariable[] = "GNUTLS_SYSTEM_PRIORITY_FILE";
constexpr char kRtmps[] = "rtmps://host/app/s";

// Without the variable for as long as a test lasts.
class RtmpsPolicy : public testing::Test {
  protected:
    void SetUp() override { unsetenv(kVariable); }
    void TearDown() override { unsetenv(kVariable); }

    std::vector<std::string> m_warnings;
};

TEST_F(RtmpsPolicy, IsNeededForWhatTheLibraryPlaysWithLibrtmp) {
    EXPECT_TRUE(tool::HasRtmps({"udp://127.0.0.1:1", kRtmps}));
    EXPECT_FALSE(tool::HasRtmps({"rtmp://host/app/s", "RTMPS://host/app/s", "https://host/rtmps.m3u8", "rtsps://host/s"}));
}

TEST_F(RtmpsPolicy, IsTheInstalledFile) {
    EXPECT_EQ(*tool::WithoutTls13(""), "\n" + ReadAll(std::getenv("RTMPS_POLICY")));
}

TEST_F(RtmpsPolicy, KeepsThatOfTheMachine) {
    const auto policy = tool::WithoutTls13("[overrides]\ndisabled-version = tls1.0");
    ASSERT_TRUE(policy);
    EXPECT_EQ(policy->find("[overrides]\ndisabled-version = tls1.0\n"), 0U);
    EXPECT_NE(policy->find("\n[overrides]\ndisabled-version = tls1.3\n"), std::string::npos);
}

TEST_F(RtmpsPolicy, DoesNotGoWithAnAllowList) {
    EXPECT_FALSE(tool::WithoutTls13("[global]\n Override-Mode =allowlist\r\n[overrides]\nenabled-version = tls1.3\n"));
    EXPECT_TRUE(tool::WithoutTls13("[global]\noverride-mode = blocklist\n"));
}

TEST_F(RtmpsPolicy, IsAFileThatLastsAsLongAsItIsHeld) {
    std::string path;
    {
        const tool::Fd file = tool::UseRtmpsPolicy({kRtmps}, m_warnings);
        ASSERT_TRUE(file);
        ASSERT_NE(std::getenv(kVariable), nullptr);
        path = std::getenv(kVariable);
        EXPECT_NE(ReadAll(path).find("disabled-version = tls1.3"), std::string::npos);
    }
    EXPECT_FALSE(std::ifstream(path));
    EXPECT_TRUE(m_warnings.empty());
}

TEST_F(RtmpsPolicy, OfTheMachineIsReadFromItsFile) {
    const TempDir dir;
    const std::string own = dir.Write("config", "# the machine's\n");
    const tool::Fd file = tool::UseRtmpsPolicy({kRtmps}, m_warnings, own.c_str());
    ASSERT_NE(std::getenv(kVariable), nullptr);
    EXPECT_EQ(ReadAll(std::getenv(kVariable)).find("# the machine's\n"), 0U);
    EXPECT_TRUE(m_warnings.empty());
}

TEST_F(RtmpsPolicy, AllowListOfTheMachineStaysWithAWarning) {
    const TempDir dir;
    const std::string own = dir.Write("config", "[global]\noverride-mode = allowlist\n");
    EXPECT_FALSE(tool::UseRtmpsPolicy({kRtmps}, m_warnings, own.c_str()));
    EXPECT_EQ(std::getenv(kVariable), nullptr);
    EXPECT_EQ(m_warnings, std::vector<std::string>{"RTMPS servers that send session tickets of TLS 1.3 cannot be played: " +
                                                   own + " is an allow list"});
}

TEST_F(RtmpsPolicy, IsNotSetWhereNobodyNeedsIt) {
    EXPECT_FALSE(tool::UseRtmpsPolicy({"https://host/a.m3u8", "rtmp://host/app/s"}, m_warnings));
    EXPECT_EQ(std::getenv(kVariable), nullptr);
}

TEST_F(RtmpsPolicy, OfTheUserStays) {
    for (const char *own : {"/own/policy", ""}) {
        setenv(kVariable, own, 1);
        EXPECT_FALSE(tool::UseRtmpsPolicy({kRtmps}, m_warnings));
        EXPECT_STREQ(std::getenv(kVariable), own);
    }
    EXPECT_TRUE(m_warnings.empty());
}

}  // namespace
