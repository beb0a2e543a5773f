// Names as people and programs see them, paths, the error table and JSON.
#include "tools/engine/report/error_table.h"
#include "tools/engine/report/names.h"
#include "tools/engine/walk/paths.h"
#include "tools/vexofileop/arguments/errands.h"
#include "tools/vexofileop/arguments/parser.h"
#include "tools/vexofileop/arguments/path_operands.h"
#include "tools/vexofileop/arguments/usage_error.h"
#include "tools/vexofileop/commands/exit_status.h"
#include "tools/vexofileop/output/json.h"

#include "support/error_codes.h"
#include "tests/kit/scratch.h"

#include <gtest/gtest.h>
#include <json-c/json.h>
#include <unistd.h>

namespace {

using namespace engine;
using namespace tool;

TEST(DisplayedName, OrdinaryTextStays) {
    EXPECT_EQ("a b'c\"d$ä漢😀", displayed("a b'c\"d$ä漢😀"));
}

TEST(DisplayedName, ControlCharactersAreEscaped) {
    EXPECT_EQ("a\\nb\\tc\\rd\\x1b[31m\\x7f", displayed("a\nb\tc\rd\x1b[31m\x7f"));
    EXPECT_EQ("\\xc2\\x9b", displayed("\xC2\x9B")); // a control character of two bytes
}

TEST(DisplayedName, BackslashIsDoubledSoThatEscapesAreUnambiguous) {
    EXPECT_EQ("a\\\\nb", displayed("a\\nb"));
}

TEST(DisplayedName, BytesThatAreNoUtf8AreEscaped) {
    EXPECT_EQ("\\xff", displayed("\xFF"));
    EXPECT_EQ("\\xc3", displayed("\xC3"));                            // cut
    EXPECT_EQ("\\xc0\\xaf", displayed("\xC0\xAF"));                   // overlong
    EXPECT_EQ("\\xed\\xa0\\x80", displayed("\xED\xA0\x80"));          // surrogate
    EXPECT_EQ("\\xf4\\x90\\x80\\x80", displayed("\xF4\x90\x80\x80")); // beyond the last code point
    EXPECT_EQ("\\xe2\\x82x", displayed("\xE2\x82x"));
}

TEST(DisplayedName, CharactersThatRearrangeTheLineAreEscaped) {
    EXPECT_EQ("gpj.\\u202eexe", displayed("gpj.\xE2\x80\xAE"
                                          "exe"));
    EXPECT_EQ("\\u2028\\u2066\\u200f", displayed("\xE2\x80\xA8\xE2\x81\xA6\xE2\x80\x8F"));
}

TEST(Utf8, KnowsValidText) {
    EXPECT_TRUE(is_utf8(""));
    EXPECT_TRUE(is_utf8("ä漢😀"));
    EXPECT_FALSE(is_utf8("a\xFF"));
    EXPECT_EQ("a\xEF\xBF\xBD"
              "b",
              as_utf8("a\xFF"
                      "b"));
}

TEST(AbsolutePath, IsCleanedWithoutAskingTheFileSystem) {
    EXPECT_EQ("/a/b", absolute_path("//a/./b//"));
    EXPECT_EQ("/a/../b", absolute_path("/a/../b"));
    EXPECT_EQ("/", absolute_path("/"));
    EXPECT_THROW(absolute_path(""), InvalidRequest);
}

TEST(AbsolutePath, RelativeOneBeginsAtTheWorkingDirectory) {
    const kit::ScratchDirectory scratch;
    ASSERT_EQ(0, ::chdir(scratch.path().c_str()));
    EXPECT_EQ(scratch / "x", absolute_path("x"));
    EXPECT_EQ(scratch / "x", absolute_path("./x"));
    EXPECT_EQ(scratch / "../x", absolute_path("../x"));
    ASSERT_EQ(0, ::chdir("/"));
    EXPECT_EQ("/x", absolute_path("x"));
}

TEST(Errands, DirectoryMeansIntoIt) {
    const kit::ScratchDirectory scratch;
    const auto errands = plan_errands({"/a/one", "/b/two/"}, scratch.path());
    ASSERT_EQ(2u, errands.size());
    EXPECT_EQ("/a/one", errands[0].source);
    EXPECT_EQ(scratch / "one", errands[0].destination);
    EXPECT_EQ("/b/two/", errands[1].source); // for the kernel to refuse when it is a file
    EXPECT_EQ(scratch / "two", errands[1].destination);
    EXPECT_EQ("/a", plan_errands({"/tmp/a"}, "/")[0].destination);
}

TEST(Errands, FileNameIsTheDestinationItself) {
    const kit::ScratchDirectory scratch;
    EXPECT_EQ(scratch / "new", plan_errands({"/a/one"}, scratch / "new")[0].destination);
}

TEST(Errands, MissingDirectoriesAreRefused) {
    const kit::ScratchDirectory scratch;
    EXPECT_THROW(plan_errands({"/a", "/b"}, scratch / "none"), UsageError);
    EXPECT_THROW(plan_errands({"/a"}, scratch / "none/"), UsageError);
    kit::writeFile(scratch / "file", "");
    EXPECT_THROW(plan_errands({"/a"}, scratch / "file/"), UsageError);
    EXPECT_THROW(plan_errands({"/a", "/b"}, scratch / "file"), UsageError);
}

TEST(ErrorTable, EveryCodeOfTheLibraryIsExplained) {
    using vexo::Error;
    for (const Error error : {Error::out_of_memory_ea,
                              Error::out_of_memory,
                              Error::permission,
                              Error::lock,
                              Error::io,
                              Error::source_missing,
                              Error::rename_callback,
                              Error::open,
                              Error::read,
                              Error::write,
                              Error::invalid_argument,
                              Error::host_down,
                              Error::attribute_missing,
                              Error::quota,
                              Error::seek,
                              Error::stat,
                              Error::rename_ea,
                              Error::no_space,
                              Error::file_operation,
                              Error::remove,
                              Error::relocation_move,
                              Error::short_write,
                              Error::make_directory,
                              Error::upgrade_format,
                              Error::device,
                              Error::other,
                              Error::read_only,
                              Error::empty_base_name,
                              Error::not_a_directory,
                              Error::is_directory,
                              Error::destination_exists,
                              Error::too_large_for_fat,
                              Error::cancelled,
                              Error::too_large,
                              Error::share_missing,
                              Error::value_too_large,
                              Error::name_too_long,
                              Error::reflink_unsupported,
                              Error::owner_not_set}) {
        EXPECT_NE(nullptr, find_error(static_cast<uint32_t>(error))) << code_text(static_cast<uint32_t>(error));
    }
    EXPECT_EQ(39u, error_table().size());
}

TEST(ErrorTable, RowsAreSortedAndComplete) {
    uint32_t before = 0;
    for (const ErrorInfo &row : error_table()) {
        EXPECT_LT(before, row.code);
        before = row.code;
        EXPECT_FALSE(row.reason.empty() || row.reason.ends_with('.')) << code_text(row.code);
        EXPECT_TRUE(row.cause.ends_with('.') && row.fix.ends_with('.')) << code_text(row.code);
    }
}

TEST(ErrorTable, UnknownCodesHaveWordsToo) {
    EXPECT_EQ(nullptr, find_error(0x1234));
    EXPECT_EQ(nullptr, find_error(0xFFFF));
    EXPECT_FALSE(reason_of(0).empty());
    EXPECT_FALSE(reason_of(0x1234).empty());
    EXPECT_EQ("destination exists", reason_of(0xA300));
    EXPECT_EQ("0x0A00", code_text(0x0A00));
}

TEST(JsonLine, IsOneLineThatReadsBack) {
    Json object;
    object.add_text("text", "a\n\"\\\x01");
    object.add_name("name", "x/y\xFF");
    object.add_name("good", "ä/\t");
    object.add_number("number", 1LL << 40);
    object.add_flag("flag", true);
    Json inner;
    inner.add_text("code", "0xA300");
    object.add_to_list("list", std::move(inner));
    const std::string line = object.line();
    EXPECT_EQ(std::string::npos, line.find('\n'));
    EXPECT_EQ("{\"text\":\"a\\n\\\"\\\\\\u0001\",\"name\":\"x/y\xEF\xBF\xBD\",\"name_hex\":\"782f79ff\","
              "\"good\":\"ä/\\t\",\"number\":1099511627776,\"flag\":true,\"list\":[{\"code\":\"0xA300\"}]}",
              line);
    json_object *const parsed = json_tokener_parse(line.c_str());
    ASSERT_NE(nullptr, parsed);
    EXPECT_STREQ("a\n\"\\\x01", json_object_get_string(json_object_object_get(parsed, "text")));
    json_object_put(parsed);
}

// What the parser makes of a command line, through the marks and back.
std::vector<std::string> operandsFrom(std::vector<const char *> arguments) {
    arguments.insert(arguments.begin(), {"vexofileop", "do"});
    const Parser parser({.name = "vexofileop", .description = "", .version = "", .footer = ""});
    const Option operands = parser.program().add_command("do", "").add_operands("FILE", "FILE...");
    parser.program().add_command("other", "");
    parser.run(static_cast<int>(arguments.size()), arguments.data());
    return operands.values();
}

TEST(Operands, ArriveByteForByte) {
    const std::vector<const char *> names = {"[a,b]", "[",  "++", "other", "do", "\x01x",
                                             "a,b",   "{}", "%%", "@f",    "-",  ""};
    EXPECT_EQ(std::vector<std::string>(names.begin(), names.end()), operandsFrom(names));
}

TEST(Operands, AllBehindTwoDashesAreNames) {
    EXPECT_EQ((std::vector<std::string>{"a", "-f", "--", "--json", "other"}),
              operandsFrom({"a", "--", "-f", "--", "--json", "other"}));
}

TEST(Operands, UnknownOptionIsRefused) {
    EXPECT_THROW(operandsFrom({"-z"}), UsageError);
}

TEST(ExitStatus, TellsAllSomeAndNone) {
    EXPECT_EQ(0, exit_status(3, 0));
    EXPECT_EQ(0, exit_status(0, 0));
    EXPECT_EQ(1, exit_status(1, 1));
    EXPECT_EQ(2, exit_status(0, 1));
}

} // namespace
