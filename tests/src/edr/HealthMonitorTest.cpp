#include "edr/daemon/HealthMonitor.h"
#include "tests/support/TempDir.h"

#include "common/SqlStorage.h"
#include "common/util/Json.h"
#include "edr/AHSSqlDataFormatter.h"

#include <gtest/gtest.h>

using namespace vantor::edr;
using namespace std::chrono_literals;

namespace
{

class HealthMonitorTest : public testing::Test
{
protected:
    HealthMonitorTest()
        : m_store(std::make_shared<vantor::common::SqlStorage>(
              m_dir.Path(), AHSRecordWriter::kDbFileName, std::make_unique<AHSSqlDataFormatter>(), false))
        , m_monitor(std::make_shared<AHSRecordWriter>(m_store), 60s)
    {
    }

    // A source of two totals and a level, as the test sets them.
    void AddCounterSource(bool fromFirstReading = false)
    {
        HealthMonitor::Source source;
        source.contextId = "test.queue";
        source.statusCode = AHSStatusCode::kParserQueueDropped;
        source.fromFirstReading = fromFirstReading;
        source.read = [this]() -> std::optional<HealthMonitor::Reading>
        {
            if (m_unreadable)
            {
                return std::nullopt;
            }
            return HealthMonitor::Reading{{{"buffers", m_buffers}, {"bytes", m_bytes}}, {{"level", 7}}, {}};
        };
        m_monitor.AddSource(std::move(source));
    }

    // Fields of the records written so far, oldest first.
    std::vector<std::string> Records()
    {
        std::vector<std::string> fields;
        for (const auto& row : m_store->Read(AHSSqlDataFormatter::kTableName, "ORDER BY rowid").rows)
        {
            const auto record = AHSSqlDataFormatter::ParseRecord(row);
            EXPECT_EQ(record.contextId, "test.queue");
            EXPECT_EQ(record.statusCode, AHSStatusCode::kParserQueueDropped);
            EXPECT_EQ(record.state, static_cast<int64_t>(AHSState::Degraded));
            fields.push_back(record.additionalFields);
        }
        return fields;
    }

    vantor::test::TempDir m_dir;
    std::shared_ptr<vantor::common::SqlStorage> m_store;
    HealthMonitor m_monitor;
    uint64_t m_buffers = 0;
    uint64_t m_bytes = 0;
    bool m_unreadable = false;
};

TEST_F(HealthMonitorTest, WritesChangesSinceTheLastRecordNothingWhenNothingMovedAndALastOneAtClose)
{
    AddCounterSource();
    EXPECT_EQ(m_monitor.Sample(), 0u); // all zero: nothing to tell

    m_buffers = 3;
    m_bytes = 300;
    EXPECT_EQ(m_monitor.Sample(), 1u);
    EXPECT_EQ(m_monitor.Sample(), 0u); // unchanged totals

    m_buffers = 5; // one total moved: the record has both, as changes
    EXPECT_EQ(m_monitor.Sample(), 1u);

    m_unreadable = true; // a reading that fails keeps the last totals
    m_buffers = 9;
    EXPECT_EQ(m_monitor.Sample(), 0u);
    m_unreadable = false;
    EXPECT_EQ(m_monitor.Sample(), 1u);

    m_buffers = 1; // a total that went down counts from zero
    m_bytes = 310;
    EXPECT_EQ(m_monitor.Sample(), 1u);

    m_buffers = 3; // close takes a last sample and reads no more
    m_monitor.Close();
    m_buffers = 4;
    EXPECT_EQ(m_monitor.Sample(), 0u);

    EXPECT_EQ(Records(), (std::vector<std::string>{
                             R"({"buffers":3,"bytes":300,"level":7})", R"({"buffers":2,"bytes":0,"level":7})",
                             R"({"buffers":4,"bytes":0,"level":7})", R"({"buffers":1,"bytes":10,"level":7})",
                             R"({"buffers":2,"bytes":0,"level":7})"}));
}

TEST_F(HealthMonitorTest, CountersThatBeganBeforeTheDaemonStartFromTheirFirstReading)
{
    m_buffers = 1000;
    AddCounterSource(true);
    EXPECT_EQ(m_monitor.Sample(), 0u);
    m_buffers = 1004;
    EXPECT_EQ(m_monitor.Sample(), 1u);
    EXPECT_EQ(Records(), (std::vector<std::string>{R"({"buffers":4,"bytes":0,"level":7})"}));
}

} // namespace
