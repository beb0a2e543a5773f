// What was not carried, in lines and in JSON, and classes of losses on the command line.
#include "tools/vexofileop/arguments/loss_classes.h"
#include "tools/vexofileop/arguments/usage_error.h"
#include "tools/vexofileop/output/loss_json.h"
#include "tools/vexofileop/output/receipt.h"

#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace {

using engine::LossClass;
using tool::Json;
using tool::Receipt;

TEST(LossEvent, HasTheClassWhereAndWhat) {
    EXPECT_EQ(
        R"({"event":"loss","class":"attribute","severity":"lost","source":"/a\nb","destination":"/c",)"
        R"("detail":"attribute user.x: only at the first, 1 bytes"})",
        tool::loss_event("/a\nb", "/c", {LossClass::attribute, "attribute user.x: only at the first, 1 bytes"}).line());
    EXPECT_EQ(R"({"event":"loss","class":"hole","severity":"costs-more","source":"�","source_hex":"ff",)"
              R"("destination":"/c","detail":"d"})",
              tool::loss_event("\xFF", "/c", {LossClass::hole, "d"}).line());
}

TEST(Receipt, CountsByClassWithAnExample) {
    Receipt receipt;
    EXPECT_TRUE(receipt.empty());
    EXPECT_TRUE(receipt.lines().empty());
    EXPECT_TRUE(receipt.add("/a\n", "/b", {LossClass::owner, "owner differs: 1 and 2"}));
    EXPECT_TRUE(receipt.add("/c", "/d", {LossClass::acl_access, "one"}));
    EXPECT_TRUE(receipt.add("/e", "/f", {LossClass::acl_access, "two"}));
    EXPECT_TRUE(receipt.failed());
    EXPECT_EQ(2, receipt.count(LossClass::acl_access));
    EXPECT_EQ((std::vector<std::string>{"1 owner not kept: /a\\n -> /b: owner differs: 1 and 2 (owner)",
                                        "2 access ACLs not kept, for example /c -> /d: one (acl-access)"}),
              receipt.lines());
}

TEST(Receipt, TellsWhatWasAcceptedAndWhatCostsRoom) {
    Receipt receipt(tool::loss_set_of("mode,owner", "--accept"));
    EXPECT_FALSE(receipt.add("/a", "/b", {LossClass::mode, "m"}));
    EXPECT_FALSE(receipt.add("/a", "/b", {LossClass::hole, "h"}));
    EXPECT_FALSE(receipt.failed());
    EXPECT_EQ((std::vector<std::string>{"1 mode not kept, as accepted: /a -> /b: m (mode)",
                                        "1 file with its holes filled, which takes more room: /a -> /b: h (hole)"}),
              receipt.lines());
    Json summary;
    receipt.add_to(summary);
    EXPECT_EQ(R"({"losses":[{"class":"mode","severity":"changed","count":1,"accepted":true},)"
              R"({"class":"hole","severity":"costs-more","count":1,"accepted":false}]})",
              summary.line());
}

TEST(LossClasses, UnknownOnesAreRefusedWithTheKnown) {
    EXPECT_EQ(engine::LossSet().add(LossClass::data).add(*engine::loss_set("acl")),
              tool::loss_set_of("acl,data", "--accept"));
    for (const char *wrong : {"", "acl,", "acls", "acl,,data", "ACL"}) {
        try {
            tool::loss_set_of(wrong, "--accept");
            ADD_FAILURE() << wrong;
        } catch (const tool::UsageError &error) {
            const std::string text = error.what();
            EXPECT_TRUE(text.starts_with("--accept: \"")) << text;
            EXPECT_NE(std::string::npos, text.find("all, acl, fat, data, name-changed")) << text;
        }
    }
}

} // namespace
