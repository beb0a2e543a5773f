// What --report writes: everything escaped, nothing from elsewhere, and the whole as JSON.
#include "tools/vexofileop/output/report.h"

#include "tests/kit/scratch.h"
#include "tools/engine/report/failure.h"

#include <gtest/gtest.h>
#include <json-c/json.h>
#include <memory>
#include <string>
#include <sys/stat.h>

namespace {

using engine::LossClass;
using tool::Fate;
using tool::Report;

bool mentions(const std::string &text, const std::string &part) {
    return text.find(part) != std::string::npos;
}

Report filled() {
    Report report("copy", *engine::loss_set("owner"));
    report.begin("/from/<b>&\"'\n\xff", "/to");
    report.count(Fate::copied, 30, 3 << 20);
    report.count(Fate::failed, 1, 0);
    report.begin("/second", "/third");
    report.count(Fate::cloned, 2, 7);
    engine::Outcome outcome;
    outcome.destination = "/to/<new>";
    outcome.backup = "/to/<old>~";
    outcome.oldNames = 2;
    outcome.oldNamesKnown = {"/to/<other>"};
    report.replaced("/from/new", outcome);
    report.kept("/to/gone", "/kept/gone");
    outcome = {};
    outcome.destination = "/to/inside";
    report.replaced("/from/inside", outcome); // of which nothing is left
    outcome.inPlace = true;
    report.replaced("/from/inside", outcome);
    report.problem("/from/<script>", "/to/x", "permission <denied>");
    report.loss("/from/<i>", "/to/\xfe", {LossClass::owner, "owner differs: 1 & 2"});
    report.loss("/from/s", "/to/s", {LossClass::stream, "stream <x>: only at the first, 1 bytes"});
    return report;
}

TEST(Report, PageIsWholeAndEscaped) {
    const std::string page = filled().html(1);
    EXPECT_TRUE(page.starts_with("<!DOCTYPE html>"));
    EXPECT_TRUE(page.ends_with("</html>\n"));
    for (const char *raw :
         {"<b>&", "<script>", "<i>", "<x>", "<denied>", "1 & 2", "\xff", "\xfe", "http:", "https:", "src="}) {
        EXPECT_FALSE(mentions(page, raw)) << raw;
    }
    EXPECT_TRUE(mentions(page, "/from/&lt;b&gt;&amp;&quot;&#39;\\n\\xff"));
    EXPECT_TRUE(
        mentions(page, "<code>/from/&lt;script&gt;</code> &rarr; <code>/to/x</code>: permission &lt;denied&gt;"));
    EXPECT_TRUE(mentions(page, "<b>1 owner not kept</b> (owner, changed, accepted)"));
    EXPECT_TRUE(mentions(page, "<b>1 named stream not kept</b> (stream, lost)"));
    EXPECT_TRUE(mentions(page, "<title>30 copied, 3.0 MiB</title>"));
    EXPECT_TRUE(mentions(page, "exit status 1"));
    EXPECT_TRUE(mentions(page,
                         "<code>/to/&lt;new&gt;</code>: the old one is kept as <code>/to/&lt;old&gt;~</code>: the "
                         "old one had 2 other names, which kept its content then: "
                         "<code>/to/&lt;other&gt;</code></li>"));
    EXPECT_TRUE(mentions(page, "<code>/to/gone</code>: the old one is kept as <code>/kept/gone</code>"));
    EXPECT_TRUE(mentions(page, "<code>/to/inside</code>: written in place"));
}

TEST(Report, JsonHasTheSame) {
    const std::unique_ptr<json_object, decltype(&json_object_put)> report(json_tokener_parse(filled().json(1).c_str()),
                                                                          &json_object_put);
    ASSERT_NE(nullptr, report);
    const auto text = [&](const char *name) {
        json_object *member = nullptr;
        return json_object_object_get_ex(report.get(), name, &member)
                   ? std::string(json_object_to_json_string_ext(member, JSON_C_TO_STRING_PLAIN |
                                                                            JSON_C_TO_STRING_NOSLASHESCAPE))
                   : "(absent)";
    };
    EXPECT_EQ("1", text("version"));
    EXPECT_EQ("\"copy\"", text("command"));
    EXPECT_EQ("1", text("exit_status"));
    EXPECT_TRUE(mentions(text("totals"), R"("copied":{"entries":30,"bytes":3145728})")) << text("totals");
    EXPECT_TRUE(mentions(text("ways"), R"("source":"/second","destination":"/third")")) << text("ways");
    EXPECT_TRUE(mentions(text("ways"), R"("source_hex":")")) << text("ways");
    EXPECT_EQ(R"([{"source":"/from/<script>","destination":"/to/x","reason":"permission <denied>"}])",
              text("problems"));
    EXPECT_TRUE(mentions(text("receipt"), R"({"class":"owner","severity":"changed","count":1,"accepted":true})"));
    EXPECT_EQ(R"([{"source":"/from/new","destination":"/to/<new>","backup":"/to/<old>~","old_names":2,)"
              R"("old_names_known":[{"path":"/to/<other>"}]},{"destination":"/to/gone","backup":"/kept/gone"},)"
              R"({"source":"/from/inside","destination":"/to/inside","in_place":true}])",
              text("replaced"));
    EXPECT_TRUE(mentions(text("losses"), R"({"event":"loss","class":"stream","severity":"lost","source":"/from/s")"));
}

TEST(Report, TakesThePlaceOfAnOlderOneAtOnce) {
    const kit::ScratchDirectory scratch;
    kit::writeFile(scratch / "report.html", "old");
    filled().write(scratch / "report.html", 0);
    EXPECT_TRUE(kit::readFile(scratch / "report.html").starts_with("<!DOCTYPE html>"));
    filled().write(scratch / "report.json", 0);
    EXPECT_EQ('{', kit::readFile(scratch / "report.json").front());
    EXPECT_EQ((std::vector<std::string>{"report.html", "report.json"}), kit::namesIn(scratch.path()));
    ASSERT_EQ(0, ::mkdir((scratch / "d.html").c_str(), 0755));
    EXPECT_THROW(filled().write(scratch / "d.html", 0), engine::Failure);
    EXPECT_THROW(filled().write(scratch / "none/r.html", 0), engine::Failure);
    EXPECT_EQ((std::vector<std::string>{"d.html", "report.html", "report.json"}), kit::namesIn(scratch.path()));
}

} // namespace
