// The receiver's one line per request: what came, how it was answered, what
// a stored payload held or why it was refused; never more than one line.

#include "tools/TestReceiver.h"

#include <gtest/gtest.h>

namespace vantor::tools
{
namespace
{

struct Case
{
    const char* name;
    bool statusRoute;
    const char* uri;
    int status;
    const char* payload; // null: refused with the reason below
    const char* rejection;
    const char* line;
};

void PrintTo(const Case& c, std::ostream* out)
{
    *out << c.name;
}

class TestReceiverLineTest : public testing::TestWithParam<Case>
{
};

TEST_P(TestReceiverLineTest, OneLinePerRequest)
{
    const Case& c = GetParam();
    TestReceiver::Received received;
    received.method = "POST";
    received.uri = c.uri;
    received.status = c.status;
    received.bodySize = 42;
    if (c.payload != nullptr)
    {
        received.payload = c.payload;
        received.kind = TestReceiver::PayloadKind(c.statusRoute, false, received);
    }
    else
    {
        received.rejection = c.rejection;
    }
    EXPECT_EQ(TestReceiver::DescribeRequest(received), c.line);
}

INSTANTIATE_TEST_SUITE_P(
    Requests, TestReceiverLineTest,
    testing::Values(Case{"FimDocuments", false, "/fim?a=1", 200, R"({"events":[{},{},{}]})", "",
                         "POST /fim 200 42 bytes, fim documents: 3"},
                    Case{"StatusRecords", true, "/edr/status", 200, R"({"status":[{}]})", "",
                         "POST /edr/status 200 42 bytes, status records: 1"},
                    Case{"SomethingElse", false, "/fim", 200, "not json", "",
                         "POST /fim 200 42 bytes, payload"},
                    Case{"RefusalOnOneLine", false, "/fim", 400, nullptr, "bad\nsignature\r",
                         "POST /fim 400 42 bytes, refused: bad signature "}),
    [](const testing::TestParamInfo<Case>& info) { return info.param.name; });

} // namespace
} // namespace vantor::tools
