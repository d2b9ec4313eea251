#include "tests/support/IncludeLayering.h"
#include "tests/support/TempDir.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

using testing::ElementsAre;
using testing::HasSubstr;
using vantor::test::CheckIncludeLayering;
using vantor::test::TempDir;

namespace
{

TEST(LayeringTest, TheTreeKeepsItsLayers)
{
    const auto problems = CheckIncludeLayering(CORVID_SOURCE_DIR);
    EXPECT_TRUE(problems.empty()) << testing::PrintToString(problems);
}

// A small tree with one planted violation each, so that the check above is
// known to see them.
class PlantedTree : public testing::Test
{
protected:
    void Put(const std::string& rel, const std::string& text)
    {
        const auto path = std::filesystem::path(m_dir.Path()) / rel;
        std::filesystem::create_directories(path.parent_path());
        std::ofstream(path) << text;
    }
    std::vector<std::string> Check() { return CheckIncludeLayering(m_dir.Path()); }

    TempDir m_dir;
};

TEST_F(PlantedTree, CleanTreePasses)
{
    Put("common/src/A.h", "#include \"common/B.h\"\n#include <vector>\n");
    Put("src/edr/E.h", "#include \"common/A.h\"\n");
    Put("src/fim/F.cpp", "#include \"edr/E.h\"\n#include \"fim/F.h\"\n");
    Put("src/edr/daemon/D.cpp", "#include \"audit/X.h\"\n#include \"fim/F.h\"\n");
    EXPECT_TRUE(Check().empty());
}

TEST_F(PlantedTree, CommonReachingIntoSrcFails)
{
    Put("common/src/A.cpp", "#include \"common/A.h\"\n#include \"edr/CommonConfig.h\"\n");
    EXPECT_THAT(Check(), ElementsAre(HasSubstr("common/src/A.cpp:2: \"edr/CommonConfig.h\" reaches outside")));
}

TEST_F(PlantedTree, SubsystemsSeeEachOtherOnlyThroughTheModel)
{
    Put("src/fim/F.cpp", "#include \"audit/RuleEngine.h\"\n");
    Put("src/ioc/I.cpp", "#include \"audit/Event.h\"\n#include \"fim/Config.h\"\n");
    Put("src/audit/A.cpp", "#include \"ioc/Component.h\"\n");
    Put("src/edr/M.cpp", "#include \"edr/daemon/Daemon.h\"\n");
    EXPECT_EQ(Check().size(), 5u) << testing::PrintToString(Check());
}

TEST_F(PlantedTree, BareAndUnrootedNamesFail)
{
    Put("src/audit/Event.h", "");
    Put("src/edr/Event.h", "");
    Put("src/audit/A.cpp", "#include \"Event.h\"\n#include \"Unique.h\"\n#include \"src/edr/Event.h\"\n");
    EXPECT_THAT(Check(), ElementsAre(HasSubstr("\"Event.h\" is an ambiguous bare name"),
                                     HasSubstr("\"Unique.h\" is not rooted"),
                                     HasSubstr("\"src/edr/Event.h\" is not rooted in a layer")));
}

} // namespace
