// One page with what a command did in it, for a browser that asks nobody for anything.
#include "tools/quilctl/page/report.h"

#include <gmock/gmock.h>

#include "tests/quilctl/test_run.h"
#include "tools/quilctl/page/page_files.h"
#include "tools/quilctl/page/timeline_rows.h"

namespace quil::tests {
namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

constexpr size_t kReportMost = 2000000;

class QuilctlReport : public QuilctlRun {
  protected:
    std::string reportOf(std::vector<std::string> words) const {
        words.insert(words.end(), {"--report", path("report.html")});
        mCode = quilctl(words).code;
        return board::readWholeFile(path("report.html")).value_or("");
    }
    // What the page finds in itself.
    static nlohmann::json contentOf(const std::string& page) {
        const std::string begin = "<script type=\"application/json\" id=\"report\">";
        const size_t from = page.find(begin) + begin.size();
        return nlohmann::json::parse(page.substr(from, page.find("</script>", from) - from));
    }

    mutable int mCode = 0;
};

board::Event logLine(const std::string& text) {
    return {std::chrono::seconds(1), board::EventKind::kLog, "tag", text, {}};
}

TEST_F(QuilctlReport, BootWithBothUpdatesFitsAndTellsWhatCameOfIt) {
    const std::string board = path("older");
    board::createBoardDirectory(board, board::Product::kHeron, "V0.9.0");
    const std::string page =
        reportOf({"--board", board, "--log-level", "D", "boot", "--update-fpga"});
    EXPECT_EQ(mCode, tools::kOk);
    EXPECT_LT(page.size(), kReportMost);
    const auto content = contentOf(page);
    EXPECT_EQ(content["status"]["mcu"]["version"], "V1.0.0");
    EXPECT_EQ(content["status"]["fpga"]["version"], "V2.1.0");
    EXPECT_EQ(content["result"]["stages"].size(), 11U);
    EXPECT_EQ(content["screen"]["blocks"].size(), 17U);
    EXPECT_EQ(content["lost"], 0);
    EXPECT_GT(content["spans"].size(), 300U);
    std::set<std::string> lanes;
    for (const auto& span : content["spans"]) {
        lanes.insert(content["lanes"][span["lane"].get<size_t>()]);
    }
    EXPECT_THAT(lanes, testing::IsSupersetOf({"stages", "MCU link", "boot loader", "SPI", "GPIO",
                                              "flash", "shell", "log"}));
    EXPECT_THAT(content["command"].get<std::string>(), HasSubstr("boot --update-fpga"));
    EXPECT_THAT(content["text"].get<std::string>(), HasSubstr("FPGA image written"));
}

TEST_F(QuilctlReport, AsksNobodyForAnything) {
    std::string page = reportOf({"self-test"});
    EXPECT_EQ(mCode, tools::kOk);
    EXPECT_THAT(page, HasSubstr("http-equiv=\"Content-Security-Policy\" content=\"default-src "
                                "'none'; script-src 'nonce-"));
    EXPECT_THAT(page, AllOf(Not(HasSubstr("href=\"/")), Not(HasSubstr("src=\"")),
                            Not(HasSubstr("https:")), Not(HasSubstr("@import"))));
    for (const auto& [name, content] : tools::pageFiles()) {
        if (name == "/index.html") continue;
        EXPECT_THAT(page, HasSubstr(std::string(content))) << name;
    }
}

TEST_F(QuilctlReport, TextsOfTheBoardStayTextsWhateverTheyName) {
    const std::string script = "</script><SCRIPT>alert(1)</SCRIPT><!-- \xff\xe2\x80\xa8";
    tools::Recording recording("report.html");
    recording.isMade = true;
    recording.events = {logLine(script), {{}, board::EventKind::kShell, script, script, {1, 0xAB}}};
    tools::Result result;
    result.json["product"] = script;
    result.text << script;
    const std::string page =
        tools::reportOf(recording, {script, result, {{tools::kFailed, script}}});
    EXPECT_THAT(page, AllOf(Not(HasSubstr("<SCRIPT>")), Not(HasSubstr("<!-- ")),
                            Not(HasSubstr("alert(1)</SCRIPT>"))));
    const auto content = contentOf(page);
    const auto& spans = content["spans"];
    EXPECT_THAT(spans[0]["name"].get<std::string>(), HasSubstr("</script><SCRIPT>alert"));
    EXPECT_EQ(spans[1]["fields"][0][1], "01 AB");
    EXPECT_THAT(content["text"].get<std::string>(), HasSubstr("<SCRIPT>"));
}

TEST_F(QuilctlReport, LogLinesThatDifferOnlyInNumbersAreOneRow) {
    const auto rows = tools::reportRowsOf({logLine("byte[0] = 0x1f"), logLine("byte[1] = 0xa2"),
                                           logLine("byte[10] = 0x00"), logLine("end of byte 1")});
    ASSERT_EQ(rows.rows.size(), 2U);
    EXPECT_EQ(rows.rows[0]["name"], "byte[0] = 0x1f .. byte[10] = 0x00 (3 lines)");
    EXPECT_EQ(rows.rows[1]["name"], "end of byte 1");
    EXPECT_EQ(rows.lost, 0U);
}

TEST_F(QuilctlReport, SpanHasItsBytesFieldByField) {
    const std::vector<board::Event> events = {
        {{}, board::EventKind::kRequest, "client", "get", {0x02, 0x01, 0, 0, 0, 0, 1, 0, 0x2A}},
        {{},
         board::EventKind::kSpi,
         "/dev/fpga_spi",
         "write 0x10b00000, 2 bytes",
         {0x02, 0x10, 0xB0, 0x00, 0x00, 0x41, 0x42}},
        {{}, board::EventKind::kRequest, "client", tools::kAnswered, {0x56, 0x31}}};
    using Fields = nlohmann::json::array_t;
    const auto rows = tools::reportRowsOf(events).rows;
    EXPECT_EQ(nlohmann::json(rows[0]["fields"]), Fields({{"command", "02 01 00 00", "0x00000102"},
                                                         {"error code", "00 00", "0x0000"},
                                                         {"length", "01 00", "0x0001"},
                                                         {"body", "2A", "\"*\""}}));
    EXPECT_EQ(nlohmann::json(rows[1]["fields"]), Fields({{"direction", "02", "write"},
                                                         {"address", "10 B0 00 00", "0x10B00000"},
                                                         {"data", "41 42", "\"AB\""}}));
    EXPECT_EQ(nlohmann::json(rows[2]["fields"]), Fields({{"answer", "56 31", "\"V1\""}}));
    EXPECT_EQ(rows[0]["flow"], rows[2]["flow"]);
}

TEST_F(QuilctlReport, LeavesOutWhatWouldMakeItTooLarge) {
    std::vector<board::Event> events(
        20000, {{}, board::EventKind::kSpi, "/dev/fpga_spi", "write", Bytes(200, 0x5A)});
    const auto rows = tools::reportRowsOf(events);
    EXPECT_GT(rows.lost, 0U);
    EXPECT_EQ(rows.rows.size() + rows.lost, events.size());
    EXPECT_LT(rows.rows.dump().size(), kReportMost);
    EXPECT_EQ(rows.rows[0]["fields"][2][1].get<std::string>().size(), 64U * 3 - 1 + 3);
}

TEST_F(QuilctlReport, IsMadeOfACommandThatFailsToo) {
    const std::string page = reportOf({"boot", "--fault", "link"});
    EXPECT_EQ(mCode, tools::kFailed);
    EXPECT_THAT(contentOf(page)["text"].get<std::string>(), HasSubstr("quilctl: "));
}

TEST_F(QuilctlReport, FileThatCannotBeWrittenIsToldBeforeAnythingIsDone) {
    const Said said = quilctl({"boot", "--report", path("none") + "/report.html"});
    EXPECT_EQ(said.code, tools::kNotWritten);
    EXPECT_THAT(said.err, HasSubstr("--report: "));
    EXPECT_THAT(said.out, Not(HasSubstr("configuration")));
}

TEST_F(QuilctlReport, ComesFromEachCommandThatHasALongStory) {
    const std::string board = newBoard();
    const std::string image = board + "/rootfs/vendor/firmware/mcu_Heron.bin";
    const std::vector<std::vector<std::string>> commands = {
        {"demo"},
        {"--board", board, "fpga", "load"},
        {"--board", board, "mcu", "update", "--installed", "V0.9.0"},
        {"--board", board, "mcu", "program", "--chip", "gd32f303", image}};
    for (const auto& words : commands) {
        const auto content = contentOf(reportOf(words));
        EXPECT_EQ(mCode, tools::kOk) << words.back();
        EXPECT_FALSE(content["spans"].empty()) << words.back();
    }
}

}  // namespace
}  // namespace quil::tests
