#pragma once

// A FIM event processor over a manifest of the test's rules, with its spool
// and baseline store in a fresh directory; the documents it spools are read
// back as parsed JSON.

#include "fim/BaselineEventSqlDataFormatter.h"
#include "fim/EventProcessor.h"
#include "fim/EventRuleManager.h"
#include "fim/JsonDataFormatter.h"
#include "tests/src/fim/TestEvent.h"
#include "tests/support/TempDir.h"

#include "common/Scheduler.h"
#include "common/SpoolStorage.h"
#include "common/SqlStorage.h"
#include "common/util/Json.h"

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <thread>

namespace vantor::fim::test
{

class ProcessorFixture : public testing::Test
{
protected:
    void SetUp() override
    {
        std::filesystem::create_directories(m_dir.File("watched"));
        std::filesystem::create_directories(m_dir.File("spool"));
        m_spool = std::make_unique<common::SpoolStorage>(m_scheduler, m_dir.File("spool"), "fim",
                                                         std::make_unique<internal::JsonDataFormatter>(),
                                                         common::SpoolStorage::Settings{}, 100);
        m_baseline = std::make_unique<common::SqlStorage>(
            m_dir.Path(), "BaselineEvents.db", std::make_unique<BaselineEventSqlDataFormatter>(), true);
    }

    // Loads a manifest with the rules and builds the processor over it;
    // documents are built when Documents() asks, or after settle.
    void Load(const std::string& rules, bool collectHashes = false,
              std::chrono::milliseconds settle = std::chrono::milliseconds(60000))
    {
        const std::string manifest =
            std::string(R"({"data":{"fim":{"policyVersion":"1.0","collectHashes":)") +
            (collectHashes ? "true" : "false") + R"(,"rules":[)" + rules + "]}}}";
        ASSERT_EQ(m_manager.LoadManifest(m_dir.Write("manifest.json", manifest)), std::nullopt);
        internal::EventProcessor::Settings settings;
        settings.settleTime = settle;
        settings.baselineFilesPerSecond = 10000;
        m_processor.reset();
        m_processor =
            std::make_unique<internal::EventProcessor>(m_manager, *m_spool, m_baseline.get(), settings);
    }

    std::string Watched(const std::string& name = "") const { return m_dir.File("watched") + name; }

    // A directory rule over Watched() with the notify words (quoted, comma
    // separated) and extra members.
    std::string WatchedRule(const std::string& id, const std::string& notify,
                            const std::string& extra = "") const
    {
        return R"({"ruleId":")" + id + R"(","ruleType":"directory","imagePath":")" + Watched() +
               R"(","notify":[)" + notify + "]" + (extra.empty() ? "" : "," + extra) + "}";
    }

    // Runs the baseline pass over the paths to its end.
    void Baseline(std::vector<std::string> roots)
    {
        m_processor->StartBaseline(std::move(roots));
        for (int i = 0; i < 1000 && m_processor->HasBaselineWork(); ++i)
        {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        ASSERT_FALSE(m_processor->HasBaselineWork());
    }

    // Builds what waits and answers every document spooled since the last
    // call, once expected of them are there (a little longer, so that one
    // too many shows).
    rapidjson::Document Documents(size_t expected)
    {
        m_processor->Flush();
        rapidjson::Document all;
        all.SetObject();
        all.AddMember("events", rapidjson::Value(rapidjson::kArrayType), all.GetAllocator());
        auto& events = all["events"];
        const auto collect = [&]
        {
            m_spool->FlushDataCache();
            common::SpoolStorage::File file;
            while (m_spool->ReadOldestFile(file) == common::SpoolStorage::ReadStatus::Ok)
            {
                rapidjson::Document document;
                EXPECT_TRUE(util::ParseJson(document, file.data)) << file.data;
                for (auto& event : document["events"].GetArray())
                {
                    events.PushBack(rapidjson::Value(event, all.GetAllocator()), all.GetAllocator());
                }
                m_spool->DeleteFile(file);
            }
        };
        for (int i = 0; i < 200 && events.Size() < expected; ++i)
        {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
            collect();
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(30));
        collect();
        EXPECT_EQ(events.Size(), expected);
        return all;
    }

    // The one document of the event, built now.
    rapidjson::Document One(TestEvent event)
    {
        m_processor->HandleEvent(event);
        auto documents = Documents(1);
        rapidjson::Document document;
        if (documents["events"].Size() == 1)
        {
            document.CopyFrom(documents["events"][0], document.GetAllocator());
        }
        return document;
    }

    static std::vector<std::string> RuleIds(const rapidjson::Value& document)
    {
        std::vector<std::string> ids;
        for (const auto& id : document["associatedRules"].GetArray())
        {
            ids.emplace_back(id.GetString());
        }
        return ids;
    }

    std::optional<FileState> StoredState(const std::string& path)
    {
        return internal::FileStateStore(m_baseline.get()).Get(path);
    }

    vantor::test::TempDir m_dir;
    common::Scheduler m_scheduler;
    RecordingRuleEngine m_engine;
    internal::EventRuleManager m_manager{m_engine, "FIM"};
    std::unique_ptr<common::SpoolStorage> m_spool;
    std::unique_ptr<common::SqlStorage> m_baseline;
    std::unique_ptr<internal::EventProcessor> m_processor;
};

} // namespace vantor::fim::test
