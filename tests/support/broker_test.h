// The base of test suites that share one broker: started before the suite's first test and
// stopped after its last. A suite that also needs a peer program starts it in its own
// SetUpTestSuite through suite.start_program.
#pragma once

#include <gtest/gtest.h>

#include "json_util.h"
#include "nats_server.h"

namespace fqtest {

class BrokerTest : public ::testing::Test {
public:
    static inline BrokerSuite suite;

protected:
    static void SetUpTestSuite() { suite.start(); }
    static void TearDownTestSuite() { suite.stop(); }
    void SetUp() override { ASSERT_TRUE(suite.error.empty()) << suite.error; }
};

}  // namespace fqtest
