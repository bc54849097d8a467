#include "Base/MCPError.hpp"

#include <gtest/gtest.h>

namespace tidewell {
namespace {

TEST(MCPError, EachCaseHasItsJSONRPCCode) {
    EXPECT_EQ(MCPError::invalidParams("").code(), -32602);
    EXPECT_EQ(MCPError::appNotRunning("").code(), -32000);
    EXPECT_EQ(MCPError::notFound("").code(), -32001);
    EXPECT_EQ(MCPError::internalError("").code(), -32603);
}

TEST(MCPError, ALiveErrorBringsItsOwnCode) {
    const MCPError error = MCPError::live(-32000, "resource unavailable");
    EXPECT_EQ(error.kind(), MCPError::Kind::live);
    EXPECT_EQ(error.code(), -32000);
    EXPECT_EQ(error.message(), "resource unavailable");
    EXPECT_EQ(MCPError::live(17, "").code(), 17);
}

TEST(MCPError, TheMessageIsItsWholeDescription) {
    EXPECT_STREQ(MCPError::notFound("unknown prompt `x`").what(), "unknown prompt `x`");
}

}  // namespace
}  // namespace tidewell
