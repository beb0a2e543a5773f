// The tool on HFS+, where the kernel has it (tests/vm/run-in-guest): what a Mac has set there is not lost silently.
#include "tests/kit/behaviour.h"
#include "tests/tools/tool_process.h"

#include <sys/stat.h>

namespace {

using kit::runTool;
using kit::ToolResult;

class HfsTool : public kit::Behaviour {
  protected:
    void SetUp() override {
        kit::Behaviour::SetUp();
        try {
            m_volume.emplace(kit::Volume::loop("hfsplus", 64 << 20));
            m_unix.emplace(kit::Volume::loop("ext4", 64 << 20, "-q"));
        } catch (const kit::Unavailable &missing) {
            GTEST_SKIP() << missing.reason;
        }
        processAsNow();
        kit::writeFile(mac("plain"), "text");
        kit::writeFile(mac("letter"), "text");
        kit::setAttribute(mac("letter"), "osx.com.apple.FinderInfo", "TEXTttxt\x04" + std::string(23, '\0'));
        kit::writeFile(mac("tagged"), "text");
        kit::setAttribute(mac("tagged"), "osx.com.example.tag", "red");
    }
    std::string mac(const std::string &name) const { return *m_volume / name; }
    std::string to(const std::string &name) const { return *m_unix / name; }

  private:
    std::optional<kit::Volume> m_volume, m_unix;
};

TEST_F(HfsTool, CopySaysWhatStaysBehind) {
    EXPECT_EQ(0, runTool({"copy", mac("plain"), to("plain")}).status);
    for (const char *name : {"letter", "tagged"}) {
        const ToolResult result = runTool({"copy", mac(name), to(name)});
        EXPECT_EQ(1, result.status) << name;
        EXPECT_NE(std::string::npos, result.err.find("(mac-attributes)")) << result.err;
        EXPECT_EQ("text", kit::readFile(to(name)));
    }
}

TEST_F(HfsTool, MoveToAnotherVolumeLeavesThem) {
    EXPECT_EQ(0, runTool({"move", mac("plain"), to("plain")}).status);
    for (const char *name : {"letter", "tagged"}) {
        const ToolResult result = runTool({"move", mac(name), to(name)});
        EXPECT_EQ(1, result.status) << name;
        EXPECT_NE(std::string::npos, result.err.find("(mac-attributes)")) << result.err;
        EXPECT_TRUE(kit::exists(mac(name)));
        EXPECT_EQ("text", kit::readFile(to(name)));
    }
    EXPECT_EQ(0, runTool({"move", "-f", "--accept", "mac-attributes", mac("tagged"), to("tagged")}).status);
    EXPECT_FALSE(kit::exists(mac("tagged")));
    EXPECT_EQ(0, runTool({"move", mac("letter"), mac("renamed")}).status) << "on its volume it keeps them";
    EXPECT_EQ(32U, kit::attribute(mac("renamed"), "osx.com.apple.FinderInfo").size());
}

TEST_F(HfsTool, MovedTreeKeepsADirectoryThatHasThem) {
    ASSERT_EQ(0, ::mkdir(mac("tree").c_str(), 0755));
    kit::writeFile(mac("tree/file"), "text");
    kit::setAttribute(mac("tree"), "osx.com.example.tag", "red");
    const ToolResult result = runTool({"move", mac("tree"), to("tree")});
    EXPECT_EQ(1, result.status);
    EXPECT_EQ("text", kit::readFile(to("tree/file")));
    EXPECT_EQ("red", kit::attribute(mac("tree"), "osx.com.example.tag"));
    EXPECT_NE(std::string::npos, result.err.find("(mac-attributes)")) << result.err;
    EXPECT_NE(std::string::npos, result.err.find("the source stays for that")) << result.err;
}

TEST_F(HfsTool, RelocationKeepsASourceThatHasThem) {
    ASSERT_EQ(0, ::mkdir(mac("share").c_str(), 0755));
    kit::writeFile(mac("share/file"), "text");
    kit::setAttribute(mac("share/file"), "osx.com.example.tag", "red");
    const ToolResult result = runTool({"relocate", "-y", mac("share"), to("share")});
    EXPECT_EQ(1, result.status);
    EXPECT_NE(std::string::npos, result.err.find("osx.com.example.tag")) << result.err;
    EXPECT_EQ("text", kit::readFile(to("share/file")));
    EXPECT_EQ("red", kit::attribute(mac("share/file"), "osx.com.example.tag"));
}

} // namespace
